// The page of keldwick-server. Everything it shows comes from strangers: it is put in place as text, never as markup.
"use strict";

const $ = (id) => document.getElementById(id);

// An element with a class and children: texts or elements.
function element(tag, className = "", ...children) {
  const made = document.createElement(tag);
  if (className) made.className = className;
  made.append(...children);
  return made;
}

// The text with an escape in the place of what could turn it round or hide in it, as the server's lines have it.
function visible(text) {
  const escaped = (unit) => "\\u" + unit.charCodeAt(0).toString(16).padStart(4, "0");
  return text.replace(/[\u0000-\u001f\u007f-\u009f\u2028\u2029\p{Default_Ignorable_Code_Point}]/gu, (c) => c.split("").map(escaped).join(""));
}

function clock(iso) {
  const time = new Date(iso);
  const today = time.toDateString() === new Date().toDateString();
  return (today ? "" : `${time.getMonth() + 1}/${time.getDate()} `) + time.toTimeString().slice(0, 8);
}

let ahead = 0;  // the server's clock before this one's, in ms
function ago(iso) {
  const seconds = Math.max(0, Math.round((Date.now() + ahead - Date.parse(iso)) / 1000));
  return seconds < 100 ? `${seconds} s` : seconds < 6000 ? `${Math.round(seconds / 60)} min` : `${Math.round(seconds / 3600)} h`;
}

const peer = (from) => (from.address.includes(":") ? `[${from.address}]` : from.address) + ":" + from.port;
const number = new Intl.NumberFormat("en").format;

const pause = (ms) => new Promise((done) => setTimeout(done, ms));

async function fetchJson(path, signal) {
  let answer = await fetch(path, {signal});
  while (answer.status === 503) {  // others ask for too much at present
    await pause(1000);
    answer = await fetch(path, {signal});
  }
  const body = await answer.json();
  if (!answer.ok) throw new Error(body.error || answer.statusText);
  return body;
}

// ---- who is where: rows are fetched and made only where they can be seen ----

const PAGE = 50;         // rows in one request
const PAGES_KEPT = 12;
const REFRESH_MS = 1000;

const table = {
  view: 0,               // grows with each other search or order: answers to an earlier one are not taken
  search: "", sort: "since", order: "desc",
  matching: 0, total: 0,
  pages: new Map(),      // by number: their rows; the one last asked for last
  asked: new Map(),      // by number: what ends the request that is under way
  chosen: 0, chosenNumber: null,
  version: 0, shownVersion: 0, refreshed: 0,
  elements: new Map(),   // by index
  problem: "",           // why the last request has no answer
};

const rowHeight = () => parseFloat(getComputedStyle(document.documentElement).getPropertyValue("--row"));
const rowAt = (index) => table.pages.get(Math.floor(index / PAGE))?.[index % PAGE];

function visibleRange() {
  const scroller = $("scroller"), height = rowHeight();
  const first = Math.floor(scroller.scrollTop / height);
  return [Math.max(0, first - 5), Math.min(table.matching, first + Math.ceil(scroller.clientHeight / height) + 6)];
}

function askPage(page, again = false) {
  if (table.asked.has(page) || (!again && table.pages.has(page))) return;
  const abort = new AbortController(), view = table.view;
  table.asked.set(page, abort);
  const query = new URLSearchParams({brief: "1", search: table.search, sort: table.sort, order: table.order,
                                     offset: page * PAGE, limit: PAGE});
  fetchJson("/api/identities?" + query, abort.signal).then((answer) => {
    if (view !== table.view) return;
    table.asked.delete(page);
    table.pages.delete(page);
    table.pages.set(page, answer.identities);
    for (const old of table.pages.keys()) if (table.pages.size > PAGES_KEPT) table.pages.delete(old);
    table.matching = answer.matching;
    table.total = answer.total;
    table.shownVersion = answer.version;
    table.problem = "";
    follow();
    showTable();
  }).catch((error) => {
    if (view !== table.view || error.name === "AbortError") return;
    table.problem = error.message;
    if (!table.pages.size) table.matching = 0;
    showTable();
    setTimeout(() => {
      if (view !== table.view) return;
      table.asked.delete(page);
      if (!table.pages.size) askPage(page);
      showTable();
    }, 1000);
  });
}

