// What can be said of a node and its ports, and how nodes are ordered and found.

import { h } from "./dom.js";
import { store } from "./store.js";
import { cut, isMalformed, listOf, malformedText, numberText, timeText, valueText } from "./text.js";

const FAULT_WORDS = { "link-down": "link down", ground: "ground fault", miswired: "miswired" };
const COLOURS = new Set(["green", "yellow", "red"]);

export const LISTS = [
    { name: "link_down", fault: "link-down", title: "Link down", noun: ["port down", "ports down"] },
    { name: "ground", fault: "ground", title: "Ground faults", noun: ["ground fault", "ground faults"] },
    { name: "miswired", fault: "miswired", title: "Miswired", noun: ["port miswired", "ports miswired"] },
];

export const portsOf = (node) => listOf(node.ports);
export const faultsOf = (port) => listOf(port.faults);
export const colourOf = (port) => (COLOURS.has(port.colour) ? port.colour : "none");

export function titleOf(node) {
    if (typeof node.name === "string" && node.name !== "") {
        return cut(node.name, 60);
    }
    return typeof node.number === "number" ? `Node ${node.number}` : node.mac;
}

// A node that a list of its network names: the lists know numbers, and that of a node without a name.
export function listedNode(network, { mac, number }) {
    const node = network.nodes.get(mac);
    if (typeof node?.name === "string" && node.name !== "") {
        return cut(node.name, 60);
    }
    return typeof number === "number" && number > 0 ? `node ${number}` : mac;
}

export function portWords(port) {
    const colour = colourOf(port) === "none" ? "no colour" : port.colour;
    return [
        `Port ${port.port}: ${colour}`,
        ...faultsOf(port).map((fault) => FAULT_WORDS[fault] ?? fault),
    ].join(", ");
}

// Letter, colour and shape; the words are for those who see neither.
export function lamp(port) {
    return h(
        "span",
        {
            class: "lamp",
            role: "img",
            "aria-label": portWords(port),
            title: portWords(port),
            "data-port": port.port,
            "data-colour": colourOf(port),
            "data-fault": faultsOf(port).join(" "),
        },
        h("span", { "aria-hidden": "true" }, port.port === "CPU" ? "c" : port.port),
    );
}

export function lamps(node) {
    if (isMalformed(node.ports)) {
        return h("span", { class: "lamps" }, `ports ${malformedText(node.ports)}`);
    }
    return h("span", { class: "lamps" }, portsOf(node).map(lamp));
}

// "smf", or "AB eth, C dsl" where the ports differ.
export function mediaText(node) {
    const ports = new Map();
    for (const { port, media } of portsOf(node)) {
        if (media !== null && media !== undefined) {
            ports.set(valueText(media), (ports.get(valueText(media)) ?? "") + port);
        }
    }
    if (ports.size <= 1) {
        return [...ports.keys()].join("");
    }
    return [...ports].map(([media, letters]) => `${letters} ${media}`).join(", ");
}

export function jobText(node) {
    return [node.job_name, node.job_rev]
        .filter((value) => value !== null && value !== undefined && value !== "")
        .map(valueText)
        .join(" ");
}

export function versionsText(node) {
    if (isMalformed(node.software_versions)) {
        return `versions ${malformedText(node.software_versions)}`;
    }
    return listOf(node.software_versions)
        .map((item) => item.version || "–")
        .join(" / ");
}

// Why a node is not there, in words; null where it is.
export function goneWords(node) {
    const when = node.since ? ` since ${timeText(node.since, store.now())}` : "";
    if (node.reachable === false) {
        const { replay, started } = store.info;
        const before = replay ? "the recording" : timeText(started, store.now());
        return `unreachable${when || ` since before ${before}`}: the values are old`;
    }
    if (node.present !== false) {
        return null;
    }
    return when || store.info.kind !== "site" ? `has left the network${when}` : "tells nothing of itself";
}

