// Ordering an event. The start is asked in local time and sent in UTC, as the service wants it; the
// line above the button says what the service will make of it. Nothing is checked here that the
// appliance checks: its reason is shown instead, at the field that it names.

import { byId, h, setAttribute, setText, show } from "../dom.js";
import { hms, levelName, levels, secondsOf, span } from "../format.js";
import { ask, tell } from "./answer.js";

const kDay = 86400;
const kDefaultSec = 4.5 * 3600; // what the service takes when no duration is given

/** UTC seconds of the day at which local clocks next show this local time of day. */
export function utcOfLocal(clock, now, localSec) {
  const today = clock.localTime(now, 0, localSec);
  const next = today >= now ? today : clock.localTime(now, 1, localSec);
  return ((next % kDay) + kDay) % kDay;
}

/** Where the service puts an event: on today's UTC date, or tomorrow when it would be over already. */
export function placed(now, utcSec, durationSec) {
  const today = Math.floor(now / kDay) * kDay + utcSec;
  return today + durationSec < now ? today + kDay : today;
}

function preview(form, { state, clock, now }) {
  const { level, duration, startAt } = form;
  if (level === 0) {
    return state?.demandResponse.event ? "Ends the stored event at once." : "No event is stored; the normal level is commanded once more.";
  }
  // Nothing is promised for what the appliance will refuse.
  const durationSec = duration === "" ? kDefaultSec : duration.length === "hh:mm:ss".length ? secondsOf(duration) : null;
  if (state === null || !durationSec) return "";
  const lasts = `${levelName(level)} for ${span(durationSec)}${duration === "" ? ", the service's own default" : ""}`;
  const replaces = state.demandResponse.event ? " Takes the place of the stored event." : "";
  if (startAt === null) return `${lasts}, until ${clock.shortTime(now + durationSec)}.${replaces}`;
  const localSec = secondsOf(startAt);
  if (localSec === null) return "";
  const utcSec = utcOfLocal(clock, now, localSec);
  const start = placed(now, utcSec, durationSec);
  const end = start + durationSec;
  const when = start <= now ? `at once, as it began at ${clock.shortTime(start)}` : `on ${clock.dayTime(start)}, in ${span(start - now)}`;
  return `${lasts}: ${when}, until ${clock.shortTime(end)}. Sent as ${hms(utcSec)} UTC.${replaces}`;
}

export function orderView(store, api) {
  const form = byId("order-form");
  const fields = { duration: byId("order-duration"), start: byId("order-start") };
  const send = byId("order-send");
  const answer = byId("order-answer");

  byId("order-levels").replaceChildren(...[1, 2, 3, 4, 0].map((level) =>
    h("label", { className: "level" },
      h("input", { type: "radio", name: "level", value: String(level), checked: level === 3 }),
      h("span", { className: "level-name" }, level === 0 ? "Normal" : `${level} ${levels[level].name}`),
      h("span", { className: "level-meaning" }, levels[level].meaning))));

  const entered = () => ({
    level: Number(form.elements.level.value),
    duration: fields.duration.value.trim(),
    startAt: form.elements.start.value === "at" ? fields.start.value.trim() : null,
  });

  function body({ level, duration, startAt }) {
    const event = { level };
    if (duration !== "") event.duration = duration;
    if (startAt !== null) {
      const localSec = secondsOf(startAt);
      event.start = localSec === null ? startAt : hms(utcOfLocal(store.model.clock, store.model.now, localSec));
    }
    return event;
  }

  function mark(field) {
    for (const [name, input] of Object.entries(fields)) {
      if (name === field) setAttribute(input, "aria-invalid", "true");
      else input.removeAttribute("aria-invalid");
    }
  }

  for (const preset of form.querySelectorAll("[data-duration]")) {
    preset.addEventListener("click", () => {
      fields.duration.value = preset.dataset.duration;
      store.changed();
    });
  }
  fields.start.addEventListener("input", () => {
    form.elements.start.value = "at";
  });
  form.addEventListener("input", () => {
    mark(null);
    tell(answer, "ok", "");
    store.changed();
  });
  form.addEventListener("change", store.changed);
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    const wanted = entered();
    mark(null);
    const refusal = await ask(send, answer,
      () => (wanted.level === 0 ? api.cancel() : api.order(body(wanted))),
      () => (wanted.level === 0 ? "Accepted: back to normal." : `Accepted: level ${wanted.level}.`));
    if (refusal) mark(refusal.field);
  });

  return (model) => {
    const now = entered();
    show(byId("order-when"), now.level !== 0);
    setText(byId("order-preview"), preview(now, model));
    setText(send, now.level === 0 ? "Go back to normal" : "Order the event");
    for (const preset of form.querySelectorAll("[data-duration]")) {
      setAttribute(preset, "aria-pressed", preset.dataset.duration === now.duration);
    }
  };
}
