// Demand response: the stored event with its remaining time, the four steps from the order to the
// report with what each took, the event's effect, and the override.

import { averagesAround } from "../curves.js";
import { byId, h, setAttribute, setData, setText, show, whenChanged } from "../dom.js";
import { changePercent, levelName, signedPercent, span, took, watt, wattHour } from "../format.js";
import { remaining } from "../situation.js";
import { ask } from "./answer.js";

const kSteps = ["ordered", "commanded", "confirmed", "reported"];
const kLateSec = 10; // real seconds; every step is over within three when all is well

/** The record of the event that runs, or of the last one that the present clock knows of. */
const lastRecord = (records) => records.find(({ clockSetBack }) => !clockSetBack) ?? null;

/**
 * The steps of the last order, or of the return to normal after it, oldest first. A step that is
 * not there yet has no time. Commands are repeated every ten minutes: an open record still knows
 * when each step happened first.
 */
export function stepsOf({ demandResponse }, records) {
  const { event, ordered } = demandResponse;
  const level = event ? event.level : 0;
  const record = lastRecord(records);
  const isOpen = record !== null && record.open && event !== null && record.level === level;
  const orderedAt = isOpen ? (record.orderedAt ?? record.storedAt) : ordered?.level === level || event ? ordered?.at : record?.endedAt;
  // What is to come later than the order counts from its start.
  const base = Math.max(orderedAt ?? -Infinity, event?.startAt ?? -Infinity);
  const steps = [{
    name: "ordered",
    level,
    at: orderedAt ?? null,
    note: !Number.isFinite(orderedAt) ? "nothing yet" : event || ordered?.level === 0 ? { page: "from this page", remote: "by the remote side" }[isOpen ? record.orderedBy : ordered?.by] : "by the end of the event",
  }];
  for (const name of kSteps.slice(1)) {
    const seen = demandResponse[name];
    const isThere = seen !== null && seen !== undefined && seen.level === level && event?.state !== "waiting";
    const first = isOpen ? (record[`${name}At`] ?? seen?.at) : seen?.at;
    steps.push({ name, level: isThere ? level : (seen?.level ?? null), at: isThere ? first : null });
  }
  // A command that comes after its confirmation is a repetition; the first one was confirmed.
  const [, commanded, confirmed] = steps;
  if (commanded.at !== null && confirmed.at !== null && commanded.at > confirmed.at) {
    Object.assign(commanded, { at: confirmed.at, isRepeated: true });
  }
  // Each counts from what came before it: the end of an event is reported at once, not when the
  // Micom has confirmed it.
  const times = steps.slice(1).map((step) => step.at);
  for (const step of steps.slice(1)) {
    if (step.at === null || step.isRepeated || !Number.isFinite(base)) continue;
    step.tookSec = step.at - Math.max(base, ...times.filter((at) => at !== null && at < step.at));
  }
  const isComplete = Number.isFinite(base) && !times.includes(null);
  return { steps, base, totalSec: isComplete ? Math.max(...times) - base : null };
}

function eventText(event, now) {
  if (event.state === "waiting") return `${levelName(event.level)} starts in ${span(remaining(event, now))}`;
  if (event.state === "ending") return `${levelName(event.level)} has ended`;
  return `${levelName(event.level)}: ${span(remaining(event, now))} left`;
}

function showEvent({ state, now, clock }) {
  const { event } = state.demandResponse;
  setData(byId("event"), "state", event ? (event.state === "waiting" ? "idle" : "reduced") : "idle");
  setText(byId("event-say"), event ? eventText(event, now) : "No event");
  setText(byId("event-times"), event
    ? `${clock.time(event.startAt)} to ${clock.time(event.endAt)}, ${span(event.durationSec)} in all`
    : "The refrigerator runs as usual.");
  show(byId("event-cancel"), event !== null);
  const progress = byId("event-progress");
  show(progress, event !== null);
  if (event) {
    const share = Math.min(1, Math.max(0, (now - event.startAt) / (event.endAt - event.startAt)));
    progress.firstElementChild.style.setProperty("--share", share);
    setAttribute(progress, "aria-valuenow", Math.round(share * 100));
    setAttribute(progress, "aria-valuetext", eventText(event, now));
  }
}

