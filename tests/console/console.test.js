// The console as people meet it: a real ring, the real server, a real browser. Each test is named by the fault that it
// would catch. They share one lab and follow each other; what one breaks it mends.

import assert from "node:assert/strict";
import { readFile } from "node:fs/promises";
import { createRequire } from "node:module";
import { after, before, test } from "node:test";

import { Console, diagctl, lab, labDown, labUp, macOf, openBrowser, publish, publishDay } from "./lab.js";

const SECONDS = 1000;
const HEAL_MS = 30 * SECONDS; // spanning tree takes 10 s, a lost summary costs another 15 s
const QUARTER_HOUR_AFTER = 50; // seconds
const SHOTS = process.env.DIAG_SCREENSHOTS; // a folder for the pictures of the documents
const AXE = createRequire(import.meta.url).resolve("axe-core/axe.min.js");
const VIEWS = ["#/", "#/map", `#/node/${macOf(1)}`, `#/pm/${macOf(1)}/A`, "#/events"];
const HOSTILE = "02-00-00-00-00-66";

const server = new Console();
const faults = []; // what the browser complains of
let browser, page;

const port = (node, name, rest = "") =>
    `[data-node="${macOf(node)}"][data-present] [data-port="${name}"]${rest}`;
const see = (selector, limit = HEAL_MS, state = "attached") =>
    page.waitForSelector(selector, { timeout: limit, state });
const noLonger = (selector, limit = HEAL_MS) => see(selector, limit, "detached");
const live = (limit) => see('body[data-connection="live"]', limit);

async function open(view) {
    await page.goto(server.address + view);
    await page.reload(); // only another view is no new page
    await live();
}

async function picture(name, scheme = "light") {
    if (SHOTS) {
        await page.emulateMedia({ colorScheme: scheme });
        await page.screenshot({ path: `${SHOTS}/console-${name}.png` });
        await page.emulateMedia({ colorScheme: null });
    }
}

async function saved(button) {
    const [download] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("button", { name: button }).first().click(),
    ]);
    return readFile(await download.path(), "utf8");
}

before(async () => {
    await labUp(QUARTER_HOUR_AFTER);
    await server.start();
    browser = await openBrowser();
    page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
    page.on("pageerror", (error) => faults.push(error.stack));
    page.on("dialog", (dialog) => faults.push(`dialog: ${dialog.message()}`) && dialog.dismiss());
    // That a server is away, or a port that nobody has, is the test's doing, and the browser says so.
    page.on(
        "console",
        (message) =>
            message.type() === "error" && !/ERR_|404|503/.test(message.text()) && faults.push(message.text()),
    );
});

after(async () => {
    await browser?.close();
    labDown();
});

test("nodes and ports that the page does not show", async () => {
    await open("#/");
    for (const node of [1, 2, 3, 4, 5]) {
        await see(`[data-node="${macOf(node)}"][data-present="true"]`);
        await see(port(node, "A", '[data-colour="green"][data-fault=""]'));
    }
    await see('[data-network="normal"]');
});

test("a cut link that the page does not show, or shows after it was mended", async () => {
    await lab("kill", 5); // for the test after the next: the others wait 35 s for its summaries
    await lab("cut", 2, "B");
    for (const [node, name] of [
        [2, "B"],
        [3, "A"],
    ]) {
        await see(port(node, name, '[data-colour="red"][data-fault~="link-down"]'));
        await see(`[data-list="link_down"] [data-node="${macOf(node)}"][data-port="${name}"]`);
    }
    await see('[data-network="degraded"]');
    await lab("ground", 4, "A", "on");
    await see(port(4, "A", '[data-fault~="ground"]'));
    await see(`[data-list="ground"] [data-node="${macOf(4)}"][data-port="A"]`);
    const [first] = await page
        .locator("[data-node][data-present]")
        .evaluateAll((tiles) => tiles.map((tile) => tile.dataset.node));
    assert.notEqual(first, macOf(1), "a sound node stands before those with faults");
    await picture("overview");
    await page.goto(`${server.address}#/map`);
    await see(port(2, "B", '[data-colour="red"]'));
    await see(".link.down");
    await picture("map", "dark");

    await open("#/");
    await lab("mend", 2, "B");
    await lab("ground", 4, "A", "off");
    await noLonger("[data-list] [data-node]");
    await see('[data-network="normal"]');
    await see(port(2, "B", '[data-fault=""]'));
});

