// A ring of five nodes with the console on node 1, and a browser beside it.

import { execFile, spawn } from "node:child_process";
import { createInterface } from "node:readline";
import { promisify } from "node:util";

import { chromium } from "playwright-core";

const HERE = new URL(".", import.meta.url).pathname;
const SOURCE = `${HERE}../..`;
const BUILD = process.env.DIAG_BUILD ?? `${SOURCE}/build/release`;
const NAME = `console-${process.pid}`;
const ENVIRONMENT = { ...process.env, LAB_NAME: NAME };
// What it starts ends with this process, however that ends.
const TOGETHER = ["setpriv", "--pdeathsig", "KILL"];
// As in ./demo --story: the daemons' clocks are set so that a quarter hour closes soon.
const CLOCK = "LD_PRELOAD='/usr/$LIB/faketime/libfaketime.so.1' FAKETIME_DONT_FAKE_MONOTONIC=1";

const run = promisify(execFile);
let ring; // the process that the lab hangs on

export const macOf = (node) => `02-00-00-00-00-0${node}`;

function start(...words) {
    const [program, ...rest] = [...TOGETHER, ...words];
    return spawn(program, rest, { env: ENVIRONMENT, stdio: ["ignore", "pipe", "inherit"] });
}

async function line(process, pattern) {
    for await (const text of createInterface({ input: process.stdout })) {
        if (pattern.test(text)) {
            process.stdout.resume();
            return text;
        }
    }
    throw new Error(`ended before it said ${pattern}`);
}

export async function lab(...words) {
    return (await run(`${SOURCE}/lab/lab`, words.map(String), { env: ENVIRONMENT, timeout: 60000 })).stdout;
}

// On node 1.
export const diagctl = (...words) => lab("exec", 1, `${BUILD}/diagctl`, ...words);

// quarterHourAfter: seconds, none for the machine's own.
export async function labUp(quarterHourAfter) {
    const left = 900 - ((Math.floor(Date.now() / 1000) + quarterHourAfter) % 900);
    const clock = quarterHourAfter ? ["--daemon", `env ${CLOCK} FAKETIME=+${left}s "$DIAG" -n "$NODE"`] : [];
    ring = start(`${SOURCE}/lab/lab`, "up", "5", "--foreground", "--build", BUILD, ...clock);
    await line(ring, /is up/);
}

export function labDown() {
    ring?.kill();
}

// diagctl web inside node 1.
export class Console {
    static #count = 0;

    constructor(...options) {
        this.options = options;
        this.pidFile = `/tmp/console-${++Console.#count}.pid`;
    }

    async start() {
        const words = [
            "sh",
            "-c",
            `echo $$ >${this.pidFile}; exec "$@"`,
            "sh",
            `${BUILD}/diagctl`,
            "web",
            ...this.options,
        ];
        this.process = start(`${SOURCE}/lab/lab`, "exec", "1", ...words);
        this.address = /http:\S+\//.exec(await line(this.process, /http:/))[0];
    }

    async signal(name) {
        // What waits for a stopped process inside the lab is stopped as well.
        this.process.kill(name === "CONT" ? "SIGCONT" : 0);
        await lab("exec", 1, "sh", "-c", `kill -${name} $(cat ${this.pidFile})`);
    }

    // Returns the exit status.
    async stop() {
        const ended = new Promise((resolve) => this.process.once("exit", resolve));
        if (this.process.exitCode === null) {
            await this.signal("TERM");
            return ended;
        }
        return this.process.exitCode;
    }
}

export function openBrowser() {
    process.env.LAB_NAME = NAME;
    return chromium.launch({ executablePath: `${HERE}chromium`, args: ["--no-sandbox"] });
}

// At node 1's broker, retained. The payload comes from standard input: it may be anything.
export async function publish(topic, payload) {
    const process = spawn(
        `${SOURCE}/lab/lab`,
        ["exec", "1", "mosquitto_pub", "-p", "1885", "-r", "-s", "-t", topic],
        { env: ENVIRONMENT },
    );
    process.stdin.end(payload);
    const status = await new Promise((resolve) => process.once("exit", resolve));
    if (status !== 0) {
        throw new Error(`mosquitto_pub ${topic}: ${status}`);
    }
}

