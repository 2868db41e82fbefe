// The views: all cards, and one card.

function bar(value, limits, level) {
  const end = Math.max(...limits.filter(isNumber), 1) * 1.1;
  const at = (number) => `${Math.min(Math.max(number / end, 0), 1) * 100}%`;
  return el("span", {class: `bar ${level}`, "aria-hidden": "true"}, el("i", {class: "fill", "--fill": at(value)}),
    limits.map((limit, index) => isNumber(limit) && el("i", {class: `mark ${index ? "bad" : ""}`, "--at": at(limit)})));
}

/// The sensor that is nearest to its limit, or furthest beyond it.
function hottest(card) {
  const room = (sensor) => (sensor.max ?? sensor.critical ?? Infinity) - sensor.input;
  return (card.sensors ?? []).filter((sensor) => isNumber(sensor.input)).sort((a, b) => room(a) - room(b))[0];
}

function hottestCell(card) {
  const sensor = hottest(card);
  if (!sensor) return NONE;
  return el("span", {class: "hot"}, bar(sensor.input, [sensor.max, sensor.critical], sensorLevel(sensor)),
    el("span", {}, el("b", {class: sensorLevel(sensor)}, signed(sensor.input)),
      el("span", {class: "unit"}, ` / ${signed(sensor.max ?? NONE)} °C`, el("span", {class: "name"}, ` ${sensor.name}`))));
}

const load = (value) => isNumber(value) ? value.toFixed(0) : NONE;
const portCell = (port) => port ? [el("span", {class: port.link === "up" ? "" : "warn"}, port.link),
  el("span", {class: "unit"}, ` ${load(port.load_a_percent)} · ${load(port.load_b_percent)} %`)] : NONE;

const lockingText = (ptp) => el("span", {class: ptpLevel(ptp)}, ptp.master_locking?.text ?? NONE);
const ptpCell = (ptp) => ptp ? [lockingText(ptp), el("span", {class: "unit"}, ` ${offsetText(ptp.offset_to_host_ns)}`)] : NONE;

const powerText = (card) => isNumber(card.board_power) ? signed(card.board_power) : NONE;
const flashText = (flash) => el(flash?.state === "busy" ? "b" : "span", {}, flash?.phase ?? NONE);

/// Heading, width, name, part whose age counts, content, label on a narrow screen.
const COLUMNS = [
  ["Port 0, loads", "10em", "port-0", "ports", (card) => portCell(card.ports?.[0]), "Port 0"],
  ["Port 1, loads", "10em", "port-1", "ports", (card) => portCell(card.ports?.[1]), "Port 1"],
  ["PTP, offset to host", "11.5em", "ptp", "ptp", (card) => ptpCell(card.ptp), "PTP"],
  ["Hottest, limit", "19.5em", "hottest", "sensors", hottestCell],
  ["Power", "4.5em", "power", "board_power", powerText, "Power"],
  ["Flash", "6em", "flash", "flash", (card) => flashText(card.flash), "Flash"],
];

function row(card) {
  const findings = known.findings.get(card.card);
  const level = levelOf(findings);
  const cell = (name, label, old, ...content) => el("td", {role: "cell", "data-cell": name, "data-label": label,
    class: `value ${old?.stale ? "stale" : ""}`}, content, old?.stale && el("span", {class: "unseen"}, ` ${old.text}`));
  const first = oldest(card);
  return el("tr", {key: card.card, "data-card": String(card.card), role: "row", class: `is-${level}`},
    el("th", {scope: "row", role: "rowheader"}, el("a", {href: `#card=${card.card}`}, `Card ${card.card}`)),
    cell("state", null, null, sign(level), el("span", {class: level}, wordOf(card, level))),
    COLUMNS.map(([, , name, part, content, label]) => cell(name, label, age(card.ages?.[part]), content(card))),
    el("td", {role: "cell", "data-cell": "age", class: first.level === "warn" ? "warn" : "value"}, first.short),
    el("td", {role: "cell", "data-cell": "remark", class: `value remark ${level}`}, findings.map((one) => one.text).join("; ")));
}

function allCards() {
  const strip = el("ul", {class: "attention", "aria-label": "Cards that need attention"},
    troubled().map((card) => {
      const first = known.findings.get(card.card)[0];
      return el("li", {key: card.card, class: first.level}, el("a", {href: `#card=${card.card}`}, sign(first.level),
        `Card ${card.card}: ${first.text}`));
    }),
    troubled().length === 0 && el("li", {class: "soft"}, cards().length ? "No card needs attention." : "No cards."));
  const columns = [["Card", "5.5em"], ["State", "8em"], ...COLUMNS, ["Oldest value", "9.5em"], ["Needs attention", "auto"]];
  const remark = (index) => index === columns.length - 1 ? "remark" : null;
  return [strip, cards().length > 0 && el("table", {role: "table"},
    el("colgroup", {}, columns.map(([, width, name], index) =>
      el("col", {"--width": width, "data-cell": name, class: remark(index)}))),
    el("thead", {role: "rowgroup"}, el("tr", {role: "row"},
      columns.map(([heading], index) => el("th", {scope: "col", role: "columnheader", class: remark(index)}, heading)))),
    el("tbody", {role: "rowgroup"}, cards().map(row)))];
}

function panel(title, part, card, ...content) {
  const old = part && age(card.ages?.[part]);
  return el("section", {class: "panel", "data-part": part ?? title.toLowerCase()},
    el("header", {}, el("h3", {}, title), old && el("span", {class: old.level, "data-cell": "age"},
      old.level === "warn" && "▲ ", old.text)),
    el("div", {class: `value ${old?.stale ? "stale" : ""}`}, content));
}

