// Orders an event on the page, waits until a part of it has passed, and takes the README's picture.
//
// Environment, beside that of browser.mjs: CORVANE_PAGE_URL; CORVANE_PAGE_PICTURE, the file.

import { launch, open, seeSteps, seeText } from "./browser.mjs";

const kUntilMs = 300_000;

const browser = await launch();
const page = await open(browser, process.env.CORVANE_PAGE_URL, { size: "1600x1000", theme: "light" });
await seeSteps(page, "Normal");
await page.click('#order-levels input[value="3"]');
await page.click('#order-form [data-duration="00:10:00"]');
await page.click("#order-send");
await seeSteps(page, "Level 3");
await seeText(page, "#hero-headline", /Load reduced/);
await page.waitForFunction(() => Number(document.getElementById("event-progress").getAttribute("aria-valuenow")) >= 40, null, { timeout: kUntilMs });
await page.evaluate(() => document.activeElement.blur());
await page.mouse.move(0, 0);
const height = await page.evaluate(() => Math.ceil(document.querySelector(".area-power").getBoundingClientRect().bottom) + 16);
await page.screenshot({ path: process.env.CORVANE_PAGE_PICTURE, clip: { x: 0, y: 0, width: 1600, height }, fullPage: true });
await browser.close();