// A node whose broker has the records of a day on this one as well, with gaps.
export async function publishDay(mac, port, isMissing) {
    const last = Math.floor(Date.now() / 1000 / 900) * 900;
    const lines = [];
    for (let slot = 0; slot < 96; slot++) {
        if (!isMissing(slot)) {
            const record = Buffer.alloc(56);
            const errors = slot % 11 === 0 ? slot : 0;
            const down = slot > 60 && slot < 64 ? slot * 3 : 0;
            [last - (95 - slot) * 900, 4096 * slot, 1000 + slot, errors].forEach((value, index) =>
                record.writeBigInt64BE(BigInt(value), 8 * index),
            );
            [down > 0 ? 1 : 0, down, 0, down, errors * 9].forEach((value, index) =>
                record.writeInt32BE(value, 32 + 4 * index),
            );
            const octal = [...record].map((byte) => `\\${byte.toString(8).padStart(3, "0")}`).join("");
            lines.push(
                `printf '${octal}' | mosquitto_pub -p 1885 -r -s -t pub/diag/${mac}/${port}/pm/period${slot}`,
            );
        }
    }
    lines.push(`mosquitto_pub -p 1885 -r -m period95 -t pub/diag/${mac}/${port}/pm/last_period`);
    await lab("exec", 1, "sh", "-c", lines.join("\n"));
}

// A site with a broker of its own beside node 1's: its cards 1, 2 and 3 are a network, 4 and 5 another. The link at 2's port B
// is down, which 1 has not heard; 3 is unreachable.
const SITE_PORT = "1886";
const SITE_NAMES = "/tmp/site-names";
export const siteMac = (card) => `02-00-00-00-02-0${card}`;

export async function startSite() {
    // Nobody else is known in the lab, so it stays who it is.
    const settings = `listener ${SITE_PORT} 127.0.0.1\\nallow_anonymous true\\nuser root\\nlog_type error\\n`;
    const serve = `printf '${settings}' >/tmp/site.conf; exec mosquitto -c /tmp/site.conf`;
    start(`${SOURCE}/lab/lab`, "exec", "1", "sh", "-c", serve).stdout.resume();
    const put = (topic, text) => `printf '${text}' | mosquitto_pub -p ${SITE_PORT} -r -s -t '${topic}'`;
    const green = '{"A":"green","B":"green"}';
    const lines = [`until ${put("started", "1")} 2>/dev/null; do sleep 0.1; done`];
    ["Foyer", "Hall", "Roof", "Garage", "Gate"].forEach((name, index) =>
        lines.push(`echo ${siteMac(index + 1).replaceAll("-", ":")} ${name} >>${SITE_NAMES}`),
    );
    for (const network of [
        [1, 2, 3],
        [4, 5],
    ]) {
        for (const card of network) {
            const view = `cards/${siteMac(card)}`;
            lines.push(put(`${view}/bridge`, card === 3 ? "0" : "1"));
            lines.push(
                put(
                    `pub/diag/${siteMac(card)}/port_summary`,
                    card === 2 ? green.replace(/green"}/, 'red"}') : green,
                ),
            );
            lines.push(put(`pub/diag/${siteMac(card)}/job_name`, "SITE"));
            for (const other of network.filter((each) => each !== card)) {
                lines.push(put(`${view}/pub/diag/${siteMac(other)}/port_summary`, green));
            }
            const isTold = card === 2 || card === 3;
            lines.push(
                put(`${view}/pub/diag/net/fire/link_down`, isTold ? "\\2\\0\\0\\0\\2\\2\\7\\2" : "\\0"),
            );
            lines.push(
                put(`${view}/pub/diag/net/fire/grnd_list`, "\\0"),
                put(`${view}/pub/diag/net/fire/miswired`, "\\0"),
            );
        }
    }
    await lab("exec", 1, "sh", "-c", lines.join("\n"));
    const site = new Console("--site", "--port", SITE_PORT, "--names", SITE_NAMES, "--listen", "127.0.0.1:0");
    await site.start();
    return site;
}
