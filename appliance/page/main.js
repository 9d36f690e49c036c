// Puts the page together: the store in the middle, what the appliance tells going in, views hanging
// on it. Whenever the stream opens everything is fetched anew, so that nothing missed stays missed.

import { api, openStream } from "./api.js";
import { createStore } from "./store.js";
import { bannersView } from "./views/banners.js";
import { barView } from "./views/bar.js";
import { defrostView } from "./views/defrost.js";
import { demandView } from "./views/demand.js";
import { energyView } from "./views/energy.js";
import { faultsView } from "./views/faults.js";
import { heroView } from "./views/hero.js";
import { orderView } from "./views/order.js";
import { powerView } from "./views/power.js";
import { recordsView } from "./views/records.js";
import { refrigeratorView } from "./views/refrigerator.js";
import { traceView } from "./views/trace.js";

const kTickMs = 250;
const kCurvesMs = { hour: 5000, day: 15000, month: 60000 }; // how often each is fetched in real time
const kTraceFirst = 500;

const store = createStore();
const { model } = store;

async function fetchRange(name) {
  const { range } = model[name];
  const data = await api[name](range).catch(() => null); // the stream tells when nobody answers
  if (data !== null) store.setRangeData(name, range, data);
}

/** Fetches a range again and again; a step of the history passes sooner when time runs faster. */
function follow(name) {
  let timer;
  async function next() {
    clearTimeout(timer);
    if (model.stream.status === "live" && !document.hidden) await fetchRange(name);
    clearTimeout(timer);
    timer = setTimeout(next, Math.max(2000, kCurvesMs[model[name].range] / (model.state?.speed ?? 1)));
  }
  next();
  return next;
}

async function fetchAll() {
  const answers = await Promise.allSettled([
    api.state().then(store.setState),
    api.trace({ limit: kTraceFirst }).then(({ entries }) => store.setTrace(entries)),
    api.records().then(({ records }) => store.setRecords(records)),
  ]);
  for (const { reason } of answers) if (reason) console.warn(reason.message);
}

const fetchCurves = follow("history");
const fetchBars = follow("energy");
const chooseRange = (name, fetchNow) => (range) => {
  store.setRange(name, range);
  fetchNow();
};

for (const view of [
  barView(), bannersView(), heroView(), refrigeratorView(store, api), demandView(store, api), orderView(store, api),
  powerView(store, chooseRange("history", fetchCurves)), defrostView(store, api),
  energyView(store, chooseRange("energy", fetchBars)), faultsView(store, api), recordsView(), traceView(store, api),
]) {
  store.subscribe(view);
}

openStream({
  opened() {
    store.setStream("live");
    fetchAll();
    fetchCurves();
    fetchBars();
  },
  lost: () => store.setStream("lost"),
  message(kind, data) {
    if (kind === "state") store.setState(data);
    else if (kind === "trace") store.addTrace(data);
    else store.setRecord(data);
  },
});
setInterval(store.changed, kTickMs);
document.addEventListener("visibilitychange", () => {
  if (!document.hidden) fetchCurves();
});
