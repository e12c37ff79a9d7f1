// What the console costs, server and page: `bench/console [SECONDS]` starts this.

import { execFileSync, spawn } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { connect } from "node:net";
import { tmpdir } from "node:os";
import { createInterface } from "node:readline";

import { chromium } from "playwright-core";

const SOURCE = new URL("../..", import.meta.url).pathname;
const BUILD = process.env.DIAG_BUILD ?? `${SOURCE}build/release`;
const STORM_SECONDS = Number(process.argv[2] ?? 20);
const NODES = 250;
const RATE = 100; // changes a second
const CARDS = 1000;
const FIRST_VIEWS = 5;
const PORT = 21950;
const WEB_PORT = 21959;
const LIMIT_MS = 60000;
const PYTHON = "/usr/bin/python3";

// A network on the broker; "storm SECONDS RATE" turns a port of one node after the other red or green, and tells when.
const PUBLISHER = `
import json, sys, time
import paho.mqtt.client as mqtt
port, nodes = int(sys.argv[1]), int(sys.argv[2])
client = mqtt.Client()
client.max_inflight_messages_set(0)
client.max_queued_messages_set(0)
client.connect("127.0.0.1", port)
client.loop_start()
def mac(number):
    return f"02-00-00-00-{number >> 8:02X}-{number & 255:02X}"
def put(topic, payload, qos=0):
    return client.publish(topic, payload, qos=qos, retain=True)
def colour(number, name):
    return put(f"pub/diag/{mac(number)}/port_summary", '{"A":"%s","B":"green"}' % name)
put("local/diag/network_style7", bytes(1))
for name in ("link_down", "grnd_list", "miswired"):
    put("pub/diag/net/fire/" + name, bytes(1))
for number in range(1, nodes + 1):
    colour(number, "green")
    for name, value in (("port_media", '{"A":"eth","B":"smf"}'), ("job_name", "BENCH"), ("job_rev", "12"),
                        ("CF_free_space", "123456"), ("M301", "0"), ("M702", "0"), ("comm_loss", "0")):
        put(f"pub/diag/{mac(number)}/{name}", value)
put("pub/diag/local_node", mac(1), qos=1).wait_for_publish()
print("full", flush=True)
changes = 0
for line in sys.stdin:
    _, seconds, rate = line.split()
    told, start = [], time.monotonic()
    for step in range(int(float(seconds) * int(rate))):
        time.sleep(max(0, start + step / int(rate) - time.monotonic()))
        number = changes % nodes + 1
        told.append([mac(number), time.time() * 1000])
        colour(number, "green" if changes // nodes % 2 else "red")
        changes += 1
    print(json.dumps(told), flush=True)
`;

const started = [];
const folder = mkdtempSync(`${tmpdir()}/diag-console-`);

function start(program, ...words) {
    const child = spawn("setpriv", ["--pdeathsig", "KILL", program, ...words.map(String)], {
        stdio: ["pipe", "pipe", "ignore"],
    });
    started.push(child);
    const lines = createInterface({ input: child.stdout })[Symbol.asyncIterator]();
    return {
        child,
        async answer() {
            const { value, done } = await lines.next();
            if (done) {
                throw new Error(`${program} ended`);
            }
            return value;
        },
        ask(line) {
            child.stdin.write(`${line}\n`);
            return this.answer();
        },
    };
}

async function broker(port, settings = "") {
    const config = `${folder}/${port}.conf`;
    writeFileSync(
        config,
        `listener ${port} 127.0.0.1\nallow_anonymous true\nuser root\nlog_dest none\n${settings}`,
    );
    start("mosquitto", "-c", config);
    for (;;) {
        const isThere = await new Promise((resolve) => {
            const socket = connect(port, "127.0.0.1", () => resolve(true));
            socket.on("error", () => resolve(false));
        });
        if (isThere) {
            return;
        }
    }
}

async function web(...words) {
    const { child, answer } = start(`${BUILD}/diagctl`, "web", "--listen", `127.0.0.1:${WEB_PORT}`, ...words);
    const address = /http:\S+\//.exec(await answer())[0];
    const status = (name) => readFileSync(`/proc/${child.pid}/${name}`, "utf8");
    const tick = Number(execFileSync("getconf", ["CLK_TCK"]));
    return {
        address,
        megabytes: () => Number(/VmRSS:\s+(\d+)/.exec(status("status"))[1]) / 1000,
        seconds: () => {
            const fields = status("stat").split(") ")[1].split(" ");
            return (Number(fields[11]) + Number(fields[12])) / tick;
        },
        async end() {
            const ended = new Promise((resolve) => child.once("exit", resolve));
            child.kill();
            await ended;
        },
    };
}

const quantile = (values, part) =>
    [...values].sort((a, b) => a - b)[Math.min(values.length - 1, Math.floor(values.length * part))];
const show = (what, text) => console.log(`${`${what}:`.padEnd(46)} ${text}`);

async function firstView(browser, address, nodes) {
    const times = [];
    for (let i = 0; i < FIRST_VIEWS; i++) {
        const context = await browser.newContext({ viewport: { width: 1280, height: 800 } });
        const page = await context.newPage();
        const begin = Date.now();
        await page.goto(address);
        await page.waitForFunction(
            (count) =>
                document.body.dataset.connection === "live" &&
                document.querySelectorAll("[data-node][data-present]").length === count,
            nodes,
            { timeout: LIMIT_MS },
        );
        times.push(Date.now() - begin);
        await context.close();
    }
    return `${quantile(times, 0.5)} ms (median of ${FIRST_VIEWS}, slowest ${Math.max(...times)} ms)`;
}