export const isGone = (node) => node.present === false || node.reachable === false;
export const isListed = (node) => portsOf(node).some((port) => faultsOf(port).length > 0);
const hasFault = (node) => isListed(node) || portsOf(node).some((port) => port.colour === "red");

// 0 is worst.
export function rankOf(node) {
    if (isGone(node)) {
        return 0;
    }
    if (hasFault(node)) {
        return 1;
    }
    if (listOf(node.problems).length > 0) {
        return 2;
    }
    return portsOf(node).some((port) => port.colour === "yellow") ? 3 : 4;
}

const NATURAL = new Intl.Collator("en", { numeric: true });
const numberOf = (node) => (typeof node.number === "number" ? node.number : Infinity);

const compare = (a, b) => (a < b ? -1 : a > b ? 1 : 0);

// Nodes without a name behind those with one, by address.
function byName(a, b) {
    if (Boolean(a.name) !== Boolean(b.name)) {
        return a.name ? -1 : 1;
    }
    return (a.name && NATURAL.compare(a.name, b.name)) || compare(a.mac, b.mac);
}

function byNumber(a, b) {
    return numberOf(a) === numberOf(b) ? byName(a, b) : numberOf(a) - numberOf(b);
}

const byChange = (a, b) => compare(b.last_change ?? "", a.last_change ?? "") || byName(a, b);

export const ORDERS = {
    faults: (a, b) => rankOf(a) - rankOf(b) || byName(a, b),
    number: byNumber,
    name: byName,
    change: byChange,
};

// The order of the nodes in their ring as far as it can be known: by name or address, and those whose numbers are known
// by number in the places that they take together. So a number that becomes known moves few nodes.
export function ringOrder(nodes) {
    const order = [...nodes].sort(byName);
    const places = order.flatMap((node, place) => (typeof node.number === "number" ? [place] : []));
    const numbered = places.map((place) => order[place]).sort(byNumber);
    places.forEach((place, index) => {
        order[place] = numbered[index];
    });
    return order;
}

export const FILTERS = {
    all: { label: "all nodes", test: () => true },
    faults: { label: "with something wrong", test: (node) => rankOf(node) < 3 },
    link_down: { label: "link down", test: (node) => hasListed(node, "link-down") },
    ground: { label: "ground fault", test: (node) => hasListed(node, "ground") },
    miswired: { label: "miswired", test: (node) => hasListed(node, "miswired") },
    gone: { label: "left or unreachable", test: isGone },
    degraded: { label: "in a degraded network", test: (_, network) => network.ring === "degraded" },
    differing: {
        label: "in a network whose views differ",
        test: (_, network) => listOf(network.differs).length > 0,
    },
};

function hasListed(node, fault) {
    return portsOf(node).some((port) => faultsOf(port).includes(fault));
}

// Everything that a tile shows, in lower case; MAC addresses with any separators. A node that changes is another object.
const searchTexts = new WeakMap();

function searchText(node) {
    const known = searchTexts.get(node);
    if (known !== undefined) {
        return known;
    }
    const text = [
        node.name,
        node.mac,
        node.mac.replaceAll("-", ":"),
        node.mac.replaceAll("-", ""),
        typeof node.number === "number" ? `node ${node.number} #${numberText(node.number)}` : "",
        jobText(node),
        mediaText(node),
        versionsText(node),
        ...listOf(node.problems),
        ...portsOf(node).map(portWords),
        isGone(node) ? "left unreachable gone" : "",
    ]
        .join("\n")
        .toLowerCase();
    searchTexts.set(node, text);
    return text;
}

// What somebody has typed; a node or a change has to contain all of it.
export const wordsOf = (text) => text.toLowerCase().split(/\s+/).filter(Boolean);

export function matches(node, words) {
    if (words.length === 0) {
        return true;
    }
    const text = searchText(node);
    return words.every((word) => text.includes(word));
}
