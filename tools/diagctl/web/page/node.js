// All that is known of one node.

import { h, morph } from "./dom.js";
import { changeRow } from "./events.js";
import { colourOf, faultsOf, goneWords, lamp, portWords, portsOf, titleOf } from "./nodes.js";
import { mapAddress, networkTitle } from "./state.js";
import { store } from "./store.js";
import { isMalformed, listOf, malformedText, numberText, timeText, valueText } from "./text.js";

const CHANGES = 100;
const MEASURE_MS = 5000;

const FACTS = [
    ["job_name", "Job"],
    ["job_rev", "Job revision"],
    ["download_status", "Download status"],
    ["download_pending", "Download pending"],
    ["CF_free_space", "Free space in CF"],
    ["M301", "M301"],
    ["M702", "M702"],
    ["comm_loss", "Comm loss"],
    ["repeater", "Repeater"],
    ["card_addr", "Card address"],
];

function where(node) {
    const gone = goneWords(node);
    if (gone) {
        return node.present === false ? `${gone}; this is what it left behind` : gone;
    }
    return node.local ? "this card" : "in the network";
}

function row(label, value) {
    return [h("dt", {}, label), h("dd", {}, value)];
}

function versions(node) {
    if (isMalformed(node.software_versions)) {
        return row("Versions", malformedText(node.software_versions));
    }
    return listOf(node.software_versions).flatMap(({ name, version }) =>
        row(valueText(name), valueText(version || null)),
    );
}

function facts(node, network) {
    const rings = node.local ? listOf(network.rings) : [];
    return h(
        "dl",
        { class: "facts" },
        row("MAC address", node.mac),
        row(
            "Node number",
            node.number === null || node.number === undefined
                ? "not known: no list names the node"
                : valueText(node.number),
        ),
        row("Where", where(node)),
        rings.map(({ ring, state }) => row(`Ring ${ring}`, valueText(state))),
        FACTS.filter(([name]) => name in node).map(([name, label]) => row(label, valueText(node[name]))),
        versions(node),
        row("Last change", node.last_change ? timeText(node.last_change, store.now()) : "none seen"),
    );
}

function pmLink(node, port) {
    return h(
        "a",
        { href: `#/pm/${encodeURIComponent(node.mac)}/${encodeURIComponent(port.port)}` },
        "performance",
    );
}

function ports(node) {
    if (isMalformed(node.ports)) {
        return h("p", {}, malformedText(node.ports));
    }
    return h(
        "ul",
        { class: "ports" },
        portsOf(node).map((port) =>
            h(
                "li",
                {},
                lamp(port),
                h("span", {}, portWords(port).replace(/^Port \S+: /, "")),
                h("span", { class: "faint" }, port.media === null ? "no media" : valueText(port.media)),
                h("span", {}, pmLink(node, port)),
            ),
        ),
    );
}

function rateText(rate) {
    return typeof rate === "number" ? `${numberText(rate)}/s` : "";
}

function statistics(node) {
    const measured = portsOf(node).filter(
        (port) => port.stats && typeof port.stats === "object" && !isMalformed(port.stats),
    );
    const broken = portsOf(node).filter((port) => isMalformed(port.stats));
    if (measured.length === 0 && broken.length === 0) {
        return h(
            "p",
            { class: "faint" },
            store.info.kind === "site"
                ? "Not published."
                : "Not published on this broker: a node's statistics are on its own card's.",
        );
    }
    const names = [...new Set(measured.flatMap((port) => Object.keys(port.stats)))];
    return h(
        "div",
        {},
        broken.map((port) => h("p", {}, `Port ${port.port}: ${malformedText(port.stats)}`)),
        measured.length > 0 &&
            h(
                "div",
                { class: "scroll", tabindex: "0", role: "region", "aria-label": "Statistics of the ports" },
                h(
                    "table",
                    {},
                    h(
                        "thead",
                        {},
                        h(
                            "tr",
                            {},
                            h("th", { scope: "col" }, "Since the last reset"),
                            measured.map((port) => [
                                h("th", { scope: "col", class: "value" }, `Port ${port.port}`),
                                h("th", { scope: "col", class: "value" }, "rate"),
                            ]),
                        ),
                    ),
                    h(
                        "tbody",
                        {},
                        names.map((name) =>
                            h(
                                "tr",
                                {},
                                h("th", { scope: "row" }, name.replaceAll("_", " ")),
                                measured.map((port) => [
                                    h("td", { class: "value" }, valueText(port.stats[name])),
                                    h("td", { class: "value faint" }, rateText(port.rates?.[name])),
                                ]),
                            ),
                        ),
                    ),
                ),
            ),
    );
}

