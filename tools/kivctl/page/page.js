// The page: what stands around the views, asking for the values, and moving about.

function summary() {
  const {driver, configuration} = known.document.sources ?? {};
  const [count, many] = [cards().length, troubled().length];
  const lost = cards().filter((card) => card.state !== "ok").length;
  const source = (name, state) => !fails(state) ? el("li", {key: name}, `${name} ok`)
    : el("li", {key: name, class: "warn"}, `▲ ${name}${since(state)}: ${state.reason}`);
  return [el("li", {key: "cards"}, `${count} card${count === 1 ? "" : "s"}`),
    many === 0 ? el("li", {key: "attention", class: "ok"}, "● none needs attention")
      : el("li", {key: "attention", class: "warn"}, `▲ ${many} need${many === 1 ? "s" : ""} attention`),
    lost > 0 && el("li", {key: "lost", class: "bad"}, `✖ ${lost} lost`),
    source("driver", driver), source("configuration", configuration),
    !known.problem && el("li", {key: "time"}, clock(known.document.time))];
}

function troubleText() {
  const driver = known.document?.sources?.driver;
  if (known.problem)
    return `No answer from kivctl serve since ${clock(known.document ? known.received : known.since)} (${known.problem}). `
      + (known.document ? "All values are from then. " : "") + "This page keeps asking.";
  const lost = cards().every((card) => card.state !== "ok");
  return fails(driver) && `The driver does not answer${since(driver)}: ${driver.reason}. `
    + (lost ? "All cards are out of reach." : "New cards are not found.");
}

function render() {
  const id = chosenCard();
  const focused = document.activeElement;
  const trouble = troubleText();
  byId("all").hidden = id != null;
  byId("one").hidden = id == null;
  byId("trouble").hidden = !trouble;
  document.body.className = known.problem ? "offline" : "";
  if (id != null) fill("one", oneCard(cards().find((card) => card.card === id), id));
  else fill("all", known.document ? allCards() : el("p", {class: "soft"}, "Waiting for the first answer."));
  fill("summary", known.document && summary());
  fill("trouble", trouble);
  const sign = known.problem ? "(!) " : troubled().length ? `(${troubled().length}) ` : "";
  const title = sign + (id == null ? "Cards" : `Card ${id}`);
  if (document.title !== title) document.title = title;
  // An element that moved has lost it.
  if (focused !== document.activeElement && focused.isConnected) focused.focus({preventScroll: true});
}

/// Says to screen readers what changed; nothing while only numbers do.
function announce(messages) {
  if (messages.length) fill("changes", messages.length > 4 ? `${messages.length} cards changed.` : messages.join(". "));
}

function changes(before, after) {
  const keys = (findings) => findings?.map((one) => one.key).join() ?? null;
  return [...new Set([...before.keys(), ...after.keys()])].filter((id) => keys(before.get(id)) !== keys(after.get(id)))
    .map((id) => `Card ${id}: ${after.has(id) ? after.get(id).map((one) => one.text).join(", ") || "ok" : "gone"}`);
}

// ---- Asking

async function ask(path, schema) {
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), 5000);
  try {
    const answer = await fetch(path, {signal: abort.signal, cache: "no-store"});
    if (!answer.ok) throw new Error(`status ${answer.status}`);
    const json = await answer.json();
    if (json.schema !== schema) throw new Error("an answer of another version: load the page again");
    return json;
  } catch (error) {
    throw abort.signal.aborted ? new Error("no answer within 5 s") : error;
  } finally {
    clearTimeout(timer);
  }
}

async function askCards() {
  const wasLost = known.problem != null;
  try {
    const json = await ask("cards.json", "kivctl.cards/1");
    const findings = new Map(json.cards.map((card) => [card.card, findingsOf(card)]));
    const news = known.document ? changes(known.findings, findings) : [];
    Object.assign(known, {document: json, findings, received: Date.now(), problem: null});
    announce(wasLost ? ["kivctl serve answers again", ...news] : news);
  } catch (error) {
    known.problem = error instanceof TypeError ? "no connection" : error.message;
    if (!wasLost) announce(["No answer from kivctl serve"]);
  }
  render();
}

/// True: another card has been chosen meanwhile.
async function askHistory() {
  const id = chosenCard();
  if (id == null) return false;
  try {
    const json = await ask(`history.json?card=${id}`, "kivctl.history/1");
    if (chosenCard() === id) known.history = json;
  } catch {
    // The plots stay as they are: the poll of the cards says what is wrong.
  }
  render();
  return chosenCard() !== id;
}

/// Does the work every so many ms, never twice at a time, and not while nobody looks.
function repeat(period, work) {
  let timer = null, busy = false;
  const turn = async () => {
    clearTimeout(timer);
    if (busy || document.hidden) return;
    busy = true;
    const start = Date.now();
    const again = await work();
    busy = false;
    timer = setTimeout(turn, again ? 0 : Math.max(100, period - (Date.now() - start)));
  };
  return turn;
}

const turns = [repeat(1000, askCards), repeat(5000, askHistory)];
let from = null, scrolled = 0;

function navigate() {
  const id = chosenCard();
  const came = from;
  if (came == null) scrolled = scrollY;
  from = id;
  render();
  scrollTo(0, id == null ? scrolled : 0);
  const target = id == null ? document.querySelector(`#all tr[data-card="${came}"] a`) : document.querySelector("#one h2");
  target?.focus({preventScroll: id != null});
  turns[1]();
}

addEventListener("hashchange", navigate);
document.addEventListener("visibilitychange", () => turns.forEach((turn) => turn()));
document.addEventListener("pointermove", pick);
document.addEventListener("keydown", (event) => {
  if (event.key === "Escape" && chosenCard() != null) location.hash = "";
});
byId("all").addEventListener("click", (event) => {
  const row = event.target.closest("tr[data-card]");
  if (row && !event.target.closest("a") && getSelection().isCollapsed) location.hash = `#card=${row.dataset.card}`;
});
new ResizeObserver(() => {
  const width = document.querySelector(".plot")?.clientWidth;
  if (width && width !== known.width) {
    known.width = width;
    render();
  }
}).observe(document.querySelector("main"));

const zone = new Date().toTimeString().replace(/.*(GMT|UTC)([+-]\d\d)(\d\d).*/, "UTC$2:$3");
fill("footer", `Times are in this browser's zone, ${signed(zone)}. Loads are of path A · path B. Escape leads back to all `
  + "cards. The same values for programs: ", el("a", {href: "cards.json"}, "cards.json"), ", ",
  el("a", {href: "metrics"}, "metrics"), ".");
from = chosenCard();
render();
turns.forEach((turn) => turn());
