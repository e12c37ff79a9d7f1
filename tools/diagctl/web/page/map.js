// The network drawn: nodes in their ring, ports and links. Nodes can be put elsewhere, and stay there.

import { h, morph, put, setText, svg } from "./dom.js";
import { choose as chooseFile, save } from "./file.js";
import { layout, layoutText, parseLayout, ringPlaces } from "./layout.js";
import { colourOf, faultsOf, goneWords, isGone, portWords, portsOf, ringOrder, titleOf } from "./nodes.js";
import { differences, mapAddress, networkKey, networkState, networkTitle } from "./state.js";
import { store } from "./store.js";
import { cut, listOf, valueText } from "./text.js";
import { Viewport } from "./viewport.js";

const RADIUS = 26;
const LAMP = 10;
const STEP = 22; // of a node that is moved with the keyboard
const DRAG_FROM = 4; // pixels; less is a click
const FRONT = "B"; // the port that leads to the next node of the ring
const BACK = "A"; // and to the one before

// All of them are drawn and one is seen: a colour that changes is painted anew, but nothing is laid out again, which takes
// a browser long in a drawing with many texts.
const LAMP_SHAPES = {
    disc: `M${-LAMP} 0a${LAMP} ${LAMP} 0 1 0 ${2 * LAMP} 0a${LAMP} ${LAMP} 0 1 0 ${-2 * LAMP} 0`,
    diamond: `M0 ${-LAMP - 3}L${LAMP + 3} 0L0 ${LAMP + 3}L${-LAMP - 3} 0z`,
    square: `M${1 - LAMP} ${1 - LAMP}h${2 * LAMP - 2}v${2 * LAMP - 2}h${2 - 2 * LAMP}z`,
};

const HELP =
    "Nodes stand in the order of their numbers, where faults have told them, else of their names or addresses; links " +
    "are drawn from port B to the next node's port A. Drag nodes, or move the focused one with Shift and the arrow " +
    "keys; the arrow keys alone go from node to node, Enter opens one.";

// From the bottom up.
const FREE_PLACES = [0.5, -0.5, 1.5, -1.5, 2.5, -2.5, 3.5, -3.5].map(
    (step) => Math.PI / 2 + (step * Math.PI) / 4,
);
const APART = 0.6; // between ports: less would hide one

const NOTHING = { nodes: new Map() }; // until a site's first card is known
let shownKey = ""; // of the network; outlasts a look at another view

const translate = ({ x, y }) => `translate(${x.toFixed(1)} ${y.toFixed(1)})`;
const direction = (from, to) => Math.atan2(to.y - from.y, to.x - from.x);
const distance = (a, b) => Math.abs(Math.atan2(Math.sin(a - b), Math.cos(a - b)));
const pointAt = (place, angle, distance) => ({
    x: place.x + Math.cos(angle) * distance,
    y: place.y + Math.sin(angle) * distance,
});

function lamp(port) {
    return svg(
        "g",
        {
            class: "maplamp",
            "data-port": port.port,
            "data-colour": colourOf(port),
            "data-fault": faultsOf(port).join(" "),
        },
        Object.entries(LAMP_SHAPES).map(([name, d]) => svg("path", { class: name, d })),
        svg("text", { dy: "0.36em" }, port.port === "CPU" ? "c" : port.port),
        svg("circle", { class: "badge", cx: LAMP, cy: -LAMP, r: 4 }),
    );
}

// One node of the drawing.
class Item {
    constructor(node) {
        this.mac = node.mac;
        this.angles = new Map(); // port to the direction of its link
        // A title, not a label: it is shown to those who point at the node, too.
        this.title = svg("title");
        this.body = svg("g");
        this.element = svg("a", { class: "item", tabindex: "-1", draggable: "false" }, this.title, this.body);
        this.show(node);
    }

