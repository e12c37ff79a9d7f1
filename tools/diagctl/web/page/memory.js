// What this browser remembers. A browser may refuse: then it lasts as long as the page.

const PREFIX = "diag-console.";
const session = new Map();

export function recall(key) {
    if (session.has(key)) {
        return session.get(key);
    }
    try {
        return JSON.parse(localStorage.getItem(PREFIX + key));
    } catch {
        return null;
    }
}

export function remember(key, value) {
    session.set(key, value);
    try {
        localStorage.setItem(PREFIX + key, JSON.stringify(value));
    } catch {
        // Private windows, a full store.
    }
}
