// The bar on top: is everything there, what time is it for the appliance, which theme.

import { byId, setAttribute, setData, setText, show } from "../dom.js";
import { span } from "../format.js";

function link(id, state, text, title) {
  const item = byId(id);
  setData(item, "state", state);
  setText(item.querySelector("b"), text);
  setAttribute(item, "title", title ?? "");
}

function streamText(stream) {
  if (stream.status === "live") return "live";
  return stream.status === "lost" ? "lost" : "connecting";
}

export function barView() {
  const theme = byId("theme");
  const showTheme = () => setAttribute(theme, "aria-pressed", document.documentElement.dataset.theme === "dark");
  theme.addEventListener("click", () => window.toggleTheme());
  document.addEventListener("themechange", showTheme);
  showTheme();

  return ({ state, stream, clock, now }) => {
    link("link-stream", stream.status === "live" ? "normal" : "fault", streamText(stream));
    if (state === null) return;
    const isOld = stream.status === "lost";
    const { service, micom } = state;
    if (isOld) {
      link("link-service", "idle", "unknown");
      link("link-micom", "idle", "unknown");
    } else {
      link("link-service", service.reachable ? "normal" : "fault", service.reachable ? "up" : "gone", service.reason ?? service.url);
      link("link-micom", micom.alive ? "normal" : "fault", micom.alive ? "alive" : "silent", micom.reason ?? `last report ${span(now - micom.lastReportAt)} ago`);
    }
    setText(byId("clock-date"), clock.date(now));
    setText(byId("clock-time"), clock.time(now));
    setText(byId("clock-zone"), state.zone.replace("_", " "));
    setText(byId("clock-speed"), `time × ${state.speed}`);
    show(byId("clock-speed"), state.speed !== 1);
    setText(byId("version"), state.version);
  };
}