test("miswiring that the page does not show", async () => {
    await lab("miswire", 2, "B", 5, "B");
    await see(port(2, "B", '[data-fault~="miswired"]'));
    await see(`[data-list="miswired"] [data-node="${macOf(2)}"][data-port="B"]`);
    await lab("miswire", 2, "B", "off");
    await noLonger('[data-list="miswired"] [data-node]');
});

test("a node that has left or died and seems to be there", async () => {
    await see(`[data-node="${macOf(5)}"][data-present="false"]`, 60 * SECONDS);
    await lab("start", 5);
    await see(`[data-node="${macOf(5)}"][data-present="true"]`);
    await lab("stop", 5);
    await see(`[data-node="${macOf(5)}"][data-present="false"]`);
    await lab("start", 5);
    await see(`[data-node="${macOf(5)}"][data-present="true"]`);
});

test("a value that becomes markup", async () => {
    const script = "<script>document.title='run'</script>";
    const version = (name, text) => `${name.padEnd(10)}:${text.padEnd(40)};`;
    await publish(`pub/diag/${HOSTILE}/port_summary`, '{"A":"green","B":"red"}');
    await publish(`pub/diag/${HOSTILE}/job_name`, "<b>x</b>");
    await publish(
        `pub/diag/${HOSTILE}/software_versions`,
        version("<i>os</i>", "<img src=x onerror=document.title=1>") +
            version('"><a b=', "&lt;b&gt;") +
            version("app", "</table><script>"),
    );
    await publish(`pub/diag/${HOSTILE}/M301`, Buffer.from([0xff, 0xfe, 0x00]));
    await publish(`pub/diag/${HOSTILE}/job_rev`, Buffer.alloc(1 << 20, "<"));
    await publish(`pub/diag/${script}/job_name`, script);
    await publish(`pub/diag/${HOSTILE}/port_media`, `{"A":"${script}"}`);
    for (const view of [
        "#/",
        "#/map",
        `#/node/${HOSTILE}`,
        `#/node/${encodeURIComponent(script)}`,
        `#/pm/${HOSTILE}/${encodeURIComponent(script)}`,
        "#/events",
    ]) {
        await open(view);
        if (view === "#/" || view.endsWith(HOSTILE)) {
            await page.getByText("<b>x</b>").first().waitFor();
        }
        const made = await page.evaluate(() => ({
            tags: document.querySelectorAll("main :is(script, img, b, i, iframe, object)").length,
            title: document.title,
        }));
        assert.equal(made.tags, 0, view);
        assert.ok(!["run", "1"].includes(made.title), view);
    }
    await open(`#/node/${HOSTILE}`);
    await page.getByText("malformed (1,048,576 bytes)").first().waitFor();
});

test("search, filter, pause and file of the changes", async () => {
    await open("#/events");
    const rows = page.locator("[data-events] [data-event]");
    await rows.first().waitFor();
    await page.getByLabel("Search changes").fill(macOf(2).toLowerCase());
    const ofNode = page.locator(`[data-event]:has(a[href="#/node/${macOf(2)}"])`);
    assert.ok((await rows.count()) > 0);
    assert.equal(await rows.count(), await ofNode.count());
    await page.getByLabel("Search changes").fill("");

    await page.getByRole("button", { name: "Pause" }).click();
    const before = await rows.count();
    await lab("ground", 3, "B", "on");
    await page.getByText(/new since the pause/).waitFor();
    assert.equal(await rows.count(), before);
    await page.getByRole("button", { name: "Go on" }).click();
    await page.waitForFunction((count) => document.querySelectorAll("[data-event]").length > count, before);
    await lab("ground", 3, "B", "off");

    const table = await saved("Save as CSV");
    assert.match(table, /^id,time,network,node,port,kind,old,new,text\r\n/);
    assert.ok(table.split("\r\n").length > before);

    await open("#/");
    await page.getByLabel("Search nodes").fill(macOf(4).replaceAll("-", ""));
    await noLonger(`[data-node="${macOf(1)}"][data-present]`, SECONDS);
    await see(`[data-node="${macOf(4)}"][data-present]`, SECONDS);
});

