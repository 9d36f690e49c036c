// The appliance's HTTP interface. An answer that is not a success becomes a Refusal whose message
// can be shown as it stands; the stream reopens itself for as long as the page is there.

export class Refusal extends Error {
  constructor(message, status, field) {
    super(message);
    this.status = status;
    this.field = field; // the member of the request that was wrong, when one was
  }
}

/** "4.09" as CoAP writes the codes that the service answers with. */
const coapCode = (code) => `${Math.floor(code / 100)}.${String(code % 100).padStart(2, "0")}`;

function refusalOf(status, body) {
  let message = body?.error ?? `the appliance answered with status ${status} and gave no reason.`;
  const service = body?.service;
  if (service?.code) {
    message += ` (service: ${coapCode(service.code)}${service.error ? `, error ${service.error}` : ""})`;
  }
  message = message.charAt(0).toUpperCase() + message.slice(1);
  return new Refusal(message, status, body?.field);
}

async function request(method, path, body) {
  const headers = {};
  if (method !== "GET") headers["X-Corvane"] = "1";
  if (body !== undefined) headers["Content-Type"] = "application/json";
  let response;
  try {
    response = await fetch(path, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
  } catch {
    throw new Refusal("The appliance program does not answer, so nothing was sent. Is it still running?", 0);
  }
  const answer = await response.json().catch(() => null);
  if (!response.ok) throw refusalOf(response.status, answer);
  return answer;
}

const query = (parameters) => {
  const given = Object.entries(parameters).filter(([, value]) => value !== "" && value !== undefined);
  return given.length === 0 ? "" : "?" + new URLSearchParams(given);
};

export const api = {
  state: () => request("GET", "/api/v1/state"),
  history: (range) => request("GET", "/api/v1/history" + query({ range })),
  energy: (range) => request("GET", "/api/v1/energy" + query({ range })),
  trace: (filter) => request("GET", "/api/v1/trace" + query(filter)),
  traceExport: (format, filter) => `/api/v1/trace.${format}` + query(filter),
  records: () => request("GET", "/api/v1/records"),

  order: (event) => request("POST", "/api/v1/event", event),
  cancel: () => request("DELETE", "/api/v1/event"),
  override: (on) => request("PUT", "/api/v1/override", { override: on ? 1 : 0 }),
  displayOverride: (on) => request("PUT", "/api/v1/display/override", { override: on ? 1 : 0 }),
  delayDefrost: (on) => request("PUT", "/api/v1/defrost", { enabled: on ? 1 : 0 }),
  createReservation: (reservation) => request("POST", "/api/v1/reservations", reservation),
  setReservation: (reservation) => request("PUT", "/api/v1/reservations", reservation),
  deleteReservation: (id) => request("DELETE", `/api/v1/reservations/${encodeURIComponent(id)}`),
  door: (compartment, open) => request("PUT", "/api/v1/door", { compartment, open }),
  fault: (name, on) => request("PUT", `/api/v1/faults/${encodeURIComponent(name)}`, { on }),
};

const kReopenMs = 1000;
const kSilenceMs = 6000; // a whole state comes each second, so this is no slow network any more

/**
 * Keeps an event stream open. `handlers.message(kind, data)` gets each message, `handlers.opened()`
 * and `handlers.lost()` tell of the connection; lost comes once, however often reopening fails.
 */
export function openStream(handlers) {
  let source;
  let silence;
  let isLost = false;

  function lost() {
    source.close();
    clearTimeout(silence);
    if (!isLost) handlers.lost();
    isLost = true;
    setTimeout(open, kReopenMs);
  }

  function heard() {
    clearTimeout(silence);
    silence = setTimeout(lost, kSilenceMs);
  }

  function open() {
    source = new EventSource("/api/v1/stream");
    source.addEventListener("open", () => {
      isLost = false;
      heard();
      handlers.opened();
    });
    source.addEventListener("error", lost);
    for (const kind of ["state", "trace", "record"]) {
      source.addEventListener(kind, (message) => {
        heard();
        handlers.message(kind, JSON.parse(message.data));
      });
    }
    heard();
  }
  open();
}
