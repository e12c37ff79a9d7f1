// A network's state in words, and how much is wrong.

import { h } from "./dom.js";
import { LISTS, isGone, isListed, rankOf } from "./nodes.js";
import { store } from "./store.js";
import { countText, cut, isMalformed, listOf, malformedText, timeText } from "./text.js";

const RING_WORDS = {
    card: { normal: "Ring normal", degraded: "Ring DEGRADED", unknown: "Ring unknown" },
    // Its cards' lists tell; the state of their ring does not come to a site.
    site: { normal: "Network normal", degraded: "Network DEGRADED", unknown: "State unknown" },
};

// wrong: all of what is told in red; unknown: networks that don't say enough to be called sound.
export function totals(networks) {
    const sum = { nodes: 0, gone: 0, other: 0, degraded: 0, differing: 0, wrong: 0, unknown: 0 };
    LISTS.forEach(({ name }) => (sum[name] = 0));
    for (const network of networks) {
        sum.degraded += network.ring === "degraded" ? 1 : 0;
        sum.differing += listOf(network.differs).length > 0 ? 1 : 0;
        const isTold = ["normal", "degraded"].includes(network.ring);
        sum.unknown += isTold && LISTS.every(({ name }) => Array.isArray(network[name])) ? 0 : 1;
        for (const node of network.nodes.values()) {
            if (isGone(node)) {
                sum.gone++;
            } else {
                sum.nodes++;
                sum.other += rankOf(node) < 3 && !isListed(node) ? 1 : 0;
            }
        }
        for (const { name } of LISTS) {
            for (const { ports } of listOf(network[name])) {
                sum[name] += listOf(ports).length;
            }
        }
    }
    sum.wrong = sum.gone + sum.other + sum.degraded + sum.differing;
    LISTS.forEach(({ name }) => (sum.wrong += sum[name]));
    return sum;
}

function total(count, words, filter) {
    return h(
        "li",
        {},
        h(
            "a",
            { href: `#/?show=${filter}`, class: count > 0 && filter !== "all" ? "total wrong" : "total" },
            words,
        ),
    );
}

// Each count leads to the nodes that it counts.
export function totalsText(networks) {
    const sum = totals(networks);
    return h(
        "ul",
        { class: "totals" },
        !store.isLive && h("li", {}, "last known:"),
        total(sum.nodes, countText(sum.nodes, "node"), "all"),
        networks.length > 1 &&
            total(sum.degraded, `${countText(sum.degraded, "network")} degraded`, "degraded"),
        sum.differing > 0 &&
            total(
                sum.differing,
                `${countText(sum.differing, "network")} with views that differ`,
                "differing",
            ),
        LISTS.map(({ name, noun }) => total(sum[name], countText(sum[name], ...noun), name)),
        sum.gone > 0 && total(sum.gone, `${countText(sum.gone, "node")} left or unreachable`, "gone"),
        sum.other > 0 && total(sum.other, `${countText(sum.other, "node")} with another fault`, "faults"),
    );
}

// What was last known is not shown as if it were so now.
export function networkState(network) {
    const { isLive } = store;
    const all = RING_WORDS[store.info.kind] ?? RING_WORDS.card;
    const known = ["normal", "degraded"].includes(network.ring) ? network.ring : "unknown";
    const last = all[known];
    const ring = isLive ? known : "unknown";
    const since = network.since ? ` since ${timeText(network.since, store.now())}` : "";
    return h(
        "p",
        { class: "ring", role: "status", "data-network": ring },
        h("strong", {}, isLive ? last : all.unknown),
        !isLive && known !== "unknown" && h("span", {}, `last known: ${last.toLowerCase()}`),
        isLive && known !== "unknown" && since !== "" && h("span", {}, since.trim()),
        isLive && isMalformed(network.ring) && h("span", {}, malformedText(network.ring)),
        isLive && ring === "degraded" && h("span", {}, "another cut would part the network"),
        isLive &&
            listOf(network.rings).map(({ ring: number, state }) =>
                h(
                    "span",
                    { class: "faint" },
                    `this card's ring ${number}: ${isMalformed(state) ? malformedText(state) : state}`,
                ),
            ),
    );
}

const FEW = 3; // differences that nobody has to open

export function differences(network) {
    const entries = listOf(network.differs);
    if (entries.length === 0) {
        return null;
    }
    return h(
        "details",
        { class: "differs", open: entries.length <= FEW },
        h("summary", {}, `Views differ: ${countText(entries.length, "entry", "entries")}`),
        h(
            "ul",
            {},
            entries.map(({ mac, text, since }) =>
                h(
                    "li",
                    { "data-differs": mac ?? "" },
                    mac ? h("a", { href: `#/node/${encodeURIComponent(mac)}` }, cut(text)) : cut(text),
                    since && `, since ${timeText(since, store.now())}`,
                ),
            ),
        ),
    );
}

// A network with something wrong stands before one without.
export function networkRank(network) {
    if (network.ring === "degraded") {
        return 0;
    }
    let rank = 4;
    for (const node of network.nodes.values()) {
        rank = Math.min(rank, rankOf(node) + 1);
    }
    return listOf(network.differs).length > 0 ? Math.min(rank, 2) : rank;
}

export const networkTitle = (network, index) => network.name || `Network ${index + 1}`;
// A network is known by its first node: its place among the others may change.
export const networkKey = (network) => network.nodes.keys().next().value ?? "";
export const mapAddress = (network) => `#/map?network=${encodeURIComponent(networkKey(network))}`;