// The chosen row stays chosen when others come before it.
function follow() {
  for (const [page, rows] of table.pages) {
    const at = rows.findIndex((row) => row && row.number === table.chosenNumber);
    if (at >= 0) table.chosen = page * PAGE + at;
  }
  table.chosen = Math.max(0, Math.min(table.chosen, table.matching - 1));
}

function newView() {
  ++table.view;
  for (const abort of table.asked.values()) abort.abort();
  table.asked.clear();
  table.pages.clear();
  table.problem = "";
  table.chosen = 0;
  table.chosenNumber = null;
  $("scroller").scrollTop = 0;
  askPage(0);
}

function refreshTable() {
  const now = performance.now();
  if (table.version === table.shownVersion || now - table.refreshed < REFRESH_MS) return;
  table.refreshed = now;
  const [first, end] = visibleRange(), firstPage = Math.floor(first / PAGE);
  const lastPage = Math.max(firstPage, Math.floor((end - 1) / PAGE));
  for (const page of [...table.pages.keys()]) if (page < firstPage || page > lastPage) table.pages.delete(page);
  for (let page = firstPage; page <= lastPage; ++page) askPage(page, true);
}

const COLUMNS = ["user", "address", "computer", "dn", "groups", "since", "heard", "from"];

function fillRow(made, row, index) {
  made.classList.toggle("chosen", index === table.chosen);
  made.setAttribute("aria-selected", index === table.chosen);
  made.setAttribute("aria-rowindex", index + 2);
  const texts = row ? [row.user || "–", row.address, row.computer || "–", row.user_dn || row.computer_dn,
                       row.groups.join(", ") + (row.group_count > row.groups.length ? ` … ${row.group_count}` : ""),
                       clock(row.since), ago(row.heard), row.from.map(peer).join(", ")]
                    : ["…", "", "", "", "", "", "", ""];
  texts.forEach((text, column) => {
    const cell = made.children[column], shown = visible(text);
    if (cell.textContent !== shown) cell.textContent = cell.title = shown;
  });
}

function newRow(index) {
  const made = element("div", "row", ...COLUMNS.map((name) => {
    const cell = element("span", name);
    cell.setAttribute("role", "gridcell");
    return cell;
  }));
  made.setAttribute("role", "row");
  made.id = "row-" + index;
  return made;
}

function showTable() {
  const [first, end] = visibleRange(), height = rowHeight(), scroller = $("scroller");
  $("spacer").style.height = table.matching * height + "px";
  for (const [index, made] of table.elements)
    if (index < first || index >= end) { made.remove(); table.elements.delete(index); }
  for (let index = first; index < end; ++index) {
    let made = table.elements.get(index);
    if (!made) {
      made = newRow(index);
      table.elements.set(index, made);
      scroller.append(made);
    }
    made.style.transform = `translateY(${index * height}px)`;
    fillRow(made, rowAt(index), index);
    if (!rowAt(index)) askPage(Math.floor(index / PAGE));
  }
  scroller.setAttribute("aria-activedescendant", "row-" + table.chosen);
  $("table").setAttribute("aria-rowcount", table.matching + 1);
  $("found").textContent = table.search ? `${number(table.matching)} of ${number(table.total)}` : `${number(table.total)}`;
  $("nobody").hidden = table.matching !== 0;
  $("nobody").textContent = table.problem || (table.search ? "Nobody matches." : "Nobody has been reported yet, or everybody has expired.");
  for (const button of document.querySelectorAll("[data-sort]")) {
    const mine = button.dataset.sort === table.sort;
    button.parentElement.setAttribute("aria-sort", !mine ? "none" : table.order === "asc" ? "ascending" : "descending");
  }
}

