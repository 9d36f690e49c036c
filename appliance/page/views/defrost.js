// Defrost delay: on or off, the windows of two days on strips of 24 hours, and the reservations
// that they come from.

import { byId, h, setAttribute, setData, setText, show, whenChanged } from "../dom.js";
import { secondsOf, span } from "../format.js";
import { ask } from "./answer.js";

const kMonths = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"];
const kOwnIds = ["0", "1"]; // the seasons, which only the service itself keeps

function say({ enabled, active }, { event }, reservations, windows, now, clock) {
  if (enabled === null) return "Not known yet.";
  if (event && enabled === 0) return "Off, as long as a demand-response event is stored.";
  if (enabled === 0) return "Off: the windows below are not held.";
  const current = windows.find(({ from, to }) => from <= now && now < to);
  if (active === 1) return current ? `Held now, until ${clock.shortTime(current.to)}.` : "Held now.";
  const next = windows.find(({ from }) => from > now);
  return next ? `On. The next window opens at ${clock.shortTime(next.from)}, in ${span(next.from - now)}.` : "On. No more windows today or tomorrow.";
}

function strip(name, start, end, windows, clock) {
  const place = (at) => ((Math.min(Math.max(at, start), end) - start) / (end - start)) * 100;
  const track = h("div", { className: "strip-track", "aria-hidden": "true" });
  for (const { from, to } of windows) {
    const block = h("span", { className: "strip-window" });
    block.style.setProperty("left", `${place(from)}%`);
    block.style.setProperty("width", `${place(to) - place(from)}%`);
    track.append(block);
  }
  track.append(h("span", { className: "strip-now", hidden: true }));
  const text = windows.map(({ from, to, label }) => `${clock.shortTime(from)}–${clock.shortTime(to)}${label ? ` ${label}` : ""}`).join(", ");
  return h("div", { className: "strip" },
    h("p", { className: "strip-name" }, h("b", {}, name), ` ${clock.day(start)}`, h("span", {}, text || "no window")),
    track);
}

function strips({ days, windows }, clock) {
  const hours = h("p", { className: "strip-hours", "aria-hidden": "true" },
    ...["00", "06", "12", "18", "24"].map((hour) => h("span", {}, hour)));
  byId("strips").replaceChildren(
    ...days.map(([name, start, end]) => strip(name, start, end, windows.filter(({ from, to }) => from < end && to > start), clock)),
    hours);
}

const dayOf = (text) => `${Number(text.slice(8, 10))} ${kMonths[Number(text.slice(5, 7)) - 1] ?? "?"}`;

function reservationItem(reservation, remove) {
  const { id, description, startTime, endTime, period, current } = reservation;
  const button = h("button", { type: "button", className: "quiet", "aria-label": `Delete reservation ${id}, ${description}` }, "Delete");
  button.addEventListener("click", () => remove(button, id));
  return h("li", { "data-current": String(current) },
    h("span", { className: "reservation-id" }, id),
    h("span", { className: "reservation-what" },
      h("b", {}, description || "without a description"), current ? h("span", { className: "chip", "data-state": "reduced" }, "in season") : null,
      h("span", { className: "hint" }, `${dayOf(startTime)} to ${dayOf(endTime)}, daily from ${startTime.slice(11, 16)} for ${span(secondsOf(period) ?? NaN)}`)),
    kOwnIds.includes(id) ? h("span", { className: "hint" }, "built in") : button);
}

/** Two digits, or what was typed when it is no number: the appliance says then what is wrong. */
const twoDigits = (text) => (/^\d$/.test(text.trim()) ? "0" + text.trim() : text.trim());

/** "7:00" and "07:00" are sent as "07:00:00", anything else as it was typed. */
function timeOfDay(text) {
  return /^\d{1,2}:\d\d$/.test(text.trim()) ? `${text.trim().padStart(5, "0")}:00` : text.trim();
}

function reservationOf(form) {
  const value = (name) => form.elements[name].value;
  const reservation = {
    startTime: `0000-${value("firstMonth")}-${twoDigits(value("firstDay"))}T${timeOfDay(value("start"))}`,
    endTime: `0000-${value("lastMonth")}-${twoDigits(value("lastDay"))}T00:00:00`,
    period: timeOfDay(value("period")),
  };
  if (value("description").trim() !== "") reservation.description = value("description").trim();
  return reservation;
}

/** The field that a refusal begins with, in the form's own words. */
const kFields = { Description: "description", "First day": "firstDay", "Last day": "lastDay", "Daily from": "start", Length: "period" };

function mark(form, refusal) {
  for (const field of form.querySelectorAll("[aria-invalid]")) field.removeAttribute("aria-invalid");
  const name = kFields[refusal?.message.split(":")[0]];
  if (name !== undefined) setAttribute(form.elements[name], "aria-invalid", "true");
}

function monthOptions(select, chosen) {
  select.replaceChildren(...kMonths.map((name, month) =>
    h("option", { value: String(month + 1).padStart(2, "0"), selected: month === chosen }, name)));
}

export function defrostView(store, api) {
  const toggle = byId("defrost-switch");
  toggle.addEventListener("click", () => {
    const on = store.model.state?.defrostDelay.enabled !== 1;
    return ask(toggle, byId("defrost-answer"), () => api.delayDefrost(on), () => "");
  });

  const form = byId("reservation-form");
  monthOptions(byId("reservation-first-month"), 0);
  monthOptions(byId("reservation-last-month"), 11);
  form.addEventListener("input", () => mark(form, null));
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    mark(form, null);
    const button = event.submitter ?? form.querySelector("button.primary");
    const send = button.value === "set" ? api.setReservation : api.createReservation;
    const refusal = await ask(button, byId("reservation-answer"), () => send(reservationOf(form)), (result) =>
      result.id === undefined ? "Added; nobody was notified." : `Added as reservation ${result.id}.`);
    mark(form, refusal);
  });

  const remove = (button, id) =>
    ask(button, byId("reservation-delete-answer"), () => api.deleteReservation(id), () => `Reservation ${id} deleted.`);
  const list = whenChanged((reservations) =>
    byId("reservations").replaceChildren(...reservations.map((reservation) => reservationItem(reservation, remove))));
  let clock;
  const drawStrips = whenChanged((days) => strips(days, clock));

  return (model) => {
    if (model.state === null) return;
    ({ clock } = model);
    const { defrostDelay, demandResponse } = model.state;
    const reservations = defrostDelay.reservations;
    const names = new Map(reservations.map(({ id, description }) => [id, description]));
    const windows = defrostDelay.windows.map((window) => ({ ...window, label: names.get(window.reservationId) ?? "" }));
    const midnights = [0, 1, 2].map((days) => clock.dayStart(model.now, days));

    setAttribute(toggle, "aria-checked", defrostDelay.enabled === 1);
    setText(byId("defrost-say"), say(defrostDelay, demandResponse, reservations, windows, model.now, clock));
    setData(byId("defrost-say"), "state", defrostDelay.active === 1 ? "held" : "idle");
    setData(byId("strips"), "off", defrostDelay.enabled !== 1);
    drawStrips({
      zone: clock.zone, windows,
      days: [["Today", midnights[0], midnights[1]], ["Tomorrow", midnights[1], midnights[2]]],
    });
    const marker = byId("strips").querySelector(".strip-now");
    show(marker, true);
    marker.style.setProperty("left", `${((model.now - midnights[0]) / (midnights[1] - midnights[0])) * 100}%`);

    list(reservations);
    setText(byId("reservation-count"), `${reservations.length} of 4`);
    show(byId("reservations-empty"), reservations.length === 0);
  };
}
