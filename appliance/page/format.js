// Numbers, spans and times as people read them. What is not known is a dash, never a zero; a value
// and its unit stay on one line; times of day are the appliance's local time.

const kNothing = "–";
const kNoBreak = "\u00a0";

export function number(value, digits = 0) {
  if (value === null || value === undefined || !Number.isFinite(value)) return kNothing;
  const text = value.toFixed(digits);
  return (Number(text) === 0 ? text.replace("-", "") : text).replace("-", "−");
}

export function quantity(value, digits, unit) {
  const text = number(value, digits);
  return text === kNothing ? text : text + kNoBreak + unit;
}

export const watt = (value) => quantity(value, Math.abs(value) < 10 ? 1 : 0, "W");
export const celsius = (value) => quantity(value, 1, "°C");
export const wattHour = (value) =>
  Math.abs(value) >= 1000 ? quantity(value / 1000, 2, "kWh") : quantity(value, Math.abs(value) < 10 ? 1 : 0, "Wh");
export const kilowattHour = (value) => quantity(value, 2, "kWh");

export const signedPercent = (value) => (value > 0 ? "+" : "") + quantity(value, 0, "%");

/** An event's average power against the same hours of the days before; null when either is unknown. */
export function changePercent({ averageWatt, baselineAverageWatt }) {
  if (!Number.isFinite(averageWatt) || !(baselineAverageWatt > 0)) return null;
  return (averageWatt / baselineAverageWatt - 1) * 100;
}

const pad = (value) => String(value).padStart(2, "0");

/** A span in its two largest units: "1 min 25 s". */
export function span(seconds) {
  if (!Number.isFinite(seconds)) return kNothing;
  const total = Math.max(0, Math.round(seconds));
  const days = Math.floor(total / 86400);
  const hours = Math.floor(total / 3600) % 24;
  const minutes = Math.floor(total / 60) % 60;
  if (days > 0) return [days + kNoBreak + "d", hours + kNoBreak + "h"].join(" ");
  if (hours > 0) return minutes > 0 ? `${hours}${kNoBreak}h ${pad(minutes)}${kNoBreak}min` : hours + kNoBreak + "h";
  if (minutes > 0) {
    const rest = total % 60;
    return rest > 0 ? `${minutes}${kNoBreak}min ${pad(rest)}${kNoBreak}s` : minutes + kNoBreak + "min";
  }
  return total + kNoBreak + "s";
}

/** How long a step took: tenths as long as they say something, with the sign when it came early. */
export function took(seconds) {
  if (!Number.isFinite(seconds)) return kNothing;
  if (Math.abs(seconds) >= 60) return (seconds < 0 ? "−" : "") + span(Math.abs(seconds));
  return quantity(seconds, 1, "s");
}

/** hh:mm:ss of a number of seconds below a day. */
export function hms(seconds) {
  return [seconds / 3600, (seconds / 60) % 60, seconds % 60].map((part) => pad(Math.floor(part))).join(":");
}

/** The seconds of "hh:mm" or "hh:mm:ss" below a day, or null when it is neither. */
export function secondsOf(text) {
  const match = /^([01]?\d|2[0-3]):([0-5]\d)(?::([0-5]\d))?$/.exec(text.trim());
  return match ? Number(match[1]) * 3600 + Number(match[2]) * 60 + Number(match[3] ?? 0) : null;
}

/** Local times of the appliance's zone. A zone that the browser does not know is its offset only. */
export function makeClock(zone, offsetSec) {
  let timeZone = zone;
  let shift = 0;
  try {
    new Intl.DateTimeFormat("en-GB", { timeZone });
  } catch {
    timeZone = "UTC";
    shift = offsetSec;
  }
  const formatter = (options) => {
    const format = new Intl.DateTimeFormat("en-GB", { timeZone, hourCycle: "h23", ...options });
    return (at) => (Number.isFinite(at) ? format.format((at + shift) * 1000) : kNothing);
  };
  const parts = new Intl.DateTimeFormat("en-GB", {
    timeZone, hourCycle: "h23", year: "numeric", month: "numeric", day: "numeric",
    hour: "numeric", minute: "numeric", second: "numeric",
  });
  const fields = (at) =>
    Object.fromEntries(parts.formatToParts((at + shift) * 1000).map(({ type, value }) => [type, Number(value)]));
  const offset = (at) => {
    const { year, month, day, hour, minute, second } = fields(at);
    return Date.UTC(year, month - 1, day, hour, minute, second) / 1000 - Math.floor(at);
  };
  /** The instant at which local clocks show this time, so many days from the day of `at`. */
  const localTime = (at, days, secondOfDay) => {
    const { year, month, day } = fields(at);
    const asUtc = Date.UTC(year, month - 1, day + days) / 1000 + secondOfDay;
    const guess = asUtc - offset(at);
    return asUtc - offset(guess);
  };
  return {
    zone,
    time: formatter({ hour: "2-digit", minute: "2-digit", second: "2-digit" }),
    shortTime: formatter({ hour: "2-digit", minute: "2-digit" }),
    day: formatter({ weekday: "short", day: "numeric", month: "short" }),
    date: formatter({ weekday: "short", day: "numeric", month: "short", year: "numeric" }),
    dayTime: formatter({ weekday: "short", day: "numeric", month: "short", hour: "2-digit", minute: "2-digit" }),
    fields,
    /** The time of day, with its day unless that is the day of `now`. */
    when(at, now) {
      if (!Number.isFinite(at)) return kNothing;
      return this.day(at) === this.day(now) ? this.shortTime(at) : this.dayTime(at);
    },
    localTime,
    dayStart: (at, days = 0) => localTime(at, days, 0),
    /** For the plots, which want a Date whose own fields are the local ones. */
    plotDate: (at) => {
      const { year, month, day, hour, minute, second } = fields(at);
      return new Date(year, month - 1, day, hour, minute, second);
    },
  };
}

/** What a level means, in words that need no manual. */
export const levels = [
  { name: "Normal", meaning: "Cancels the event: everything runs as usual." },
  { name: "Delay", meaning: "No defrost, ice making or door heating. Cooling is unchanged." },
  { name: "Reduce", meaning: "A little warmer, at lower compressor power." },
  { name: "Reduce strongly", meaning: "Noticeably warmer, at the lowest compressor power." },
  { name: "Off", meaning: "Compressor and heaters off, for as long as the food allows." },
];

export function levelName(level) {
  if (level === 0) return "Normal";
  return Number.isInteger(level) ? `Level ${level}` : kNothing;
}
