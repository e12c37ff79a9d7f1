// While the server plays a recording: where it stands, and moving in it.

import { h, setText } from "./dom.js";
import { store } from "./store.js";
import { durationText, timeText } from "./text.js";

const POLL_MS = 1000;
const SEEK_INTERVAL_MS = 250; // while the slider is dragged
const SPEEDS = [0.5, 1, 2, 5, 10, 60, 600, 3600];

export function startRecording(bar) {
    const play = h("button", { type: "button" }, "Pause");
    const slider = h("input", { type: "range", min: "0", step: "1", "aria-label": "Place in the recording" });
    const speed = h(
        "select",
        { "aria-label": "Speed" },
        SPEEDS.map((factor) => h("option", { value: String(factor) }, `${factor} ×`)),
    );
    const place = h("span", { class: "place" });
    bar.append(h("strong", {}, "Recording"), play, slider, place, speed);
    let isPaused = false;
    let isHeld = false; // the slider, by the person
    let isAsking = false;
    let soughtAt = 0;

    function showPlace(position, recording) {
        const words = `${durationText(position)} of ${durationText(recording.duration)}`;
        const start = Date.parse(recording.start);
        const when = Number.isNaN(start) ? "" : ` · ${timeText(start + position * 1000, 0)}`;
        setText(place, words + when);
        slider.setAttribute("aria-valuetext", words + when);
    }

    let latest = null;
    function showRecording(recording) {
        latest = recording;
        store.setTime(Date.parse(recording.start) + recording.position * 1000);
        isPaused = recording.paused;
        setText(play, isPaused ? "Play" : "Pause");
        if (!SPEEDS.includes(recording.speed)) {
            SPEEDS.push(recording.speed);
            speed.append(h("option", { value: String(recording.speed) }, `${recording.speed} ×`));
        }
        if (speed !== document.activeElement) {
            speed.value = String(recording.speed);
        }
        slider.max = String(Math.ceil(recording.duration));
        if (!isHeld) {
            slider.value = String(recording.position);
            showPlace(recording.position, recording);
        }
    }

    async function ask(path) {
        isAsking = true;
        try {
            const response = await fetch(`/api/recording${path}`, { cache: "no-store" });
            if (response.ok) {
                showRecording(await response.json());
            }
        } catch {
            // The banner says that the server is gone.
        } finally {
            isAsking = false;
        }
    }

    play.addEventListener("click", () => ask(`/pause?to=${isPaused ? 0 : 1}`));
    speed.addEventListener("change", () => ask(`/speed?to=${speed.value}`));
    slider.addEventListener("input", () => {
        isHeld = true;
        showPlace(Number(slider.value), latest);
        if (performance.now() - soughtAt > SEEK_INTERVAL_MS) {
            soughtAt = performance.now();
            ask(`/seek?to=${slider.value}`);
        }
    });
    function release() {
        if (isHeld) {
            isHeld = false;
            ask(`/seek?to=${slider.value}`);
        }
    }
    slider.addEventListener("change", release);
    // One that was dragged and brought back to where it was does not count as changed.
    window.addEventListener("pointerup", release);
    window.addEventListener("pointercancel", release);
    store.subscribe((changes) => {
        if (changes.all) {
            bar.hidden = !store.info.replay;
            if (store.info.replay && !isAsking && !isHeld) {
                ask("");
            }
        }
    });
    setInterval(() => {
        if (!bar.hidden && !document.hidden && !isHeld && !isAsking) {
            ask("");
        }
    }, POLL_MS);
}