    show(node) {
        this.node = node;
        const { element } = this;
        put(element, {
            href: `#/node/${encodeURIComponent(node.mac)}`,
            "data-node": node.mac,
            "data-present": String(node.present !== false),
            "data-reachable": String(node.reachable !== false),
        });
        const where = goneWords(node) ?? "present";
        setText(
            this.title,
            [
                titleOf(node),
                where,
                ...portsOf(node).map(portWords),
                ...listOf(node.problems).map(valueText),
            ].join("; "),
        );
        const lamps = portsOf(node).map(lamp);
        const number = typeof node.number === "number" ? String(node.number) : "";
        const content = svg(
            "g",
            { "aria-hidden": "true" },
            svg("circle", { r: RADIUS, class: node.local ? "body local" : "body" }),
            svg("text", { class: "number", dy: "0.36em" }, number),
            lamps,
            svg(
                "text",
                { class: "name", y: RADIUS + 28 },
                node.name ? cut(titleOf(node), 12) : node.mac.slice(-8),
            ),
        );
        this.turn(lamps);
        morph(this.body, content);
    }

    // Ports with a link stand where it begins, the others below, or where there is room.
    turn(lamps = this.element.querySelectorAll("[data-port]")) {
        const taken = [...this.angles.values()];
        const places = FREE_PLACES.filter((angle) => taken.every((other) => distance(angle, other) > APART));
        let free = 0;
        for (const element of lamps) {
            const angle =
                this.angles.get(element.dataset.port) ??
                places[free++] ??
                FREE_PLACES[free % FREE_PLACES.length];
            put(element, { transform: translate(pointAt({ x: 0, y: 0 }, angle, RADIUS)) });
        }
    }

    move(place) {
        this.place = place;
        put(this.element, { transform: translate(place) });
    }

    port(name) {
        return portsOf(this.node).find((port) => port.port === name);
    }
}

// A line between two items, or from one to the middle of the map.
class Link {
    constructor(from, fromPort, to, toPort, kind = "") {
        Object.assign(this, { from, fromPort, to, toPort, kind });
        this.lines = [svg("line"), svg("line")];
        this.cross = svg("path", { class: "cross", d: "M-7 -7L7 7M-7 7L7 -7" });
        this.title = svg("title");
        this.element = svg("g", {}, this.title, this.lines, this.cross);
    }

    ends() {
        return [
            [this.from, this.fromPort],
            [this.to, this.toPort],
        ].filter(([item]) => item);
    }

    show() {
        const ends = this.ends();
        const isDown = ends.some(([item, name]) => faultsOf(item.port(name) ?? {}).includes("link-down"));
        const isGoneEnd = ends.some(([item]) => isGone(item.node));
        const state = this.kind || (isDown ? "down" : isGoneEnd ? "gone" : "up");
        put(this.element, { class: `link ${state}` });
        put(this.cross, { visibility: state === "down" ? "visible" : "hidden" });
        const words = { down: "link down", gone: "a node is gone", up: "no fault", miswired: "miswired" }[
            state
        ];
        setText(
            this.title,
            `${ends.map(([item, port]) => `${titleOf(item.node)} ${port}`).join(" to ")}: ${words}`,
        );
        this.isDown = state === "down";
    }

    place(middle) {
        const a = this.from.place;
        const b = this.to ? this.to.place : middle;
        const angle = direction(a, b);
        // A miswired link leaves the ports of the ring where they are.
        if (!this.kind) {
            this.from.angles.set(this.fromPort, angle);
            this.from.turn();
            if (this.to) {
                this.to.angles.set(this.toPort, angle + Math.PI);
                this.to.turn();
            }
        }
        const length = Math.hypot(b.x - a.x, b.y - a.y);
        const start = pointAt(a, angle, RADIUS);
        const end = pointAt(a, angle, this.to ? length - RADIUS : length * 0.8);
        const half = { x: (start.x + end.x) / 2, y: (start.y + end.y) / 2 };
        const gap = this.isDown ? Math.min(14, length / 6) : 0;
        const stops = [
            [start, pointAt(half, angle, -gap)],
            [pointAt(half, angle, gap), end],
        ];
        stops.forEach(([from, to], index) => {
            const line = this.lines[index];
            put(line, {
                x1: from.x.toFixed(1),
                y1: from.y.toFixed(1),
                x2: to.x.toFixed(1),
                y2: to.y.toFixed(1),
            });
        });
        put(this.cross, { transform: translate(half) });
    }
}

