// What is known of the cards, and how it is said.

const NONE = "–";
const isNumber = (value) => typeof value === "number" && Number.isFinite(value);

/// In this browser's time zone; the day only when it is another one.
function clock(when) {
  const date = new Date(when);
  if (when == null || Number.isNaN(date.getTime())) return NONE;
  const pad = (value) => String(value).padStart(2, "0");
  const time = [date.getHours(), date.getMinutes(), date.getSeconds()].map(pad).join(":");
  const day = `${date.getFullYear()}-${pad(date.getMonth() + 1)}-${pad(date.getDate())} `;
  return date.toDateString() === new Date().toDateString() ? time : day + time;
}

function duration(seconds) {
  const whole = Math.max(0, Math.floor(seconds));
  if (whole < 120) return `${whole} s`;
  if (whole < 7200) return `${Math.floor(whole / 60)} min`;
  return whole < 172800 ? `${Math.floor(whole / 3600)} h` : `${Math.floor(whole / 86400)} days`;
}

const signed = (text) => String(text).replace("-", "−");

/// A unit in which the largest of the values is a handy number, and the digits after its point.
function timeUnit(largest) {
  if (largest < 1e4) return {unit: "ns", size: 1};
  if (largest < 1e7) return {unit: "µs", size: 1e3};
  return largest < 1e10 ? {unit: "ms", size: 1e6} : {unit: "s", size: 1e9};
}

function offsetText(nanoseconds) {
  if (nanoseconds == null || !Number.isFinite(Number(nanoseconds))) return NONE;
  const {unit, size} = timeUnit(Math.abs(Number(nanoseconds)));
  return `${signed((Number(nanoseconds) / size).toFixed(size === 1 ? 0 : 1))} ${unit}`;
}

const percent = (value) => isNumber(value) ? `${value.toFixed(1)} %` : NONE;

// ---- What is known: the last answer, and when it came

const known = {document: null, received: 0, since: Date.now(), problem: null, findings: null, history: null, cursor: null};
const chosenCard = () => /^#card=\d{1,3}$/.test(location.hash) ? Number(location.hash.slice(6)) : null;
const cards = () => known.document?.cards ?? [];
/// Seconds since the last answer, which the ages in it do not have; 0 while answers come.
const overdue = () => known.problem ? (Date.now() - known.received) / 1000 : 0;
/// A source that has not been asked yet is not ok, and has no reason.
const fails = (source) => source?.ok === false && source.reason != null;
const since = (source) => source?.last_success ? ` since ${clock(source.last_success)}` : "";
/// Of a source of a card, by the part that is asked for first.
const silence = (source, first) => first?.stale === false ? "answers in part only" : `does not answer${since(source)}`;

/// PTP that is not in use needs nobody.
const ptpLevel = (ptp) => ["not in use", "locked", undefined].includes(ptp.master_locking?.text) ? "" : "warn";
const sensorLevel = (sensor) => ({critical: "bad", "above max": "warn"}[sensor.state] ?? "");

const LEVELS = {bad: {sign: "✖", word: "critical"}, warn: {sign: "▲", word: "attention"}, ok: {sign: "●", word: "ok"}};
const PARTS = {sensors: "sensors", board_power: "power", pci_link: "PCI link", ports: "ports", ptp: "PTP", flash: "flash",
  streams: "streams"};

/// What a person has to know of a card, the worst first. The key stays while the text may change.
function findingsOf(card) {
  const found = [];
  const add = (level, key, text) => found.push({level, key, text});
  const stale = (part) => card.ages?.[part]?.stale && card.ages[part].since != null;
  const newest = Object.values(card.ages ?? {}).map((age) => age?.since).filter(Boolean).sort().pop();
  if (card.state !== "ok") add("bad", "lost", newest ? `lost since ${clock(newest)}` : "lost");
  else {
    for (const [name, title, first] of [["driver", "driver", "ports"], ["server", "management server", "sensors"]])
      if (fails(card.sources?.[name])) add("warn", name, `${title} ${silence(card.sources[name], card.ages?.[first])}`);
    for (const sensor of stale("sensors") ? [] : card.sensors ?? []) {
      const level = sensorLevel(sensor);
      if (level) add(level, `${sensor.name} ${sensor.state}`, `${sensor.name} ${sensor.state}: ${signed(sensor.input)} °C`);
    }
    for (const port of stale("ports") ? [] : card.ports ?? [])
      if (port.link !== "up") add("warn", `port ${port.port}`, `port ${port.port} down`);
    if (card.ptp && !stale("ptp") && ptpLevel(card.ptp)) add("warn", "PTP", `PTP ${card.ptp.master_locking.text}`);
    const old = Object.keys(PARTS).filter(stale);
    if (old.length && !found.some((one) => ["driver", "server"].includes(one.key)))
      add("warn", "stale", `stale: ${old.map((part) => PARTS[part]).join(", ")}`);
  }
  return found.sort((a, b) => a.level.localeCompare(b.level));
}

const levelOf = (findings) => findings[0]?.level ?? "ok";
/// Cards that need attention, the worst first.
const troubled = () => ["bad", "warn"].flatMap((level) =>
  cards().filter((card) => levelOf(known.findings.get(card.card)) === level));
const wordOf = (card, level) => card.state !== "ok" ? "lost" : LEVELS[level].word;
const sign = (level) => el("span", {class: level, "aria-hidden": "true"}, `${LEVELS[level].sign} `);

function age(part) {
  if (!isNumber(part?.age_s)) return {seconds: Infinity, stale: true, level: "soft", text: "never read", short: "never read"};
  const seconds = part.age_s + overdue();
  const since = `since ${clock(part.since)}`;
  if (part.stale || known.problem) return {seconds, stale: true, level: "warn", text: `stale ${since}`, short: since};
  // The exact age of a value that is well would change in all rows at once, and say nothing.
  const short = seconds < 5 ? "< 5 s" : duration(seconds);
  return {seconds, stale: false, level: "soft", text: `${duration(seconds)} old`, short};
}

const oldest = (card) => Object.keys(PARTS).map((part) => age(card.ages?.[part]))
  .reduce((one, other) => other.seconds > one.seconds ? other : one);