function choose(index) {
  table.chosen = Math.max(0, Math.min(index, table.matching - 1));
  table.chosenNumber = rowAt(table.chosen)?.number ?? null;
  const scroller = $("scroller"), height = rowHeight(), top = table.chosen * height;
  if (top < scroller.scrollTop) scroller.scrollTop = top;
  if (top + height > scroller.scrollTop + scroller.clientHeight) scroller.scrollTop = top + height - scroller.clientHeight;
  showTable();
}

function tableKey(event) {
  const page = Math.max(1, Math.floor($("scroller").clientHeight / rowHeight()) - 1);
  const steps = {ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -Infinity, End: Infinity};
  if (event.key in steps) choose(steps[event.key] === Infinity ? table.matching : table.chosen + steps[event.key]);
  else if (event.key === "Enter") showIdentity(rowAt(table.chosen));
  else return;
  event.preventDefault();
}

// ---- details, in the dialog ----

function showDetails(title, ...children) {
  $("details-title").textContent = visible(title);
  $("details-body").replaceChildren(...children);
  if (!$("details").open) $("details").showModal();
  $("details-body").scrollTop = 0;
}

function pairs(list) {
  const body = element("tbody");
  for (const [name, value] of list) {
    if (value === "" || value === undefined || value === null) continue;
    body.append(element("tr", "", element("th", "", name), element("td", "", visible(String(value)))));
  }
  return element("table", "", body);
}

async function showIdentity(row) {
  if (!row) return;
  try {
    const one = await fetchJson("/api/identities/" + row.number);
    const sources = one.from.map((from) => [
      `from ${peer(from)}`, `${from.transport}, connection ${from.connection} since ${clock(from.connected)}` +
        `${from.ended ? `, ended ${clock(from.ended)}` : ""}; said so since ${clock(from.since)}, last ${ago(from.heard)} ago`]);
    showDetails(one.user || one.computer || one.address,
                pairs([["address", one.address], ["user", one.user], ["DN", one.user_dn], ["OU", one.user_ou],
                       ["computer", one.computer], ["computer's DN", one.computer_dn], ["computer's OU", one.computer_ou],
                       ["since", `${clock(one.since)} (${ago(one.since)})`], ["last heard of", `${clock(one.heard)} (${ago(one.heard)})`],
                       ...sources, ...one.groups.map((group) => ["group", group.dn ? `${group.domain} (${group.dn})` : group.domain])]));
  } catch (error) {
    showDetails(row.user, element("p", "", error.message));
  }
}

function fieldRow(field) {
  const bytes = (field.bytes.match(/../g) || []).join(" ") + (field.bytes.length / 2 < field.length ? " …" : "");
  const value = element("td", "", visible(field.value) + (field.wrong ? `${field.value ? ": " : ""}${field.wrong}` : ""));
  return element("tr", field.wrong ? "wrong" : "", element("td", "offset", String(field.offset)), element("th", "", field.name),
                 element("td", "bytes", bytes), value);
}

async function showReport(report) {
  try {
    const one = await fetchJson("/api/reports/" + report.number);
    const head = element("thead", "", element("tr", "", element("th", "offset", "offset"), element("th", "", "field"),
                                              element("th", "bytes", "bytes"), element("th", "", "value")));
    showDetails(`${one.kind} #${one.number}`,
                pairs([["came", clock(one.time)], ["from", `${peer(one.from)} (${one.from.transport}, connection ${one.from.connection})`],
                       ["refused", one.reason], ["answer's status", one.status], ["length", `${one.length} bytes`]]),
                element("table", "fields", head, element("tbody", "", ...one.fields.map(fieldRow))));
  } catch (error) {
    showDetails(`${report.kind} #${report.number}`, element("p", "", error.message));
  }
}

