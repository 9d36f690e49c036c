// The refrigerator itself: drawn, with what runs lit up, and its parts in words. Doors open by a
// click on them or by the buttons below.

import { byId, setAttribute, setData, setText } from "../dom.js";
import { celsius, levelName, quantity, watt } from "../format.js";
import { compressorText, modeName, situation } from "../situation.js";
import { ask } from "./answer.js";

function defrostText({ heaterOn, held, due, heldSinceAt, nextInCompressorHours }, clock, now) {
  if (heaterOn) return "heater on";
  if (held) return `held since ${clock.when(heldSinceAt, now)}${due ? ", due" : ""}`;
  if (due) return "due";
  return `in ${quantity(nextInCompressorHours, 1, "h")} of cooling`;
}

function part(id, isOn, text) {
  const row = byId(id);
  setData(row, "on", isOn);
  setText(row.querySelector("dd"), text);
}

const compartments = ["fridge", "freezer"];

export function refrigeratorView(store, api) {
  const drawing = byId("drawing");
  const isOpen = (compartment) => store.model.state?.refrigerator.doors[`${compartment}Open`] ?? false;
  for (const compartment of compartments) {
    const button = byId(`door-${compartment}`);
    const turn = () => {
      const open = !isOpen(compartment);
      return ask(button, byId("door-answer"), () => api.door(compartment, open), () => "");
    };
    button.addEventListener("click", turn);
    drawing.querySelector(`.${compartment}-door`).addEventListener("click", turn);
  }

  return (model) => {
    if (model.state === null) return;
    const { refrigerator, demandResponse } = model.state;
    const { compressor, defrost, doors } = refrigerator;
    const { kind, mode } = situation(model);

    setText(byId("mode"), modeName(refrigerator.mode));
    setData(byId("mode"), "state", mode);
    setData(drawing, "state", kind);
    setData(drawing, "compressor", compressor.on);
    setData(drawing, "fan", refrigerator.fanOn);
    setData(drawing, "heater", defrost.heaterOn);
    setData(drawing, "held", defrost.held);
    setData(drawing, "sweat", refrigerator.antiSweatOn);
    for (const compartment of compartments) {
      const open = doors[`${compartment}Open`];
      setData(drawing, compartment, open ? "open" : "closed");
      setText(byId(`door-${compartment}`), `${open ? "Close" : "Open"} the ${compartment}`);
    }
    const level = demandResponse.confirmed?.level ?? null;
    const isReduced = level !== null && level > 0;
    setText(byId("draw-level"), isReduced ? `L${level}` : "");
    if (isReduced) setData(drawing, "level", level);
    else delete drawing.dataset.level;
    setText(byId("draw-fridge"), celsius(refrigerator.fridgeCelsius));
    setText(byId("draw-freezer"), celsius(refrigerator.freezerCelsius));
    setText(byId("draw-fridge-set"), `set ${celsius(refrigerator.fridgeSetCelsius)}`);
    setText(byId("draw-freezer-set"), `set ${celsius(refrigerator.freezerSetCelsius)}`);
    setAttribute(drawing, "aria-label",
      `The refrigerator: fridge ${celsius(refrigerator.fridgeCelsius)}, ${doors.fridgeOpen ? "open" : "closed"}; ` +
      `freezer ${celsius(refrigerator.freezerCelsius)}, ${doors.freezerOpen ? "open" : "closed"}; ` +
      `${levelName(level)}`);

    part("part-compressor", compressor.on, compressorText(compressor));
    part("part-fan", refrigerator.fanOn, refrigerator.fanOn ? "on" : "off");
    part("part-defrost", defrost.heaterOn, defrostText(defrost, model.clock, model.now));
    setData(byId("part-defrost"), "held", defrost.held);
    part("part-sweat", refrigerator.antiSweatOn, refrigerator.antiSweatOn ? "on" : "off");
    part("part-ice", refrigerator.iceMakerOn, refrigerator.iceMakerOn ? "on" : "off");
    part("part-display", true, watt(refrigerator.displayWatt));
  };
}
