// Every node as a tile, what is wrong first; the lists of faults and the newest changes beside them.

import { arrange, h, morph, setText } from "./dom.js";
import { changeRow } from "./events.js";
import {
    FILTERS,
    LISTS,
    ORDERS,
    goneWords,
    isGone,
    jobText,
    lamps,
    listedNode,
    matches,
    mediaText,
    rankOf,
    titleOf,
    versionsText,
    wordsOf,
} from "./nodes.js";
import { differences, mapAddress, networkRank, networkState, networkTitle } from "./state.js";
import { store } from "./store.js";
import { countText, isMalformed, listOf, malformedText, valueText } from "./text.js";

const LATEST = 12;
const ORDER_INTERVAL_MS = 1000;
const MAX_OPEN = 300; // nodes of all networks; beyond, those with nothing wrong are folded away
const choices = { text: "", show: "all", order: "faults" }; // they outlast a look at another view

const ORDER_LABELS = { faults: "faults first", number: "number", name: "name", change: "last change" };

function tile(node) {
    const problems = [goneWords(node), ...listOf(node.problems).map(valueText)].filter(Boolean);
    const job = jobText(node);
    const title = titleOf(node);
    const address = title === node.mac ? "" : node.mac;
    const isNumberNews = node.number !== null && node.number !== undefined && title !== `Node ${node.number}`;
    const facts = [address, mediaText(node), job && `job ${job}`, versionsText(node)].filter(Boolean);
    return h(
        "li",
        {
            class: `tile rank${rankOf(node)}`,
            "data-node": node.mac,
            "data-present": String(node.present !== false),
            "data-reachable": String(node.reachable !== false),
        },
        h(
            "div",
            { class: "top" },
            h("a", { href: `#/node/${encodeURIComponent(node.mac)}`, class: "title" }, title),
            node.local && h("span", { class: "tag" }, "this card"),
            isNumberNews &&
                h(
                    "span",
                    { class: "number", title: "node number" },
                    h("span", { class: "unseen" }, "node "),
                    valueText(node.number),
                ),
        ),
        lamps(node),
        problems.length > 0 &&
            h(
                "ul",
                { class: "problems" },
                problems.map((text) => h("li", {}, text)),
            ),
        h(
            "p",
            { class: "facts" },
            facts.map((text) => h("span", {}, text)),
        ),
    );
}

function listEntries(network, index, { name }) {
    const prefix = store.networks.length > 1 ? `${networkTitle(network, index)}: ` : "";
    return listOf(network[name]).flatMap((entry) =>
        listOf(entry.ports).map((port) =>
            h(
                "li",
                { "data-node": entry.mac, "data-port": port },
                h(
                    "a",
                    { href: `#/pm/${encodeURIComponent(entry.mac)}/${encodeURIComponent(port)}` },
                    `${prefix}${listedNode(network, entry)} ${port}`,
                ),
            ),
        ),
    );
}

function listWords(network, { name }) {
    const list = network[name];
    if (isMalformed(list)) {
        return malformedText(list);
    }
    return list === null || list === undefined ? "not published" : null;
}

function goneList(nodes) {
    return h(
        "section",
        { "aria-label": "Not there" },
        h("h3", {}, "Not there"),
        h(
            "ul",
            { "data-list": "gone" },
            nodes.map((node) =>
                h(
                    "li",
                    { "data-node": node.mac },
                    h("a", { href: `#/node/${encodeURIComponent(node.mac)}` }, titleOf(node)),
                    ` ${goneWords(node)}`,
                ),
            ),
        ),
    );
}

