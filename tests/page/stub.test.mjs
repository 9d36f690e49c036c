// The page where things are lost, gone, refused or far away in time: cases that the real program
// does not easily produce, with the stub in its place.

import assert from "node:assert/strict";
import { readdirSync, readFileSync, statSync } from "node:fs";
import { join } from "node:path";
import { after, before, beforeEach, afterEach, describe, it } from "node:test";
import { fileURLToPath } from "node:url";
import { assertSound, launch, open, picture, seeSteps, seeText } from "./browser.mjs";
import { startStub } from "./stub_server.mjs";

const kPage = fileURLToPath(new URL("../../appliance/page/", import.meta.url));

let browser;
let stub;
before(async () => {
  browser = await launch();
});
after(() => browser.close());
beforeEach(async () => {
  stub = await startStub();
});
afterEach(async () => {
  for (const context of browser.contexts()) await context.close();
  await stub.close();
});

const lastRequest = () => stub.requests.at(-1);

describe("connections", () => {
  it("StreamThatIsLostIsSaidPlainlyAndWhatWasMissedIsCaughtUp", async () => {
    const page = await open(browser, stub.url);
    await seeText(page, "#link-stream", /live$/);
    stub.stream(false);
    await seeText(page, "#banners", /Live data lost\. Everything below is as of \d\d:\d\d:\d\d/);
    await seeText(page, "#link-service", /unknown/);
    assert.equal(await page.locator("body.stale").count(), 1);
    await assertSound(page);
    await picture(page, "stub-stream-lost");
    stub.note("micom", "in", "heard while nobody listened");
    stub.state((state) => {
      state.refrigerator.ambientCelsius = 31.5;
    });
    stub.stream(true);
    await seeText(page, "#link-stream", /live$/);
    await seeText(page, "#hero-room", /31\.5/);
    await seeText(page, "#trace", /heard while nobody listened/);
    assert.equal(await page.locator("#banners *").count(), 0);
    assert.equal(await page.locator("body.stale").count(), 0);
  });

  it("ClockStandsStillWhileTheStreamIsLost", async () => {
    const page = await open(browser, stub.url);
    await seeText(page, "#link-stream", /live$/);
    stub.stream(false);
    await seeText(page, "#banners", /Live data lost/);
    const shown = await page.locator("#clock-time").textContent();
    await page.waitForFunction((since) => performance.now() > since + 1200, await page.evaluate(() => performance.now()));
    assert.equal(await page.locator("#clock-time").textContent(), shown);
  });

  it("ApplianceThatEndsIsSaidAndOneStartedAnewIsFound", async () => {
    const page = await open(browser, stub.url);
    const port = Number(new URL(stub.url).port);
    await stub.close();
    await seeText(page, "#banners", /Live data lost/);
    await page.click("#order-send");
    await seeText(page, "#order-answer", /does not answer, so nothing was sent/);
    stub = await startStub({ port });
    await seeText(page, "#link-stream", /live$/);
    await page.click("#order-send");
    await seeSteps(page, "Level 3");
  });

  it("ServiceThatIsGoneIsSaidWithItsReason", async () => {
    const page = await open(browser, stub.url, { theme: "dark" });
    stub.state((state, now) => {
      Object.assign(state.service, { reachable: false, reason: "no answer from coap://127.0.0.1:5683 for 5 s", sinceAt: now });
    });
    await seeText(page, "#banners", /The service does not answer\. No answer from .* for 5 s\. Gone since/);
    await seeText(page, "#hero-headline", /The service does not answer/);
    await seeText(page, "#link-service", /gone/);
    await assertSound(page);
    await picture(page, "stub-service-gone-dark");
    stub.state((state) => {
      Object.assign(state.service, { reachable: true, reason: null });
    });
    await seeText(page, "#link-service", /up$/);
    assert.equal(await page.locator("#banners *").count(), 0);
  });

  it("MicomThatDoesNotAnswerIsSaidAndTheStepIsShownAsLate", async () => {
    const page = await open(browser, stub.url);
    await page.click('[data-fault="micomSilent"]');
    await seeText(page, "#banners", /The Micom does not answer.*A fault is switched on: Micom: silent/);
    await page.click('#order-form [data-duration="01:00:00"]');
    await page.click("#order-send");
    await seeText(page, "#event-say", /Level 3/);
    stub.state((state, now, record) => {
      state.demandResponse.event.startAt = record.orderedAt = now - 900;
    });
    await page.waitForSelector('#steps [data-step="commanded"][data-state="late"]');
    await assertSound(page);
    await picture(page, "stub-micom-silent");
  });
});

