// Every change that the server remembers, newest first.

import { arrange, h, morph, setText } from "./dom.js";
import { save } from "./file.js";
import { wordsOf } from "./nodes.js";
import { networkTitle } from "./state.js";
import { store } from "./store.js";
import { clockText, countText, csv, cut, dayText, valueText } from "./text.js";

const PAGE = 200; // rows; more on request
const choices = { text: "", kind: "" };

const kindText = (kind) => String(kind).replaceAll("_", " ");

export function changeRow(change) {
    return h(
        "li",
        { "data-event": change.id, "data-kind": change.kind },
        h(
            "time",
            { datetime: change.time, title: dayText(change.time) },
            clockText(change.time, { milliseconds: true }),
        ),
        h(
            "span",
            { class: "what" },
            change.node
                ? h("a", { href: `#/node/${encodeURIComponent(change.node)}` }, cut(String(change.text)))
                : cut(String(change.text)),
        ),
    );
}

// Networks come and go, so a number tells one only until they do.
function networkText({ node, network: number }) {
    const index = store.find(node)?.index ?? number;
    return store.networks[index] ? networkTitle(store.networks[index], index) : "";
}

function fullRow(change) {
    const row = changeRow(change);
    if (store.networks.length > 1) {
        row.append(h("span", { class: "faint" }, networkText(change)));
    }
    return row;
}

// A change never changes, so a row that stands is right unless the networks are others. A heading where the day does.
function drawRows(list, changes, areNetworksNew) {
    const standing = new Map([...list.children].map((row) => [row.dataset.event, row]));
    const rows = [];
    let day = dayText(store.now());
    for (const change of changes) {
        const own = dayText(change.time);
        if (own !== day) {
            day = own;
            rows.push(h("li", { class: "day" }, own));
        }
        const row = standing.get(String(change.id));
        rows.push(row && !areNetworksNew ? row : row ? morph(row, fullRow(change)) : fullRow(change));
    }
    arrange(list, rows);
}

function matches(change, words) {
    if (choices.kind && change.kind !== choices.kind) {
        return false;
    }
    const text = [change.text, change.node, change.port && `port ${change.port}`, kindText(change.kind)]
        .join("\n")
        .toLowerCase();
    return words.every((word) => text.includes(word));
}

export function selectChanges(log) {
    const words = wordsOf(choices.text);
    return log.filter((change) => matches(change, words));
}

function table(changes) {
    const cell = (value) =>
        value === null || value === undefined ? "" : typeof value === "object" ? valueText(value) : value;
    return csv([
        ["id", "time", "network", "node", "port", "kind", "old", "new", "text"],
        ...changes.map((change) => [
            change.id,
            change.time,
            networkText(change),
            change.node,
            change.port,
            change.kind,
            cell(change.old),
            cell(change.new),
            change.text,
        ]),
    ]);
}

export function eventsView() {
    const search = h("input", {
        type: "search",
        placeholder: "node, port, words …",
        "aria-label": "Search changes",
    });
    const kind = h("select", { "aria-label": "Kind of change" });
    const pause = h("button", { type: "button", "aria-pressed": "false" }, "Pause");
    const file = h("button", { type: "button" }, "Save as CSV");
    const count = h("span", { class: "faint" });
    const list = h("ol", { class: "events", "data-events": "" });
    const older = h("button", { type: "button" }, "Show older");
    const element = h(
        "div",
        { class: "log" },
        h("h1", {}, "Events"),
        h("div", { class: "tools" }, search, kind, pause, file, count),
        list,
        older,
    );
    let shownRows = PAGE;
    let frozen = null; // the log while paused
    let kinds = "";

    function showKinds(log) {
        const found = [...new Set(log.map((change) => change.kind))].sort();
        if (choices.kind && !found.includes(choices.kind)) {
            found.push(choices.kind);
        }
        if (found.join() !== kinds) {
            kinds = found.join();
            kind.replaceChildren(
                h("option", { value: "" }, "all kinds"),
                ...found.map((name) => h("option", { value: name }, kindText(name))),
            );
            kind.value = choices.kind;
        }
    }

    function draw(areNetworksNew = false) {
        const log = frozen ?? store.log;
        showKinds(log);
        const chosen = selectChanges(log);
        const wanted = chosen.slice(-shownRows).reverse();
        drawRows(list, wanted, areNetworksNew);
        older.hidden = chosen.length <= shownRows;
        const news = frozen ? store.log.filter(({ id }) => id > (frozen.at(-1)?.id ?? 0)).length : 0;
        setText(
            count,
            (chosen.length === log.length ? "" : `${chosen.length} of `) +
                countText(log.length, "change") +
                (news > 0 ? `, ${news} new since the pause` : ""),
        );
    }

    search.value = choices.text;
    search.addEventListener("input", () => {
        choices.text = search.value;
        draw();
    });
    kind.addEventListener("change", () => {
        choices.kind = kind.value;
        draw();
    });
    pause.addEventListener("click", () => {
        frozen = frozen ? null : [...store.log];
        pause.setAttribute("aria-pressed", String(frozen !== null));
        setText(pause, frozen ? "Go on" : "Pause");
        draw();
    });
    older.addEventListener("click", () => {
        shownRows += 5 * PAGE;
        draw();
    });
    file.addEventListener("click", () =>
        save(
            `diag-events-${new Date(store.now()).toISOString().slice(0, 19).replaceAll(":", "")}.csv`,
            "text/csv",
            table(selectChanges(frozen ?? store.log)),
        ),
    );
    store.wantWholeLog();

    return {
        element,
        update(changes) {
            if (changes.all || changes.log) {
                draw(changes.all || changes.older);
            }
        },
    };
}
