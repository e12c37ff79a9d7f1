// A page that is open for a day, as a recording of one that is played in less than a minute: what it holds must not grow.

import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { createInterface } from "node:readline";
import { test } from "node:test";

import { chromium } from "playwright-core";

const BUILD = process.env.DIAG_BUILD ?? new URL("../../build/release", import.meta.url).pathname;
const DAY = 86400;
const QUARTER_HOUR = 900;
const SPEED = 2160;
const NODES = 20;
const SECONDS = 1000;
const LIMIT = 1.25; // times what it held once its log was full

const macOf = (number) => `02-00-00-00-00-${number.toString(16).toUpperCase().padStart(2, "0")}`;

// 20 nodes whose free space changes each minute and whose ports fail now and then; the first with statistics and records.
function recordingOfADay() {
    const lines = [{ diagctl_recording: 1, started: "2024-05-01T00:00:00Z" }];
    const add = (time, topic, payload) =>
        lines.push({
            time,
            retained: true,
            topic,
            ...(typeof payload === "string" ? { text: payload } : { hex: payload.toString("hex") }),
        });
    for (let second = 0; second < DAY; second++) {
        for (let number = 1; number <= NODES; number++) {
            const node = `pub/diag/${macOf(number)}`;
            const turn = second + 7 * number;
            if (turn % 600 === 0 || second === 0) {
                const isDown = (turn / 600) % 2 === 1;
                add(second, `${node}/port_summary`, `{"A":"green","B":"${isDown ? "red" : "green"}"}`);
                const entry = [2, 0, 0, 0, 0, number, number, 2];
                add(second, "pub/diag/net/fire/link_down", Buffer.from(isDown ? entry : [0]));
            }
            if (turn % 60 === 0) {
                add(second, `${node}/CF_free_space`, String(100000 + second));
            }
        }
        if (second === 0) {
            add(second, "pub/diag/local_node", macOf(1));
        }
        if (second % 10 === 0) {
            const record = Buffer.alloc(66);
            record.writeBigUInt64BE(BigInt(second), 0);
            add(second, `pub/diag/${macOf(1)}/A/stats`, record);
        }
        if (second % QUARTER_HOUR === 0) {
            const slot = `period${(second / QUARTER_HOUR) % 96}`;
            const record = Buffer.alloc(56);
            record.writeBigInt64BE(BigInt(1714521600 + second), 0);
            add(second, `pub/diag/${macOf(1)}/A/pm/${slot}`, record);
            add(second, `pub/diag/${macOf(1)}/A/pm/last_period`, slot);
        }
    }
    return lines.map((line) => JSON.stringify(line)).join("\n");
}

test("a page or a server that grows while it is open", { timeout: 200 * SECONDS }, async (context) => {
    const folder = mkdtempSync(`${tmpdir()}/diag-day-`);
    const file = `${folder}/day.jsonl`;
    writeFileSync(file, recordingOfADay());
    const words = ["--replay", file, "--speed", String(SPEED), "--listen", "127.0.0.1:0"];
    const server = spawn("setpriv", ["--pdeathsig", "KILL", `${BUILD}/diagctl`, "web", ...words]);
    const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
    context.after(async () => {
        await browser.close();
        server.kill();
        rmSync(folder, { recursive: true });
    });
    const { value: ready } = await createInterface({ input: server.stdout })[Symbol.asyncIterator]().next();
    const address = /http:\S+\//.exec(ready)[0];
    const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
    await page.goto(address);
    await page.waitForSelector('body[data-connection="live"] [data-node]');
    const session = await page.context().newCDPSession(page);
    await session.send("Performance.enable");

    async function played() {
        const { position, duration } = await (await fetch(`${address}api/recording`)).json();
        return position / duration;
    }
    const pause = (isWanted) => fetch(`${address}api/recording/pause?to=${isWanted ? 1 : 0}`);

    // Once what is no longer used has been collected, which takes the browser some rounds.
    async function held() {
        await pause(true);
        await page.goto(`${address}#/`);
        await page.locator(".tile").first().waitFor(); // not waitForSelector(), whose answer holds the element
        const least = {};
        for (let round = 0; round < 8; round++) {
            await session.send("HeapProfiler.collectGarbage");
            await page.waitForTimeout(300);
            const { metrics } = await session.send("Performance.getMetrics");
            const of = (name) => metrics.find((metric) => metric.name === name).value;
            const memory = readFileSync(`/proc/${server.pid}/status`, "utf8");
            const now = {
                heap: of("JSHeapUsedSize"),
                elements: of("Nodes"),
                listeners: of("JSEventListeners"),
                server: Number(/VmRSS:\s+(\d+)/.exec(memory)[1]) * 1024,
            };
            Object.entries(now).forEach(
                ([name, value]) => (least[name] = Math.min(least[name] ?? value, value)),
            );
        }
        await pause(false);
        return least;
    }
    // From view to view until that part of the day is over.
    async function look(part) {
        while ((await played()) < part) {
            for (const view of ["#/events", "#/map", `#/node/${macOf(1)}`, `#/pm/${macOf(1)}/A`, "#/"]) {
                await page.goto(address + view);
                await page.locator("h1").waitFor({ state: "attached" });
                await page.waitForTimeout(200);
            }
        }
        return held();
    }

    const early = await look(0.3);
    const late = await look(1);
    const told = await page.evaluate(async () => (await (await fetch("/api/log")).json()).changes.length);
    assert.equal(told, 10000, "the log was not full");
    for (const name of Object.keys(early)) {
        context.diagnostic(`${name}: ${early[name]} after 7 hours, ${late[name]} after 24`);
        assert.ok(late[name] <= early[name] * LIMIT, `${name} grows from ${early[name]} to ${late[name]}`);
    }
});