describe("orders", () => {
  it("RefusalOfTheServiceIsShownWithReasonAndCode", async () => {
    const page = await open(browser, stub.url);
    stub.refuseNext(409, { error: "The service has refused the order.", service: { code: 409, reason: "refused" } });
    await page.click("#order-send");
    await seeText(page, "#order-answer", /^The service has refused the order\. \(service: 4\.09\)$/);
    assert.equal(await page.locator("#order-answer").getAttribute("data-kind"), "refused");
    assert.equal(await page.locator(".answer[data-kind=refused]").count(), 1);
    await assertSound(page);
  });

  it("RefusalWithoutAReasonStillSaysSomething", async () => {
    const page = await open(browser, stub.url);
    stub.refuseNext(500, null);
    await page.click("#door-fridge");
    await seeText(page, "#door-answer", /status 500 and gave no reason/);
  });

  it("LocalStartIsSentInUtcAndSaid", async () => {
    const page = await open(browser, stub.url);
    await page.fill("#order-start", "18:30");
    await page.fill("#order-duration", "01:00:00");
    await seeText(page, "#order-preview", /on Fri,? 31 Jul,? 18:30, in 1\sh 3\d\smin, until 19:30\. Sent as 16:30:00 UTC\./);
    await page.click("#order-send");
    await seeText(page, "#order-answer", /Accepted/);
    assert.deepEqual(lastRequest().body, { level: 3, duration: "01:00:00", start: "16:30:00" });
    await seeText(page, "#event-say", /Level 3 starts in/);
    await seeText(page, '[data-step="commanded"]', /from 18:30/);
  });

  it("StartThatHasPassedInsideTheDurationRunsAtOnce", async () => {
    const page = await open(browser, stub.url);
    await page.fill("#order-start", "16:45");
    await page.fill("#order-duration", "00:30:00");
    await seeText(page, "#order-preview", /at once, as it began at 16:45, until 17:15\. Sent as 14:45:00 UTC/);
    await page.click("#order-send");
    await seeText(page, "#event-times", /^16:45:00 to 17:15:00/);
    await seeText(page, "#hero-headline", /Load reduced: level 3/);
  });

  it("EmptyDurationIsLeftToTheService", async () => {
    const page = await open(browser, stub.url);
    await page.fill("#order-duration", "");
    await seeText(page, "#order-preview", /4\sh 30\smin, the service's own default/);
    await page.click("#order-send");
    await seeText(page, "#event-times", /4\sh 30\smin in all/);
    assert.deepEqual(lastRequest().body, { level: 3 });
  });

  it("WhatIsNoTimeIsSentAsItIsAndTheFieldThatIsWrongIsMarked", async () => {
    const page = await open(browser, stub.url);
    await page.fill("#order-start", "half past six");
    await page.click("#order-send");
    await seeText(page, "#order-answer", /Start "half past six" is not a time of day/);
    assert.equal(await page.locator("#order-start").getAttribute("aria-invalid"), "true");
    assert.equal(await page.locator("#order-duration").getAttribute("aria-invalid"), null);
  });

  it("TextFromOutsideIsNeverMarkup", async () => {
    const text = "<img src=x onerror=alert(1)><b>peak</b>";
    stub.state((state) => {
      state.defrostDelay.reservations[0].description = text;
    });
    stub.note("remote", "in", text);
    const page = await open(browser, stub.url);
    await seeText(page, "#trace", /<img src=x/);
    assert.equal(await page.locator("#reservations b").first().textContent(), text);
    assert.equal(await page.locator("main img").count(), 0);
    await assertSound(page);
  });

  it("NothingIsPromisedForADurationThatIsRefused", async () => {
    const page = await open(browser, stub.url);
    for (const [duration, promise] of [["00:02:00", /^Level 3 for 2\smin/], ["00:02", /^$/], ["00:00:00", /^$/], ["", /own default/]]) {
      await page.fill("#order-duration", duration);
      await seeText(page, "#order-preview", promise);
    }
  });

  it("OverrideOfWhichNothingIsKnownIsNobodys", async () => {
    const page = await open(browser, stub.url);
    await page.click("#order-send");
    await seeText(page, "#hero-headline", /Load reduced/);
    stub.state((state) => {
      state.demandResponse.override = { on: true, by: null, sinceAt: null };
    });
    await seeText(page, "#hero-headline", /Override/);
    await seeText(page, "#hero-detail", /^Cooling normally\.$/);
  });

  it("EachChangeGoesToItsOwnAddress", async () => {
    const page = await open(browser, stub.url);
    for (const [selector, method, path, body] of [
      ["#override-remote-on", "PUT", "/api/v1/override", { override: 1 }],
      ["#override-remote-off", "PUT", "/api/v1/override", { override: 0 }],
      ["#override-board-on", "PUT", "/api/v1/display/override", { override: 1 }],
      ["#override-board-off", "PUT", "/api/v1/display/override", { override: 0 }],
      ["#defrost-switch", "PUT", "/api/v1/defrost", { enabled: 0 }],
      ["#door-freezer", "PUT", "/api/v1/door", { compartment: "freezer", open: true }],
      [".fridge-door", "PUT", "/api/v1/door", { compartment: "fridge", open: true }],
      ['[data-fault="meteringSlow"]', "PUT", "/api/v1/faults/meteringSlow", { on: true }],
      ['[data-fault="micomRestart"]', "PUT", "/api/v1/faults/micomRestart", { on: true }],
    ]) {
      const count = stub.requests.length;
      const answered = page.waitForResponse((response) => response.url().endsWith(path));
      await page.click(selector);
      await answered;
      assert.deepEqual(stub.requests.slice(count), [{ method, path, body }], selector);
    }
  });

  it("SetAndCreateOfAReservationAreTwoCommands", async () => {
    const page = await open(browser, stub.url);
    await page.click("#reservation-new summary");
    await page.fill("#reservation-first-day", "5");
    await page.selectOption("#reservation-first-month", "03");
    await page.click("#reservation-form button[value=set]");
    await seeText(page, "#reservation-answer", /Added; nobody was notified/);
    assert.deepEqual(lastRequest(), {
      method: "PUT", path: "/api/v1/reservations",
      body: { startTime: "0000-03-05T17:00:00", endTime: "0000-12-31T00:00:00", period: "02:00:00", description: "Evening peak" },
    });
    await page.fill("#reservation-description", "");
    await page.fill("#reservation-start", "7:30");
    await page.fill("#reservation-period", "01:15");
    await page.click("#reservation-form button[value=create]");
    await seeText(page, "#reservation-answer", /Added as reservation 3/);
    assert.equal(lastRequest().method, "POST");
    assert.deepEqual(lastRequest().body, { startTime: "0000-03-05T07:30:00", endTime: "0000-12-31T00:00:00", period: "01:15:00" });
  });

  it("FieldOfAReservationThatIsRefusedIsMarkedUntilItIsChanged", async () => {
    const page = await open(browser, stub.url);
    await page.click("#reservation-new summary");
    const marked = () => page.locator("#reservation-form [aria-invalid=true]").evaluateAll((fields) => fields.map(({ name }) => name));
    for (const [id, value, good, name, answer] of [
      ["last-day", "99", "31", "lastDay", /^Last day: "99" is no day of that month$/],
      ["start", "25:00", "17:00", "start", /^Daily from: "25:00:00" is no time of day/],
      ["description", "a'b", "", "description", /^Description: "a'b" has a character/],
    ]) {
      await page.fill(`#reservation-${id}`, value);
      await page.click("#reservation-form button[value=create]");
      await seeText(page, "#reservation-answer", answer);
      assert.deepEqual(await marked(), [name]);
      await page.fill(`#reservation-${id}`, good);
      assert.deepEqual(await marked(), []);
    }
    await assertSound(page);
  });

  it("DefrostDelayThatAnEventKeepsOffSaysSo", async () => {
    const page = await open(browser, stub.url);
    await page.click("#order-send");
    await seeText(page, "#defrost-say", /Off, as long as a demand-response event is stored/);
    await page.click("#defrost-switch");
    await seeText(page, "#defrost-answer", /stays off while an event is stored \(service: 4\.09\)/);
  });
});

describe("what is shown", () => {
  it("FasterTimeIsShownWithItsFactor", async () => {
    await stub.close();
    stub = await startStub({ speed: 60 });
    const page = await open(browser, stub.url);
    await seeText(page, "#clock-speed", /time × 60/);
    await seeText(page, "#clock-zone", /Europe\/Berlin/);
    await page.click('#order-form [data-duration="00:02:00"]');
    await page.click("#order-send");
    await seeText(page, "#steps-total", /which runs 60 times as fast/);
    await seeText(page, "#event-say", /No event/);
    await seeText(page, "#records", /as planned/);
  });

  it("OpenRecordSaysWhenEachStepHappenedFirst", async () => {
    const page = await open(browser, stub.url);
    await page.click("#order-send");
    await seeSteps(page, "Level 3");
    const first = await page.locator('[data-step="commanded"] .step-time').textContent();
    stub.state((state, now) => {
      state.demandResponse.commanded.at = now + 600; // the ten-minute repetition
    });
    await page.waitForResponse((response) => response.url().includes("/history"));
    assert.equal(await page.locator('[data-step="commanded"] .step-time').textContent(), first);
  });

  it("RepeatedCommandDoesNotLengthenTheReturnToNormal", async () => {
    const page = await open(browser, stub.url);
    const { steps, totalSec } = await page.evaluate(async () => {
      const { stepsOf } = await import("/page/views/demand.js");
      const normal = (at) => ({ level: 0, at });
      return stepsOf({ demandResponse: { event: null, ordered: null, commanded: normal(700), confirmed: normal(100.5), reported: normal(101) } },
        [{ open: false, level: 3, endedAt: 100 }]);
    });
    assert.equal(totalSec, 1);
    assert.deepEqual(steps.map(({ at, tookSec }) => [at, tookSec]), [[100, undefined], [100.5, undefined], [100.5, 0.5], [101, 0.5]]);
  });

  it("RecordOfAnOrderThatNobodyHereSawTellsWhenItWasStored", async () => {
    const page = await open(browser, stub.url);
    stub.state((state, now, record) => {
      record.orderedAt = null;
    });
    await seeText(page, "#records", /by Thu,? 30 Jul,? 18:50remote side/);
  });

  it("RecordThatTheClockHasGoneBackOverSaysSoAndIsNotTheLastEvent", async () => {
    const page = await open(browser, stub.url);
    await seeText(page, "#records", /as planned/);
    await page.waitForSelector("#effect > *");
    stub.state((state, now, record) => {
      record.clockSetBack = true;
    });
    await seeText(page, "#records", /as planned; the clock was set back since/);
    await page.waitForSelector("#effect:empty", { state: "attached" });
  });

  it("CurveOfTheHourFollowsEachSecond", async () => {
    const page = await open(browser, stub.url);
    const rows = await page.evaluate(async () => {
      const { averagesAround, columns } = await import("/page/curves.js");
      const column = (...values) => values;
      const data = {
        stepSec: 60, at: column(600, 660, 720, 780, 840), powerWatt: column(50, null, 52, null, null),
        fridgeCelsius: column(1, null, 3, null, null), freezerCelsius: column(1, null, 3, null, null), ambientCelsius: column(1, null, 3, null, null),
      };
      const sample = (at, powerWatt) => ({ at, powerWatt, fridgeCelsius: 4, freezerCelsius: -18, ambientCelsius: 22 });
      const model = { now: 842, history: { range: "hour", data }, samples: [sample(725, 60), sample(726, 61), sample(841, 20)] };
      const [at, power] = columns(model);
      const young = averagesAround({ ...model, state: { speed: 1 } }, 726);
      const older = { ...data };
      for (const [name, values] of Object.entries(data)) if (name !== "stepSec") older[name] = [name === "at" ? -2400 : 50, ...values];
      const averages = averagesAround({ ...model, history: { range: "hour", data: older }, state: { speed: 1 } }, 726);
      return { drawn: at.map((time, place) => [time, power[place]]), averages, young };
    });
    assert.deepEqual(rows.drawn, [[600, 50], [660, null], [725, 60], [726, 61], [841, 20]]);
    // A mean over time, where what is not known counts for nothing; the last point lasts for nothing yet.
    assert.deepEqual(rows.averages, { sinceWatt: 61, beforeWatt: 50 });
    // Two minutes are no hour that an event could be compared with.
    assert.deepEqual(rows.young, { sinceWatt: 61, beforeWatt: null });
  });

  it("TraceIsFilteredAndExportedAsFiltered", async () => {
    const page = await open(browser, stub.url);
    await seeText(page, "#trace", /SET_SMARTGRID_LEVEL_NORMAL/);
    await page.selectOption("#trace-source", "metering");
    await page.waitForFunction(() => document.querySelectorAll("#trace tr").length === 1);
    await page.selectOption("#trace-source", "");
    await page.fill("#trace-text", "applied LEVEL");
    await page.waitForFunction(() => document.querySelectorAll("#trace tr").length === 1);
    assert.equal(await page.locator("#trace-csv").getAttribute("href"), "/api/v1/trace.csv?text=applied+LEVEL");
    await page.fill("#trace-text", "nothing like it");
    await seeText(page, "#trace-empty", /No line fits/);
  });

  it("LongTraceIsShownInParts", async () => {
    for (let line = 0; line < 800; line++) stub.note("micom", "in", `line ${line}`);
    const page = await open(browser, stub.url);
    await seeText(page, "#trace-count", /newest 100 of 500/);
    for (let press = 0; press < 7; press++) await page.click("#trace-older");
    await seeText(page, "#trace-count", /newest 800 of 804/);
  });

  it("EmptyHistorySaysSo", async () => {
    await stub.close();
    stub = await startStub({ isNew: true });
    const page = await open(browser, stub.url);
    await seeText(page, "#energy-readout", /Nothing is known of the last 24 hours yet/);
    await seeText(page, "#power-readout", /Last hour|Nothing is known/);
    await seeText(page, "#records-empty", /No event yet/);
    await seeText(page, "#energy-this", /–/);
    await assertSound(page);
    await picture(page, "stub-new");
  });

  it("MeteringServiceThatIsLeftOutIsSaidSo", async () => {
    const page = await open(browser, stub.url);
    stub.state((state) => {
      state.metering = { present: false, posts: 0, refused: 0, lastAt: null, lastFigure: null, totalWh: 0, lastStatus: null };
      state.faults = state.faults.filter(({ group }) => group === "Micom");
    });
    await seeText(page, "#energy-hint", /left out here/);
    await seeText(page, "#energy-metered", /left out/);
    assert.equal(await page.locator("[data-fault^=metering]").count(), 0);
    await assertSound(page);
  });

  it("ThemeIsTheSystemsUntilOneIsPickedAndThenRemembered", async () => {
    const page = await open(browser, stub.url, { theme: "dark" });
    const theme = () => page.evaluate(() => document.documentElement.dataset.theme);
    assert.equal(await theme(), "dark");
    await page.click("#theme");
    assert.equal(await theme(), "light");
    await page.reload();
    assert.equal(await theme(), "light");
    await assertSound(page);
  });

  it("NothingMovesForThoseWhoAskForThat", async () => {
    const still = await open(browser, stub.url, { reducedMotion: "reduce" });
    assert.equal(await still.evaluate(() => document.getAnimations().length), 0);
    const moving = await open(browser, stub.url);
    await moving.waitForFunction(() => document.getAnimations().length > 0);
  });

  it("EventsOfOtherDaysAreShownWithTheirDay", async () => {
    const page = await open(browser, stub.url);
    assert.deepEqual(await page.evaluate(async () => {
      const { makeClock } = await import("/page/format.js");
      const clock = makeClock("Europe/Berlin", 3600);
      const at = (text) => Date.parse(text) / 1000;
      const march = clock.dayStart(at("2026-03-29T10:00:00Z"));
      return {
        whenToday: clock.when(at("2026-07-31T08:05:00Z"), at("2026-07-31T15:00:00Z")),
        whenBefore: clock.when(at("2026-07-30T08:05:00Z"), at("2026-07-31T15:00:00Z")).replace(",", ""),
        hoursOfTheShortDay: (clock.dayStart(at("2026-03-29T10:00:00Z"), 1) - march) / 3600,
        summerNoon: new Date(clock.localTime(at("2026-03-28T10:00:00Z"), 1, 43200) * 1000).toISOString(),
        unknownZone: makeClock("Nowhere/Land", 7200).time(at("2026-07-31T08:00:00Z")),
      };
    }), {
      whenToday: "10:05", whenBefore: "Thu 30 Jul, 10:05".replace(",", ""), hoursOfTheShortDay: 23,
      summerNoon: "2026-03-29T10:00:00.000Z", unknownZone: "10:00:00",
    });
  });

  it("EventIsPlacedAsTheServicePlacesIt", async () => {
    const page = await open(browser, stub.url);
    assert.deepEqual(await page.evaluate(async () => {
      const { placed, utcOfLocal } = await import("/page/views/order.js");
      const { makeClock } = await import("/page/format.js");
      const now = Date.parse("2026-07-31T10:00:00Z") / 1000;
      const time = (at) => new Date(at * 1000).toISOString().slice(8, 19);
      return {
        over: time(placed(now, 8 * 3600, 3600)),
        running: time(placed(now, 8 * 3600, 3 * 3600)),
        ahead: time(placed(now, 14 * 3600, 3600)),
        winter: utcOfLocal(makeClock("Europe/Berlin", 3600), Date.parse("2026-01-10T10:00:00Z") / 1000, 18 * 3600) / 3600,
        overMidnight: utcOfLocal(makeClock("Asia/Tokyo", 32400), now, 3600) / 3600,
        afterTheChange: utcOfLocal(makeClock("Europe/Berlin", 3600), Date.parse("2026-03-28T20:00:00Z") / 1000, 12 * 3600) / 3600,
      };
    }), { over: "01T08:00:00", running: "31T08:00:00", ahead: "31T14:00:00", winter: 17, overMidnight: 16, afterTheChange: 10 });
  });

  it("NumbersAndSpansReadWell", async () => {
    const page = await open(browser, stub.url);
    const plain = (texts) => texts.map((text) => text.replaceAll("\u00a0", " "));
    assert.deepEqual(plain(await page.evaluate(async () => {
      const format = await import("/page/format.js");
      return [
        format.celsius(-18.04), format.celsius(-0.04), format.celsius(null), format.watt(84.4), format.watt(3.26), format.wattHour(1234),
        format.span(85), format.span(3600), format.span(7500), format.span(90000), format.span(NaN), format.took(0.44), format.took(-90), format.hms(86399),
      ];
    })), ["−18.0 °C", "0.0 °C", "–", "84 W", "3.3 W", "1.23 kWh", "1 min 25 s", "1 h", "2 h 05 min", "1 d 1 h", "–", "0.4 s", "−1 min 30 s", "23:59:59"]);
  });
});

describe("the files", () => {
  const files = readdirSync(kPage, { recursive: true }).map((name) => join(kPage, name)).filter((name) => statSync(name).isFile());

  it("NoFileIsLargerThan150Kilobytes", () => {
    assert.ok(files.length > 15, files.join());
    for (const name of files) assert.ok(statSync(name).size <= 150_000, `${name}: ${statSync(name).size} bytes`);
  });

  it("NothingIsInlineAndNothingIsWrittenAsMarkup", () => {
    for (const name of files.filter((each) => !each.includes("vendor"))) {
      const text = readFileSync(name, "utf8");
      assert.doesNotMatch(text, /innerHTML|outerHTML|insertAdjacentHTML|document\.write/, name);
      assert.doesNotMatch(text, /<script(?![^>]*\bsrc=)|<style|\sstyle="|\son[a-z]+="/, name);
    }
  });
});