function lists() {
    const links = store.networks.flatMap((network) => listOf(network.miswired_links));
    const gone = store.networks.flatMap(({ nodes }) => [...nodes.values()].filter(isGone));
    return h(
        "div",
        { class: "lists" },
        LISTS.map((list) => {
            const entries = store.networks.flatMap((network, index) => listEntries(network, index, list));
            const words = store.networks.map((network) => listWords(network, list)).filter(Boolean);
            const where =
                store.networks.length > 1 ? ` in ${words.length} of ${store.networks.length} networks` : "";
            return h(
                "section",
                { "aria-label": list.title },
                h("h3", {}, list.title),
                h("ul", { "data-list": list.name, class: "chips" }, entries),
                entries.length === 0 && h("p", { class: "faint" }, words.length > 0 ? words[0] + where : "none"),
            );
        }),
        gone.length > 0 && goneList(gone),
        links.length > 0 &&
            h(
                "section",
                { "aria-label": "Miswired links" },
                h("h3", {}, "Miswired links"),
                h(
                    "ul",
                    { class: "chips" },
                    links.map((link) =>
                        h("li", {}, `${link.number}/${link.port} to ${link.peer_number}/${link.peer_port}`),
                    ),
                ),
            ),
    );
}

function latest() {
    const changes = store.log.slice(-LATEST).reverse();
    const none = store.info.replay ? "none until here" : "none since the server's start";
    return h(
        "section",
        { class: "latest", "aria-label": "Newest changes" },
        h("h3", {}, h("a", { href: "#/events" }, "Newest changes")),
        h("ol", { "data-events": "", class: "events" }, changes.map(changeRow)),
        changes.length === 0 && h("p", { class: "faint" }, none),
    );
}

const nodeCount = () => store.networks.reduce((sum, { nodes }) => sum + nodes.size, 0);

function isChosen(node, network, words) {
    return FILTERS[choices.show].test(node, network) && matches(node, words);
}

// The tiles of one network. Only what has changed is drawn again, and only what has to move is moved.
class Section {
    constructor(index) {
        this.index = index;
        this.tiles = new Map(); // MAC address to element
        this.head = h("div", { class: "head" });
        this.list = h("ul", { class: "tiles" });
        this.soundTitle = h("summary");
        this.soundList = h("ul", { class: "tiles" });
        this.sound = h(
            "details",
            { class: "sound", open: nodeCount() <= MAX_OPEN },
            this.soundTitle,
            this.soundList,
        );
        this.element = h("section", { class: "network" }, this.head, this.list, this.sound);
    }

    get network() {
        return store.networks[this.index];
    }

    update(changes) {
        const { nodes } = this.network;
        const isWhole = changes.all || changes.connection;
        const dirty = isWhole ? nodes.keys() : changes.networks.get(this.index);
        if (!dirty) {
            return;
        }
        for (const mac of dirty) {
            const node = nodes.get(mac);
            const element = this.tiles.get(mac);
            if (node) {
                this.tiles.set(mac, element ? morph(element, tile(node)) : tile(node));
            }
        }
        for (const mac of this.tiles.keys()) {
            if (!nodes.has(mac)) {
                this.tiles.delete(mac);
            }
        }
        this.#updateHead();
    }

    #updateHead() {
        const { network, index } = this;
        const isOne = store.networks.length === 1;
        const wanted = h(
            "div",
            { class: "head" },
            isOne
                ? h("h2", { class: "unseen" }, "Nodes")
                : h(
                      "h2",
                      {},
                      networkTitle(network, index),
                      " ",
                      h("a", { href: mapAddress(network), class: "tag" }, "map"),
                  ),
            !isOne && networkState(network),
            differences(network),
        );
        morph(this.head, wanted);
    }

    // How many of the network's nodes are shown.
    filter(words) {
        const shown = [...this.network.nodes.values()]
            .filter((node) => isChosen(node, this.network, words))
            .sort(ORDERS[choices.order]);
        // Of many networks one wants to see what is wrong with each before what is not, unless one looks for something.
        const isParted =
            store.networks.length > 1 &&
            choices.order === "faults" &&
            choices.show === "all" &&
            words.length === 0;
        const sound = isParted ? shown.filter((node) => rankOf(node) > 2) : [];
        const tilesOf = (nodes) => nodes.map((node) => this.tiles.get(node.mac));
        arrange(this.list, tilesOf(shown.slice(0, shown.length - sound.length)));
        arrange(this.soundList, tilesOf(sound));
        setText(this.soundTitle, `${countText(sound.length, "node")} with nothing wrong now`);
        this.sound.hidden = sound.length === 0;
        this.element.hidden = shown.length === 0 && store.networks.length > 1;
        return shown.length;
    }

    // Whether each node is shown or not shown as it should be, wherever it stands.
    isRight(words) {
        return (
            [...this.network.nodes.values()].every(
                (node) => this.tiles.get(node.mac).isConnected === isChosen(node, this.network, words),
            ) && this.list.childElementCount + this.soundList.childElementCount <= this.network.nodes.size
        );
    }
}

