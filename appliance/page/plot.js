// What the plots share: colours of the theme, axes in the appliance's local time, shaded spans, and
// a size that follows the card. uPlot is a global, loaded before this module runs.

/** Canvas wants plain colours; the style sheet's may depend on the theme. */
export function themeColour(name) {
  const probe = document.createElement("span");
  probe.style.color = `var(--${name})`;
  document.body.append(probe);
  const colour = getComputedStyle(probe).color;
  probe.remove();
  return colour;
}

export function withAlpha(colour, alpha) {
  const [red, green, blue] = colour.match(/[\d.]+/g);
  return `rgba(${red}, ${green}, ${blue}, ${alpha})`;
}

const kFont = "12px system-ui, 'Segoe UI', Roboto, 'Helvetica Neue', Arial, sans-serif";
const kAxisWidth = 58; // the same for all, so that plots above each other share their time axis

const pad = (value) => String(value).padStart(2, "0");

function timeLabels(plot, splits, axis, space, stepSec) {
  let lastDay = null;
  return splits.map((at) => {
    const date = plot.series[0].localDate(at);
    const day = `${date.getDate()} ${date.toLocaleDateString("en-GB", { month: "short" })}`;
    if (stepSec >= 86400) return day;
    const isNewDay = lastDay !== null && day !== lastDay;
    lastDay = day;
    const time = `${pad(date.getHours())}:${pad(date.getMinutes())}`;
    if (stepSec < 60) return `${time}:${pad(date.getSeconds())}`;
    return isNewDay && time === "00:00" ? day : time;
  });
}

export function axes(unit, isLast = true) {
  const text = themeColour("muted");
  const grid = { stroke: themeColour("line"), width: 1 };
  return [
    { stroke: text, font: kFont, grid, ticks: { show: false }, size: isLast ? 28 : 8, space: 76, values: isLast ? timeLabels : () => [] },
    {
      stroke: text, font: kFont, grid, ticks: { show: false }, size: kAxisWidth, space: 32, gap: 6,
      values: (plot, splits) => {
        const isLarge = unit === "Wh" && splits.at(-1) >= 1000;
        const text = (value) => `${isLarge ? value / 1000 : value}`.replace("-", "−");
        return splits.map((value) => text(value) + (value === splits.at(-1) ? ` ${isLarge ? "kWh" : unit}` : ""));
      },
    },
  ];
}

function inPlot(plot, draw) {
  const { ctx, bbox } = plot;
  ctx.save();
  ctx.beginPath();
  ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
  ctx.clip();
  draw(ctx, bbox, devicePixelRatio);
  ctx.restore();
}

/** Shades each span { from, to, fill, edge, label? } behind the curves, and labels it above them. */
export function shade(spansOf) {
  const place = (plot, { from, to }, pixel) => {
    const left = plot.valToPos(from, "x", true);
    return { left, width: Math.max(2 * pixel, plot.valToPos(to, "x", true) - left) };
  };
  return {
    hooks: {
      drawClear: (plot) => inPlot(plot, (ctx, bbox, pixel) => {
        for (const span of spansOf()) {
          const { left, width } = place(plot, span, pixel);
          ctx.fillStyle = span.fill;
          ctx.fillRect(left, bbox.top, width, bbox.height);
          ctx.fillStyle = span.edge;
          ctx.fillRect(left, bbox.top, width, 3 * pixel);
        }
      }),
      draw: (plot) => inPlot(plot, (ctx, bbox, pixel) => {
        ctx.font = kFont.replace("12px", `${12 * pixel}px`);
        ctx.textBaseline = "top";
        ctx.textAlign = "left";
        for (const span of spansOf()) {
          const { left, width } = place(plot, span, pixel);
          if (!span.label || width < 24 * pixel) continue;
          ctx.fillStyle = span.edge;
          ctx.fillText(span.label, Math.max(left, bbox.left) + 6 * pixel, bbox.top + 7 * pixel);
        }
      }),
    },
  };
}

/**
 * A plot in `host`, made anew when the theme or the zone changes. `options(clock)` gives uPlot's
 * own options but for the size; `update(data, from, to)` shows data with the time axis fixed.
 */
export function createPlot(host, options) {
  let plot = null;
  let shown = null;
  let clock = null;

  function make() {
    plot?.destroy();
    const given = options();
    given.series[0].localDate = (at) => clock.plotDate(at);
    plot = new uPlot({
      width: host.clientWidth, height: host.clientHeight, tzDate: (at) => clock.plotDate(at),
      legend: { show: false }, padding: [10, 32, 0, 0], ...given,
    }, shown.data, host);
    fit();
  }

  function fit() {
    plot.batch(() => {
      plot.setData(shown.data, true);
      plot.setScale("x", { min: shown.from, max: shown.to });
    });
  }

  new ResizeObserver(() => {
    if (plot && host.clientWidth > 0) plot.setSize({ width: host.clientWidth, height: host.clientHeight });
  }).observe(host);
  document.addEventListener("themechange", () => {
    if (plot) make();
  });

  return (data, from, to, newClock) => {
    shown = { data, from, to };
    if (plot && clock.zone === newClock.zone) {
      fit();
      return;
    }
    clock = newClock;
    make();
  };
}
