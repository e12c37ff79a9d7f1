// Starts the page: what stands around every view (state of the network, connection), and which view is shown.

import { arrange, h, morph, setText } from "./dom.js";
import { eventsView } from "./events.js";
import { mapView } from "./map.js";
import { nodeView } from "./node.js";
import { overviewView } from "./overview.js";
import { pmView } from "./pm.js";
import { startRecording } from "./recording.js";
import { networkState, totals, totalsText } from "./state.js";
import { store } from "./store.js";
import { cut, listOf, timeText } from "./text.js";
import { initTheme } from "./theme.js";

const views = [
    { pattern: /^\/$/, name: "overview", make: overviewView },
    { pattern: /^\/map$/, name: "map", make: mapView },
    { pattern: /^\/events$/, name: "events", make: eventsView },
    { pattern: /^\/node\/([^/]+)$/, name: "node", make: nodeView },
    { pattern: /^\/pm\/([^/]+)\/([^/]+)$/, name: "pm", make: pmView },
];

const main = document.getElementById("view");
let current = null;

function decode(text) {
    try {
        return decodeURIComponent(text);
    } catch {
        return text;
    }
}

// "#/node/<MAC>?x=y"
function route() {
    const [path, query] = (location.hash.slice(1) || "/").split("?");
    for (const view of views) {
        const match = view.pattern.exec(path);
        if (match) {
            return { ...view, args: match.slice(1).map(decode), query: new URLSearchParams(query) };
        }
    }
    return { name: "nowhere", args: [], make: () => ({ element: h("p", {}, "There is no such view.") }) };
}

function show() {
    const { name, make, args, query } = route();
    if (current?.name === name && current.navigate?.(args, query)) {
        return;
    }
    current?.close?.();
    current = { name, ...make(args, query) };
    main.replaceChildren(current.element);
    document.body.dataset.view = name;
    document.querySelectorAll("nav a").forEach((link) => {
        if (link.dataset.view === name) {
            link.setAttribute("aria-current", "page");
        } else {
            link.removeAttribute("aria-current");
        }
    });
    current.update?.({ networks: new Map(), all: true });
}

const reasonText = () => (store.info.reason ? ` (${cut(String(store.info.reason))})` : "");

const lostTexts = {
    connecting: () => "Connecting …",
    server: (since) =>
        `No connection to the console's server since ${since}. ` +
        `${store.info.replay ? "" : "What is shown is from then. "}Trying again …`,
    broker: (since) =>
        `The server has no connection to the broker since ${since}${reasonText()}. What is shown is from then.`,
};

function showConnection() {
    const { state, cause, since } = store.connection;
    document.body.dataset.connection = state;
    const banner = document.getElementById("banner");
    const when = timeText(since, store.now());
    setText(
        banner,
        state === "live" ? "" : lostTexts[store.isLoaded || cause === "broker" ? cause : "connecting"](when),
    );
    const { kind, broker, replay, version } = store.info;
    const from = kind === "site" ? "site" : "card";
    setText(
        document.getElementById("source"),
        store.isLoaded ? `${replay ? "recording" : from} · ${cut(String(broker), 80)} · ${version}` : "",
    );
    document.body.dataset.replay = replay ? "true" : "false";
}

// Of a site's brokers, while another one is there.
function lostBrokers() {
    return listOf(store.info.brokers)
        .filter(({ connection }) => store.isLive && connection === "lost")
        .map(({ address, since, reason }) =>
            h(
                "p",
                { class: "total wrong", role: "status", "data-broker": address },
                `No connection to the broker ${address} since ${timeText(since, store.now())}`,
                reason && ` (${cut(String(reason))})`,
            ),
        );
}

function titleWords({ wrong, unknown }) {
    if (!store.isLive) {
        return "no connection";
    }
    const isKnown = store.networks.length > 0 && unknown === 0;
    const words = wrong > 0 ? `${wrong} wrong` : isKnown ? "all well" : "state unknown";
    return store.info.replay ? `recording: ${words}` : words;
}

function showState() {
    const { networks } = store;
    const sum = totals(networks);
    const isOne = networks.length === 1;
    const wanted = h(
        "div",
        { class: "state" },
        isOne
            ? networkState(networks[0])
            : networks.length > 1 &&
                  h("p", { class: "ring" }, h("strong", {}, `${networks.length} networks`)),
        store.isLoaded && totalsText(networks),
        lostBrokers(),
    );
    const state = document.getElementById("state");
    if (state.firstElementChild) {
        morph(state.firstElementChild, wanted);
    } else {
        arrange(state, [wanted]);
    }
    setText(document.querySelector("title"), store.isLoaded ? `${titleWords(sum)} – diag` : "diag");
}

store.subscribe((changes) => {
    if (changes.all || changes.connection) {
        showConnection();
    }
    if (changes.all || changes.connection || changes.networks.size > 0) {
        showState();
    }
    current?.update?.(changes);
});

initTheme(document.getElementById("theme"));
startRecording(document.getElementById("recording"));
window.addEventListener("hashchange", () => {
    show();
    window.scrollTo(0, 0);
    // Who uses a screen reader hears the new view; a click in the navigation keeps the focus out of the way.
    main.focus({ preventScroll: true });
});
// The address after "#" names a view, so the ordinary way of skipping would leave it.
document.getElementById("skip").addEventListener("click", (event) => {
    event.preventDefault();
    main.focus();
});
showConnection();
show();
store.start();
