// The laboratory's report as it opens from disk, of two days on which there is something to say in
// each of its sections.
//
// Environment: CORVANE_LAB, the program; the rest as browser.mjs says.

import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, describe, it } from "node:test";
import { pathToFileURL } from "node:url";
import { assertSound, launch, open, picture } from "./browser.mjs";

const kScenario = `
title = "Two hot evenings"
from = 2026-08-03
to = 2026-08-04
zone = "Europe/Berlin"

[appliance]
defrost-delay = true

[[programme]]
name = "evening"
dates = [2026-08-03, 2026-08-04]
from = "18:00"
to = "20:00"
level = 3

[[fault]]
kind = "wifi-lost"
date = 2026-08-04
start = "17:20"
duration = "00:50"

[[fault]]
kind = "kill"
date = 2026-08-03
start = "18:45"
`;

let browser;
let folder;
let report;
before(async () => {
  folder = mkdtempSync(join(tmpdir(), "corvane-report-"));
  writeFileSync(join(folder, "evenings.toml"), kScenario);
  const run = spawnSync(process.env.CORVANE_LAB, ["run", "--runs", "2", "--out", join(folder, "out"), join(folder, "evenings.toml")],
    { encoding: "utf8" });
  assert.equal(run.status, 0, run.stdout + run.stderr);
  report = pathToFileURL(join(folder, "out", "report.html")).href;
  browser = await launch();
});
after(async () => {
  await browser?.close();
  rmSync(folder, { recursive: true });
});

/** The report with all of it unfolded. */
async function openReport(options) {
  const page = await open(browser, report, { isReady: () => document.querySelector("h1") !== null, ...options });
  await page.evaluate(() => document.querySelectorAll("details").forEach((part) => { part.open = true; }));
  return page;
}

describe("the report", () => {
  it("AnswersFirstAndHasEverySection", async () => {
    const page = await openReport();
    assert.equal(await page.title(), "Two hot evenings");
    assert.match(await page.locator("h1 ~ *").nth(1).innerText(), /The 2 events saved -?\d/);
    const headings = await page.locator("h2").allInnerTexts();
    for (const wanted of ["How the saving adds up", "Load curve of an average event day, with and without", "Energy and peaks", "The hours of the period",
      "Food temperatures", "Event by event", "Commands and refusals", "Other households"])
      assert.ok(headings.includes(wanted), `no section "${wanted}" among ${headings}`);
    assert.match(await page.locator("main").innerText(), /not delivered: no Wi-Fi, 30 times until 17:59:00/);
  });

  for (const size of ["360x740", "1024x768", "1600x1000"]) {
    for (const theme of ["light", "dark"]) {
      it(`IsReadableAndAskedForNothing.${size}.${theme}`, async () => {
        const page = await openReport({ size, theme });
        await assertSound(page);
        await picture(page, `report-${size}-${theme}`);
        await page.context().close();
      });
    }
  }
});
