// The page against the real service and appliance, as somebody uses it, in one size and one theme.
// The tests run one after the other and hand the refrigerator on in normal operation.
//
// Environment, beside that of browser.mjs: CORVANE_PAGE_URL, CORVANE_PAGE_SIZE (360x740),
// CORVANE_PAGE_THEME (light or dark).

import assert from "node:assert/strict";
import { after, before, describe, it } from "node:test";
import { assertSound, launch, open, picture, seeSteps, seeText } from "./browser.mjs";

const { CORVANE_PAGE_URL: url, CORVANE_PAGE_SIZE: size, CORVANE_PAGE_THEME: theme } = process.env;

let browser;
let page;
before(async () => {
  browser = await launch();
  page = await open(browser, url, { size, theme });
  await seeText(page, "#link-service", /up$/);
  await seeText(page, "#link-micom", /alive/);
  await seeSteps(page, "Normal");
});
after(() => browser.close());

const keep = (name) => picture(page, `${size}-${theme}-${name}`);

async function order(level, duration) {
  await page.check(`#order-levels input[value="${level}"]`);
  await page.fill("#order-duration", duration);
  await page.click("#order-send");
}

async function backToNormal() {
  await page.click("#event-cancel");
  await seeText(page, "#cancel-answer", /Cancelled/);
  await seeText(page, "#event-say", /No event/);
  await seeSteps(page, "Normal");
}

