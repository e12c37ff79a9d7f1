// Where the nodes of the map stand: where somebody has put them, else in a ring.

import { recall, remember } from "./memory.js";
import { store } from "./store.js";

const KEY = "layout";
const CELL = 110; // between neighbours
const MAX_ELLIPSE = 24; // nodes; a ring of more is folded to stay readable
const MAX_NODES = 10000;
const SAVE_MS = 300;

// Where each of `count` nodes of a ring stands, neighbours beside each other.
export function ringPlaces(count) {
    return count <= MAX_ELLIPSE ? ellipse(count) : meander(count);
}

function ellipse(count) {
    const radius = Math.max(CELL, (count * CELL) / (2 * Math.PI)) * 1.1;
    return Array.from({ length: count }, (_, index) => {
        const angle = (index / Math.max(count, 1)) * 2 * Math.PI - Math.PI / 2;
        return { x: radius * 1.35 * Math.cos(angle), y: radius * 0.9 * Math.sin(angle) };
    });
}

// Along the top to the right, and back in columns down and up: a closed line that fills a rectangle.
function meander(count) {
    const columns = 2 * Math.max(2, Math.round(Math.sqrt(count * 1.7) / 2));
    const places = Array.from({ length: columns }, (_, column) => ({ x: column * CELL, y: 0 }));
    const pairs = columns / 2;
    const rest = count - columns;
    for (let pair = 0; pair < pairs; pair++) {
        const size = Math.floor(((pair + 1) * rest) / pairs) - Math.floor((pair * rest) / pairs);
        const right = columns - 1 - 2 * pair;
        const down = Math.ceil(size / 2);
        for (let step = 0; step < size; step++) {
            const isDown = step < down;
            const line = isDown ? step + 1 : size - step;
            places.push({ x: (isDown ? right : right - 1) * CELL, y: line * CELL });
        }
    }
    return places;
}

const isPlace = (place) =>
    Array.isArray(place) &&
    place.length === 2 &&
    place.every((value) => Number.isFinite(value) && Math.abs(value) < 1e6);

// The object of a file; throws with words for people.
export function parseLayout(text) {
    let object;
    try {
        object = JSON.parse(text);
    } catch {
        throw new Error("This file is not JSON.");
    }
    const entries = Object.entries(object?.nodes ?? {});
    if (entries.length === 0 || entries.length > MAX_NODES || !entries.every(([, place]) => isPlace(place))) {
        throw new Error('This is no arrangement: {"nodes": {"<MAC>": [x, y], ...}} is expected.');
    }
    return new Map(entries);
}

export function layoutText(items) {
    const nodes = items.map(({ mac, place: { x, y } }) => [mac, [Math.round(x), Math.round(y)]]);
    return `${JSON.stringify({ nodes: Object.fromEntries(nodes) }, null, 1)}\n`;
}

// What was put somewhere, in this browser or by the server's file.
class Layout {
    #own = new Map(Object.entries(recall(KEY)?.nodes ?? {}).filter(([, place]) => isPlace(place)));
    #default = new Map();
    #isLoaded = false;
    #timer = null;

    // Once: what is put elsewhere afterwards counts.
    async loadDefault() {
        if (this.#isLoaded || !store.info.layout) {
            return;
        }
        this.#isLoaded = true;
        try {
            const response = await fetch("/api/layout");
            if (response.ok) {
                this.#default = parseLayout(await response.text());
            }
        } catch {
            // None, or none that can be read: the ring will do.
        }
    }

    get(mac) {
        const place = this.#own.get(mac) ?? this.#default.get(mac);
        return place && { x: place[0], y: place[1] };
    }

    put(mac, { x, y }) {
        this.#own.set(mac, [Math.round(x), Math.round(y)]);
        this.#saveSoon();
    }

    forget(macs) {
        for (const mac of macs) {
            this.#own.delete(mac);
            this.#default.delete(mac);
        }
        this.#saveSoon();
    }

    // Beside what is known of other networks.
    add(places) {
        this.#own = new Map([...this.#own, ...places]);
        this.#saveSoon();
    }

    // A drag puts its node somewhere a hundred times a second.
    #saveSoon() {
        this.#timer ??= setTimeout(() => this.save(), SAVE_MS);
    }

    // Only what was put here: another page's arrangement may be newer.
    save() {
        if (this.#timer !== null) {
            clearTimeout(this.#timer);
            this.#timer = null;
            remember(KEY, { nodes: Object.fromEntries(this.#own) });
        }
    }
}

export const layout = new Layout();
window.addEventListener("pagehide", () => layout.save());