// ---- the last reports ----

const REPORTS_SHOWN = 100;
const reports = {list: [], newest: 0, held: false, waiting: 0, early: null};

function takeReports(list) {  // the newest first
  if (reports.early) {  // those before them are on the way
    reports.early.push(list);
    if (reports.early.length > REPORTS_SHOWN) reports.early.shift();
    return;
  }
  const fresh = list.filter((report) => report.number > reports.newest);
  if (!fresh.length) return;
  reports.waiting += reports.newest ? fresh[0].number - reports.newest : fresh.length;
  reports.newest = fresh[0].number;
  reports.list = [...fresh, ...reports.list].slice(0, REPORTS_SHOWN);
  if (!reports.held) showReports();
  else showHeld();
}

function showHeld() {
  $("paused").hidden = !reports.held || !reports.waiting;
  $("paused").textContent = `held while you look: ${number(reports.waiting)} more`;
}

// older: the one that is shown after it.
function reportItem(report, older) {
  const who = report.kind === "refused" ? report.reason : [report.user || report.computer || "–", report.address].filter(Boolean).join(" · ");
  const text = element("span", "", visible(who));
  if (report.status) text.append(element("b", "status", ` status ${report.status}`));
  const button = element("button", "", element("time", "", clock(report.time)), element("span", "kind", report.kind), text);
  button.type = "button";
  button.title = `from ${peer(report.from)}`;
  button.addEventListener("click", () => showReport(report));
  const item = element("li", report.kind, button);
  item.dataset.number = report.number;
  const missing = older ? report.number - older.number - 1 : 0;
  if (missing) item.append(element("p", "gap", `and ${number(missing)} more`));
  return item;
}

// New ones come to the top, and as many leave at the end.
function showReports() {
  const list = $("reports"), shown = Number(list.firstElementChild?.dataset.number ?? 0);
  list.prepend(...reports.list.flatMap((report, at, list) => (report.number > shown ? [reportItem(report, list[at + 1])] : [])));
  while (list.childElementCount > REPORTS_SHOWN) list.lastElementChild.remove();
  reports.waiting = 0;
  showHeld();
}

function holdReports(held) {
  reports.held = held;
  if (!held) showReports();
}

// ---- agents ----

const AGENTS_SHOWN = 200;

async function showAgents() {
  if (document.hidden) return;
  const {agents, more} = await fetchJson("/api/agents");
  const unshown = more + Math.max(0, agents.length - AGENTS_SHOWN);
  $("agents").replaceChildren(...agents.slice(0, AGENTS_SHOWN).map((agent) => {
    const figures = `${number(agent.identities)} identities, ${number(agent.reports)} reports`;
    return element("li", agent.ended ? "gone" : "", element("span", "", `${peer(agent)} ${agent.transport}`),
                   element("span", "figures", agent.ended ? `gone ${clock(agent.ended)}` : `since ${clock(agent.connected)}`),
                   element("span", "", figures), element("span", "figures", `last ${ago(agent.last)} ago`));
  }), ...(unshown ? [element("li", "gap", `and ${number(unshown)} more`)] : []));
}

// ---- reports per second ----

const SECONDS = 120;
const seconds = new Map();
const KINDS = [["heartbeats", "heartbeat"], ["logons", "logon"], ["logoffs", "logoff"], ["refusals", "refused"]];
const sum = (second) => KINDS.reduce((all, [name]) => all + (second ? second[name] : 0), 0);

function takeSeconds(list, now) {
  for (const second of list) seconds.set(second.at, second);
  const last = Math.floor(now / 1000) - 1;  // the present one is not over yet
  for (const at of seconds.keys()) if (at < last - SECONDS || at > last + 1) seconds.delete(at);
  if (last !== chart.last) drawChart(last);
}

// What asking for costs much is asked for when it changes.
const chart = {last: 0, width: 0, height: 0, colors: {}};

