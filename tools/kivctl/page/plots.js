// Plots of the last hour.

const HOUR = 3600;
/// Kind of series, title, least range of values.
const PLOTS = [["temperature", "Temperatures, last hour", 10], ["load", "Loads, last hour", 100],
  ["ptp_offset", "PTP offset to host, last hour", 100]];
const DASHES = ["none", "7 3", "2 3", "9 3 2 3", "14 4", "4 5", "9 3 2 3 2 3"];
const EDGE = {left: 52, right: 8, top: 8, bottom: 22, height: 190};

function niceStep(raw) {
  const power = 10 ** Math.floor(Math.log10(raw));
  return power * [1, 2, 5, 10].find((factor) => factor * power >= raw);
}

/// Range of the values, at least so wide; loads always have all from 0 to 100.
function rangeOf(kind, values, least) {
  const ends = kind === "load" ? [0, 100] : values.length ? [] : [0, least];
  const low = Math.min(...values, ...ends), high = Math.max(...values, ...ends);
  const more = Math.max(0, least - (high - low)) / 2;
  const step = niceStep((high - low + 2 * more) / 5);
  return {low: Math.floor((low - more) / step) * step, high: Math.ceil((high + more) / step) * step, step};
}

/// A line with gaps where there is no value; a value between two gaps is a dot.
function pathOf(points, x, y) {
  let path = "", drawn = false;
  points.forEach((value, index) => {
    if (isNumber(value)) path += `${drawn ? "L" : "M"}${x(index).toFixed(1)} ${y(value).toFixed(1)}${drawn ? "" : "h.01"}`;
    drawn = isNumber(value);
  });
  return path;
}

function axes(range, scale, unit, newest, x, y, width) {
  const digits = Math.max(0, Math.ceil(-Math.log10(range.step / scale) - 1e-9));
  const steps = Math.round((range.high - range.low) / range.step);
  const levels = Array.from({length: steps + 1}, (_, index) => range.low + index * range.step);
  const every = (width < 420 ? 20 : 10) * 60 * 1000;
  const times = [];
  // Round in the browser's time zone, whose offset need not be whole hours.
  const shift = new Date(newest).getTimezoneOffset() * 60000;
  for (let time = Math.floor((newest - shift) / every) * every + shift; time > newest - HOUR * 1000; time -= every)
    times.push(time);
  return [levels.map((level) => [
    el("line", {class: "grid", x1: EDGE.left, x2: width - EDGE.right, y1: y(level), y2: y(level)}),
    el("text", {x: EDGE.left - 6, y: y(level) + 4, "text-anchor": "end"}, signed((level / scale).toFixed(digits)))]),
  el("text", {x: 0, y: 12}, unit),
  times.map((time) => [
    el("line", {class: "grid", x1: x(time), x2: x(time), y1: EDGE.top, y2: EDGE.height - EDGE.bottom}),
    x(time) < width - 20 && x(time) > EDGE.left + 12 && el("text", {x: x(time), y: EDGE.height - 6, "text-anchor": "middle"},
      new Date(time).toTimeString().slice(0, 5))])];
}

function look(index) {
  const kind = index % DASHES.length;
  return {class: "series", stroke: `var(--s${kind})`, "stroke-dasharray": DASHES[kind]};
}

/// The plot's legend, and what it says to those who do not see it.
function legend(title, series, cursor, newest, interval, text) {
  const last = series[0].points.length - 1;
  const at = Math.min(cursor ?? last, last);
  const when = cursor == null ? "Now" : clock(newest - (last - at) * interval * 1000);
  return el("table", {class: "legend"}, el("caption", {class: "unseen"}, title),
    el("thead", {}, el("tr", {}, ["Line", when, "Lowest", "Highest"].map((heading, index) =>
      el("th", {scope: "col", class: index ? "number" : ""}, heading)))),
    el("tbody", {}, series.map((one, index) => {
      const values = one.points.filter(isNumber);
      // Of no values: infinite, and so none.
      const numbers = [one.points[at], Math.min(...values), Math.max(...values)];
      return el("tr", {}, el("th", {scope: "row", class: "soft"}, el("svg", {viewBox: "0 0 36 8", "aria-hidden": "true"},
        el("path", {...look(index), d: "M1 4H35"})), one.name),
      numbers.map((value) => el("td", {class: "number"}, text(value))));
    })));
}

function plot(kind, title, least, history) {
  const series = (history.series ?? []).filter((one) => one.kind === kind && one.points?.length);
  if (!series.length) return null;
  const newest = Date.parse(history.newest);
  const width = Math.max(known.width ?? 600, 240);
  const range = rangeOf(kind, series.flatMap((one) => one.points.filter(isNumber)), least);
  const {unit, size} = kind === "ptp_offset" ? timeUnit(Math.max(Math.abs(range.low), Math.abs(range.high)))
    : {unit: series[0].unit, size: 1};
  const inner = width - EDGE.left - EDGE.right;
  const x = (time) => EDGE.left + (1 - (newest - time) / 1000 / HOUR) * inner;
  const bottom = EDGE.height - EDGE.bottom;
  const y = (value) => bottom - (value - range.low) / (range.high - range.low) * (bottom - EDGE.top);
  const last = series[0].points.length - 1;
  const xOf = (index) => x(newest - (last - index) * history.interval_s * 1000);
  const cursor = known.cursor == null ? null : Math.max(0, last - known.cursor);
  const digits = kind === "temperature" ? 0 : 1;
  const text = (value) => kind === "ptp_offset" ? offsetText(value)
    : isNumber(value) ? `${signed(value.toFixed(digits))} ${unit}` : NONE;
  return el("figure", {class: "panel", "data-plot": kind}, el("h3", {}, title),
    el("svg", {class: "plot", viewBox: `0 0 ${width} ${EDGE.height}`, role: "img",
      "aria-label": `${title}, to ${clock(newest)}. The table below has the numbers.`},
      axes(range, size, unit, newest, x, y, width),
      series.map((one, index) => el("path", {...look(index), d: pathOf(one.points, xOf, y)})),
      cursor != null && el("line", {class: "cursor", x1: xOf(cursor), x2: xOf(cursor), y1: EDGE.top, y2: bottom})),
    legend(title, series, cursor, newest, history.interval_s, text));
}

const plots = (history) => !history?.newest ? el("p", {class: "soft"}, "No values of the last hour yet.")
  : PLOTS.map(([kind, title, least]) => plot(kind, title, least, history));

/// The pointer over a plot picks the time whose values the legends show: points before the newest.
function pick(event) {
  const svg = event.target.closest?.(".plot");
  const had = known.cursor;
  known.cursor = null;
  if (svg && known.history) {
    const box = svg.getBoundingClientRect();
    const share = (event.clientX - box.left - EDGE.left) / (box.width - EDGE.left - EDGE.right);
    if (share >= 0 && share <= 1) known.cursor = Math.round((1 - share) * HOUR / known.history.interval_s);
  }
  if (known.cursor !== had) render();
}
