// The line that answers at one look: what happens now, and the figures that matter most.

import { byId, setData, setText } from "../dom.js";
import { celsius, watt } from "../format.js";
import { situation } from "../situation.js";

export function heroView() {
  return (model) => {
    if (model.state === null) return;
    const { kind, headline, detail } = situation(model);
    const { refrigerator } = model.state;
    setData(byId("hero"), "state", kind);
    setText(byId("hero-headline"), headline);
    setText(byId("hero-detail"), detail);
    setText(byId("hero-power"), watt(refrigerator.powerWatt));
    setText(byId("hero-fridge"), celsius(refrigerator.fridgeCelsius));
    setText(byId("hero-freezer"), celsius(refrigerator.freezerCelsius));
    setText(byId("hero-room"), celsius(refrigerator.ambientCelsius));
    document.title = `${headline} · Corvane`;
  };
}