describe(`the page at ${size}, ${theme}`, () => {
  it("ShowsTheRefrigeratorAsSoonAsItIsThere", async () => {
    const paint = await page.evaluate(() => performance.getEntriesByName("first-contentful-paint")[0].startTime);
    console.log(`first paint after ${paint.toFixed(0)} ms`);
    await seeText(page, "#hero-fridge", /^−?\d+\.\d\u00a0°C$/);
    await seeText(page, "#hero-freezer", /^−\d+\.\d\u00a0°C$/);
    await seeText(page, "#hero-power", /^\d+(\.\d)?\u00a0W$/);
    await seeText(page, "#clock-time", /^\d\d:\d\d:\d\d$/);
    await seeText(page, "#reservation-count", /2 of 4/);
    await seeText(page, "#strips", /Today.*Tomorrow/);
    await seeText(page, "#energy-this", /kWh/);
    assert.equal(await page.locator("html").getAttribute("data-theme"), theme);
    assert.equal(await page.locator("#banners *").count(), 0);
    await assertSound(page);
    await keep("normal");
  });

  it("EventIsOrderedAndSeenUntilItIsReported", async () => {
    const started = performance.now();
    await order(3, "00:10:00");
    await seeText(page, "#order-answer", /Accepted: level 3/);
    await page.waitForSelector('#steps [data-step="confirmed"][data-state="done"]:has-text("Level 3")');
    console.log(`order to confirmed on the page: ${((performance.now() - started) / 1000).toFixed(2)} s`);
    await seeSteps(page, "Level 3");
    await seeText(page, "#hero-headline", /Load reduced: level 3/);
    await seeText(page, "#event-say", /Level 3: (10\smin|9\smin \d\d\ss) left/);
    await seeText(page, "#steps-total", /All steps took \d/);
    await seeText(page, "#effect", /Average so far\d/);
    await seeText(page, "#records", /Level 3.*still open/);
    await seeText(page, "#trace", /SET_SMARTGRID_LEVEL3/);
    const share = await page.locator("#event-progress").getAttribute("aria-valuenow");
    assert.ok(Number(share) >= 0 && Number(share) <= 10, share);
    await assertSound(page);
    await keep("event");
  });

  it("OverrideIsShownWithWhoAskedForIt", async () => {
    await page.click("#override-remote-on");
    await seeText(page, "#override-say", /on, by the remote side, since \d\d:\d\d/);
    await seeText(page, "#hero-headline", /Override: level 3 is set aside/);
    await keep("override");
    await page.click("#override-remote-off");
    await seeText(page, "#override-say", /^off$/);
    await page.click("#override-board-on");
    await seeText(page, "#override-say", /on, on the display, since \d\d:\d\d/);
    await assertSound(page);
    await page.click("#override-board-off");
    await seeText(page, "#override-say", /^off$/);
  });

  it("EventIsCancelled", async () => {
    await backToNormal();
    await seeText(page, "#records", /cancelled/);
    await seeText(page, "#hero-headline", /Normal|Returning|Defrosting/);
  });

  it("EventEndsByItselfAndItsRecordSaysSo", async () => {
    await order(2, "00:00:04");
    await seeSteps(page, "Level 2");
    await seeText(page, "#records", /as planned/);
    await seeSteps(page, "Normal");
  });

  it("RefusalIsShownWhereItWasAskedAndNothingChanges", async () => {
    await order(1, "99:00:00");
    await seeText(page, "#order-answer", /Duration.*99:00:00/);
    assert.equal(await page.locator("#order-answer").getAttribute("data-kind"), "refused");
    assert.equal(await page.locator("#order-duration").getAttribute("aria-invalid"), "true");
    assert.equal(await page.locator(".answer[data-kind=refused]:not(:empty)").count(), 1);
    await seeText(page, "#event-say", /No event/);
    await assertSound(page);
    await keep("refusal");
    await page.fill("#order-duration", "00:10:00");
    await seeText(page, "#order-answer", /^$/);
  });

  it("DefrostDelayIsSwitchedOnAndOff", async () => {
    await page.click("#defrost-switch");
    await page.waitForSelector('#defrost-switch[aria-checked="true"]');
    await seeText(page, "#defrost-say", /^(On|Held)/);
    await page.click("#defrost-switch");
    await page.waitForSelector('#defrost-switch[aria-checked="false"]');
  });

  it("ReservationsAreCreatedUntilNoPlaceIsLeft", async () => {
    await page.click("#reservation-new summary");
    for (const [id, description] of [["2", "Evening peak"], ["3", "Noon"]]) {
      await page.fill("#reservation-description", description);
      await page.click("#reservation-form button[value=create]");
      await seeText(page, "#reservation-answer", new RegExp(`Added as reservation ${id}`));
      await seeText(page, "#reservations", new RegExp(description));
    }
    await seeText(page, "#reservation-count", /4 of 4/);
    await page.click("#reservation-form button[value=create]");
    await seeText(page, "#reservation-answer", /\(service: 4\.09, error 507\)/);
    assert.equal(await page.locator("#reservation-answer").getAttribute("data-kind"), "refused");
    await assertSound(page);
    await keep("reservations");
    for (const id of ["2", "3"]) {
      await page.click(`[aria-label^="Delete reservation ${id},"]`);
      await seeText(page, "#reservation-delete-answer", new RegExp(`Reservation ${id} deleted`));
    }
    await seeText(page, "#reservation-count", /2 of 4/);
    await page.click("#reservation-new summary");
  });

  it("DoorsOpenAndClose", async () => {
    // The household may have a door open just now; the button then closes it first.
    async function turn(compartment, open) {
      const asked = page.waitForRequest((request) => request.url().endsWith("/api/v1/door"));
      await page.click(`#door-${compartment}`);
      const wish = (await asked).postDataJSON();
      assert.equal(wish.compartment, compartment);
      await page.waitForSelector(`#drawing[data-${compartment}="${wish.open ? "open" : "closed"}"]`);
      if (wish.open !== open) await turn(compartment, open);
    }
    for (const compartment of ["fridge", "freezer"]) await turn(compartment, true);
    await assertSound(page);
    await keep("doors");
    for (const compartment of ["fridge", "freezer"]) await turn(compartment, false);
  });

  it("FaultIsSwitchedOnSaidAndSwitchedOff", async () => {
    await page.click('[data-fault="micomSilent"]');
    await seeText(page, "#banners", /The Micom does not answer/);
    await seeText(page, "#link-micom", /silent/);
    await assertSound(page);
    await keep("fault");
    await page.click('[data-fault="micomSilent"]');
    await seeText(page, "#link-micom", /alive/);
    await page.waitForFunction(() => document.querySelectorAll("#banners *").length === 0);
  });

  it("CurvesAndBarsShowEachRange", async () => {
    for (const range of ["day", "month", "hour"]) {
      const answered = page.waitForResponse((response) => response.url().includes(`/api/v1/history?range=${range}`));
      await page.click(`#power-range [data-range="${range}"]`);
      assert.equal((await answered).status(), 200);
      await seeText(page, "#power-readout", new RegExp(`last ${range}`, "i"));
    }
    for (const range of ["month", "day"]) {
      const answered = page.waitForResponse((response) => response.url().includes(`/api/v1/energy?range=${range}`));
      await page.click(`#energy-range [data-range="${range}"]`);
      assert.equal((await answered).status(), 200);
    }
  });

  it("ExportsAreThere", async () => {
    await page.fill("#trace-text", "SMARTGRID_LEVEL2");
    await page.waitForFunction(() => /LEVEL2/.test(document.querySelector("#trace-csv").href));
    for (const [selector, type, content] of [
      ["#trace-csv", "text/csv", /SET_SMARTGRID_LEVEL2/],
      ["#trace-json", "application/json", /SET_SMARTGRID_LEVEL2/],
      [".area-records .exports a:first-child", "text/csv", /cancel/],
      [".area-records .exports a:last-child", "application/json", /"cancel"/],
    ]) {
      const answer = await page.request.get(new URL(await page.locator(selector).getAttribute("href"), url).href);
      assert.equal(answer.status(), 200, selector);
      assert.ok(answer.headers()["content-type"].startsWith(type), `${selector}: ${answer.headers()["content-type"]}`);
      assert.match(await answer.text(), content);
    }
    await page.fill("#trace-text", "");
  });

  it("EventIsOrderedWithTheKeyboardAlone", async () => {
    const keyboard = await open(browser, url, { size, theme });
    const focused = () => keyboard.evaluate(() => {
      const element = document.activeElement;
      const shown = element.matches("input[type=radio]") ? element.closest("label") : element;
      const style = getComputedStyle(shown);
      const own = getComputedStyle(element);
      const box = shown.getBoundingClientRect();
      return {
        what: element.id || element.name || element.dataset.duration || element.className,
        value: element.value,
        hasOutline: [style, own].some(({ outlineStyle, outlineWidth }) => outlineStyle !== "none" && parseFloat(outlineWidth) >= 2),
        isInView: box.bottom > 0 && box.top < innerHeight,
      };
    });
    async function press(key) {
      await keyboard.keyboard.press(key);
      const now = await focused();
      assert.ok(now.hasOutline, `the focus cannot be seen on ${JSON.stringify(now)}`);
      assert.ok(now.isInView, `the focus is out of sight on ${JSON.stringify(now)}`);
      return now;
    }
    assert.match((await press("Tab")).what, /skip-link/);
    await keyboard.keyboard.press("Enter");
    assert.equal((await press("Tab")).what, "level");
    assert.equal((await press("ArrowDown")).value, "4");
    assert.equal((await press("Tab")).what, "order-duration");
    await keyboard.keyboard.press("Control+A");
    await keyboard.keyboard.type("00:05:00");
    for (const preset of ["00:02:00", "00:10:00", "01:00:00", "04:00:00"]) assert.equal((await press("Tab")).what, preset);
    assert.equal((await press("Tab")).value, "now");
    assert.equal((await press("Tab")).what, "order-start");
    assert.equal((await press("Tab")).what, "order-send");
    await keyboard.keyboard.press("Enter");
    await seeText(keyboard, "#order-answer", /Accepted: level 4/);
    assert.equal((await focused()).what, "order-send", "the focus stays where the order was given");
    await seeText(keyboard, "#event-say", /Level 4/);
    await keyboard.focus("#event-cancel");
    await keyboard.keyboard.press("Enter");
    await seeText(keyboard, "#event-say", /No event/);
    await keyboard.context().close();
    await seeSteps(page, "Normal");
  });

  it("EveryControlIsReachedInTheOrderOfThePage", async () => {
    const places = await page.evaluate(() =>
      [...document.querySelectorAll("a[href], button, input, select, summary, [tabindex]")].filter((element) => element.checkVisibility())
        .map((element) => ({ tabIndex: element.tabIndex, name: element.id || element.textContent.trim() })));
    assert.deepEqual(places.filter(({ tabIndex }) => tabIndex > 0), []);
    const unnamed = await page.evaluate(() =>
      [...document.querySelectorAll("button, input, select")].filter((element) => element.checkVisibility())
        .filter((element) => !(element.textContent.trim() || element.ariaLabel || element.getAttribute("aria-labelledby") || element.labels?.length))
        .map((element) => element.outerHTML));
    assert.deepEqual(unnamed, []);
  });

  it("NothingWasComplainedOfOnTheWay", () => assertSound(page));
});
