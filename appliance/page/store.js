// The one owner of what the page knows. Views read the model and never write it; whatever arrives
// comes in through one of the functions below, and the views are told once for each frame.

import { makeClock } from "./format.js";

const kTraceKept = 5000;
const kRecordsKept = 200;
const kSamplesKeptSec = 3600;

/** Both lists by id, oldest first, each entry once. */
function merged(older, newer) {
  const known = new Map();
  for (const entry of [...older, ...newer]) known.set(entry.id, entry);
  return [...known.values()].sort((a, b) => a.id - b.id).slice(-kTraceKept);
}

export function createStore() {
  const model = {
    state: null, // as the appliance last told it; null before the first answer
    clock: makeClock("UTC", 0),
    now: 0, // the appliance's clock, carried on between two states
    stream: { status: "connecting", since: Date.now() }, // or "live", "lost"
    trace: [], // newest last
    records: [], // newest first
    history: { range: "hour", data: null },
    energy: { range: "day", data: null },
    samples: [], // { at, powerWatt, … } of each state of the last hour: finer than the history
  };
  const views = new Set();
  let receivedMs = 0;
  let streamed = null; // trace entries since the stream opened, until the trace has been fetched
  let isQueued = false;

  function render() {
    isQueued = false;
    tick();
    for (const view of views) view(model);
  }

  function changed() {
    if (isQueued) return;
    isQueued = true;
    requestAnimationFrame(render);
  }

  /** The clock stands still when nobody tells the time any more. */
  function tick() {
    if (model.state === null || model.stream.status === "lost") return;
    model.now = model.state.at + ((performance.now() - receivedMs) / 1000) * model.state.speed;
  }

  function takeSample({ at, refrigerator }) {
    const { powerWatt, fridgeCelsius, freezerCelsius, ambientCelsius } = refrigerator;
    const isBack = model.samples.length > 0 && at < model.samples.at(-1).at; // another clock
    if (!isBack && at === model.samples.at(-1)?.at) return;
    const kept = isBack ? [] : model.samples.filter((sample) => sample.at > at - kSamplesKeptSec);
    model.samples = [...kept, { at, powerWatt, fridgeCelsius, freezerCelsius, ambientCelsius }];
  }

  return {
    model,
    changed,
    subscribe(view) {
      views.add(view);
      changed();
    },
    setState(state) {
      if (model.clock.zone !== state.zone) model.clock = makeClock(state.zone, state.utcOffsetSec);
      model.state = state;
      takeSample(state);
      receivedMs = performance.now();
      changed();
    },
    setStream(status) {
      if (model.stream.status === status) return;
      tick();
      if (status === "live") streamed = [];
      model.stream = { status, since: Date.now() };
      changed();
    },
    /** The trace as fetched, and what the stream has brought since it opened: an appliance that was
     * started anew may count its lines anew. */
    setTrace(entries) {
      model.trace = merged(entries, streamed ?? []);
      streamed = null;
      changed();
    },
    addTrace(entry) {
      streamed?.push(entry);
      const isNewest = model.trace.length === 0 || entry.id > model.trace.at(-1).id;
      model.trace = isNewest ? [...model.trace.slice(1 - kTraceKept), entry] : merged(model.trace, [entry]);
      changed();
    },
    addOlderTrace(entries) {
      model.trace = merged(entries, model.trace);
      changed();
    },
    setRecords(records) {
      model.records = records;
      changed();
    },
    setRecord(record) {
      const others = model.records.filter(({ id }) => id !== record.id);
      model.records = [record, ...others].sort((a, b) => b.id - a.id).slice(0, kRecordsKept);
      changed();
    },
    setRange(name, range) {
      model[name] = { range, data: null };
      changed();
    },
    /** An answer for a range that is no longer looked at is dropped. */
    setRangeData(name, range, data) {
      if (model[name].range !== range) return;
      model[name] = { range, data };
      changed();
    },
  };
}
