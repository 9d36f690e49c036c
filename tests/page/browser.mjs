// What the page's tests share: Debian's Chromium, pages of the sizes and themes that are looked at,
// pictures of them, and the checks that hold in every state of the page.
//
// Environment: CORVANE_PAGE_MODULES, the folder with node_modules; CORVANE_PAGE_PICTURES, where
// pictures are kept; CORVANE_CHROMIUM, the browser.

import assert from "node:assert/strict";
import { mkdirSync } from "node:fs";
import { createRequire } from "node:module";
import { join } from "node:path";

const { chromium } = createRequire(join(process.env.CORVANE_PAGE_MODULES, "package.json"))("playwright-core");

const kDeadlineMs = 60_000; // reached only by a failure

export function launch() {
  return chromium.launch({
    executablePath: process.env.CORVANE_CHROMIUM ?? "/usr/bin/chromium",
    // Only this project's own page is ever shown; the sandbox does not start for root.
    args: ["--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu"],
  });
}

const kIsReady = () => document.getElementById("hero-power").textContent !== "–";

/** A page at its first state. `page.problems` collects what the browser complains of. */
export async function open(browser, url, { size = "1600x1000", theme = "light", isReady = kIsReady, ...options } = {}) {
  const [width, height] = size.split("x").map(Number);
  const context = await browser.newContext({ viewport: { width, height }, colorScheme: theme, ...options });
  const page = await context.newPage();
  page.setDefaultTimeout(kDeadlineMs);
  page.problems = [];
  page.foreign = [];
  page.on("pageerror", (error) => page.problems.push(String(error)));
  page.on("console", (message) => {
    // Chromium notes each refused request by itself; whether one was meant is what the tests say.
    const isRefusal = message.text().startsWith("Failed to load resource") && /\/api\/v1\//.test(message.location().url);
    if (message.type() === "error" && !isRefusal) page.problems.push(message.text());
  });
  page.on("request", (request) => {
    if (new URL(request.url()).origin !== new URL(url).origin) page.foreign.push(request.url());
  });
  await page.goto(url);
  await page.waitForFunction(isReady);
  return page;
}

/** Waits until an element's text fits the pattern, and gives it. */
export async function seeText(page, selector, pattern) {
  const found = await page.waitForFunction(
    ([where, source, flags]) => {
      const text = document.querySelector(where)?.textContent ?? "";
      return new RegExp(source, flags).test(text) && { text };
    },
    [selector, pattern.source, pattern.flags],
  ).catch(async () => {
    const text = await page.locator(selector).textContent();
    assert.fail(`${selector} never showed ${pattern}; it shows "${text}"`);
  });
  return (await found.jsonValue()).text;
}

/** Waits until all steps after the order stand at this level: "Level 3", "Normal". */
export async function seeSteps(page, level) {
  await page.waitForFunction((wanted) =>
    [...document.querySelectorAll("#steps li")].slice(1).every((step) =>
      step.dataset.state === "done" && step.querySelector(".step-level").textContent === wanted), level)
    .catch(async () => assert.fail(`the steps never came to ${level}: ${await page.locator("#steps").innerText()}`));
}

export async function picture(page, name) {
  const folder = process.env.CORVANE_PAGE_PICTURES;
  mkdirSync(folder, { recursive: true });
  await page.evaluate(() => scrollTo(0, 0));
  await page.screenshot({ path: join(folder, `${name}.png`), fullPage: true });
}