test("an arrangement that is forgotten, or can't be carried to another browser", async () => {
    await open("#/map");
    const node = page.locator(`[data-node="${macOf(3)}"]`);
    const placeOf = () => node.getAttribute("transform");
    const start = await placeOf();
    const box = await node.locator(".body").boundingBox();
    await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
    await page.mouse.down();
    await page.mouse.move(box.x + 200, box.y - 80, { steps: 5 });
    await page.mouse.up();
    assert.match(page.url(), /#\/map$/, "a drag is taken for a click");
    await page.waitForFunction(() => localStorage.length > 0);
    await open("#/map");
    const dragged = await placeOf();
    assert.notEqual(dragged, start);

    const file = await saved("Save arrangement");
    await page.getByRole("button", { name: "Arrange as ring" }).click();
    assert.equal(await placeOf(), start);
    const [chooser] = await Promise.all([
        page.waitForEvent("filechooser"),
        page.getByRole("button", { name: "Load arrangement" }).click(),
    ]);
    await chooser.setFiles({ name: "layout.json", mimeType: "application/json", buffer: Buffer.from(file) });
    await page.waitForFunction(
        ([mac, place]) => document.querySelector(`[data-node="${mac}"]`).getAttribute("transform") === place,
        [macOf(3), dragged],
    );

    await node.focus();
    await page.keyboard.press("Shift+ArrowLeft");
    assert.notEqual(await placeOf(), dragged);
    await page.keyboard.press("ArrowRight");
    await page.keyboard.press("Enter");
    await page.waitForURL(/#\/node\//);
});

test("a quarter hour that the page does not show, or in the wrong place", async () => {
    await open(`#/pm/${macOf(1)}/A`);
    const pm = (mac) => page.locator(`[data-pm="${mac}/A"]`);
    const closed = pm(macOf(1)).locator("tbody tr:not(.missing)").first();
    await closed.waitFor({ timeout: QUARTER_HOUR_AFTER * SECONDS });

    await publishDay(macOf(6), "A", (slot) => slot < 20 || slot === 50);
    await open(`#/pm/${macOf(6)}/A`);
    const rows = pm(macOf(6)).locator("table").first().locator("tbody tr");
    await rows.first().waitFor();
    assert.equal(await rows.count(), 96);
    const newestFirst = await rows.evaluateAll((all) => all.map((row) => row.classList.contains("missing")));
    const missing = newestFirst.reverse().flatMap((isMissing, slot) => (isMissing ? [slot] : []));
    assert.deepEqual(missing, [...Array(20).keys(), 50]);
    const bars = page.getByRole("slider").first();
    await bars.focus();
    assert.match(await bars.getAttribute("aria-valuetext"), /: 0/);
    await page.keyboard.press("PageDown");
    await page.keyboard.press("PageDown");
    await page.keyboard.press("ArrowRight"); // slot 88
    assert.match(await bars.getAttribute("aria-valuetext"), /: 88/);
    assert.equal((await saved("Save as CSV")).split("\r\n").length, 1 + 96 + 1);
    await picture("performance");
});

test("what the keyboard does not reach", async () => {
    await open("#/");
    const reached = new Set();
    for (let i = 0; i < 60; i++) {
        await page.keyboard.press("Tab");
        reached.add(
            await page.evaluate(
                () =>
                    document.activeElement.getAttribute("href") ??
                    document.activeElement.getAttribute("aria-label") ??
                    document.activeElement.id,
            ),
        );
    }
    for (const place of [
        "#/map",
        "#/events",
        "Search nodes",
        "Show",
        "Order",
        "theme",
        ...[1, 2, 3, 4].map((node) => `#/node/${macOf(node)}`),
    ]) {
        assert.ok(reached.has(place), `${place} is not among ${[...reached].join(" ")}`);
    }
    await open(`#/pm/${macOf(1)}/A`);
    await page.locator("table").first().waitFor();
    const regions = [];
    for (let i = 0; i < 30; i++) {
        await page.keyboard.press("Tab");
        regions.push(
            await page.evaluate(
                () =>
                    document.activeElement.querySelector("table") !== null &&
                    document.activeElement.getAttribute("role") === "region",
            ),
        );
    }
    assert.ok(regions.includes(true), "the table can't be scrolled with the keyboard");
});

test("what a screen reader can't tell, or eyes can't read", async () => {
    // The page's policy keeps the checker out as well, so it comes around it.
    const context = await browser.newContext({ bypassCSP: true });
    const checked = await context.newPage();
    for (const [colorScheme, width] of [
        ["light", 1280],
        ["dark", 1280],
        ["dark", 360],
    ]) {
        await checked.setViewportSize({ width, height: 800 });
        await checked.emulateMedia({ colorScheme, reducedMotion: "reduce" });
        await checked.goto(server.address);
        await checked.addScriptTag({ path: AXE });
        for (const view of VIEWS) {
            await checked.goto(server.address + view);
            await checked.waitForSelector('body[data-connection="live"]');
            const { violations } = await checked.evaluate(() => globalThis.axe.run());
            assert.deepEqual(
                violations.map(({ id, nodes }) => `${id}: ${nodes[0].html}`),
                [],
                `${view} ${colorScheme} ${width}`,
            );
            const overflow = await checked.evaluate(() => document.documentElement.scrollWidth - innerWidth);
            assert.ok(overflow <= 0, `${view} is ${overflow} pixels wider than ${width}`);
        }
    }
    await context.close();
});

test("a moment of a recording that the slider does not find", async () => {
    const file = "/tmp/recording.jsonl";
    const recording = diagctl("record", "--duration", "6", file);
    // A second later: its beginning shows what was so before.
    await lab("exec", 1, "sh", "-c", `until grep -q '"time":[1-9]' ${file}; do sleep 0.1; done`);
    await lab("ground", 1, "A", "on");
    await recording;
    await lab("ground", 1, "A", "off");

    const player = new Console("--replay", file, "--listen", "127.0.0.1:0");
    await player.start();
    await page.goto(player.address);
    await live();
    await page.getByRole("button", { name: "Pause" }).click();
    const slider = page.getByLabel("Place in the recording");
    await slider.press("End");
    await see(port(1, "A", '[data-fault~="ground"]'));
    await slider.press("Home");
    await see(port(1, "A", '[data-fault=""]'));
    assert.match(await page.locator("#recording").innerText(), /00:00:00 of 00:00:0/);
    assert.equal(await player.stop(), 0);
});

test("a server that is gone or silent, or a broker that is gone, behind values that seem live", async () => {
    await open("#/");
    const lost = () => see('body[data-connection="lost"] [data-network="unknown"]', 8 * SECONDS);
    const back = async () => {
        await live(HEAL_MS);
        await see('[data-network="normal"]');
    };
    await lab("broker", "stop", 1);
    await lost();
    assert.match(await page.locator("#banner").innerText(), /no connection to the broker/);
    await lab("broker", "start", 1);
    await lab("start", 1, "--no-wait").catch(() => {}); // the daemon may be up again by itself
    await back();

    await server.signal("STOP");
    await lost();
    await server.signal("CONT");
    await back();

    assert.equal(await server.stop(), 0);
    await lost();
    server.options = ["--listen", new URL(server.address).host];
    await server.start();
    await back();
});

test("anything that the browser complained of", () => {
    assert.deepEqual(faults, []);
});
