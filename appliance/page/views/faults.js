// The faults that can be switched on, each with what it does. One that only happens and is over at
// once is a plain button.

import { byId, h, setAttribute, setText, show, whenChanged } from "../dom.js";
import { ask } from "./answer.js";

export function faultsView(store, api) {
  const isOn = (name) => store.model.state.faults.some((fault) => fault.name === name && fault.on);

  function control({ name, label, momentary }) {
    const attributes = { type: "button", "data-fault": name, "aria-describedby": `fault-${name}-what` };
    if (momentary) {
      const button = h("button", attributes, label);
      button.addEventListener("click", () => ask(button, byId("faults-answer"), () => api.fault(name, true), () => `${label}: done.`));
      return button;
    }
    const toggle = h("button", { ...attributes, role: "switch", className: "switch", "aria-labelledby": `fault-${name}` },
      h("span", { className: "switch-knob" }));
    toggle.addEventListener("click", () =>
      ask(toggle, byId("faults-answer"), () => api.fault(name, !isOn(name)), () => ""));
    return toggle;
  }

  const item = (fault) => h("li", {},
    h("span", { className: "fault-text" },
      h("b", { id: `fault-${fault.name}` }, h("span", { className: "unseen" }, `${fault.group}: `), fault.label),
      h("span", { className: "hint", id: `fault-${fault.name}-what` }, fault.description)),
    control(fault));

  const build = whenChanged((faults) => {
    const groups = [...new Set(faults.map(({ group }) => group))];
    byId("fault-list").replaceChildren(...groups.map((group) =>
      h("div", {}, h("h3", {}, group), h("ul", {}, ...faults.filter((fault) => fault.group === group).map(item)))));
  });

  return ({ state }) => {
    if (state === null) return;
    build(state.faults.map(({ on, ...fault }) => fault));
    for (const { name, on, momentary } of state.faults) {
      if (!momentary) setAttribute(byId("fault-list").querySelector(`[data-fault="${CSS.escape(name)}"]`), "aria-checked", on);
    }
    const count = state.faults.filter(({ on }) => on).length;
    setText(byId("faults-on"), `${count} on`);
    show(byId("faults-on"), count > 0);
  };
}
