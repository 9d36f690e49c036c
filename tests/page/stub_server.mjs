// Stands in for corvane-appliance where a test needs what the real one does not easily do: a stream
// that breaks, a service that is gone, a refusal of any kind. It serves the page's files and the
// same HTTP interface, with an appliance that is only as clever as the page can see.
//
//   node tests/page/stub_server.mjs [port]     to look at the page without anything built
//
// startStub() gives a handle to steer it.

import { createServer } from "node:http";
import { readFile } from "node:fs/promises";
import { extname, join, normalize } from "node:path";
import { fileURLToPath, pathToFileURL } from "node:url";

const kPage = fileURLToPath(new URL("../../appliance/page/", import.meta.url));
const kTypes = { ".html": "text/html", ".js": "text/javascript", ".css": "text/css", ".svg": "image/svg+xml" };
const kPolicy = "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'; object-src 'none'";
const kStepsSec = { commanded: 0.4, confirmed: 0.9, reported: 1.9 };

const faultList = [
  ["micomSilent", "Silent", "Hears nothing and reports nothing.", "Micom"],
  ["micomSlow", "Slow", "Applies commands after 5 to 15 seconds.", "Micom"],
  ["micomDropsCommands", "Drops commands", "Loses every second command.", "Micom"],
  ["micomWrongEcho", "Wrong echo", "Reports another level than the one it applied.", "Micom"],
  ["micomRestart", "Restart", "Starts anew and forgets level, override and hold.", "Micom"],
  ["meteringRefuses", "Refuses", "Answers each report with status 503.", "Metering service"],
  ["meteringSlow", "Slow", "Takes 20 seconds to answer.", "Metering service"],
  ["meteringNeverAnswers", "Never answers", "Takes the report and says nothing.", "Metering service"],
  ["meteringGarbage", "Garbage", "Answers with bytes that mean nothing.", "Metering service"],
];

const kSeasons = [
  { id: "0", description: "Summer Season", startTime: "0000-05-01T15:00:00", endTime: "0000-10-31T00:00:00", period: "04:00:00", current: true },
  { id: "1", description: "Winter Season", startTime: "0000-11-01T06:00:00", endTime: "0000-04-30T00:00:00", period: "04:00:00", current: false },
];

const seconds = (text) => text.split(":").reduce((sum, part) => sum * 60 + Number(part), 0);

class Refused extends Error {
  constructor(status, body) {
    super(body?.error ?? "without a reason");
    this.status = status;
    this.body = body;
  }
}

/** A day of an on/off compressor: the same at every start. */
function wattAt(at, level) {
  const phase = (at / 60) % 47;
  const warm = 8 * Math.sin(((at % 86400) / 86400 - 0.25) * 2 * Math.PI);
  const cooling = phase < 26 ? 62 + warm + 20 * Math.exp(-phase / 3) : 0;
  const defrosting = Math.floor(at / 43200) !== Math.floor((at - 1200) / 43200) ? 190 : 0;
  return 3.2 + (level === 4 ? 0 : level === 0 ? cooling + defrosting : cooling * [1, 0.9, 0.62, 0.42][level]);
}

function fridgeAt(at) {
  const phase = (at / 60) % 47;
  return 3.4 + (phase < 26 ? 1.1 * (1 - phase / 26) : (phase - 26) / 19);
}