/** The texts whose contrast to their ground is below WCAG's AA, with the ratio. */
export function poorContrasts(page) {
  return page.evaluate(() => {
    const canvas = document.createElement("canvas");
    canvas.width = canvas.height = 1;
    const context = canvas.getContext("2d", { willReadFrequently: true });
    function rgba(colour) {
      context.clearRect(0, 0, 1, 1);
      context.fillStyle = colour;
      context.fillRect(0, 0, 1, 1);
      const [red, green, blue, alpha] = context.getImageData(0, 0, 1, 1).data;
      return [red, green, blue, alpha / 255];
    }
    const over = ([r, g, b, a], [r2, g2, b2]) => [r * a + r2 * (1 - a), g * a + g2 * (1 - a), b * a + b2 * (1 - a), 1];
    function luminance([r, g, b]) {
      const [red, green, blue] = [r, g, b].map((value) => {
        const share = value / 255;
        return share <= 0.04045 ? share / 12.92 : ((share + 0.055) / 1.055) ** 2.4;
      });
      return 0.2126 * red + 0.7152 * green + 0.0722 * blue;
    }
    function ratio(one, other) {
      const [light, dark] = [luminance(one), luminance(other)].sort((a, b) => b - a);
      return (light + 0.05) / (dark + 0.05);
    }

    /** Every ground that the element may stand on: gradients have several. */
    function grounds(element) {
      if (element === null) return [rgba(getComputedStyle(document.documentElement).backgroundColor)];
      const style = getComputedStyle(element);
      const stops = style.backgroundImage.match(/(rgba?|color|oklab|lab)\([^()]*\)/g) ?? [];
      const own = [style.backgroundColor, ...stops].map(rgba).filter(([, , , alpha]) => alpha > 0);
      if (own.length > 0 && own[0][3] === 1 && stops.length === 0) return [own[0]];
      const below = grounds(element.parentElement);
      return own.length === 0 ? below : own.flatMap((colour) => below.map((ground) => over(colour, ground)));
    }
    /** In a drawing: the last rectangle painted before the text and under its middle, or what the drawing stands on. */
    function drawnGrounds(text) {
      const box = text.getBoundingClientRect();
      const [x, y] = [box.x + box.width / 2, box.y + box.height / 2];
      let ground = null;
      for (const shape of text.ownerSVGElement.querySelectorAll("rect, text")) {
        if (shape === text) break;
        const { left, right, top, bottom } = shape.getBoundingClientRect();
        if (shape.tagName === "rect" && left <= x && x <= right && top <= y && y <= bottom) ground = rgba(getComputedStyle(shape).fill);
      }
      return ground === null ? grounds(text.ownerSVGElement) : [ground];
    }

    const poor = [];
    function check(element, text, colour, under) {
      const style = getComputedStyle(element);
      const size = parseFloat(style.fontSize);
      const isLarge = size >= 24 || (size >= 18.66 && Number(style.fontWeight) >= 700);
      const worst = Math.min(...under.map((ground) => ratio(over(rgba(colour), ground), ground)));
      if (worst < (isLarge ? 3 : 4.5)) poor.push(`"${text.trim().slice(0, 40)}" ${worst.toFixed(2)}`);
    }
    let checked = 0;
    const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
    while (walker.nextNode()) {
      const { textContent, parentElement: element } = walker.currentNode;
      const box = element.getBoundingClientRect();
      if (textContent.trim() === "" || box.width < 2 || box.height < 2) continue;
      if (!element.checkVisibility({ visibilityProperty: true, opacityProperty: true })) continue;
      checked++;
      if (element.tagName === "text") check(element, textContent, getComputedStyle(element).fill, drawnGrounds(element));
      else check(element, textContent, getComputedStyle(element).color, grounds(element));
    }
    for (const input of document.querySelectorAll("input:not([type=radio])")) {
      if (!input.checkVisibility()) continue;
      checked++;
      check(input, input.value, getComputedStyle(input).color, grounds(input));
      check(input, input.placeholder, getComputedStyle(input, "::placeholder").color, grounds(input));
    }
    return { checked, poor };
  });
}

/** What holds whatever the page shows. */
export async function assertSound(page) {
  const { checked, poor } = await poorContrasts(page);
  assert.ok(checked > 80, `only ${checked} texts found`);
  assert.deepEqual(poor, [], "texts below a contrast of 4.5");
  const [content, window] = await page.evaluate(() => [document.documentElement.scrollWidth, innerWidth]);
  assert.ok(content <= window, `the page is ${content} wide in a window of ${window}`);
  assert.deepEqual(page.problems, [], "complaints of the browser");
  assert.deepEqual(page.foreign, [], "requests to other hosts");
}
