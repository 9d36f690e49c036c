// Asking the appliance for something, with what came of it shown right where it was asked.

import { setData, setText } from "../dom.js";

const kShownMs = 10_000; // a success is news for so long; a refusal stays until something else is asked

export function tell(answer, kind, text) {
  setData(answer, "kind", kind);
  setText(answer, text);
}

/**
 * Runs `work`, with the button out of use meanwhile, and shows either what `done` makes of the
 * answer or the reason of the refusal. Gives the refusal, or null.
 */
export async function ask(button, answer, work, done) {
  if (button.ariaDisabled === "true") return null;
  button.ariaDisabled = "true"; // unlike disabled, it keeps the keyboard's focus
  tell(answer, "busy", "Sending …");
  try {
    const text = done(await work());
    tell(answer, "ok", text);
    setTimeout(() => {
      if (answer.dataset.kind === "ok" && answer.textContent === text) tell(answer, "ok", "");
    }, kShownMs);
    return null;
  } catch (refusal) {
    tell(answer, "refused", refusal.message);
    return refusal;
  } finally {
    button.ariaDisabled = "false";
  }
}
