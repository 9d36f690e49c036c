// Energy by the hour, or by the day over a month, and the months as the service answers them.

import { byId, setAttribute, setText } from "../dom.js";
import { kilowattHour, wattHour } from "../format.js";
import { axes, createPlot, themeColour, withAlpha } from "../plot.js";

const kHour = 3600;

/** Bars { from, to, energyWh }: the hours as they are, or summed over local days. */
function bars({ data, range }, clock) {
  if (data === null) return [];
  const hours = data.hours.filter(({ energyWh }) => energyWh !== null);
  if (range === "day") return hours.map(({ at, energyWh }) => ({ from: at, to: at + kHour, energyWh }));
  const days = new Map();
  for (const { at, energyWh } of hours) {
    const from = clock.dayStart(at);
    const day = days.get(from) ?? { from, to: clock.dayStart(at, 1), energyWh: 0 };
    day.energyWh += energyWh;
    days.set(from, day);
  }
  return [...days.values()];
}

function describe({ from, to, energyWh }, range, clock) {
  const when = range === "day" ? `${clock.shortTime(from)} to ${clock.shortTime(to)}` : clock.day(from);
  return `${when}: ${wattHour(energyWh)}`;
}

export function energyView(store, setRange) {
  const buttons = byId("energy-range").querySelectorAll("button");
  for (const button of buttons) button.addEventListener("click", () => setRange(button.dataset.range));

  let model = store.model;
  let shown = [];
  let pointed = null;

  function readout() {
    const { energy, clock } = model;
    if (pointed !== null && shown[pointed]) {
      setText(byId("energy-readout"), describe(shown[pointed], energy.range, clock));
      return;
    }
    const total = shown.reduce((sum, { energyWh }) => sum + energyWh, 0);
    const span = energy.range === "day" ? "the last 24 hours" : "the last month";
    setText(byId("energy-readout"), shown.length === 0 ? `Nothing is known of ${span} yet.` : `${wattHour(total)} in ${span}`);
  }

  const draw = createPlot(byId("energy-plot"), () => {
    const accent = themeColour("accent");
    return {
      cursor: { y: false, drag: { x: false, y: false }, points: { show: false } },
      plugins: [{
        hooks: {
          setCursor: (plot) => {
            pointed = plot.cursor.idx ?? null;
            readout();
          },
        },
      }],
      scales: { y: { range: (plot, low, high) => [0, Math.max(10, (high ?? 0) * 1.12)] } },
      axes: axes("Wh"),
      series: [{}, {
        label: "Energy", stroke: accent, fill: withAlpha(accent, 0.55), width: 1, points: { show: false },
        paths: uPlot.paths.bars({ size: [0.72, 44], align: 0 }),
      }],
    };
  });

  let last = null;
  return (now) => {
    model = now;
    if (model.state === null) return;
    const { consumption, metering } = model.state;
    setText(byId("energy-this"), kilowattHour(consumption.thisMonthKwh));
    setText(byId("energy-previous"), kilowattHour(consumption.previousMonthKwh));
    setText(byId("energy-metered"), !metering.present ? "left out" : metering.posts === 0 ? "no report yet" : wattHour(metering.totalWh));
    const months = "The months are as the service answers them.";
    setText(byId("energy-hint"), !metering.present
      ? `${months} The metering service is left out here (--metering-port 0), so what the service reports goes elsewhere.`
      : metering.posts === 0 ? `${months} The metering service has not been told anything yet.`
      : `${months} ${metering.posts} reports to the metering service, the last one at ${model.clock.time(metering.lastAt)}: figure ${metering.lastFigure}, answered ${metering.lastStatus || "not at all"}.`);

    const { range, data } = model.energy;
    for (const button of buttons) setAttribute(button, "aria-pressed", button.dataset.range === range);
    if (last !== null && last[0] === data && last[1] === range && last[2] === model.clock) return;
    last = [data, range, model.clock];
    shown = bars(model.energy, model.clock);
    const end = range === "day" ? Math.ceil(model.now / kHour) * kHour : model.clock.dayStart(model.now, 1);
    const start = end - (range === "day" ? 24 * kHour : 31 * 24 * kHour);
    draw([shown.map(({ from, to }) => (from + to) / 2), shown.map(({ energyWh }) => energyWh)], start, end, model.clock);
    readout();
    setAttribute(byId("energy-plot"), "aria-label",
      "Energy: " + shown.slice(-24).map((bar) => describe(bar, range, model.clock)).join("; "));
  };
}