async function processorSeconds(browser) {
    const session = await browser.newBrowserCDPSession();
    const { processInfo } = await session.send("SystemInfo.getProcessInfo");
    await session.detach();
    const sum = (isWanted) =>
        processInfo.filter(({ type }) => isWanted(type)).reduce((all, { cpuTime }) => all + cpuTime, 0);
    return { page: sum((type) => type === "renderer"), rest: sum((type) => type !== "renderer") };
}

// Runs in the page: when a port's lamp has taken another colour.
function watchLamps() {
    globalThis.seen = [];
    new MutationObserver((records) => {
        const now = Date.now();
        for (const { target } of records) {
            const node = target.closest("[data-present]");
            if (node && target.dataset.port === "A") {
                globalThis.seen.push([node.dataset.node, now]);
            }
        }
    }).observe(document.querySelector("main"), { subtree: true, attributeFilter: ["data-colour"] });
}

function delays(told, seen) {
    const times = new Map();
    seen.forEach(([mac, time]) => times.set(mac, [...(times.get(mac) ?? []), time]));
    return told.map(([mac, time]) => {
        const shown = times.get(mac)?.shift();
        if (shown === undefined) {
            throw new Error(`a change of ${mac} was never shown`);
        }
        return shown - time;
    });
}

async function measureNetwork(browser) {
    await broker(PORT, "set_tcp_nodelay true\n");
    const publisher = start(PYTHON, "-c", PUBLISHER, PORT, NODES);
    await publisher.answer();
    const server = await web("--host", "127.0.0.1", "--port", PORT);
    show(`first view with ${NODES} nodes`, await firstView(browser, server.address, NODES));

    const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
    for (const view of ["#/", "#/map"]) {
        await page.goto(server.address + view);
        await page.reload();
        await page.waitForSelector('body[data-connection="live"] [data-port]', { state: "attached" });
        await publisher.ask(`storm 3 ${RATE}`); // what is compiled is compiled
        await page.waitForTimeout(1000);
        if (view === "#/") {
            await page.evaluate(watchLamps);
        }
        const before = [server.seconds(), await processorSeconds(browser)];
        const begin = Date.now();
        const told = JSON.parse(await publisher.ask(`storm ${STORM_SECONDS} ${RATE}`));
        const after = [server.seconds(), await processorSeconds(browser)];
        const share = (seconds) => `${((seconds * 1e5) / (Date.now() - begin)).toFixed(1)} %`;
        show(
            `processor in a storm, ${view === "#/" ? "overview" : "map"}`,
            `server ${share(after[0] - before[0])}, page ${share(after[1].page - before[1].page)}, ` +
                `the rest of the browser ${share(after[1].rest - before[1].rest)} of a core`,
        );
        if (view === "#/") {
            await page.waitForTimeout(1000);
            const found = delays(told, await page.evaluate(() => globalThis.seen));
            show(
                `broker to page, ${RATE} changes a second`,
                `median ${quantile(found, 0.5).toFixed(0)} ms, 99 % ${quantile(found, 0.99).toFixed(0)} ms, ` +
                    `last ${Math.max(...found).toFixed(0)} ms of ${found.length}`,
            );
        }
    }
    await page.close();
    show(`server's memory with ${NODES} nodes, after the storm`, `${server.megabytes().toFixed(0)} MB`);
    await server.end();
}

async function measureSite(browser) {
    const names = "set_tcp_nodelay|max_inflight_messages|max_queued_messages|message_size_limit|persistence";
    const settings = readFileSync(`${SOURCE}packaging/mosquitto/site.conf`, "utf8")
        .split("\n")
        .filter((text) => new RegExp(`^(${names})`).test(text))
        .join("\n");
    const ports = [PORT + 1, PORT + 2];
    for (const port of ports) {
        await broker(port, settings);
    }
    const player = start(`${BUILD}/bench/bench_site`, "play", CARDS, ...ports);
    await player.answer();
    await player.ask("load");
    const begin = Date.now();
    const server = await web("--site", ...ports.flatMap((port) => ["--host", `127.0.0.1:${port}`]));
    show(`site of ${CARDS} cards at two brokers, server ready`, `${Date.now() - begin} ms`);
    show("first view", await firstView(browser, server.address, CARDS));
    show("server's memory", `${server.megabytes().toFixed(0)} MB`);
    const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
    await page.goto(server.address);
    await page.waitForSelector('body[data-connection="live"] [data-port]', { state: "attached" });
    for (const phase of ["rest", "storm"]) {
        const before = [server.seconds(), await processorSeconds(browser)];
        const [seconds, , messages] = (await player.ask(`${phase} ${STORM_SECONDS}`)).split(" ");
        const after = [server.seconds(), await processorSeconds(browser)];
        const share = (spent) => `${((spent * 100) / Number(seconds)).toFixed(1)} %`;
        show(
            `processor, ${phase}, ${(Number(messages) / ports.length / Number(seconds)).toFixed(0)} messages a second`,
            `server ${share(after[0] - before[0])}, page ${share(after[1].page - before[1].page)}, ` +
                `the rest of the browser ${share(after[1].rest - before[1].rest)} of a core`,
        );
    }
    show("server's memory after the storm", `${server.megabytes().toFixed(0)} MB`);
    await server.end();
}

const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
try {
    await measureNetwork(browser);
    await measureSite(browser);
} finally {
    await browser.close();
    started.forEach((child) => child.kill("SIGKILL"));
    rmSync(folder, { recursive: true });
}
