// A port's performance records: the quarter hours of the last day, the days of the last week.

import { bars, strip } from "./chart.js";
import { h } from "./dom.js";
import { save } from "./file.js";
import { titleOf } from "./nodes.js";
import { store } from "./store.js";
import { csv, dayText, isMalformed, listOf, minuteText, numberText, timeText, valueText } from "./text.js";

const REFRESH_MS = 10000; // a period that closes shows itself as a change as well; this is for what was missed
const SOON_MS = 500;
const STRIPS = ["errored_frames", "error_ratio_ppm", "link_down_seconds", "erps_down_seconds"];
const KINDS = {
    periods: { title: "Quarter hours of the last day", seconds: 900, noun: "quarter hour" },
    days: { title: "Days of the last week", seconds: 86400, noun: "day" },
};

const LEGEND =
    "in this computer's time zone. The stronger the colour, the nearer to the measure's highest value; " +
    "a thin line is a period that is missing.";

const choice = { field: "errored_frames" };

// Every slot with its end. That of a missing one follows from its neighbours.
function withTimes(records, { seconds }, now) {
    const known = records.findIndex((record) => record?.end);
    const base =
        known >= 0
            ? Date.parse(records[known].end)
            : Math.floor(Date.parse(now) / (seconds * 1000)) * seconds * 1000;
    const origin = known >= 0 ? known : records.length - 1;
    return records.map((record, index) => ({
        record,
        end: record?.end ? Date.parse(record.end) : base + (index - origin) * seconds * 1000,
        values: record && !isMalformed(record) ? record.values : null,
    }));
}

function spanText({ end }, { seconds }) {
    const start = end - seconds * 1000;
    return seconds < 86400
        ? `${minuteText(start)} to ${minuteText(end)}`
        : `${dayText(start)} to ${dayText(end)}`;
}

const wordsOf = ({ record, values }) => (values ? null : isMalformed(record) ? valueText(record) : "missing");

function labelOf(field) {
    return field.label || field.name.replaceAll("_", " ");
}

// "link down (s)", but not "errored frames (frames)".
const withUnit = (field) =>
    labelOf(field) + (field.unit && !labelOf(field).endsWith(field.unit) ? ` (${field.unit})` : "");

function stripLabel(field, slots, kind) {
    const values = slots.filter((slot) => slot.values);
    const max = values.reduce(
        (best, slot) => (best && best.values[field.name] >= slot.values[field.name] ? best : slot),
        null,
    );
    const peak =
        max && max.values[field.name] > 0
            ? `highest ${numberText(max.values[field.name])} in ${spanText(max, kind)}`
            : "always 0";
    const missing = `${slots.length - values.length} of ${slots.length} missing`;
    return `${withUnit(field)}: ${values.length > 0 ? peak : "no values"}, ${missing}`;
}

function valuesOf(slots, field) {
    return slots.map((slot) => slot.values?.[field.name] ?? null);
}

function strips(slots, fields, kind) {
    return h(
        "dl",
        { class: "strips" },
        fields
            .filter((field) => STRIPS.includes(field.name))
            .map((field) => [
                h("dt", {}, withUnit(field)),
                h(
                    "dd",
                    {},
                    strip(valuesOf(slots, field), stripLabel(field, slots, kind)),
                    h("span", { class: "faint" }, stripLabel(field, slots, kind).replace(/^.*?: /, "")),
                ),
            ]),
        h("dt", {}, ""),
        h(
            "dd",
            { class: "axis faint", "aria-hidden": "true" },
            [0, Math.floor(slots.length / 2), slots.length - 1].map((index) =>
                h(
                    "span",
                    {},
                    kind.seconds < 86400 ? minuteText(slots[index].end) : dayText(slots[index].end),
                ),
            ),
        ),
    );
}

// The newest first, as one looks for what has just happened.
function valueTable(slots, fields, kind) {
    return h(
        "div",
        { class: "scroll", tabindex: "0", role: "region", "aria-label": `Values: ${kind.title}` },
        h(
            "table",
            {},
            h("caption", {}, kind.title),
            h(
                "thead",
                {},
                h(
                    "tr",
                    {},
                    h("th", { scope: "col" }, kind.seconds < 86400 ? "Quarter hour" : "Day"),
                    fields.map((field) => h("th", { scope: "col", class: "value" }, withUnit(field))),
                ),
            ),
            h(
                "tbody",
                {},
                [...slots]
                    .reverse()
                    .map((slot) =>
                        h(
                            "tr",
                            { class: slot.values ? null : "missing" },
                            h(
                                "th",
                                { scope: "row" },
                                h(
                                    "time",
                                    { datetime: new Date(slot.end).toISOString() },
                                    spanText(slot, kind),
                                ),
                            ),
                            slot.values
                                ? fields.map((field) =>
                                      h(
                                          "td",
                                          { class: slot.values[field.name] > 0 ? "value" : "value faint" },
                                          valueText(slot.values[field.name]),
                                      ),
                                  )
                                : h("td", { colspan: fields.length }, wordsOf(slot)),
                        ),
                    ),
            ),
        ),
    );
}

