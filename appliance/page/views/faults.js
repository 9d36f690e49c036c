// The faults that can be switched on, each with what it does.

import { byId, h, setText, show, whenChanged } from "../dom.js";
import { ask } from "./answer.js";

export function faultsView(store, api) {
  const isOn = (name) => store.model.state.faults.some((fault) => fault.name === name && fault.on);

  function item({ name, label, description }) {
    const toggle = h("button", { type: "button", role: "switch", className: "switch", "data-fault": name, "aria-labelledby": `fault-${name}`, "aria-describedby": `fault-${name}-what` },
      h("span", { className: "switch-knob" }));
    toggle.addEventListener("click", () =>
      ask(toggle, byId("faults-answer"), () => api.fault(name, !isOn(name)), () => ""));
    return h("li", {},
      h("span", { className: "fault-text" }, h("b", { id: `fault-${name}` }, label), h("span", { className: "hint", id: `fault-${name}-what` }, description)),
      toggle);
  }

  const build = whenChanged((faults) => {
    const groups = [...new Set(faults.map(({ group }) => group))];
    byId("fault-list").replaceChildren(...groups.map((group) =>
      h("div", {}, h("h3", {}, group), h("ul", {}, ...faults.filter((fault) => fault.group === group).map(item)))));
  });

  return ({ state }) => {
    if (state === null) return;
    build(state.faults.map(({ name, label, description, group }) => ({ name, label, description, group })));
    for (const { name, on } of state.faults) {
      byId("fault-list").querySelector(`[data-fault="${CSS.escape(name)}"]`).ariaChecked = String(on);
    }
    const count = state.faults.filter(({ on }) => on).length;
    setText(byId("faults-on"), `${count} on`);
    show(byId("faults-on"), count > 0);
  };
}
