// The trace, newest line first: each command, echo, notification and report as it happened. The
// filter works on what is here at once, and on the appliance's whole trace for older lines and for
// the exports.

import { byId, h, setAttribute, setText, show } from "../dom.js";
import { ask, tell } from "./answer.js";

const kShownAtOnce = 100;
const kLoaded = 500;

const sources = { micom: "Micom", display: "Display", remote: "Remote side", metering: "Metering", service: "Service", page: "Page" };
const arrows = { in: "→", out: "←" };

function line({ at, source, direction, text }, clock) {
  return h("tr", { "data-source": source },
    h("td", { className: "trace-time", title: clock.date(at) }, clock.time(at)),
    h("td", { className: "trace-source" }, h("span", { "aria-hidden": "true" }, `${arrows[direction] ?? ""} `), sources[source] ?? source,
      h("span", { className: "unseen" }, direction === "in" ? ", in" : ", out")),
    h("td", { className: "trace-text" }, text));
}

export function traceView(store, api) {
  const form = byId("trace-filter");
  const older = byId("trace-older");
  const rows = new Map(); // by id: lines never change
  let limit = kShownAtOnce;
  let last = null;

  const filter = () => ({ source: form.elements.source.value, text: form.elements.text.value.trim() });
  const matches = ({ source, text }) => {
    const wanted = text.toLowerCase();
    return (entry) => (source === "" || entry.source === source) && (wanted === "" || entry.text.toLowerCase().includes(wanted));
  };

  form.addEventListener("submit", (event) => event.preventDefault());
  form.addEventListener("input", () => {
    limit = kShownAtOnce;
    tell(byId("trace-answer"), "ok", "");
    store.changed();
  });
  older.addEventListener("click", async () => {
    const before = store.model.trace[0]?.id;
    limit += kShownAtOnce;
    if (limit <= store.model.trace.filter(matches(filter())).length) return store.changed();
    return ask(older, byId("trace-answer"), async () => {
      const { entries } = await api.trace({ limit: kLoaded, before, ...filter() });
      store.addOlderTrace(entries);
      return entries.length;
    }, (count) => (count === 0 ? "There are no older lines." : ""));
  });

  return ({ trace, clock }) => {
    const wanted = filter();
    const key = [trace, clock, limit, wanted.source, wanted.text];
    if (last !== null && key.every((part, place) => part === last[place])) return;
    if (last !== null && last[1] !== clock) rows.clear();
    last = key;

    const found = trace.filter(matches(wanted));
    const shown = found.slice(-limit).reverse();
    const wantedRows = new Map(shown.map((entry) => [entry.id, rows.get(entry.id) ?? line(entry, clock)]));
    rows.clear();
    wantedRows.forEach((row, id) => rows.set(id, row));
    byId("trace").replaceChildren(...wantedRows.values());

    const isFiltered = wanted.source !== "" || wanted.text !== "";
    setText(byId("trace-empty"), isFiltered ? "No line fits the filter." : "Nothing has happened yet.");
    show(byId("trace-empty"), shown.length === 0);
    setText(byId("trace-count"), shown.length === 0 ? "" : `The newest ${shown.length} of ${found.length} lines here${isFiltered ? " that fit" : ""}.`);
    setAttribute(byId("trace-csv"), "href", api.traceExport("csv", wanted));
    setAttribute(byId("trace-json"), "href", api.traceExport("json", wanted));
  };
}
