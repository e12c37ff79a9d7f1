// The server's stream of events, for as long as the page is open.
//
// Read with fetch() and not with EventSource, which hides the comment lines that the server sends as signs of life: a
// server that says nothing for a few seconds, or a network cable that was pulled, is to be noticed at once.

const SILENCE_MS = 5000;
const RETRY_MS = 1000;

function parseEvent(block) {
    const event = { name: "message", data: "" };
    for (const line of block.split("\n")) {
        const colon = line.indexOf(":");
        const field = line.slice(0, colon);
        const value = line.slice(colon + 1).trimStart();
        if (field === "event") {
            event.name = value;
        } else if (field === "data") {
            event.data += value;
        }
    }
    return event.data === "" && event.name === "message" ? null : event;
}

async function readEvents(body, onBytes, onEvent) {
    const reader = body.pipeThrough(new TextDecoderStream()).getReader();
    let rest = "";
    for (;;) {
        const { value, done } = await reader.read();
        if (done) {
            return;
        }
        onBytes();
        const blocks = (rest + value).split("\n\n");
        rest = blocks.pop();
        for (const block of blocks) {
            const event = parseEvent(block);
            if (event) {
                onEvent(event.name, event.data);
            }
        }
    }
}

// Calls onOpen for each connection that was made, onEvent(name, data), and onLost whenever there is none any more.
export function follow({ onOpen, onEvent, onLost }) {
    let heard = Date.now();
    let attempt = new AbortController();

    async function connect() {
        attempt = new AbortController();
        heard = Date.now();
        try {
            const response = await fetch("/api/events", { signal: attempt.signal, cache: "no-store" });
            if (!response.ok) {
                throw new Error(`status ${response.status}`);
            }
            onOpen();
            await readEvents(response.body, () => (heard = Date.now()), onEvent);
        } catch {
            // Refused, cut off or silent: the same for who looks at the page.
        }
        onLost();
        setTimeout(connect, RETRY_MS);
    }

    function checkSilence() {
        if (Date.now() - heard > SILENCE_MS) {
            attempt.abort();
        }
    }

    setInterval(checkSilence, 500);
    // A laptop that wakes, a tab that comes to the front: timers were held back meanwhile.
    document.addEventListener("visibilitychange", checkSilence);
    window.addEventListener("offline", checkSilence);
    connect();
}