function changesOf(mac) {
    return store.log
        .filter((change) => change.node === mac)
        .slice(-CHANGES)
        .reverse();
}

function content(mac, measured) {
    const found = store.find(mac);
    if (!found) {
        const nobody = `No such node is known ${store.info.replay ? "at this time of the recording" : "here"}.`;
        return h(
            "div",
            { class: "node" },
            h("h1", {}, mac),
            h("p", {}, store.isLoaded ? nobody : ""),
        );
    }
    const { network } = found;
    const node = measured ? { ...found.node, ports: measured.ports } : found.node;
    const problems = [goneWords(node), ...listOf(node.problems).map(valueText)].filter(Boolean);
    const changes = changesOf(mac);
    return h(
        "article",
        {
            class: "node",
            "data-node": mac,
            "data-present": String(node.present !== false),
            "data-reachable": String(node.reachable !== false),
        },
        h("h1", {}, titleOf(node)),
        store.networks.length > 1 &&
            h("p", {}, h("a", { href: mapAddress(network) }, networkTitle(network, found.index))),
        h(
            "section",
            {},
            h("h2", { class: "unseen" }, "What is wrong"),
            problems.length > 0
                ? h(
                      "ul",
                      { class: "problems" },
                      problems.map((text) => h("li", {}, text)),
                  )
                : h(
                      "p",
                      {},
                      portsOf(node).some((port) => colourOf(port) === "yellow" || faultsOf(port).length > 0)
                          ? "Trouble within the last 24 hours."
                          : "Nothing is wrong.",
                  ),
        ),
        h(
            "div",
            { class: "columns" },
            h("section", {}, h("h2", {}, "Ports"), ports(node), h("h2", {}, "Statistics"), statistics(node)),
            h("section", {}, h("h2", {}, "Node"), facts(node, network)),
            h(
                "section",
                {},
                h("h2", {}, "Changes"),
                changes.length > 0
                    ? h("ol", { class: "events" }, changes.map(changeRow))
                    : h("p", { class: "faint" }, "none seen"),
            ),
        ),
    );
}

export function nodeView([mac]) {
    const element = h("div");
    let seen = -1; // id of the newest change
    let measured = null; // the node with its statistics, where the state has none
    let timer = null;
    let isClosed = false;
    store.wantWholeLog();

    function draw() {
        element.replaceChildren(
            element.firstElementChild
                ? morph(element.firstElementChild, content(mac, measured))
                : content(mac, measured),
        );
    }

    // At a site the statistics of a node come when they are asked for.
    async function measure() {
        clearTimeout(timer);
        timer = setTimeout(measure, MEASURE_MS);
        try {
            const response = await fetch(`/api/node/${encodeURIComponent(mac)}`, { cache: "no-store" });
            measured = response.ok ? await response.json() : null;
        } catch {
            return; // the banner says so
        }
        if (!isClosed) {
            draw();
        }
    }

    function hasNews() {
        const before = seen;
        seen = store.log.at(-1)?.id ?? -1;
        for (let i = store.log.length - 1; i >= 0 && store.log[i].id > before; i--) {
            if (store.log[i].node === mac) {
                return true;
            }
        }
        return false;
    }

    return {
        element,
        update(changes) {
            const isMine = [...changes.networks.values()].some((macs) => macs.has(mac));
            if ((changes.all || isMine) && store.info.kind === "site") {
                measure();
            } else if (
                changes.all ||
                changes.connection ||
                isMine ||
                (changes.log && (changes.older || hasNews()))
            ) {
                draw();
            }
        },
        close() {
            isClosed = true;
            clearTimeout(timer);
        },
    };
}