function measureChart() {
  const canvas = $("chart"), ratio = devicePixelRatio || 1, style = getComputedStyle(document.documentElement);
  chart.width = canvas.clientWidth;
  chart.height = canvas.clientHeight;
  canvas.width = chart.width * ratio;
  canvas.height = chart.height * ratio;
  canvas.getContext("2d").scale(ratio, ratio);
  for (const name of ["line", "heartbeat", "logon", "logoff", "refused"]) chart.colors[name] = style.getPropertyValue("--" + name);
  drawChart(chart.last);
}

function drawChart(last) {
  const canvas = $("chart"), draw = canvas.getContext("2d"), {width, height} = chart;
  chart.last = last;
  draw.clearRect(0, 0, width, height);
  const peak = Math.max(1, ...[...seconds.values()].map(sum)), bar = width / SECONDS;
  for (let i = 0; i < SECONDS; ++i) {
    const second = seconds.get(last - SECONDS + 1 + i);
    let base = height - 1;
    for (const [name, kind] of second ? KINDS : []) {
      const tall = second[name] ? Math.max(1, second[name] / peak * (height - 2)) : 0;
      draw.fillStyle = chart.colors[kind];
      draw.fillRect(i * bar, base - tall, Math.max(1, bar - 0.5), tall);
      base -= tall;
    }
  }
  draw.fillStyle = chart.colors.line;
  draw.fillRect(0, height - 1, width, 1);
  const rate = sum(seconds.get(last));
  $("rate").textContent = number(rate);
  $("peak").textContent = `(two minutes, at most ${number(peak)})`;
  canvas.setAttribute("aria-label", `reports per second: ${rate}; at most ${peak} in two minutes`);
}

// ---- the stream ----

function takeState(state) {
  const now = Date.parse(state.time);
  ahead = now - Date.now();
  for (const name of ["identities", "connections", "logons", "logoffs", "refusals"]) $(name).textContent = number(state[name]);
  document.title = `Keldwick: ${number(state.identities)} identities`;
  table.version = state.version;
  takeSeconds(state.seconds, now);
  refreshTable();
}

function live(text, className) {
  $("live").textContent = text;
  $("live").className = className;
}

async function begin(event) {
  live("live", "on");
  seconds.clear();
  $("reports").replaceChildren();
  reports.list = [];
  reports.newest = 0;
  const early = reports.early = [];
  table.shownVersion = 0;
  takeState(JSON.parse(event.data));
  const kept = await fetchJson("/api/reports?limit=" + REPORTS_SHOWN).catch(() => ({reports: []}));
  if (early !== reports.early) return;  // it has begun again meanwhile
  reports.early = null;
  for (const list of [kept.reports, ...early]) takeReports(list);
  showAgents().catch(() => {});
}

let stream = null;

// A page that is not in view has no stream: a browser has only six connections to one server.
function listen() {
  stream?.close();
  stream = null;
  if (document.hidden) return live("not in view", "off");
  const mine = stream = new EventSource("/api/stream");
  stream.addEventListener("first", begin);
  stream.addEventListener("next", (event) => {
    const state = JSON.parse(event.data);
    takeState(state);
    takeReports(state.reports);
  });
  stream.addEventListener("error", () => {
    live("connection lost, trying again", "off");
    if (mine.readyState === EventSource.CLOSED) setTimeout(() => { if (stream === mine) listen(); }, 3000);
  });
}

// ---- light and dark, keys, everything that is pressed ----

const THEMES = ["auto", "light", "dark"];
const systemDark = matchMedia("(prefers-color-scheme: dark)");
let theme = "auto";
try { theme = THEMES.find((one) => one === localStorage.getItem("theme")) || "auto"; } catch { /* nothing may be kept */ }

function applyTheme() {
  const root = document.documentElement;
  root.dataset.theme = theme;
  root.toggleAttribute("data-dark", theme === "dark" || (theme === "auto" && systemDark.matches));
  $("theme").textContent = theme;
  measureChart();
}

