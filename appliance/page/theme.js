// The theme, chosen before the first paint: what was picked on this page earlier, else what the
// system prefers. A classic script in the head, so that no page flashes up in the wrong colours.
(function () {
  const root = document.documentElement;
  const prefersDark = window.matchMedia("(prefers-color-scheme: dark)");

  function picked() {
    try {
      return localStorage.getItem("corvane-theme");
    } catch {
      return null; // storage can be switched off; the system's preference is left
    }
  }

  function apply() {
    root.dataset.theme = picked() ?? (prefersDark.matches ? "dark" : "light");
    document.dispatchEvent(new Event("themechange"));
  }

  window.toggleTheme = function () {
    const next = root.dataset.theme === "dark" ? "light" : "dark";
    try {
      localStorage.setItem("corvane-theme", next);
    } catch {
      // Not remembered then, but still applied.
    }
    root.dataset.theme = next;
    document.dispatchEvent(new Event("themechange"));
  };

  prefersDark.addEventListener("change", apply);
  apply();
})();
