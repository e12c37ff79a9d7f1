// The console as people meet it: a real ring, the real server, a real browser. Each test is named by the fault that it
// would catch. They share one lab and follow each other. What takes the ring long is in faults.test.js.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { lab, macOf, publish, siteMac, startSite } from "./lab.js";
import {
    HEAL_MS,
    SECONDS,
    complaints,
    end,
    faults,
    keyboardFaults,
    live,
    noLonger,
    open,
    page,
    port,
    saved,
    see,
    seeFault,
    server,
    start,
} from "./page.js";

const VIEWS = ["#/", "#/map", `#/node/${macOf(1)}`, `#/pm/${macOf(1)}/A`, "#/events"];
const HOSTILE = "02-00-00-00-00-66";

before(() => start());
after(end);

test("nodes and ports that the page does not show", async () => {
    await open("#/");
    for (const node of [1, 2, 3, 4, 5]) {
        await see(`[data-node="${macOf(node)}"][data-present="true"]`);
        await see(port(node, "A", '[data-colour="green"][data-fault=""]'));
    }
    await see('[data-network="normal"]');
});

test("a tab that says all is well while a port is red that no list names", async () => {
    const says = (words) => page.waitForFunction((start) => document.title.startsWith(start), words);
    await says("all well");
    await publish(`pub/diag/${HOSTILE}/port_summary`, '{"A":"green","B":"red"}');
    await says("1 wrong");
});

test("faults that the page does not show", async () => {
    await lab("cut", 2, "B");
    await seeFault("link_down", 2, "B");
    await seeFault("link_down", 3, "A");
    await see(port(2, "B", '[data-colour="red"]'));
    await see('[data-network="degraded"]');
    await lab("ground", 4, "A", "on");
    await seeFault("ground", 4, "A");
    const [first] = await page
        .locator("[data-node][data-present]")
        .evaluateAll((tiles) => tiles.map((tile) => tile.dataset.node));
    assert.notEqual(first, macOf(1), "a sound node stands before those with faults");
    await lab("stop", 5);
    await see(`[data-node="${macOf(5)}"][data-present="false"]`);
    await page.goto(`${server.address}#/map`);
    await see(port(2, "B", '[data-colour="red"]'));
    await see(".link.down");
});

test("a value that becomes markup", async () => {
    const script = "<script>document.title='run'</script>";
    const version = (name, text) => `${name.padEnd(10)}:${text.padEnd(40)};`;
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

test("a site whose networks, differing views and missing cards are not shown", async () => {
    const site = await startSite();
    await open("#/", site.address);
    await see(`[data-node="${siteMac(2)}"][data-present="true"] [data-port="B"][data-fault="link-down"]`);
    await see(`[data-list="link_down"] [data-node="${siteMac(2)}"][data-port="B"]`);
    await see(`.network:has([data-node="${siteMac(1)}"]) [data-network="degraded"]`);
    await see(`.network:has([data-node="${siteMac(4)}"]) [data-network="normal"]`);
    await see(`[data-differs="${siteMac(2)}"]`);
    await see(`[data-list="gone"] [data-node="${siteMac(3)}"]`);
    await see(`[data-node="${siteMac(3)}"][data-reachable="false"]`);
    await page.goto(`${site.address}#/map?network=${siteMac(4)}`);
    await see(`.map [data-node="${siteMac(4)}"]`);
    assert.equal(await page.locator(`.map [data-node="${siteMac(1)}"]`).count(), 0);
    const views = ["#/", `#/map?network=${siteMac(1)}`, `#/node/${siteMac(2)}`, "#/events"];
    assert.deepEqual(await complaints(site.address, views, [["dark", 360]]), []);
    for (const view of views) {
        assert.deepEqual(await keyboardFaults(view, site.address), []);
    }
    await open(views[1], site.address);
    await page.getByLabel("Network", { exact: true }).press("ArrowDown");
    await page.waitForURL(`**/#/map?network=${siteMac(4)}`);
    await page.locator(`.map [data-node="${siteMac(4)}"]`).press("ArrowRight");
    await page.keyboard.press("Enter");
    await page.waitForURL(`**/#/node/${siteMac(5)}`);
    assert.equal(await site.stop(), 0);
});

test("what the keyboard does not reach, or where it is lost", async () => {
    for (const view of VIEWS) {
        assert.deepEqual(await keyboardFaults(view), []);
    }
});

test("what a screen reader can't tell, or eyes can't read", async () => {
    assert.deepEqual(
        await complaints(server.address, VIEWS, [
            ["light", 1280],
            ["dark", 360],
        ]),
        [],
    );
});

test("a server that is gone or silent, or a broker that is gone, behind values that seem live", async () => {
    await open("#/");
    const lost = () => see('body[data-connection="lost"] [data-network="unknown"]', 8 * SECONDS);
    const back = async () => {
        await live(HEAL_MS);
        await see('[data-network]:not([data-network="unknown"])');
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
