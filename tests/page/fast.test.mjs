// The page in a time that runs 60 times as fast: a summer afternoon from ten to three on.

import assert from "node:assert/strict";
import { after, before, describe, it } from "node:test";
import { assertSound, launch, open, picture, seeSteps, seeText } from "./browser.mjs";

let browser;
let page;
before(async () => {
  browser = await launch();
  page = await open(browser, process.env.CORVANE_PAGE_URL, { theme: "dark" });
});
after(() => browser.close());

/** What the page's clock shows, as "15:00". */
async function hourAndMinute() {
  return (await page.locator("#clock-time").textContent()).slice(0, 5);
}

describe("the page in fast time", () => {
  it("ClockAndFactorAreShown", async () => {
    await seeText(page, "#clock-speed", /^time × 60$/);
    await seeText(page, "#clock-date", /31 Jul 2026/);
    await seeText(page, "#clock-zone", /Europe\/Berlin/);
    const shown = await hourAndMinute();
    await page.waitForFunction((before) => document.getElementById("clock-time").textContent.slice(0, 5) > before, shown);
  });

  it("DefrostIsHeldFromTheOpeningOfItsWindow", async () => {
    const switchedOn = await hourAndMinute();
    await page.click("#defrost-switch");
    await page.waitForSelector('#defrost-switch[aria-checked="true"]');
    await seeText(page, "#defrost-say", /Held now, until 19:00/);
    await seeText(page, "#hero-headline", /defrost held/);
    const [, since] = (await seeText(page, "#part-defrost", /held since \d\d:\d\d/)).match(/held since (\d\d:\d\d)/);
    // The browser of a busy machine may be ready only when the window is open already.
    const earliest = switchedOn > "15:00" ? switchedOn : "15:00";
    assert.ok(earliest <= since && since <= await hourAndMinute(), `switched on at ${switchedOn}, held since ${since}`);
    await assertSound(page);
    await picture(page, "fast-held-dark");
  });

  it("EventOfTenMinutesIsOverWithinAMinute", async () => {
    await page.click('#order-form [data-duration="00:10:00"]');
    await page.click("#order-send");
    await seeSteps(page, "Level 3");
    await seeText(page, "#steps-total", /of the appliance's time, which runs 60 times as fast/);
    await seeText(page, "#event-say", /No event/); // gives up after a minute
    await seeText(page, "#records", /as planned/);
    await seeText(page, "#effect", /Average in the last event/);
    await seeSteps(page, "Normal");
    await assertSound(page);
    await picture(page, "fast-after-dark");
  });
});