export async function startStub({ port = 0, startAt = Date.UTC(2026, 6, 31, 14, 50) / 1000, speed = 1, isNew = false } = {}) {
  const started = performance.now();
  const now = () => startAt + ((performance.now() - started) / 1000) * speed;
  const offsetSec = 7200;
  const midnight = Math.floor((startAt + offsetSec) / 86400) * 86400 - offsetSec;
  const streams = new Set();
  const trace = [];
  const timers = new Set();
  const requests = []; // the changes that the page asked for: { method, path, body }
  let streamIsUp = true;
  let refusal = null; // { status, body } for the next change
  let nextReservation = [2, 3];
  let records = [
    {
      id: 1, level: 2, orderedAt: startAt - 79200, orderedBy: "remote", storedAt: startAt - 79200, startAt: startAt - 79200,
      plannedEndAt: startAt - 75600, commandedAt: startAt - 79199, confirmedAt: startAt - 79198.6, reportedAt: startAt - 79197.5,
      endedAt: startAt - 75600, endedBy: "schedule", overrides: [{ on: true, at: startAt - 77000, by: "display" }, { on: false, at: startAt - 76400, by: "display" }],
      energyBeforeWh: 51.2, energyDuringWh: 24.7, energyAfterWh: 58.1, averageWatt: 24.7, peakWatt: 51.5,
      baselineAverageWatt: 48.9, baselinePeakWatt: 88.2, baselineDays: 4, defrostsHeld: 1, clockSetBack: false, open: false,
    },
  ];

  const state = {
    zone: "Europe/Berlin", utcOffsetSec: offsetSec, speed, version: "0.1.0",
    service: { reachable: true, sinceAt: startAt - 86400, reason: null, url: "coap://127.0.0.1:5683" },
    micom: { alive: true, reason: null, lastHeardAt: startAt, lastReportAt: startAt },
    refrigerator: {
      energyWh: 7310.4, fridgeSetCelsius: 4, freezerSetCelsius: -18, ambientCelsius: 23.1, displayWatt: 1.2, fanOn: true, antiSweatOn: true, iceMakerOn: false,
      compressor: { on: true, capacity: 0.62, watt: 64, reason: null },
      defrost: { heaterOn: false, held: true, due: false, heldSinceAt: midnight + 15 * 3600, nextInCompressorHours: 3.5 },
      doors: { fridgeOpen: false, freezerOpen: false }, mode: "normal", foodLimitActive: false,
    },
    demandResponse: {
      ordered: null, commanded: { level: 0, at: startAt - 75599 }, confirmed: { level: 0, at: startAt - 75598.5 }, reported: { level: 0, at: startAt - 75599.8 },
      event: null, override: { on: false, by: null, sinceAt: null }, block: 0,
    },
    defrostDelay: { enabled: 1, active: 1, reservations: structuredClone(kSeasons), windows: [] },
    consumption: { thisMonthKwh: 30.12, previousMonthKwh: 28.87, at: startAt },
    metering: { present: true, posts: 1440, lastAt: startAt - 20, lastFigure: "7310.40", totalWh: 7310.4, lastStatus: 204 },
    faults: faultList.map(([name, label, description, group]) => ({ name, label, description, on: false, group, momentary: name === "micomRestart" })),
  };

  if (isNew) {
    records = [];
    Object.assign(state.demandResponse, { commanded: null, confirmed: null, reported: null, block: null });
    Object.assign(state.defrostDelay, { enabled: null, active: null, reservations: [] });
    state.consumption = { thisMonthKwh: null, previousMonthKwh: null, at: null };
    state.metering = { present: true, posts: 0, lastAt: null, lastFigure: null, totalWh: 0, lastStatus: null };
  }

  // -- the state as it is now ----

  function windows() {
    const current = state.defrostDelay.reservations.find((reservation) => reservation.current);
    if (!current) return [];
    const from = midnight + seconds(current.startTime.slice(11));
    return ["today", "tomorrow"].map((day, place) => ({
      reservationId: current.id, from: from + place * 86400, to: from + place * 86400 + seconds(current.period), day,
    }));
  }

  function whole() {
    const at = now();
    const { demandResponse, refrigerator, defrostDelay } = state;
    if (demandResponse.event && at >= demandResponse.event.endAt) end("schedule");
    const { event } = demandResponse;
    if (event) {
      event.state = at < event.startAt ? "waiting" : "running";
      event.remainingSec = Math.max(0, event.endAt - Math.max(at, event.startAt));
      if (records[0].open) Object.assign(records[0], { energyDuringWh: (wattAt(at, event.level) * Math.max(0, at - event.startAt)) / 3600, averageWatt: wattAt(at, event.level), peakWatt: wattAt(at, event.level) + 9 });
    }
    const level = demandResponse.override.on ? 0 : (demandResponse.confirmed?.level ?? 0);
    refrigerator.powerWatt = wattAt(at, level);
    refrigerator.compressor = { on: refrigerator.powerWatt > 4, capacity: 0.62, watt: refrigerator.powerWatt - 3.2, reason: refrigerator.powerWatt > 4 ? null : "minimum off time, 2:10 left" };
    refrigerator.fanOn = refrigerator.compressor.on;
    refrigerator.antiSweatOn = level === 0;
    refrigerator.mode = demandResponse.override.on && event ? "override" : ["normal", "delay", "moderate", "strong", "off"][level];
    refrigerator.fridgeSetCelsius = 4 + [0, 0, 1, 2, 2][level];
    refrigerator.freezerSetCelsius = -18 + [0, 0, 1, 2, 2][level];
    refrigerator.fridgeCelsius = fridgeAt(at);
    refrigerator.freezerCelsius = -18.6 + (fridgeAt(at) - 3.4) * 1.4;
    defrostDelay.windows = windows();
    if (state.micom.alive) state.micom.lastHeardAt = at - 0.3;
    return { at, ...state };
  }

  // -- streams ----

  const write = (response, kind, data, id) =>
    response.write(`${id === undefined ? "" : `id: ${id}\n`}event: ${kind}\ndata: ${JSON.stringify(data)}\n\n`);
  const tellAll = (kind, data, id) => streams.forEach((response) => write(response, kind, data, id));
  const tellState = () => tellAll("state", whole());

  function note(source, direction, text, value = null) {
    const entry = { id: trace.length + 1, at: now(), source, direction, text, value };
    trace.push(entry);
    tellAll("trace", entry, entry.id);
  }

  function later(sec, work) {
    const timer = setTimeout(() => {
      timers.delete(timer);
      work();
      tellState();
    }, (sec * 1000) / speed);
    timers.add(timer);
  }

  // -- what can be ordered ----

  function carryOut(level) {
    const command = level === 0 ? "SET_SMARTGRID_LEVEL_NORMAL" : `SET_SMARTGRID_LEVEL${level}`;
    const { demandResponse } = state;
    const isOpen = () => records[0]?.open && records[0].level === level;
    later(kStepsSec.commanded, () => {
      if (!state.micom.alive) return;
      demandResponse.commanded = { level, at: now() };
      if (isOpen()) records[0].commandedAt = now();
      note("micom", "in", `heard ${command}`);
      later(kStepsSec.confirmed - kStepsSec.commanded, () => {
        demandResponse.confirmed = { level, at: now() };
        if (isOpen()) records[0].confirmedAt = now();
        note("micom", "out", `applied level ${level}`, level);
        later(kStepsSec.reported - kStepsSec.confirmed, () => {
          demandResponse.reported = { level, at: now() };
          if (isOpen()) records[0].reportedAt = now();
          note("remote", "in", `SendDRLCNotify level ${level}`, level);
          tellAll("record", records[0]);
        });
      });
    });
  }

  function end(how) {
    const { demandResponse } = state;
    if (demandResponse.event === null) return;
    demandResponse.event = null;
    demandResponse.block = 0;
    Object.assign(records[0], { open: false, endedAt: now(), endedBy: how });
    tellAll("record", records[0]);
    carryOut(0);
  }

  function order({ level, duration = "04:30:00", start }) {
    if (!Number.isInteger(level) || level < 1 || level > 4) throw new Refused(400, { error: `level "${level}" is not a level: expected 1 to 4`, field: "level" });
    if (!/^([01]\d|2[0-3]):[0-5]\d:[0-5]\d$/.test(duration)) throw new Refused(400, { error: `duration "${String(duration).slice(0, 40)}" is not a duration: expected 00:00:01 to 23:59:59`, field: "duration" });
    if (start !== undefined && !/^([01]\d|2[0-3]):[0-5]\d:[0-5]\d$/.test(start)) throw new Refused(400, { error: `start "${String(start).slice(0, 40)}" is not a time of day: expected 00:00:00 to 23:59:59`, field: "start" });
    if (state.demandResponse.event) end("replaced");
    const at = now();
    const durationSec = seconds(duration);
    let from = start === undefined ? at : Math.floor(at / 86400) * 86400 + seconds(start);
    if (from + durationSec < at) from += 86400;
    state.demandResponse.ordered = { level, at, by: "page" };
    state.demandResponse.event = { level, startAt: from, endAt: from + durationSec, durationSec, state: "waiting", remainingSec: durationSec };
    state.demandResponse.block = 1;
    state.defrostDelay.enabled = 0;
    state.defrostDelay.active = 0;
    state.refrigerator.defrost.held = false;
    records = [{
      id: records.length + 1, level, orderedAt: at, orderedBy: "page", storedAt: at + 0.1, startAt: from, plannedEndAt: from + durationSec,
      commandedAt: null, confirmedAt: null, reportedAt: null, endedAt: null, endedBy: null, overrides: [], energyBeforeWh: 8.6, energyDuringWh: 0,
      energyAfterWh: null, averageWatt: null, peakWatt: null, baselineAverageWatt: 48.9, baselinePeakWatt: 88.2, baselineDays: 5, defrostsHeld: 0, clockSetBack: false, open: true,
    }, ...records];
    note("remote", "out", `ordered ControlDRLC duration ${duration} level ${level}`);
    tellAll("record", records[0]);
    later(Math.max(0, from - at), () => carryOut(level));
    return { result: 1 };
  }

  function override(by) {
    return ({ override: on }) => {
      note(by, "out", by === "display" ? `pressed override ${on ? "on" : "off"}` : `ordered ControlOverride override ${on}`);
      later(0.8, () => {
        state.demandResponse.override = on ? { on: true, by, sinceAt: now() } : { on: false, by: null, sinceAt: null };
        note("micom", "out", `applied override ${on}`, on);
      });
      return { result: 1 };
    };
  }

  function createReservation({ description = "", startTime, endTime, period }) {
    for (const [what, field, text] of [["first day", "startTime", startTime], ["last day", "endTime", endTime]]) {
      if (!/^0000-(0[1-9]|1[0-2])-(0[1-9]|[12]\d|3[01])T/.test(text)) throw new Refused(400, { error: `${what}: "${text.slice(8, text.indexOf("T"))}" is no day of that month`, field });
    }
    if (seconds(startTime.slice(11)) >= 86400) throw new Refused(400, { error: `daily from: "${startTime.slice(11)}" is no time of day such as 17:00:00`, field: "startTime" });
    if (/["'\\]/.test(description)) throw new Refused(400, { error: `description: "${description}" has a character that cannot be stored`, field: "description" });
    const id = nextReservation.shift();
    if (id === undefined) throw new Refused(409, { error: "All four reservation places are taken; delete one first.", service: { code: 409, reason: "refused", error: 507 } });
    state.defrostDelay.reservations.push({ id: String(id), description, startTime, endTime, period, current: false });
    note("remote", "out", `ordered CreateDefrostReservations period ${period}`);
    return { result: 1, id: String(id) };
  }

  function deleteReservation(id) {
    if (id !== "2" && id !== "3") throw new Refused(400, { error: `id "${id}" cannot be deleted: expected 2 or 3`, field: "id" });
    state.defrostDelay.reservations = state.defrostDelay.reservations.filter((reservation) => reservation.id !== id);
    nextReservation = [...new Set([...nextReservation, Number(id)])].sort();
    return { result: 1 };
  }

  function setFault(name, { on }) {
    const fault = state.faults.find((known) => known.name === name);
    if (!fault) throw new Refused(404, { error: `there is no fault "${name}"` });
    fault.on = name === "micomRestart" ? false : on;
    if (name === "micomSilent") {
      state.micom.alive = !on;
      state.micom.reason = on ? "it is silent: the fault is switched on" : null;
    }
    return { result: 1 };
  }

  const changes = {
    "POST /api/v1/event": order,
    "DELETE /api/v1/event": () => {
      state.demandResponse.ordered = { level: 0, at: now(), by: "page" };
      if (state.demandResponse.event) end("cancel");
      else carryOut(0);
      return { result: 1 };
    },
    "PUT /api/v1/override": override("remote"),
    "PUT /api/v1/display/override": override("display"),
    "PUT /api/v1/defrost": ({ enabled }) => {
      if (enabled && state.demandResponse.event) {
        throw new Refused(409, { error: "defrost delay stays off while an event is stored", service: { code: 409, reason: "refused" } });
      }
      state.defrostDelay.enabled = enabled;
      state.defrostDelay.active = enabled;
      state.refrigerator.defrost.held = enabled === 1;
      return { result: 1 };
    },
    "POST /api/v1/reservations": createReservation,
    "PUT /api/v1/reservations": (wish) => {
      createReservation(wish);
      return { result: 1 };
    },
    "PUT /api/v1/door": ({ compartment, open }) => {
      state.refrigerator.doors[`${compartment}Open`] = open;
      return { result: 1 };
    },
  };

  function change(method, path, body) {
    if (refusal !== null) {
      const { status, body: reason } = refusal;
      refusal = null;
      throw new Refused(status, reason);
    }
    const known = changes[`${method} ${path}`];
    if (known) return known(body);
    const [, kind, name] = /^\/api\/v1\/(faults|reservations)\/([^/]+)$/.exec(path) ?? [];
    if (kind === "faults" && method === "PUT") return setFault(decodeURIComponent(name), body);
    if (kind === "reservations" && method === "DELETE") return deleteReservation(decodeURIComponent(name));
    throw new Refused(404, { error: "unknown" });
  }

  // -- what can be read ----

  function history(range) {
    const [length, stepSec] = { hour: [3600, 20], day: [86400, 60], month: [31 * 86400, 3600] }[range];
    const end = now();
    const from = end - length;
    const at = [];
    for (let time = isNew ? end : Math.ceil(from / stepSec) * stepSec; time <= end; time += stepSec) at.push(time);
    const events = records.map((record) => ({ from: record.startAt, to: record.endedAt ?? Math.min(end, record.plannedEndAt), level: record.level })).filter(({ to }) => to > from);
    const levelAt = (time) => events.find((event) => event.from <= time && time < event.to)?.level ?? 0;
    const all = [];
    for (let day = Math.floor((from - midnight) / 86400); day <= 0; day++) all.push({ from: midnight + day * 86400 + 54000, to: Math.min(end, midnight + day * 86400 + 68400) });
    const isGap = (time) => range === "day" && time > end - 50000 && time < end - 47000;
    const column = (of) => at.map((time) => (isGap(time) ? null : of(time)));
    return {
      stepSec, at, powerWatt: column((time) => (range === "month" ? 46 + 8 * Math.sin(time / 13751) : wattAt(time, levelAt(time)))),
      fridgeCelsius: column(fridgeAt), freezerCelsius: column((time) => -18.6 + (fridgeAt(time) - 3.4) * 1.4),
      ambientCelsius: column((time) => 22 + 2 * Math.sin(((time % 86400) / 86400 - 0.25) * 2 * Math.PI)), events, windows: all.filter(({ from: start, to }) => to > start),
    };
  }

  function energy(range) {
    const count = isNew ? 0 : range === "day" ? 24 : 31 * 24;
    const last = Math.floor(now() / 3600) * 3600;
    const hours = Array.from({ length: count }, (_, place) => {
      const at = last - (count - 1 - place) * 3600;
      return { at, energyWh: 44 + 12 * Math.sin(((at % 86400) / 86400 - 0.25) * 2 * Math.PI) + (at % 43200 === 0 ? 60 : 0) };
    });
    return { hours, service: { thisMonthKwh: 30.12, previousMonthKwh: 28.87 }, metered: state.metering };
  }

  const reads = {
    "/api/v1/state": whole,
    "/api/v1/history": (query) => history(query.get("range")),
    "/api/v1/energy": (query) => energy(query.get("range")),
    "/api/v1/trace": (query) => {
      const limit = Number(query.get("limit") ?? 500);
      const before = Number(query.get("before") ?? Infinity);
      return { entries: trace.filter(({ id }) => id < before).slice(-limit) };
    },
    "/api/v1/records": () => ({ records }),
  };

  // -- HTTP ----

  async function file(path, response) {
    const name = path === "/" ? "index.html" : normalize(path.slice("/page/".length));
    const body = await readFile(join(kPage, name));
    response.writeHead(200, { "Content-Type": kTypes[extname(name)] ?? "text/plain", "Content-Security-Policy": kPolicy, "Cache-Control": "no-cache" });
    response.end(body);
  }

  function json(response, status, body) {
    response.writeHead(status, { "Content-Type": "application/json" });
    response.end(JSON.stringify(body));
  }

  function openStream(response) {
    if (!streamIsUp) return void response.destroy();
    response.writeHead(200, { "Content-Type": "text/event-stream", "Cache-Control": "no-cache" });
    streams.add(response);
    response.on("close", () => streams.delete(response));
    write(response, "state", whole());
  }

  async function handle(request, response) {
    const url = new URL(request.url, "http://stub");
    if (request.method === "GET") {
      if (url.pathname === "/api/v1/stream") return openStream(response);
      const read = reads[url.pathname];
      return read ? json(response, 200, read(url.searchParams)) : file(url.pathname, response);
    }
    if (request.headers["x-corvane"] !== "1") return json(response, 403, { error: "the header X-Corvane is missing" });
    let text = "";
    for await (const piece of request) text += piece;
    const body = text === "" ? {} : JSON.parse(text);
    requests.push({ method: request.method, path: url.pathname, body });
    const answer = change(request.method, url.pathname, body);
    json(response, 200, answer);
    tellState();
  }

  const server = createServer((request, response) =>
    handle(request, response).catch((error) => json(response, error.status ?? 404, error instanceof Refused ? error.body : { error: error.message })));
  await new Promise((resolve) => server.listen(port, "127.0.0.1", resolve));
  if (!isNew) note("service", "in", "reachable");
  note("micom", "in", "heard SET_SMARTGRID_LEVEL_NORMAL");
  note("micom", "out", "applied level 0", 0);
  note("metering", "in", "took 0.75 Wh, answered 204", 0.75);
  const ticks = setInterval(tellState, 1000);

  return {
    url: `http://127.0.0.1:${server.address().port}`,
    requests,
    /** Alters the state, and the newest record, and tells them. */
    state(alter) {
      alter(state, now(), records[0]);
      if (records.length > 0) tellAll("record", records[0]);
      tellState();
    },
    note,
    /** The next change is refused with this answer. */
    refuseNext(status, body) {
      refusal = { status, body };
    },
    /** Breaks all event streams, or lets them come back. */
    stream(up) {
      streamIsUp = up;
      if (!up) streams.forEach((response) => response.destroy());
    },
    close() {
      clearInterval(ticks);
      timers.forEach(clearTimeout);
      server.closeAllConnections();
      return new Promise((resolve) => server.close(resolve));
    },
  };
}

if (import.meta.url === pathToFileURL(process.argv[1]).href) {
  const stub = await startStub({ port: Number(process.argv[2] ?? 8080), speed: Number(process.argv[3] ?? 1) });
  console.log(`${stub.url} (Ctrl-C ends it)`);
}