// Neighbours of the ring are linked from port B to port A, as panels are wired. A node with a single port is on a
// shared network, whose middle is that of the map.
function ringLinks(items) {
    const ring = items.filter((item) => portsOf(item.node).length !== 1);
    const links = items
        .filter((item) => portsOf(item.node).length === 1)
        .map((item) => new Link(item, portsOf(item.node)[0].port, null, null));
    if (ring.length > 1) {
        const count = ring.length === 2 ? 1 : ring.length;
        for (let i = 0; i < count; i++) {
            links.push(new Link(ring[i], FRONT, ring[(i + 1) % ring.length], BACK));
        }
    }
    return links;
}

function miswiredLinks(network, items) {
    const byNumber = new Map(items.map((item) => [item.node.number, item]));
    return listOf(network.miswired_links).flatMap((link) => {
        const from = byNumber.get(link.number);
        const to = byNumber.get(link.peer_number);
        return from && to ? [new Link(from, link.port, to, link.peer_port, "miswired")] : [];
    });
}

// The drawing of one network.
class Drawing {
    constructor(surface) {
        this.surface = surface;
        this.links = svg("g");
        this.nodes = svg("g");
        surface.append(this.links, this.nodes);
        this.items = new Map(); // MAC address to Item
        this.order = [];
        this.edges = [];
        this.shape = "";
    }

    // What decides which links there are and where nodes stand without anybody's doing.
    #shapeOf(network, order) {
        return JSON.stringify([
            order.map((node) => [node.mac, portsOf(node).length]),
            network.miswired_links,
        ]);
    }

    update(network, dirty) {
        for (const mac of dirty ?? network.nodes.keys()) {
            const node = network.nodes.get(mac);
            if (node && this.items.has(mac)) {
                this.items.get(mac).show(node);
            }
        }
        const order = ringOrder(network.nodes.values());
        const shape = this.#shapeOf(network, order);
        if (shape !== this.shape) {
            this.shape = shape;
            this.#rebuild(network, order);
            return true;
        }
        for (const edge of this.edges) {
            if (!dirty || edge.ends().some(([item]) => dirty.has(item.mac))) {
                edge.show();
                edge.place(this.middle);
            }
        }
        return false;
    }

    #rebuild(network, order) {
        const items = order.map((node) => this.items.get(node.mac) ?? new Item(node));
        this.items = new Map(items.map((item) => [item.mac, item]));
        this.order = items;
        this.edges = [...ringLinks(items), ...miswiredLinks(network, items)];
        this.links.replaceChildren(...this.edges.map((edge) => edge.element));
        const focused = document.activeElement;
        this.nodes.replaceChildren(...items.map((item) => item.element));
        if (this.nodes.contains(focused)) {
            focused.focus({ preventScroll: true });
        }
        items.forEach((item) => item.angles.clear());
        this.edges.forEach((edge) => edge.show());
        this.arrange();
    }

    arrange() {
        const places = ringPlaces(this.order.length);
        this.middle = places.reduce(
            (sum, { x, y }) => ({ x: sum.x + x / places.length, y: sum.y + y / places.length }),
            { x: 0, y: 0 },
        );
        this.order.forEach((item, index) => item.move(layout.get(item.mac) ?? places[index]));
        this.edges.forEach((edge) => edge.place(this.middle));
    }

    move(item, place) {
        item.move(place);
        layout.put(item.mac, place);
        for (const edge of this.edges) {
            if (edge.from === item || edge.to === item) {
                edge.place(this.middle);
            }
        }
    }

    itemOf(target) {
        return this.items.get(target.closest?.("[data-node]")?.getAttribute("data-node"));
    }

    bounds() {
        const places = this.order.map((item) => item.place);
        const pad = RADIUS + 44;
        const [left, right] = [
            Math.min(...places.map(({ x }) => x)) - pad,
            Math.max(...places.map(({ x }) => x)) + pad,
        ];
        const [top, bottom] = [
            Math.min(...places.map(({ y }) => y)) - pad,
            Math.max(...places.map(({ y }) => y)) + pad,
        ];
        return places.length > 0
            ? { x: left, y: top, width: right - left, height: bottom - top }
            : { x: 0, y: 0, width: 100, height: 100 };
    }
}