const list = (...entries) => el("dl", {}, entries.map(([name, ...value]) => [el("dt", {}, name), el("dd", {}, value)]));

const table = (headings, rows) => el("table", {},
  el("thead", {}, el("tr", {}, headings.map((heading, index) =>
    el("th", {scope: "col", class: index ? "number" : ""}, heading)))),
  el("tbody", {class: "plain"}, rows.map(([first, ...others]) => el("tr", {}, el("th", {scope: "row"}, first),
    others.map((value) => el("td", {class: "number"}, value))))));

const portsPanel = (card) => panel("Ports", "ports", card, table(["Port", "Link", "Load A", "Load B"],
  (card.ports ?? []).map((port) => [port.port,
    port.link === "up" ? "up" : el("span", {class: "warn"}, sign("warn"), port.link),
    percent(port.load_a_percent), percent(port.load_b_percent)])));

function temperaturesPanel(card) {
  const degrees = (value) => isNumber(value) ? signed(value) : NONE;
  const heading = (name) => el("th", {scope: "col", class: "number fit"}, name);
  return panel("Temperatures", "sensors", card, el("table", {},
    el("thead", {}, el("tr", {}, el("th", {scope: "col"}, "Sensor"), el("td", {}), ["°C", "Max", "Critical"].map(heading))),
    el("tbody", {class: "plain"}, (card.sensors ?? []).map((sensor) => {
      const level = sensorLevel(sensor);
      return el("tr", {}, el("th", {scope: "row"}, sensor.name),
        el("td", {}, isNumber(sensor.input) && bar(sensor.input, [sensor.max, sensor.critical], level)),
        el("td", {class: `number fit ${level}`}, el("span", {class: "now"}, level && sign(level), degrees(sensor.input)),
          el("span", {class: "unseen"}, ` ${sensor.state}`)),
        [sensor.max, sensor.critical].map((limit) => el("td", {class: "number fit soft"}, degrees(limit))));
    }))));
}

const ptpPanel = ({ptp, ...card}) => panel("PTP", "ptp", card, ptp ? list(
  ["Locking", lockingText(ptp)],
  ["Offset to host", offsetText(ptp.offset_to_host_ns)],
  ["Time", ptp.time?.text ?? NONE],
  ["Grandmaster", el("span", {class: "code"}, ptp.grandmaster ?? NONE)],
  ["TAI−UTC", isNumber(ptp.utc_offset) ? `${signed(ptp.utc_offset)} s` : NONE, ptp.utc_offset_valid === false && ", not valid"],
  ["State register", ptp.register_state ?? NONE]) : "Never read.");

const flashPanel = ({flash, ...card}) => panel("Flash", "flash", card, flash ? list(["State", flashText(flash)],
  ...(flash.slots ?? []).map((slot, index) => [`Slot ${index}`, el("span", {class: "code"}, slot || NONE),
    flash.next_boot_slot === index && " boots next"])) : "Never read.");

const streamsPanel = ({streams, ...card}) => panel("Streams", "streams", card, streams ? table(["", "Transmit", "Receive"],
  [["control", "Control"], ["control_bit_25", "Control, bit 25"], ["control_bit_26", "Control, bit 26"],
    ["reg_404", "Register 0x404"], ["reg_804", "Register 0x804"], ["resources", "Resources in use"]].map(([key, name]) =>
    [name, ...["tx", "rx"].map((way) => [streams[way]?.[key] ?? NONE].flat().join(" "))])) : "Never read.");

const sourceText = (source, first) => source?.ok ? el("span", {class: "ok"}, "● answers")
  : fails(source) ? el("span", {class: "warn"}, `▲ ${silence(source, first)}: ${source.reason}`) : NONE;

function oneCard(card, id) {
  const others = cards().map((other) => other.card);
  const link = (other, text) => other != null && el("a", {href: `#card=${other}`}, text(other));
  const path = el("nav", {class: "path", "aria-label": "Cards"}, el("a", {href: "#"}, "← All cards"),
    link(others.filter((other) => other < id).pop(), (other) => `‹ Card ${other}`),
    link(others.find((other) => other > id), (other) => `Card ${other} ›`));
  if (!card) return [path, el("h2", {tabindex: "-1"}, `Card ${id}`), el("p", {}, known.document ? "There is no such card." : "")];
  const findings = known.findings.get(id);
  const level = levelOf(findings);
  return [path,
    el("h2", {tabindex: "-1"}, `Card ${id} `, sign(level), el("span", {class: level, "data-cell": "state"}, wordOf(card, level))),
    el("ul", {class: "findings", "aria-label": "Needs attention"},
      findings.map((one) => el("li", {key: one.key, class: one.level}, one.text)),
      findings.length === 0 && el("li", {class: "soft"}, "Nothing needs attention.")),
    el("div", {class: "panels"},
      el("div", {class: "stack"}, temperaturesPanel(card), panel("Power", "board_power", card, powerText(card)),
        panel("PCI link", "pci_link", card, card.pci_link?.text ?? NONE)),
      el("div", {class: "stack"}, portsPanel(card), ptpPanel(card)),
      el("div", {class: "stack"}, flashPanel(card), streamsPanel(card), panel("Sources", null, card,
        list(["Driver", sourceText(card.sources?.driver, card.ages?.ports)],
          ["Server", sourceText(card.sources?.server, card.ages?.sensors)])))),
    el("h3", {class: "unseen"}, "Last hour"),
    el("div", {class: "plots"}, plots(known.history?.card === id ? known.history : null))];
}
