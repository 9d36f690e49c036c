// The curves of the last hour, day or month: power above, temperatures below on the same time
// axis, with events and defrost windows shaded in both.

import { columns, mean } from "../curves.js";
import { byId, setAttribute, setText } from "../dom.js";
import { celsius, watt } from "../format.js";
import { axes, createPlot, shade, themeColour, withAlpha } from "../plot.js";

const kRangeSec = { hour: 3600, day: 86400, month: 31 * 86400 };
/** A new appliance's curves begin with what is known, but are never drawn out longer than this. */
const kShortestSec = { hour: 300, day: 3600, month: 86400 };

function summary(at, power, range) {
  const known = power.filter((value) => value !== null);
  if (known.length === 0) return `Nothing is known of the last ${range} yet.`;
  return `Last ${range}: ${watt(mean(at, power))} on average, ${watt(Math.max(...known))} at most`;
}

export function powerView(store, setRange) {
  const buttons = byId("power-range").querySelectorAll("button");
  for (const button of buttons) button.addEventListener("click", () => setRange(button.dataset.range));

  let model = store.model;
  let drawn = columns(model);
  let pointed = null; // index under the pointer, or null

  const spans = () => {
    const { data } = model.history;
    if (data === null) return [];
    const held = themeColour("held");
    const accent = themeColour("accent");
    return [
      ...data.windows.map((window) => ({ ...window, fill: withAlpha(held, 0.08), edge: withAlpha(held, 0.5) })),
      ...data.events.map((event) => ({ ...event, fill: withAlpha(accent, 0.14), edge: accent, label: `L${event.level}` })),
    ];
  };
  const cursor = {
    sync: { key: "power" },
    y: false,
    points: { size: 7 },
    drag: { x: false, y: false },
  };
  const pointer = {
    hooks: {
      setCursor: (plot) => {
        const index = plot.cursor.idx ?? null;
        if (index === pointed) return;
        pointed = index;
        readout();
      },
    },
  };

  function readout() {
    const [at, power, fridge, freezer, room] = drawn;
    const { clock, history } = model;
    if (pointed === null || at[pointed] === undefined) {
      setText(byId("power-readout"), summary(at, power, history.range));
      return;
    }
    const time = history.range === "hour" ? clock.time(at[pointed]) : clock.dayTime(at[pointed]);
    setText(byId("power-readout"),
      `${time}: ${watt(power[pointed])} · fridge ${celsius(fridge[pointed])} · freezer ${celsius(freezer[pointed])} · room ${celsius(room[pointed])}`);
  }

  const drawPower = createPlot(byId("power-plot"), () => {
    const accent = themeColour("accent");
    return {
      cursor,
      plugins: [shade(spans), pointer],
      scales: { y: { range: (plot, low, high) => [0, Math.max(20, (high ?? 0) * 1.12)] } },
      axes: axes("W", false),
      series: [{}, { label: "Power", stroke: accent, width: 2, fill: withAlpha(accent, 0.1), points: { show: false } }],
    };
  });
  const drawTemperatures = createPlot(byId("temperature-plot"), () => {
    const line = (name, dash) => ({ label: name, stroke: themeColour(name), width: 2, dash, points: { show: false } });
    return {
      cursor,
      plugins: [shade(() => spans().map((span) => ({ ...span, label: null })))],
      scales: { y: { range: (plot, low, high) => [Math.floor((low ?? -20) / 5) * 5 - 2, Math.ceil((high ?? 25) / 5) * 5 + 2] } },
      axes: axes("°C"),
      series: [{}, line("fridge"), line("freezer", [7, 3]), line("room", [2, 4])],
    };
  });

  let lastDrawn = null;
  return (now) => {
    model = now;
    if (model.state === null) return;
    const { range, data } = model.history;
    for (const button of buttons) setAttribute(button, "aria-pressed", button.dataset.range === range);
    // Four pictures a second are for the clock; the curves follow the states.
    const current = [model.state, data, range];
    if (lastDrawn !== null && current.every((part, place) => part === lastDrawn[place])) return;
    lastDrawn = current;
    drawn = columns(model);
    const [at, power, fridge, freezer, room] = drawn;
    const whole = model.now - kRangeSec[range];
    const firstKnown = at[power.findIndex((value) => value !== null)] ?? whole;
    const from = Math.max(whole, Math.min(firstKnown, model.now - kShortestSec[range]));
    drawPower([at, power], from, model.now, model.clock);
    drawTemperatures([at, fridge, freezer, room], from, model.now, model.clock);
    const text = summary(at, power, range);
    setAttribute(byId("power-plot"), "aria-label", `Power over the last ${range}. ${text}`);
    setAttribute(byId("temperature-plot"), "aria-label",
      `Temperatures over the last ${range}: fridge now ${celsius(fridge.at(-1))}, freezer ${celsius(freezer.at(-1))}, room ${celsius(room.at(-1))}`);
    readout();
  };
}