function nextTheme() {
  theme = THEMES[(THEMES.indexOf(theme) + 1) % THEMES.length];
  try { localStorage.setItem("theme", theme); } catch { /* it lasts as long as the page */ }
  applyTheme();
}

function showPart(name) {
  document.body.dataset.view = name;
  for (const button of document.querySelectorAll("nav button")) button.setAttribute("aria-pressed", button.dataset.shows === name);
  showTable();
}

function showKeys() {
  const keys = [["/", "search"], ["Escape", "clear the search and go to the table; close what is open"], ["↑ ↓ Page Home End", "move in the table"],
                ["Enter", "all of the chosen identity"], ["r", "the last reports (Tab, Enter)"], ["t", "light, dark, as the system"],
                ["?", "this list"]];
  showDetails("Keys", element("table", "", element("tbody", "", ...keys.map(([key, what]) =>
    element("tr", "", element("td", "", element("kbd", "", key)), element("td", "", what))))));
}

function anyKey(event) {
  if (event.ctrlKey || event.altKey || event.metaKey || $("details").open) return;
  const typing = event.target === $("search");
  if (typing && event.key === "Escape") { $("search").value = ""; search(); $("scroller").focus(); }
  else if (typing && (event.key === "ArrowDown" || event.key === "Enter")) $("scroller").focus();
  else if (typing) return;
  else if (event.key === "/") { showPart("identities"); $("search").focus(); $("search").select(); }
  else if (event.key === "r") { showPart("reports"); $("reports").querySelector("button")?.focus(); }
  else if (event.key === "t") nextTheme();
  else if (event.key === "?") showKeys();
  else return;
  event.preventDefault();
}

function search() {
  if ($("search").value.trim() === table.search) return;
  table.search = $("search").value.trim();
  newView();
}

function sortBy(name) {
  table.order = table.sort === name ? (table.order === "asc" ? "desc" : "asc") : name === "since" || name === "heard" ? "desc" : "asc";
  table.sort = name;
  newView();
}

function start() {
  applyTheme();
  systemDark.addEventListener("change", applyTheme);
  $("theme").addEventListener("click", nextTheme);
  $("help").addEventListener("click", showKeys);
  $("close").addEventListener("click", () => $("details").close());
  $("details").addEventListener("click", (event) => { if (event.target === $("details")) $("details").close(); });
  for (const button of document.querySelectorAll("nav button")) button.addEventListener("click", () => showPart(button.dataset.shows));
  for (const button of document.querySelectorAll("[data-sort]")) button.addEventListener("click", () => sortBy(button.dataset.sort));
  let typing = 0;
  $("search").addEventListener("input", () => { clearTimeout(typing); typing = setTimeout(search, 150); });
  $("scroller").addEventListener("scroll", () => requestAnimationFrame(showTable), {passive: true});
  $("scroller").addEventListener("keydown", tableKey);
  $("scroller").addEventListener("click", (event) => {
    const row = event.target.closest(".row");
    if (!row) return;
    choose(Number(row.id.slice(4)));
    showIdentity(rowAt(table.chosen));
  });
  const list = $("reports");
  list.addEventListener("pointerenter", () => holdReports(true));
  list.addEventListener("pointerleave", () => holdReports(list.contains(document.activeElement)));
  list.addEventListener("focusin", () => holdReports(true));
  list.addEventListener("focusout", (event) => { if (!list.contains(event.relatedTarget)) holdReports(false); });
  document.addEventListener("keydown", anyKey);
  addEventListener("resize", () => { measureChart(); showTable(); });
  showPart("identities");
  newView();
  document.addEventListener("visibilitychange", listen);
  listen();
  setInterval(showTable, 1000);  // "heard of" grows by itself
  setInterval(() => showAgents().catch(() => {}), 5000);
}

start();
