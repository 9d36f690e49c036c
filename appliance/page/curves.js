// The curves as they are drawn: the history's steps, the finer samples of the last hour, and the
// present. Functions of the model alone.

const kMostOfAnHourSec = 3000;
const kColumns = ["at", "powerWatt", "fridgeCelsius", "freezerCelsius", "ambientCelsius"];

/**
 * The columns to draw: the history's steps, and in the hour the finer samples in the place of the
 * steps that they fall into. The last steps are not written yet: there the present stands instead.
 */
export function columns({ state, history, samples, now }) {
  const { data, range } = history;
  const { stepSec, at: steps } = data ?? { stepSec: 60, at: [] };
  let rows = steps.map((at, place) => kColumns.map((name) => (name === "at" ? at : data[name][place])));
  const fine = range === "hour" ? samples : [];
  const covered = new Set(fine.map(({ at }) => Math.floor(at / stepSec)));
  rows = rows.filter(([at, power]) => !covered.has(Math.floor(at / stepSec)) && (power !== null || at < now - 2 * stepSec));
  rows.push(...fine.map((sample) => kColumns.map((name) => sample[name])));
  rows.sort((a, b) => a[0] - b[0]);
  if (range === "day" && now > (rows.at(-1)?.[0] ?? 0)) {
    rows.push(kColumns.map((name) => (name === "at" ? now : state.refrigerator[name])));
  }
  return kColumns.map((_, place) => rows.map((row) => row[place]));
}

/** The mean over time, since samples and steps last for different times; and how much of it is known. */
function meanAndKnown(at, power) {
  let [wattSec, sec] = [0, 0];
  for (let place = 0; place + 1 < at.length; place++) {
    if (power[place] === null) continue;
    wattSec += power[place] * (at[place + 1] - at[place]);
    sec += at[place + 1] - at[place];
  }
  return { watt: sec > 0 ? wattSec / sec : (power.at(-1) ?? null), sec };
}

export const mean = (at, power) => meanAndKnown(at, power).watt;

/**
 * The average power since a moment, and in the rest of the last hour before it: what an event does
 * while its record does not tell yet. Null where the curves do not reach: a few minutes in which the
 * compressor rested are no hour.
 */
export function averagesAround(model, from) {
  const { range, data } = model.history;
  const [at, power] = columns({ ...model, history: { range: "hour", data: range === "month" ? null : data } });
  const first = at.findIndex((time) => time >= from - 3600);
  const begin = at.findIndex((time) => time >= from);
  const isKnown = begin >= 0 && at[begin] - from < 60 + 5 * model.state.speed;
  const before = meanAndKnown(at.slice(first, begin), power.slice(first, begin));
  return {
    sinceWatt: isKnown ? mean(at.slice(begin), power.slice(begin)) : null,
    beforeWatt: isKnown && before.sec >= kMostOfAnHourSec ? before.watt : null,
  };
}
