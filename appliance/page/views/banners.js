// What is wrong, said plainly and since when: connection, service, Micom, faults that are on.

import { byId, h, whenChanged } from "../dom.js";

const kGraceMs = 1500; // a connection that is being made is not yet news

/** A reason comes as a bare line; here it stands among sentences. */
const sentence = (text) => text.charAt(0).toUpperCase() + text.slice(1) + (/[.!?]$/.test(text) ? "" : ".");

function problems({ state, stream, clock, now }) {
  const found = [];
  if (stream.status !== "live" && Date.now() - stream.since > (stream.status === "lost" ? 0 : kGraceMs)) {
    const since = new Date(stream.since).toLocaleTimeString("en-GB");
    found.push({
      state: "fault",
      title: stream.status === "lost" ? "Live data lost." : "The appliance does not answer.",
      text: state === null
        ? "This page tries again each second and goes on by itself."
        : `Everything below is as of ${since} by your clock. This page tries again each second and catches up by itself.`,
    });
  }
  if (state === null || stream.status === "lost") return found;
  const { service, micom, faults } = state;
  if (!service.reachable) {
    found.push({
      state: "fault",
      title: "The service does not answer.",
      text: `${sentence(service.reason ?? "no reason is known")} Gone since ${clock.when(service.sinceAt, now)}; what is ordered now is refused.`,
    });
  }
  if (!micom.alive || micom.reason) {
    const report = Number.isFinite(micom.lastReportAt) ? `Its last report came at ${clock.when(micom.lastReportAt, now)}.` : "It has not reported yet.";
    found.push({
      state: "fault",
      title: micom.alive ? "The Micom does not follow." : "The Micom does not answer.",
      text: `${micom.reason ? sentence(micom.reason) : ""} ${report}${micom.alive ? "" : " Orders are stored, but not carried out."}`.trim(),
    });
  }
  const on = faults.filter((fault) => fault.on);
  if (on.length > 0) {
    found.push({
      state: "held",
      title: on.length === 1 ? "A fault is switched on:" : `${on.length} faults are switched on:`,
      text: on.map(({ group, label }) => `${group}: ${label.toLowerCase()}`).join("; ") + ".",
      link: { href: "#faults", text: "Show the faults" },
    });
  }
  return found;
}

export function bannersView() {
  const list = byId("banners");
  const build = whenChanged((found) => {
    list.replaceChildren(...found.map(({ state, title, text, link }) =>
      h("p", { className: "banner", "data-state": state },
        h("b", {}, title), ` ${text} `, link ? h("a", { href: link.href }, link.text) : null)));
  });
  return (model) => {
    document.body.classList.toggle("stale", model.stream.status === "lost" && model.state !== null);
    build(problems(model));
  };
}
