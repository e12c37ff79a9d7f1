// Strips of colour and bars for a row of periods, of which some are missing.

import { h, setText, svg } from "./dom.js";

const STEP = 10;
const HEIGHT = 100;
const LEVELS = 4;

// 0 for nothing, 1 to 4 by the share of the highest.
function levelOf(value, max) {
    return value === 0 || max === 0 ? 0 : Math.max(1, Math.ceil((value / max) * LEVELS));
}

const highest = (values) => values.reduce((max, value) => (value !== null && value > max ? value : max), 0);

function frame(values, attributes, ...children) {
    return svg(
        "svg",
        { viewBox: `0 0 ${values.length * STEP} ${HEIGHT}`, preserveAspectRatio: "none", ...attributes },
        children,
    );
}

// A thin line, which no value is.
function missing(index) {
    return svg("rect", { x: index * STEP, y: HEIGHT / 2 - 3, width: STEP, height: 6, class: "missing" });
}

export function strip(values, label) {
    const max = highest(values);
    return frame(
        values,
        { class: "strip", role: "img", "aria-label": label },
        values.map((value, index) =>
            value === null
                ? missing(index)
                : svg("rect", {
                      x: index * STEP,
                      y: 0,
                      width: STEP - 1,
                      height: HEIGHT,
                      class: `level${levelOf(value, max)}`,
                  }),
        ),
    );
}

// Bars of which one at a time is read out: that under the pointer, or the one chosen with the arrow keys.
// describe(index) gives the words of a bar.
export function bars(values, label, describe) {
    const max = highest(values) || 1;
    const readout = h("output", { class: "readout" });
    const shapes = values.map((value, index) => {
        const height = Math.max(value > 0 ? 2 : 0.7, (value / max) * HEIGHT);
        return svg(
            "g",
            {},
            svg("rect", { x: index * STEP, y: 0, width: STEP, height: HEIGHT, class: "column" }),
            value === null
                ? missing(index)
                : svg("rect", {
                      x: index * STEP + 1,
                      y: HEIGHT - height,
                      width: STEP - 2,
                      height,
                      class: `level${levelOf(value, max)}`,
                  }),
        );
    });
    const chart = h(
        "div",
        {
            class: "bars",
            tabindex: "0",
            role: "slider",
            "aria-label": label,
            "aria-valuemin": "0",
            "aria-valuemax": String(values.length - 1),
        },
        frame(values, { "aria-hidden": "true" }, shapes),
    );
    let chosen = values.length - 1;

    function choose(index) {
        shapes[chosen].classList.remove("chosen");
        chosen = Math.min(values.length - 1, Math.max(0, index));
        shapes[chosen].classList.add("chosen");
        chart.setAttribute("aria-valuenow", String(chosen));
        chart.setAttribute("aria-valuetext", describe(chosen));
        setText(readout, describe(chosen));
    }

    const keys = {
        ArrowLeft: -1,
        ArrowDown: -1,
        ArrowRight: 1,
        ArrowUp: 1,
        PageUp: 4,
        PageDown: -4,
        Home: -Infinity,
        End: Infinity,
    };
    chart.addEventListener("keydown", (event) => {
        if (event.key in keys) {
            event.preventDefault();
            choose(chosen + keys[event.key]);
        }
    });
    chart.addEventListener("pointermove", (event) => {
        const box = chart.getBoundingClientRect();
        choose(Math.floor(((event.clientX - box.left) / box.width) * values.length));
    });
    choose(chosen);
    return h("div", {}, chart, readout);
}