const ARROWS = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };

// Moving nodes and the picture, by pointer and by keyboard. One node at a time is in the tab order.
function makeMovable(surface, drawing, viewport) {
    const fingers = new Map(); // pointer id to where it is
    let drag = null;
    let hasDragged = false;

    function chooseItem(item) {
        drawing.order.forEach((other) => other.element.setAttribute("tabindex", other === item ? "0" : "-1"));
    }

    surface.addEventListener("pointerdown", (event) => {
        fingers.set(event.pointerId, event);
        hasDragged = false;
        if (fingers.size === 1 && event.button === 0) {
            const item = drawing.itemOf(event.target);
            drag = { item, start: event, place: item?.place, view: viewport.view, scale: viewport.scale() };
        } else {
            drag = null;
        }
    });
    surface.addEventListener("pointermove", (event) => {
        const before = fingers.get(event.pointerId);
        if (!before) {
            return;
        }
        if (fingers.size === 2) {
            const [other] = [...fingers.values()].filter((finger) => finger.pointerId !== event.pointerId);
            viewport.pinch(before, event, other);
        } else if (drag) {
            const [x, y] = [event.clientX - drag.start.clientX, event.clientY - drag.start.clientY];
            if (!hasDragged && Math.hypot(x, y) < DRAG_FROM) {
                return;
            }
            if (!hasDragged) {
                hasDragged = true;
                surface.setPointerCapture(event.pointerId);
            }
            const [dx, dy] = [x * drag.scale, y * drag.scale];
            if (drag.item) {
                drawing.move(drag.item, { x: drag.place.x + dx, y: drag.place.y + dy });
            } else {
                viewport.set({ ...drag.view, x: drag.view.x - dx, y: drag.view.y - dy });
            }
        }
        fingers.set(event.pointerId, event);
    });
    for (const name of ["pointerup", "pointercancel", "lostpointercapture"]) {
        surface.addEventListener(name, (event) => {
            fingers.delete(event.pointerId);
            drag = null;
        });
    }
    // The end of a drag is not a click.
    surface.addEventListener("click", (event) => hasDragged && event.preventDefault(), true);
    surface.addEventListener("dragstart", (event) => event.preventDefault());
    surface.addEventListener("wheel", (event) => {
        event.preventDefault();
        viewport.zoom(Math.exp(event.deltaY * (event.deltaMode === 1 ? 0.05 : 0.0015)), event);
    });
    surface.addEventListener("focusin", (event) => {
        const item = drawing.itemOf(event.target);
        if (item) {
            chooseItem(item);
        }
    });
    surface.addEventListener("keydown", (event) => {
        const item = drawing.itemOf(event.target);
        const arrow = ARROWS[event.key];
        if (!item || event.ctrlKey || event.metaKey || event.altKey) {
            return;
        }
        if (arrow && event.shiftKey) {
            drawing.move(item, { x: item.place.x + arrow[0] * STEP, y: item.place.y + arrow[1] * STEP });
        } else if (arrow || event.key === "Home" || event.key === "End") {
            const { order } = drawing;
            const at = order.indexOf(item);
            const next =
                event.key === "Home" ? 0 : event.key === "End" ? order.length - 1 : at + arrow[0] + arrow[1];
            order[(next + order.length) % order.length].element.focus({ preventScroll: true });
            viewport.reveal(order[(next + order.length) % order.length].place);
        } else if (event.key === "+" || event.key === "-") {
            viewport.zoom(event.key === "+" ? 1 / 1.25 : 1.25);
        } else {
            return;
        }
        event.preventDefault();
    });
    return { chooseItem };
}

function button(label, act) {
    const element = h("button", { type: "button" }, label);
    element.addEventListener("click", act);
    return element;
}

