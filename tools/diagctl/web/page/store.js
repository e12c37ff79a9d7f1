// What the page knows: the last snapshot with the changes since, the newest changes, and whether all that is live.
// Nothing in here grows with time.

import { follow } from "./stream.js";

const MAX_LOG = 10000;
const LOG_SLACK = 500; // beyond, so that not each change moves the whole array
const FIRST_LOG = 50;
const LOG_INTERVAL_MS = 250;
const CONNECTING = "connecting";

class Store {
    networks = []; // {..., nodes: Map of MAC address to node}
    info = {}; // the snapshot's other fields
    log = []; // changes, oldest first
    connection = { state: "lost", cause: CONNECTING, since: Date.now() };
    isLoaded = false;
    #skew = 0;
    #wantsWholeLog = false;
    #hasWholeLog = false;
    #waiting = null; // events that came before the snapshot that they follow
    #listeners = new Set();
    #pending = null; // what the listeners have not been told
    #frame = null;
    #timer = null;
    #loggedAt = -Infinity;

    start() {
        follow({
            onOpen: () => this.#load(),
            onEvent: (name, data) => this.#take(name, JSON.parse(data)),
            onLost: () => this.#lose("server"),
        });
    }

    // listener(changes): {networks: Map of index to Set of MAC addresses, log, older, connection, all}, once a frame at most;
    // older: not only newer changes than before have come. A page in the
    // background has no frames.
    subscribe(listener) {
        this.#listeners.add(listener);
        return () => this.#listeners.delete(listener);
    }

    find(mac) {
        for (const [index, network] of this.networks.entries()) {
            const node = network.nodes.get(mac);
            if (node) {
                return { index, network, node };
            }
        }
        return null;
    }

    get isLive() {
        return this.connection.state === "live";
    }

    // By the server's clock, or that of the recording, which goes at a speed of its own.
    now() {
        return Date.now() + this.#skew;
    }

    setTime(time) {
        this.#skew = time - Date.now() || 0;
    }

    wantWholeLog() {
        this.#wantsWholeLog = true;
        if (this.isLoaded && !this.#hasWholeLog) {
            this.#loadLog(0);
        }
    }

    // What says how the network is appears with the next frame. Lines of the log, of which a storm brings hundreds, wait
    // for each other and for a frame that is drawn anyway.
    #mark(change) {
        this.#pending ??= { networks: new Map(), log: false, connection: false, all: false };
        change(this.#pending);
        const { networks, connection, all } = this.#pending;
        if (networks.size > 0 || connection || all) {
            this.#frame ??= requestAnimationFrame(() => this.#tell());
        } else {
            this.#timer ??= setTimeout(() => this.#tell(), LOG_INTERVAL_MS);
        }
    }

    #tell() {
        clearTimeout(this.#timer);
        cancelAnimationFrame(this.#frame);
        this.#timer = null;
        this.#frame = null;
        const changes = this.#pending;
        this.#pending = null;
        if (changes.log && !changes.all) {
            const now = performance.now();
            changes.log = now - this.#loggedAt >= LOG_INTERVAL_MS;
            if (changes.log) {
                this.#loggedAt = now;
            } else {
                this.#mark((pending) => Object.assign(pending, { log: true, older: changes.older }));
            }
        }
        this.#listeners.forEach((listener) => listener(changes));
    }

    #lose(cause, when) {
        if (this.connection.state === "lost" && this.connection.cause === cause && !when) {
            return;
        }
        // Trying again is not a new loss.
        const now = this.info.replay ? Date.now() : this.now();
        const since = this.connection.state === "lost" ? this.connection.since : now;
        this.connection = { state: "lost", cause, since: when ? Date.parse(when) : since };
        // At once: a page in the background has no frames, and what it shows must not pass for live.
        document.body.dataset.connection = "lost";
        this.#mark((pending) => (pending.connection = true));
    }