function csvOf(slots, fields) {
    return csv([
        ["slot", "end", ...fields.map((field) => field.name)],
        ...slots.map((slot) => [
            slot.record?.slot ?? "",
            new Date(slot.end).toISOString(),
            ...fields.map((field) => slot.values?.[field.name] ?? ""),
        ]),
    ]);
}

function charts(data, name, onChoice) {
    const kind = KINDS[name];
    const fields = listOf(data.fields);
    const slots = withTimes(listOf(data[name]), kind, data.now);
    const field = fields.find((candidate) => candidate.name === choice.field) ?? fields[0];
    if (slots.length === 0 || !field) {
        return h("section", {}, h("h2", {}, kind.title), h("p", { class: "faint" }, "none"));
    }
    const select = h(
        "select",
        { "aria-label": `Measure of the bars: ${kind.title}` },
        fields.map((each) => h("option", { value: each.name, selected: each === field }, withUnit(each))),
    );
    select.addEventListener("change", () => onChoice(select.value));
    const file = h("button", { type: "button" }, "Save as CSV");
    file.addEventListener("click", () =>
        save(`diag-${data.mac}-${data.port}-${name}.csv`, "text/csv", csvOf(slots, fields)),
    );
    const describe = (index) => {
        const slot = slots[index];
        const words = wordsOf(slot) ?? `${valueText(slot.values[field.name])} ${field.unit ?? ""}`;
        return `${spanText(slot, kind)}: ${words.trim()}`;
    };
    return h(
        "section",
        {},
        h("h2", {}, kind.title),
        strips(slots, fields, kind),
        h("div", { class: "tools" }, select, file),
        bars(valuesOf(slots, field), `${withUnit(field)}, by ${kind.noun}`, describe),
        valueTable(slots, fields, kind),
    );
}

export function pmView([mac, port]) {
    const head = h("h1", {}, `Performance of ${mac} port ${port}`);
    const status = h("p", { class: "faint", role: "status" }, "Loading …");
    const body = h("div", { class: "columns" });
    const element = h("div", { class: "pm", "data-pm": `${mac}/${port}` }, head, status, body);
    let shown = ""; // the answer that is drawn
    let timer = null;
    let isClosed = false;

    function draw(data) {
        const names = Object.keys(KINDS);
        const redrawFrom = (index) => (field) => {
            choice.field = field;
            draw(data);
            body.children[index].querySelector("select").focus();
        };
        body.replaceChildren(...names.map((name, index) => charts(data, name, redrawFrom(index))));
    }

    async function load() {
        clearTimeout(timer);
        timer = setTimeout(load, REFRESH_MS);
        try {
            const response = await fetch(`/api/pm/${encodeURIComponent(mac)}/${encodeURIComponent(port)}`, {
                cache: "no-store",
            });
            if (isClosed) {
                return;
            }
            if (response.status === 404) {
                status.textContent =
                    store.info.kind === "site"
                        ? "No records are published for this port."
                        : "No records are published for this port on this broker: they are on the node's own card's.";
                body.replaceChildren();
                shown = "";
                return;
            }
            const data = await response.json();
            const text = JSON.stringify([data.periods, data.days, data.fields]);
            if (text !== shown) {
                shown = text;
                draw(data);
            }
            status.textContent = `As of ${timeText(data.now, store.now())}, ${LEGEND}`;
        } catch {
            // Lost: the banner says so, and the next look comes by itself.
        }
    }

    function soon() {
        clearTimeout(timer);
        timer = setTimeout(load, SOON_MS);
    }

    return {
        element,
        update(changes) {
            const found = store.find(mac);
            if (found) {
                const link = h("a", { href: `#/node/${encodeURIComponent(mac)}` }, titleOf(found.node));
                if (head.textContent !== `Performance of ${titleOf(found.node)} port ${port}`) {
                    head.replaceChildren("Performance of ", link, ` port ${port}`);
                }
            }
            if (changes.all) {
                load();
            } else if (changes.log && store.log.at(-1)?.node === mac && store.log.at(-1)?.port === port) {
                soon();
            }
        },
        close() {
            isClosed = true;
            clearTimeout(timer);
        },
    };
}