export function mapView(_, query) {
    shownKey = query.get("network") ?? shownKey;
    let shownNetwork = 0;
    const surface = svg("svg", {
        class: "map",
        role: "group",
        "aria-label": "Map of the network",
        "aria-describedby": "maphelp",
    });
    const status = h("div", { class: "mapstate" });
    const message = h("span", { class: "faint", role: "status" });
    const select = h("select", { "aria-label": "Network" });
    const viewport = new Viewport(surface);
    let drawing = new Drawing(surface);
    const { chooseItem } = makeMovable(
        surface,
        {
            // The drawing of the network that is chosen.
            get order() {
                return drawing.order;
            },
            itemOf: (target) => drawing.itemOf(target),
            move: (item, place) => drawing.move(item, place),
        },
        viewport,
    );
    const fit = () => viewport.fit(drawing.bounds());

    const tools = h(
        "div",
        { class: "tools" },
        select,
        button("Show all", fit),
        button("Closer", () => viewport.zoom(1 / 1.25)),
        button("Farther", () => viewport.zoom(1.25)),
        button("Arrange as ring", () => {
            layout.forget(drawing.order.map((item) => item.mac));
            drawing.arrange();
            fit();
        }),
        button("Save arrangement", () =>
            save("diag-layout.json", "application/json", layoutText(drawing.order)),
        ),
        button("Load arrangement", () =>
            chooseFile(".json,application/json", (text) => {
                try {
                    layout.add(parseLayout(text));
                    drawing.arrange();
                    fit();
                    setText(message, "Loaded.");
                } catch (error) {
                    setText(message, error.message);
                }
            }),
        ),
        message,
    );

    function begin() {
        const chosen = store.networks.findIndex(({ nodes }) => nodes.has(shownKey));
        shownNetwork = Math.max(0, chosen);
        let isMissing = false;
        if (store.info.kind === "site" && store.networks.length > 0) {
            isMissing = shownKey !== "" && chosen < 0;
            shownKey ||= networkKey(store.networks[0]); // whose place among the others may change
        }
        setText(message, isMissing ? "The network that was chosen is not there; this is another one." : "");
        select.hidden = store.networks.length < 2;
        select.replaceChildren(
            ...store.networks.map((network, index) =>
                h("option", { value: index }, networkTitle(network, index)),
            ),
        );
        select.value = String(shownNetwork);
    }

    function draw(changes) {
        const network = store.networks[shownNetwork] ?? NOTHING;
        const dirty = changes.all ? null : (changes.networks.get(shownNetwork) ?? new Set());
        const count = drawing.order.length;
        if (drawing.update(network, dirty)) {
            chooseItem(
                drawing.order.find((item) => item.element.getAttribute("tabindex") === "0") ??
                    drawing.order[0],
            );
        }
        if (drawing.order.length !== count) {
            fit();
        }
        status.replaceChildren(
            ...[store.networks.length > 1 && networkState(network), differences(network)].filter(Boolean),
        );
    }

    function choose(index) {
        shownNetwork = index;
        shownKey = networkKey(store.networks[index]);
        select.value = String(index);
        surface.replaceChildren();
        drawing = new Drawing(surface);
        draw({ all: true });
        fit();
    }

    select.addEventListener("change", () => {
        choose(Number(select.value));
        history.replaceState(null, "", mapAddress(store.networks[shownNetwork]));
    });
    return {
        element: h(
            "div",
            { class: "mapview" },
            h("h1", { class: "unseen" }, "Map"),
            tools,
            status,
            surface,
            h("p", { class: "faint", id: "maphelp" }, HELP),
        ),
        update(changes) {
            if (changes.all) {
                begin();
                layout.loadDefault().then(() => {
                    drawing.arrange();
                    fit();
                });
            }
            if (changes.all || changes.networks.has(shownNetwork) || changes.connection) {
                draw(changes);
            }
        },
        navigate(__, newQuery) {
            const wanted = store.networks.findIndex(({ nodes }) => nodes.has(newQuery.get("network")));
            if (wanted >= 0 && wanted !== shownNetwork) {
                choose(wanted);
            }
            return true;
        },
        close: () => viewport.close(),
    };
}