    async #load() {
        const waiting = [];
        this.#waiting = waiting;
        try {
            const response = await fetch("/api/network", { cache: "no-store" });
            if (!response.ok) {
                throw new Error(`status ${response.status}`);
            }
            const snapshot = await response.json();
            if (this.#waiting !== waiting) {
                return; // overtaken by a newer one
            }
            this.#replace(snapshot);
        } catch {
            if (this.#waiting === waiting) {
                setTimeout(() => this.#waiting === waiting && this.#load(), 1000);
            }
            return;
        }
        this.#waiting = null;
        waiting.forEach(([name, data]) => this.#take(name, data));
    }

    #replace(snapshot) {
        const { networks, ...info } = snapshot;
        // Of a recording that was moved, what is known may not have happened yet.
        const isRestarted =
            info.replay || (this.isLoaded && (info.started !== this.info.started || info.id < this.info.id));
        this.networks = networks.map(({ nodes, ...network }) => ({
            ...network,
            nodes: new Map(nodes.map((node) => [node.mac, node])),
        }));
        this.info = info;
        this.setTime(Date.parse(info.time));
        this.isLoaded = true;
        if (isRestarted) {
            this.log = [];
            this.#hasWholeLog = false;
        }
        this.#setConnection({ ...info, since: info.connection_since });
        this.#mark((pending) => (pending.all = true));
        const last = this.#hasWholeLog && this.log.length > 0 ? this.log.at(-1).id : null;
        this.#loadLog(last ?? (this.#wantsWholeLog ? 0 : Math.max(0, info.id - FIRST_LOG)));
    }

    async #loadLog(after) {
        const { networks } = this;
        try {
            const response = await fetch(`/api/log?after=${after}`, { cache: "no-store" });
            const { changes } = await response.json();
            if (networks !== this.networks) {
                return; // overtaken by a newer one
            }
            const known = new Map(this.log.map((change) => [change.id, change]));
            changes.forEach((change) => known.set(change.id, change));
            this.log = [...known.values()].sort((a, b) => a.id - b.id).slice(-MAX_LOG);
            this.#hasWholeLog ||= after === 0;
            this.#mark((pending) => (pending.log = pending.older = true));
        } catch {
            // Tried again with the next connection.
        }
    }

    #take(name, data) {
        if (name === "connection") {
            this.#setConnection(data);
        } else if (name === "reset") {
            this.#load();
        } else if (this.#waiting) {
            this.#waiting.push([name, data]);
        } else if (name === "network" && data.id >= this.info.id) {
            this.#apply(data);
        } else if (name === "change") {
            this.#append(data);
        }
    }

    #setConnection({ connection, since, reason, brokers }) {
        this.info.reason = reason;
        this.info.brokers = brokers;
        if (connection !== "live") {
            this.#lose("broker", since);
        } else if (this.isLoaded) {
            this.connection = { state: "live", cause: null, since: Date.parse(since) };
            this.#mark((pending) => (pending.connection = true));
        }
    }

    // One network's changed parts; nodes are whole.
    #apply({ id: _, network: index, nodes = [], gone = [], ...parts }) {
        const network = this.networks[index];
        if (!network) {
            this.#load();
            return;
        }
        Object.assign(network, parts);
        this.#mark((pending) => {
            const changed = pending.networks.get(index) ?? new Set();
            pending.networks.set(index, changed);
            for (const node of nodes) {
                network.nodes.set(node.mac, node);
                changed.add(node.mac);
            }
            for (const mac of gone) {
                network.nodes.delete(mac);
                changed.add(mac);
            }
        });
    }

    #append(change) {
        if (this.log.length > 0 && change.id <= this.log.at(-1).id) {
            return;
        }
        this.log.push(change);
        if (this.log.length > MAX_LOG + LOG_SLACK) {
            this.log.splice(0, this.log.length - MAX_LOG);
        }
        this.#mark((pending) => (pending.log = true));
    }
}

export const store = new Store();