function option(value, label) {
    return h("option", { value }, label);
}

export function overviewView(_, query) {
    choices.show = FILTERS[query.get("show")] ? query.get("show") : choices.show;
    const search = h("input", {
        type: "search",
        placeholder: "name, number, address, fault …",
        "aria-label": "Search nodes",
    });
    const show = h(
        "select",
        { "aria-label": "Show" },
        Object.entries(FILTERS).map(([name, { label }]) => option(name, label)),
    );
    const order = h(
        "select",
        { "aria-label": "Order" },
        Object.entries(ORDER_LABELS).map(([name, label]) => option(name, label)),
    );
    const count = h("span", { class: "faint", role: "status" });
    const sections = h("div", { class: "sections" });
    const aside = h("aside", { "aria-label": "Faults and changes" });
    const listsElement = h("div");
    const latestElement = h("div");
    aside.append(listsElement, latestElement);
    const element = h(
        "div",
        { class: "overview" },
        h("h1", { class: "unseen" }, "Overview"),
        h("div", { class: "tools" }, search, show, order, count),
        h("div", { class: "columns" }, sections, aside),
    );
    let drawn = [];
    let orderedAt = 0;
    let orderTimer = null;

    // Tiles that jump about in a storm help nobody, so they change at once but change places once a second.
    function refilter() {
        const words = wordsOf(choices.text);
        const wait = orderedAt + ORDER_INTERVAL_MS - performance.now();
        if (wait <= 0 || drawn.some((section) => !section.isRight(words))) {
            filter();
        } else {
            orderTimer ??= setTimeout(filter, wait);
        }
    }

    function filter() {
        clearTimeout(orderTimer);
        orderTimer = null;
        orderedAt = performance.now();
        const words = wordsOf(choices.text);
        let shown = 0;
        for (const section of drawn) {
            shown += section.filter(words);
        }
        const all = nodeCount();
        setText(count, shown === all ? countText(all, "node") : `${shown} of ${countText(all, "node")}`);
        if (drawn.length > 1) {
            const order = [...drawn].sort(
                (a, b) => networkRank(a.network) - networkRank(b.network) || a.index - b.index,
            );
            arrange(
                sections,
                order.map((section) => section.element),
            );
        }
    }

    function showChoices() {
        search.value = choices.text;
        show.value = choices.show;
        order.value = choices.order;
    }

    search.addEventListener("input", () => {
        choices.text = search.value;
        filter();
    });
    show.addEventListener("change", () => {
        choices.show = show.value;
        history.replaceState(null, "", choices.show === "all" ? "#/" : `#/?show=${choices.show}`);
        filter();
    });
    order.addEventListener("change", () => {
        choices.order = order.value;
        filter();
    });
    showChoices();

    return {
        element,
        navigate(__, newQuery) {
            choices.show = FILTERS[newQuery.get("show")] ? newQuery.get("show") : "all";
            showChoices();
            filter();
            return true;
        },
        update(changes) {
            if (changes.all && drawn.length !== store.networks.length) {
                drawn = store.networks.map((__, index) => new Section(index));
                arrange(
                    sections,
                    drawn.map((section) => section.element),
                );
            }
            if (changes.all || changes.networks.size > 0 || changes.connection) {
                drawn.forEach((section) => section.update(changes));
                refilter();
                morph(listsElement, h("div", {}, lists()));
            }
            if (changes.all || changes.log) {
                morph(latestElement, h("div", {}, latest()));
            }
        },
        close: () => clearTimeout(orderTimer),
    };
}
