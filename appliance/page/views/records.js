// The records of events, newest first: what an operator of a programme is asked to prove.

import { byId, h, show, whenChanged } from "../dom.js";
import { changePercent, levelName, number, signedPercent, span, took, watt, wattHour } from "../format.js";

const endings = { schedule: "as planned", cancel: "cancelled", replaced: "replaced", restart: "after a restart" };
const orderers = { page: "this page", remote: "remote side" };

function overrideText(overrides, clock) {
  if (overrides.length === 0) return "none";
  return overrides.map(({ on, at, by }) => `${on ? "on" : "off"} ${clock.shortTime(at)}${by ? `, ${by}` : ""}`).join("; ");
}

function row(record, clock) {
  const start = Math.max(record.startAt, Math.floor(record.orderedAt ?? record.storedAt)); // the service counts whole seconds
  const end = record.endedAt ?? record.plannedEndAt;
  const ending = (record.open ? "still open" : (endings[record.endedBy] ?? "ended")) + (record.clockSetBack ? "; the clock was set back since" : "");
  const cell = (label, text, hint = null, numeric = false) =>
    h("td", { className: numeric ? "numeric" : "", "data-label": label }, h("span", {}, text, hint ? h("span", { className: "hint" }, hint) : null));
  return h("tr", { "data-open": String(record.open) },
    h("th", { scope: "row" }, levelName(record.level), h("span", { className: "hint" }, `no. ${record.id}`)),
    cell("Ordered", Number.isFinite(record.orderedAt) ? clock.dayTime(record.orderedAt) : `by ${clock.dayTime(record.storedAt)}`, orderers[record.orderedBy] ?? record.orderedBy),
    cell("Ran", `${clock.time(start)} – ${clock.time(end)}`, `${span(end - start)}, ${ending}`),
    cell("To confirm", Number.isFinite(record.confirmedAt) ? took(record.confirmedAt - Math.max(record.orderedAt, record.startAt)) : "not confirmed", null, true),
    cell("Average", watt(record.averageWatt), null, true),
    cell("Peak", watt(record.peakWatt), record.baselinePeakWatt > 0 ? `usually ${watt(record.baselinePeakWatt)}` : null, true),
    cell("Usual average", watt(record.baselineAverageWatt), record.baselineDays > 0 ? `${record.baselineDays} d` : "no day yet", true),
    cell("Change", signedPercent(changePercent(record)), null, true),
    cell("Energy before · during · after", [record.energyBeforeWh, record.energyDuringWh, record.energyAfterWh].map(wattHour).join(" · "), null, true),
    cell("Override", overrideText(record.overrides, clock)),
    cell("Defrosts held", number(record.defrostsHeld), null, true));
}

export function recordsView() {
  let clock;
  const build = whenChanged(({ records }) => byId("records").replaceChildren(...records.map((record) => row(record, clock))));
  return (model) => {
    ({ clock } = model);
    build({ records: model.records, zone: clock.zone });
    show(byId("records-table"), model.records.length > 0);
    show(byId("records-empty"), model.records.length === 0);
  };
}