function showSteps({ state, records, now, clock }) {
  const { steps, base, totalSec } = stepsOf(state, records);
  const isWaiting = state.demandResponse.event?.state === "waiting";
  const pending = steps.findIndex((step) => step.at === null);
  steps.forEach((step, place) => {
    const item = byId("steps").children[place];
    const waited = now - (steps[place - 1]?.at ?? base);
    const isNext = place === pending && place > 0 && !isWaiting;
    const isLate = isNext && waited > kLateSec * state.speed;
    setData(item, "state", step.at !== null ? "done" : isLate ? "late" : isNext ? "next" : "idle");
    if (isNext) setAttribute(item, "aria-current", "step");
    else item.removeAttribute("aria-current");
    setText(item.querySelector(".step-level"), levelName(place === 0 && step.at === null ? null : step.level));
    setText(item.querySelector(".step-time"), step.at === null ? (isNext ? "waiting" : isWaiting ? `from ${clock.when(state.demandResponse.event.startAt, now)}` : "–") : `${step.isRepeated ? "by " : ""}${clock.time(step.at)}`);
    const tookText = step.tookSec !== undefined ? took(step.tookSec) : isNext && Number.isFinite(waited) ? span(waited) : "";
    setText(item.querySelector(".step-took"), place === 0 ? (step.note ?? "") : tookText);
  });
  const virtual = state.speed === 1 ? "" : ` of the appliance's time, which runs ${state.speed} times as fast`;
  setText(byId("steps-total"), totalSec === null ? "" : `All steps took ${took(totalSec)}${virtual}.`);
}

/** An open record does not know its energy yet, so the curves tell how it goes. */
function effectSoFar(record, model) {
  const { sinceWatt, beforeWatt } = averagesAround(model, Math.max(record.startAt, Math.floor(record.orderedAt ?? record.storedAt)));
  if (sinceWatt === null) return [];
  const rows = [["Average so far", watt(sinceWatt)]];
  if (beforeWatt !== null) {
    rows.push(["In the hour before", watt(beforeWatt)]);
    rows.push(["Change so far", signedPercent(changePercent({ averageWatt: sinceWatt, baselineAverageWatt: beforeWatt }))]);
  }
  return rows;
}

function effectRows(model) {
  const record = lastRecord(model.records);
  if (record === null) return [];
  if (record.open && record.averageWatt === null) return effectSoFar(record, model);
  const rows = [[record.open ? "Average in this event" : "Average in the last event", watt(record.averageWatt)]];
  if (record.baselineAverageWatt > 0) {
    const days = record.baselineDays === 1 ? "the day before" : `${record.baselineDays} days before`;
    rows.push([`Same hours, ${days}`, watt(record.baselineAverageWatt)]);
    rows.push(["Change", signedPercent(changePercent(record))]);
  } else {
    rows.push(["Energy", wattHour(record.energyDuringWh)]);
    rows.push(["Same hours before", "no day yet"]);
  }
  return rows;
}

function showOverride({ override }, { clock, now }) {
  const by = { display: "on the display", remote: "by the remote side" }[override.by];
  const since = Number.isFinite(override.sinceAt) ? `since ${clock.when(override.sinceAt, now)} (${span(now - override.sinceAt)})` : null;
  setText(byId("override-say"), override.on ? ["on", by, since].filter(Boolean).join(", ") : "off");
  setData(byId("override-say"), "state", override.on ? "held" : "idle");
}

export function demandView(store, api) {
  byId("event-cancel").addEventListener("click", ({ currentTarget }) =>
    ask(currentTarget, byId("cancel-answer"), api.cancel, () => "Cancelled."));
  for (const [id, name, send, on] of [
    ["override-remote-on", "Override ordered: on.", api.override, true],
    ["override-remote-off", "Override ordered: off.", api.override, false],
    ["override-board-on", "Button pressed: override on.", api.displayOverride, true],
    ["override-board-off", "Button pressed: override off.", api.displayOverride, false],
  ]) {
    byId(id).addEventListener("click", ({ currentTarget }) =>
      ask(currentTarget, byId("override-answer"), () => send(on), () => name));
  }
  const effect = whenChanged((rows) => {
    byId("effect").replaceChildren(...rows.map(([term, value]) => h("div", {}, h("dt", {}, term), h("dd", {}, value))));
    show(byId("effect"), rows.length > 0);
  });

  let shown = null; // the state and the records that the effect was computed of
  return (model) => {
    if (model.state === null) return;
    showEvent(model);
    showSteps(model);
    if (shown === null || shown.state !== model.state || shown.records !== model.records) effect(effectRows(model));
    shown = { state: model.state, records: model.records };
    showOverride(model.state.demandResponse, model);
  };
}
