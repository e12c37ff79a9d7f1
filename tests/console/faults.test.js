// The console beside a ring that takes its time, as console.test.js; its pictures for the documents are made here.

import assert from "node:assert/strict";
import { after, before, test } from "node:test";

import { Console, diagctl, lab, macOf, publishDay, siteMac, startSite } from "./lab.js";
import {
    HEAL_MS,
    SECONDS,
    complaints,
    end,
    faults,
    live,
    noLonger,
    open,
    page,
    picture,
    port,
    saved,
    see,
    seeFault,
    server,
    start,
} from "./page.js";

const QUARTER_HOUR_AFTER = 50; // seconds

before(() => start(QUARTER_HOUR_AFTER));
after(end);

test("a link that is shown as cut after it was mended", async () => {
    await open("#/");
    await see(`[data-node="${macOf(5)}"][data-present="true"]`);
    await lab("kill", 5); // for the test after the next: the others wait 35 s for its summaries
    await lab("cut", 2, "B");
    await seeFault("link_down", 2, "B");
    await seeFault("link_down", 3, "A");
    await see('[data-network="degraded"]');
    await lab("ground", 4, "A", "on");
    await seeFault("ground", 4, "A");
    const isOrdered = () =>
        [...document.querySelectorAll(".tile")].slice(0, 3).every((tile) => tile.classList.contains("rank1"));
    await page.waitForFunction(isOrdered, null, { timeout: HEAL_MS });
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
    await seeFault("miswired", 2, "B");
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
    // Brought back to where it was, it plays on from there.
    const { x, y, width } = await slider.boundingBox();
    await page.mouse.move(x + 1, y + 5);
    await page.mouse.down();
    await page.mouse.move(x + width - 1, y + 5);
    await page.mouse.move(x + 1, y + 5);
    await page.mouse.up();
    await page.getByRole("button", { name: "Play" }).click();
    await page.waitForFunction(() => document.querySelector("[type=range]").value > 0);
    assert.equal(await player.stop(), 0);
});

test("a view that some screen or choice of colours spoils", async () => {
    const everywhere = ["light", "dark"].flatMap((colours) =>
        [360, 1280, 3840].map((width) => [colours, width]),
    );
    const views = [
        "#/",
        "#/map",
        `#/node/${macOf(1)}`,
        `#/pm/${macOf(1)}/A`,
        `#/pm/${macOf(6)}/A`,
        "#/events",
    ];
    assert.deepEqual(await complaints(server.address, views, everywhere), []);
    const site = await startSite();
    const ofSite = [
        "#/",
        `#/map?network=${siteMac(1)}`,
        `#/node/${siteMac(2)}`,
        `#/pm/${siteMac(2)}/A`,
        "#/events",
    ];
    assert.deepEqual(await complaints(site.address, ofSite, everywhere), []);
    await open("#/", site.address);
    await see(`[data-differs="${siteMac(2)}"]`);
    await picture("site");
    assert.equal(await site.stop(), 0);
});

test("anything that the browser complained of", () => {
    assert.deepEqual(faults, []);
});
