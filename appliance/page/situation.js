// What the appliance is doing, in one of few states and one sentence: the same for the headline,
// the drawing and the curves' colours.

import { levelName, number, quantity, span } from "./format.js";

const modes = {
  normal: "Normal cooling",
  delay: "Delay",
  moderate: "Reduced",
  strong: "Strongly reduced",
  off: "Off",
  override: "Override",
  returning: "Returning",
};

export const modeName = (mode) => modes[mode] ?? mode;

/** How long the stored event still takes, or until it starts, carried on between two states. */
export function remaining(event, now) {
  return Math.max(0, (event.state === "waiting" ? event.startAt : event.endAt) - now);
}

function sentence(state, now, clock) {
  const { refrigerator, demandResponse } = state;
  const { event, override } = demandResponse;
  if (override.on && event?.state === "running") {
    const by = { display: ", asked for by somebody at the refrigerator", remote: ", asked for by the remote side" }[override.by] ?? "";
    const since = Number.isFinite(override.sinceAt) ? ` since ${clock.when(override.sinceAt, now)}` : "";
    return ["held", `Override: ${levelName(event.level).toLowerCase()} is set aside`, `Cooling normally${since}${by}.`];
  }
  if (event?.state === "running") {
    const goesBack = refrigerator.foodLimitActive ? "Cooling all the same: the food's limit is reached." : "";
    const confirmed = demandResponse.confirmed?.level === event.level;
    const headline = confirmed ? `Load reduced: ${levelName(event.level).toLowerCase()}` : `${levelName(event.level)} ordered, not confirmed yet`;
    return ["reduced", headline, goesBack || `${span(remaining(event, now))} left, until ${clock.when(event.endAt, now)}.`];
  }
  if (event?.state === "ending") return ["reduced", "The event is over", "Going back to normal."];
  if (refrigerator.mode === "returning") return ["reduced", "Returning to normal", "The compressor comes back after its pause, not all refrigerators at once."];
  const next = event ? `Level ${event.level} starts at ${clock.when(event.startAt, now)}, in ${span(remaining(event, now))}.` : null;
  if (refrigerator.defrost.heaterOn) return ["normal", "Defrosting", next ?? "The heater melts the ice off the evaporator; this takes some 20 minutes."];
  if (refrigerator.defrost.held) return ["held", "Normal, defrost held", next ?? "Inside a reserved window, so defrosting waits."];
  if (override.on) return ["held", "Override is on", next ?? "Events would be set aside."];
  return ["normal", "Normal operation", next ?? "No event is stored."];
}

/** `kind` colours the headline, `mode` what the refrigerator does whatever else is wrong. */
export function situation({ state, now, clock }) {
  const [kind, headline, detail] = sentence(state, now, clock);
  const fault = !state.service.reachable ? "The service does not answer" : !state.micom.alive ? "The Micom does not answer" : null;
  if (fault === null) return { kind, mode: kind, headline, detail };
  return { kind: "fault", mode: kind, headline: fault, detail: `Last known: ${headline}. ${detail}` };
}

/** "on at 62 %, 71 W" */
export function compressorText({ on, capacity, watt, reason }) {
  const running = on ? `on at ${quantity(capacity * 100, 0, "%")}, ${number(watt)}\u00a0W` : "off";
  return reason ? `${running} (${reason})` : running;
}
