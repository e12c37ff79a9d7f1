// The page in a browser, and what the tests look for in it.

import { readFile } from "node:fs/promises";
import { createRequire } from "node:module";

import { Console, labDown, labUp, macOf, openBrowser } from "./lab.js";

export const SECONDS = 1000;
export const HEAL_MS = 30 * SECONDS; // spanning tree takes 10 s, a lost summary costs another 15 s
const SHOTS = process.env.DIAG_SCREENSHOTS; // a folder for the pictures of the documents
const AXE = createRequire(import.meta.url).resolve("axe-core/axe.min.js");

export const server = new Console();
export const faults = []; // what the browser complains of
export let browser, page;

export const port = (node, name, rest = "") =>
    `[data-node="${macOf(node)}"][data-present] [data-port="${name}"]${rest}`;
export const see = (selector, limit = HEAL_MS, state = "attached") =>
    page.waitForSelector(selector, { timeout: limit, state });
export const noLonger = (selector, limit = HEAL_MS) => see(selector, limit, "detached");
// By its node's tile and by the network's list.
export async function seeFault(list, node, name) {
    await see(port(node, name, `[data-fault~="${list.replace("_", "-")}"]`));
    await see(`[data-list="${list}"] [data-node="${macOf(node)}"][data-port="${name}"]`);
}
export const live = (limit) => see('body[data-connection="live"]', limit);

export async function open(view, address = server.address) {
    await page.goto(address + view);
    await page.reload(); // only another view is no new page
    await live();
}

export async function picture(name, scheme = "light") {
    if (SHOTS) {
        await page.emulateMedia({ colorScheme: scheme });
        await page.screenshot({ path: `${SHOTS}/console-${name}.png` });
        await page.emulateMedia({ colorScheme: null });
    }
}

export async function saved(button) {
    const [download] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("button", { name: button }).first().click(),
    ]);
    return readFile(await download.path(), "utf8");
}

export async function start(quarterHourAfter) {
    await labUp(quarterHourAfter);
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
}

export async function end() {
    await browser?.close();
    labDown();
}

// What a screen reader can't tell, what eyes can't read and what is wider than the screen, on each view.
export async function complaints(address, views, looks) {
    // The page's policy keeps the checker out as well, so it comes around it.
    const context = await browser.newContext({ bypassCSP: true });
    const checked = await context.newPage();
    const found = [];
    for (const [colorScheme, width] of looks) {
        await checked.setViewportSize({ width, height: Math.max(800, (width * 9) / 16) });
        await checked.emulateMedia({ colorScheme, reducedMotion: "reduce" });
        await checked.goto(address);
        await checked.addScriptTag({ path: AXE });
        for (const view of views) {
            await checked.goto(address + view);
            await checked.waitForSelector('body[data-connection="live"]');
            await checked.waitForSelector("h1");
            const { violations } = await checked.evaluate(() => globalThis.axe.run());
            const where = `${view} ${colorScheme} ${width}`;
            found.push(...violations.map(({ id, nodes }) => `${where}: ${id}: ${nodes[0].html}`));
            const overflow = await checked.evaluate(() => document.documentElement.scrollWidth - innerWidth);
            if (overflow > 0) {
                found.push(`${where}: ${overflow} pixels too wide`);
            }
        }
    }
    await context.close();
    return found;
}

// Tab from the top of a view to its end and on: what it leaves out, where the focus is hidden, and what keys can't operate.
export async function keyboardFaults(view, address) {
    await open(view, address);
    await see("main :is(a, button, input, p)"); // not only what stands around every view
    const count = await page.evaluate(() => {
        const isReachable = (element) => element.tabIndex >= 0 && element.checkVisibility();
        const all = document.querySelectorAll("a, button, input, select, summary, [tabindex]");
        globalThis.unreached = new Set([...all].filter(isReachable));
        return globalThis.unreached.size;
    });
    const found = [];
    for (let step = 0; step <= count + 3; step++) {
        await page.keyboard.press("Tab");
        found.push(
            await page.evaluate(() => {
                const { activeElement: element } = document;
                const isFirst = globalThis.unreached.delete(element);
                const [{ left, top, width, height }] = element.getClientRects(); // the first line of a text
                const there = document.elementFromPoint(left + width / 2, top + height / 2);
                const { outlineStyle, strokeWidth } = getComputedStyle(element.querySelector(".body") ?? element);
                const isSeen = element.contains(there) && (outlineStyle !== "none" || strokeWidth === "7px");
                const isOperable = element.matches("a[href], button, input, select, summary, [role]");
                return isFirst && !(isSeen && isOperable) && `focus on ${element.outerHTML.slice(0, 200)}`;
            }),
        );
    }
    const unreached = await page.evaluate(() =>
        [...globalThis.unreached].filter((element) => element.isConnected).map(({ outerHTML }) => outerHTML),
    );
    return [...found, ...unreached].filter(Boolean).map((text) => `${view}: ${text}`);
}
