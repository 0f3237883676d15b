"use strict";

// Whatever a log holds reaches the document as text: nothing here parses markup, and the policy
// that the page is served with would not let it.

const MOST_CARDS = 300;
const MOST_LANES = 12;
const PRESETS = [
  ["503 for 10 s", "status=503,for=10s"],
  ["Slow by 5 s, 3 times", "delay=5s,times=3"],
  ["No answer, once", "drop-answer,times=1"],
  ["Reset in the request, once", "reset-after=100bytes,times=1"],
  ["Reset in the answer, once", "reset-answer=12bytes,times=1"],
  ["400, once: the log is given up", "status=400,times=1"],
];

const byId = (id) => document.getElementById(id);
const state = {
  token: "", cards: [], buckets: new Map(), bucketSeconds: 10, account: null, faults: [], faultsAt: 0, faultsSequence: 0,
  name: "", session: "", events: [], nextEvents: null, fresh: new Set(), unseen: 0, ready: false,
};

// -- Building

function make(tag, properties, ...children) {
  const element = document.createElement(tag);
  for (const [key, value] of Object.entries(properties || {})) {
    if (key === "class") element.className = value;
    else if (key.startsWith("on")) element.addEventListener(key.slice(2), value);
    else if (value !== undefined && value !== false) element.setAttribute(key, value === true ? "" : value);
  }
  element.append(...children.flat(Infinity));
  return element;
}

// What a screen would act on, or not show at all, as a mark that says what it is.
const HIDDEN = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]/u;

function visible(text, keepLines = false) {
  const nodes = [];
  let plain = "";
  for (const character of String(text)) {
    if (!HIDDEN.test(character) || (keepLines && character === "\n")) {
      plain += character;
      continue;
    }
    if (plain) nodes.push(plain);
    plain = "";
    const code = character.codePointAt(0);
    const short = { 9: "\\t", 10: "\\n", 13: "\\r" }[code];
    nodes.push(make("span", { class: "escape" }, short || "\\u" + code.toString(16).padStart(4, "0")));
  }
  if (plain) nodes.push(plain);
  return make("bdi", {}, nodes);
}

const nameOf = (text) => (text === "" || text == null ? make("span", { class: "note" }, "no name") : visible(text));
/** The class of a frame in words. */
const kindOf = (name) => name.replace(/^Skelda(Stream)?/, "").replace(/([a-z])([A-Z])|([A-Z])([A-Z][a-z])/g, "$1$3 $2$4") || "unknown";
const count = (number) => Number(number || 0).toLocaleString("en");
const plural = (number, one, many) => `${count(number)} ${number === 1 ? one : many}`;

function size(bytes) {
  const units = ["B", "KB", "MB", "GB", "TB"];
  let unit = 0;
  for (; bytes >= 1000 && unit < units.length - 1; ++unit) bytes /= 1000;
  return `${unit && bytes < 100 ? bytes.toFixed(1) : Math.round(bytes)} ${units[unit]}`;
}

function clock(time, withDay = false, fractions = false) {
  const date = new Date(time);
  if (Number.isNaN(date.getTime())) return String(time);
  const two = (number, width = 2) => String(number).padStart(width, "0");
  const day = `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())} `;
  const isToday = date.toDateString() === new Date().toDateString();
  return (withDay || !isToday ? day : "") + `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`
    + (fractions ? `.${two(date.getMilliseconds(), 3)}` : "");
}

function duration(milliseconds) {
  const seconds = Math.max(0, milliseconds) / 1000;
  if (seconds < 10) return `${seconds.toFixed(1)} s`;
  if (seconds < 120) return `${Math.round(seconds)} s`;
  if (seconds < 7200) return `${Math.round(seconds / 60)} min`;
  return `${(seconds / 3600).toFixed(1)} h`;
}

// -- Asking

async function ask(path, options) {
  const answer = await fetch(path, options);
  const content = await answer.json();
  if (!answer.ok) throw new Error(content.error || `status ${answer.status}`);
  return content;
}

/** Runs `work` soon, and not more than once in `pause` milliseconds, however often it is asked for. */
function paced(work, pause) {
  let timer = 0;
  let last = -Infinity;
  return () => {
    if (timer) return;
    timer = setTimeout(() => {
      timer = 0;
      last = performance.now();
      work();
    }, Math.max(30, last + pause - performance.now()));
  };
}

function say(what, text) {
  const link = byId("link");
  link.className = `link ${what}`;
  byId("link-text").textContent = text;
}

// -- What is new

let stream = null;

async function load() {
  try {
    const all = await ask("/page/state");
    state.token = all.token;
    state.cards = all.cards;
    state.bucketSeconds = all.bucketSeconds;
    state.buckets = new Map(all.buckets.map((bucket) => [bucket.at, bucket.counts]));
    state.faultsSequence = 0;
    takeFaults(all.faults);
    state.account = await ask("/page/account");
    state.ready = true;
    showAll();
    follow(all.sequence);
  } catch (error) {
    say("lost", "not reachable");
    setTimeout(load, 2000);
  }
}

function follow(after) {
  if (stream) stream.close();
  const mine = new EventSource(`/page/stream?after=${after}`);
  stream = mine;
  const again = () => {
    mine.close();
    if (mine === stream) load();
  };
  mine.onopen = () => say("live", "live");
  mine.onerror = () => {
    // What happened meanwhile, and the token of a collector that was started again, come with all the rest.
    say("lost", "not reachable");
    mine.close();
    setTimeout(again, 1000);
  };
  mine.addEventListener("forgotten", again);
  mine.addEventListener("log", (message) => takeCard(JSON.parse(message.data)));
  mine.addEventListener("refused", () => {
    bump(4, 1);
    refreshAccount();
  });
  mine.addEventListener("faults", (message) => takeFaults({ sequence: Number(message.lastEventId), list: JSON.parse(message.data) }));
}

function bump(which, amount) {
  const at = Math.floor(Date.now() / 1000 / state.bucketSeconds) * state.bucketSeconds;
  if (!state.buckets.has(at)) state.buckets.set(at, [0, 0, 0, 0, 0]);
  state.buckets.get(at)[which] += amount;
}

function takeCard(card) {
  state.cards.unshift(card);
  state.cards.length = Math.min(state.cards.length, MOST_CARDS);
  state.fresh.add(card.n);
  if (card.repeat) bump(3, 1);
  else [1, card.events, card.bytes].forEach((amount, which) => bump(which, amount));
  if (document.hidden) document.title = `(${++state.unseen}) skelda-collector`;
  refreshLogs();
  refreshAccount();
  if (card.events && !card.repeat) refreshEvents();
  announce();
}

let announced = 0;
const announce = paced(() => {
  const numbers = state.cards.map((card) => card.n);
  const newest = numbers.length ? Math.max(...numbers) : 0;
  if (announced) byId("news").textContent = plural(newest - announced, "log arrived", "logs arrived");
  announced = newest;
}, 5000);

const refreshLogs = paced(() => {
  showLogs();
  showTimeline();
  showRates();
}, 200);

const refreshAccount = paced(async () => {
  try {
    state.account = await ask("/page/account");
    takeFaults(state.account.faults);
    showAccount();
    showLogs();
  } catch (error) { /* the stream says that nobody is there */ }
}, 1000);

const refreshEvents = paced(() => {
  // Who reads on further down is left alone.
  if (byId("event-rows").parentElement.scrollTop < 8) searchEvents(false);
}, 1000);

function showAll() {
  showLogs();
  showTimeline();
  showAccount();
  showRates();
  searchEvents(false);
}

// -- Figures and rates

function showFigures() {
  const account = state.account;
  const refused = account.refused.reduce((sum, [, number]) => sum + number, 0);
  const missing = account.watches.reduce((sum, watch) => sum + (watch.numbers ? watch.numbers.missing : 0), 0);
  const figures = [
    ["Logs", count(account.logs), ""], ["Events", count(account.events), ""], ["Received", size(account.bytes), ""],
    ["Repeats", count(account.repeats), account.repeats ? "warn" : ""], ["Refused", count(refused), refused ? "bad" : ""],
    ["Missing", count(missing), missing ? "bad" : ""],
  ];
  byId("figures").replaceChildren(...figures.map(([name, value, kind]) =>
    make("div", { class: kind }, make("dt", {}, name), make("dd", {}, value))));
}

function showRates() {
  const canvas = byId("rates");
  const scale = window.devicePixelRatio || 1;
  const { clientWidth: width, clientHeight: height } = canvas;
  canvas.width = width * scale;
  canvas.height = height * scale;
  const draw = canvas.getContext("2d");
  draw.scale(scale, scale);
  const colours = getComputedStyle(document.documentElement);
  const step = state.bucketSeconds;
  const now = Math.floor(Date.now() / 1000 / step) * step;
  const bars = 180;
  const values = Array.from({ length: bars }, (_, i) => (state.buckets.get(now - (bars - 1 - i) * step) || [0, 0])[1]);
  const most = Math.max(1, ...values);
  draw.fillStyle = colours.getPropertyValue("--line");
  draw.fillRect(0, height - 1, width, 1);
  draw.fillStyle = colours.getPropertyValue("--accent");
  values.forEach((value, i) => {
    const tall = value ? Math.max(2, (value / most) * (height - 4)) : 0;
    draw.fillRect((i * width) / bars, height - tall, Math.max(1, width / bars - 0.6), tall);
  });
  const minute = [0, 0];
  for (let at = now - 50; at <= now; at += step) (state.buckets.get(at) || []).slice(0, 2).forEach((n, i) => { minute[i] += n; });
  byId("rates-text").textContent = `${plural(minute[1], "event", "events")} a minute\n${plural(minute[0], "log", "logs")} a minute`;
  canvas.setAttribute("aria-label", `Events in the last 30 minutes, at most ${most} in ${step} seconds`);
  for (const at of state.buckets.keys()) if (at < now - bars * step) state.buckets.delete(at);
}

// -- Sessions

const sessionKey = (card, id) => `${card.key} ${card.installation || ""} ${id}`;

function sessions() {
  const found = new Map();
  for (const card of state.cards) {
    for (const session of card.sessions) {
      const key = sessionKey(card, session.id);
      if (!found.has(key)) found.set(key, { id: session.id, last: session.id, ended: false, logs: [], watch: card.application });
      const known = found.get(key);
      known.last = Math.max(known.last, session.last);
      known.ended ||= session.ended;
      known.logs.push({ at: session.last, repeat: Boolean(card.repeat), n: card.n });
    }
  }
  return [...found.values()].sort((a, b) => b.id - a.id);
}

function showTimeline() {
  const all = sessions();
  const shown = all.slice(0, MOST_LANES);
  const held = document.activeElement && document.activeElement.dataset.session;
  showSessionChoice(all);
  if (!shown.length) {
    byId("timeline").replaceChildren(make("p", { class: "empty" }, "Sessions appear here with the logs that tell of them."));
    return;
  }
  const from = Math.min(...shown.map((session) => session.id));
  const to = Math.max(from + 1000, ...shown.map((session) => session.last));
  const place = (time) => `${Math.min(100, Math.max(0, ((time - from) / (to - from)) * 100))}%`;
  const lanes = shown.map((session) => {
    const bar = make("span", { class: session.ended ? "bar" : "bar open" });
    bar.style.left = place(session.id);
    bar.style.width = `calc(${place(session.last)} - ${place(session.id)})`;
    const ticks = session.logs.map((log) => {
      const tick = make("span", { class: log.repeat ? "tick repeat" : "tick" });
      tick.style.left = place(log.at);
      return tick;
    });
    const logs = session.logs.filter((log) => !log.repeat).length;
    const took = duration(session.last - session.id);
    const about = `Session of ${clock(session.id, true)}, ${session.ended ? "ended after" : "open, so far"} ${took}, ${plural(logs, "log", "logs")}`;
    return make("button", {
      class: "lane", type: "button", title: about, "aria-label": about, "data-session": session.id,
      "aria-pressed": String(state.session === String(session.id)),
      onclick: () => choose({ session: state.session === String(session.id) ? "" : String(session.id) }),
    }, make("span", { class: "label" }, `${clock(session.id)} \u00b7 ${took}`), make("span", { class: "track" }, bar, ticks));
  });
  const marks = [0, 0.25, 0.5, 0.75, 1].map((part) => make("span", {}, clock(from + part * (to - from), false, to - from < 20000).split(" ").pop()));
  byId("timeline").replaceChildren(...lanes, make("div", { class: "axis", "aria-hidden": "true" }, make("span", {}, all.length > shown.length ? `and ${all.length - shown.length} before` : ""), make("div", {}, marks)));
  if (held) byId("timeline").querySelector(`[data-session="${CSS.escape(held)}"]`)?.focus();
}

function showSessionChoice(all) {
  const select = byId("session");
  const wanted = all.map((session) => String(session.id));
  if (state.session && !wanted.includes(state.session)) wanted.unshift(state.session);
  const there = [...select.options].slice(1).map((option) => option.value);
  if (wanted.join() !== there.join()) {
    select.replaceChildren(make("option", { value: "" }, "All sessions"),
      ...wanted.map((id) => make("option", { value: id }, clock(Number(id), true))));
  }
  select.value = state.session;
}

// -- Filter

function choose({ name = state.name, session = state.session }) {
  state.name = name;
  state.session = session;
  byId("name").value = name;
  byId("clear-filter").disabled = !name && !session;
  showLogs();
  showTimeline();
  searchSoon();
}

function matches(card) {
  const name = state.name.toLowerCase();
  return (!state.session || card.sessions.some((session) => String(session.id) === state.session)) &&
    (!name || card.names.some(([each]) => each.toLowerCase().includes(name)));
}

const searchSoon = paced(() => searchEvents(false), 150);

// -- Logs

function gapBefore(card) {
  const watch = state.account && state.account.watches.find((each) =>
    each.key === card.key && each.installation === (card.installation || ""));
  const gap = watch && watch.numbers && watch.numbers.gaps.find(([, to]) => to + 1 === card.counter);
  return gap ? gap[1] - gap[0] + 1 : 0;
}

function logRow(card) {
  const marks = [];
  if (card.repeat) marks.push(make("span", { class: "mark", title: "These bytes came before" }, `repeat of ${card.repeat}`));
  const gap = card.repeat ? 0 : gapBefore(card);
  if (gap) marks.push(make("span", { class: "mark bad", title: "Numbers before this one have not come" }, `${gap} missing before`));
  const closed = card.closed || "\u2014";
  return make("tr", {
    tabindex: "-1", "data-n": card.n, class: [card.repeat ? "repeat" : "", state.fresh.has(card.n) ? "new" : ""].join(" "),
    "aria-label": `Log ${card.n}, ${plural(card.events, "event", "events")}${card.repeat ? ", a repeat" : ""}`,
  }, make("td", {}, clock(card.time)), make("td", { class: "n" }, String(card.counter ?? "\u2014")),
  make("td", { class: "watch" }, visible(card.application.trim() || `key \u2026${card.key}`)),
  make("td", { class: "n" }, count(card.events)), make("td", { class: "n" }, count(card.frames)),
  make("td", { class: "n" }, count(card.bytes)), make("td", { class: "closed", title: closed }, marks, visible(closed)));
}

function showLogs() {
  const body = byId("log-rows");
  const shown = state.cards.filter(matches);
  const held = body.contains(document.activeElement) ? document.activeElement.dataset.n : null;
  body.replaceChildren(...shown.map(logRow));
  state.fresh.clear();
  const keep = held && body.querySelector(`[data-n="${CSS.escape(held)}"]`);
  if (keep) focusRow(keep);
  else if (body.firstElementChild) body.firstElementChild.tabIndex = 0;
  byId("logs-count").textContent = state.cards.length ? (shown.length === state.cards.length ? `the last ${count(shown.length)}` : `${count(shown.length)} of the last ${count(state.cards.length)}`) : "";
  byId("logs-empty").textContent = shown.length || !state.ready ? "" : state.cards.length
    ? "No log holds that." : "Nothing has come yet. Logs appear here as an agent sends them.";
}

function focusRow(row) {
  for (const other of byId("log-rows").querySelectorAll("[tabindex='0']")) other.tabIndex = -1;
  row.tabIndex = 0;
  row.focus();
}

function moveRow(by) {
  const rows = [...byId("log-rows").children];
  const at = rows.indexOf(document.activeElement);
  const next = rows[at < 0 ? 0 : Math.min(rows.length - 1, Math.max(0, at + by))];
  if (next) focusRow(next);
}

// -- Events

let searching = 0;

async function searchEvents(further) {
  const mine = ++searching;
  const query = new URLSearchParams();
  if (state.name) query.set("name", state.name);
  if (state.session) query.set("session", state.session);
  for (const [key, value] of Object.entries((further && state.nextEvents) || {})) query.set(key, value);
  try {
    const found = await ask(`/page/events?${query}`);
    if (mine !== searching) return;
    state.events = further ? [...state.events, ...found.events] : found.events;
    state.nextEvents = found.next;
    showEvents(further ? found.events : null);
  } catch (error) {
    if (mine === searching && state.ready) byId("events-empty").textContent = error.message;
  }
}

function parameterChips(payload) {
  const chips = [];
  if (payload["sk.event.type"] && payload["sk.event.type"] !== "CUSTOM_EVENT") chips.push(["type", payload["sk.event.type"]]);
  if (payload["sk.event.timed"]) chips.push(["timed", payload["sk.timed.event.starting"] ? "start" : "end"]);
  for (const key of ["sk.event.user.parameters", "sk.event.skelda.parameters"]) {
    chips.push(...Object.entries(payload[key] && typeof payload[key] === "object" ? payload[key] : {}));
  }
  return chips.map(([key, value]) => make("span", { class: "parameter" }, make("b", {}, visible(key)),
    visible(typeof value === "string" ? value : JSON.stringify(value))));
}

function eventRow(event) {
  const payload = event.payload || {};
  const chips = parameterChips(payload);
  return make("li", {}, make("button", { class: "event", type: "button", onclick: () => openLog(event.n, event.offset) },
    make("span", { class: "name" }, nameOf(payload["sk.event.name"])),
    make("time", { title: `in log ${event.n}` }, clock(event.epoch)),
    chips.length ? make("span", { class: "parameters" }, chips) : ""));
}

function showEvents(added) {
  const list = byId("event-rows");
  if (added) list.append(...added.map(eventRow));
  else list.replaceChildren(...state.events.map(eventRow));
  byId("more-events").hidden = !state.nextEvents;
  byId("events-count").textContent = state.events.length ? `${count(state.events.length)}${state.nextEvents ? "+" : ""} newest first` : "";
  byId("events-empty").textContent = state.events.length ? "" : state.name || state.session
    ? "No event is called so in the logs that were searched." : "Events appear here with their names and parameters decoded.";
}

// -- Account

function numbersText(watch) {
  const numbers = watch.numbers;
  if (!numbers) return ["no numbers", ""];
  const gaps = numbers.gaps.map(([from, to]) => (from === to ? `${from}` : `${from}\u2013${to}`)).join(", ");
  const again = numbers.again ? `; ${plural(numbers.again, "number", "numbers")} given twice` : "";
  return [`numbers ${numbers.first} to ${numbers.last}${again}`,
    numbers.missing ? `${plural(numbers.missing, "log has", "logs have")} not come: ${gaps}${numbers.gaps.length >= 50 ? ", and before" : ""}` : ""];
}

function watchLine(watch) {
  const [numbers, gaps] = numbersText(watch);
  const device = [watch.device.trim(), watch.installation && `installation ${watch.installation}`, `key \u2026${watch.key}`].filter(Boolean).join(" \u00b7 ");
  return make("div", { class: "watch-line" },
    make("span", { class: "who" }, visible(watch.application.trim() || "A watch that has not said its name")),
    gaps ? "" : make("span", { class: "whole" }, "no gap"),
    make("span", { class: "what" }, visible(`${plural(watch.logs, "log", "logs")} \u00b7 ${numbers} \u00b7 ${device}`)),
    gaps ? make("span", { class: "gaps" }, gaps) : "");
}

function bars(id, rows, none) {
  const most = Math.max(1, ...rows.map(([, number]) => number));
  byId(id).replaceChildren(...rows.slice(0, 12).map(([what, number, text]) => {
    const line = make("span", { class: "line" });
    line.style.width = `${(number / most) * 100}%`;
    return make("li", { title: String(text ?? what) }, make("span", { class: "what" }, text == null ? nameOf(what) : visible(text)), make("span", { class: "count" }, count(number)), line);
  }));
  if (!rows.length) byId(id).append(make("li", { class: "none" }, none));
}

function showAccount() {
  showFigures();
  const account = state.account;
  byId("watches").replaceChildren(...account.watches.map(watchLine));
  if (!account.watches.length) byId("watches").append(make("p", { class: "empty" }, "No watch has sent anything."));
  bars("names", account.names, "none yet");
  bars("types", account.types.map(([type, name, number]) => [type, number, `${type} ${kindOf(name)}`]), "none yet");
  const reasons = { 400: "no whole log", 401: "API key", 413: "too large", 503: "too much at once" };
  bars("refused", account.refused.map(([status, number]) => [status, number, `${status} ${reasons[status] || ""}`]), "none");
}

// -- Faults

/** An answer may be older than a message that came before it. */
function takeFaults({ sequence, list }) {
  if (sequence < state.faultsSequence) return;
  state.faultsSequence = sequence;
  state.faults = list;
  state.faultsAt = performance.now();
  showFaults();
}

function faultState(fault, first) {
  const met = fault.met ? `met ${plural(fault.met, "time", "times")}` : "";
  const left = fault.remaining == null ? null : fault.remaining - (first && fault.met ? performance.now() - state.faultsAt : 0);
  const rest = fault.times != null ? `${count(fault.times)} to come`
    : left != null ? (first && fault.met ? `${Math.max(0, Math.ceil(left / 1000))} s to go` : `for ${Math.ceil(left / 1000)} s`) : "stays";
  return [first ? met : "waits", rest].filter(Boolean).join(", ");
}

function showFaults() {
  const rows = state.faults.map((fault, i) => make("li", { class: i ? "" : "playing" },
    make("code", {}, visible(fault.text)), make("span", { class: "note" }, faultState(fault, i === 0))));
  byId("fault-list").replaceChildren(...(rows.length ? rows : [make("li", { class: "well" }, "All is well.")]));
  byId("well").disabled = !rows.length;
}

async function changeFaults(change) {
  const answer = byId("fault-answer");
  try {
    takeFaults(await ask("/page/faults", {
      method: "POST", body: JSON.stringify(change),
      headers: { "Content-Type": "application/json", "X-Skelda-Token": state.token },
    }));
    answer.textContent = "";
    answer.className = "hint";
    return true;
  } catch (error) {
    answer.textContent = error.message;
    answer.className = "hint bad";
    return false;
  }
}

// -- One log, its frames beside its bytes

const opened = { n: 0, content: null, frames: [], pieces: new Map(), rows: [], chosen: -1, starts: [0], next: null };

async function openLog(n, offset = null) {
  opened.n = n;
  opened.starts = [0];
  byId("environment").open = false;
  try {
    let content = await showFrames();
    for (let i = 0; offset !== null && offset >= content.end && content.next !== null && i < 200; ++i) {
      opened.starts.push(content.next);
      content = await showFrames();
    }
  } catch (error) {
    byId("log-title").textContent = `Log ${n}`;
    byId("log-note").textContent = error.message;
    clearFrames();
  }
  if (!byId("log").open) byId("log").showModal();
  byId("frames").focus();
  const at = opened.frames.findIndex((frame) => frame.offset === offset);
  if (opened.frames.length) chooseFrame(Math.max(0, at));
}

function clearFrames() {
  opened.frames = [];
  opened.rows = [];
  opened.pieces.clear();
  opened.chosen = -1;
  for (const id of ["frames", "bytes", "environment-list"]) byId(id).replaceChildren();
}

async function showFrames() {
  const from = opened.starts[opened.starts.length - 1];
  const content = await ask(`/page/log?n=${opened.n}&from=${from}`);
  const { line } = content;
  if (from === 0) clearFrames();
  byId("log-title").textContent = `Log ${opened.n}${line.counter ? `, number ${line.counter} of its watch` : ""}`;
  byId("log-note").replaceChildren(visible([`arrived ${clock(line.time, true)}`, `${count(line.bytes)} bytes`, plural(line.frames, "frame", "frames"),
    plural(line.events, "event", "events"), `key \u2026${line.key}`, line.repeat ? `a repeat of log ${line.repeat}` : "", `SHA-256 ${String(line.sha256).slice(0, 16)}\u2026`, line.file].filter(Boolean).join(" \u00b7 ")));
  if (content.environment) showEnvironment(content.environment);
  opened.content = content;
  opened.frames = content.frames;
  opened.next = content.next;
  opened.chosen = -1;
  opened.rows = content.frames.map(frameRow);
  byId("frames").replaceChildren(...opened.rows);
  byId("frames").scrollTop = 0;
  showBytes(content);
  byId("earlier-frames").disabled = opened.starts.length === 1;
  byId("later-frames").disabled = content.next === null;
  byId("frames-note").textContent = content.frames.length
    ? `frames ${from + 1} to ${from + content.frames.length} of ${count(line.frames)}` : "no frames";
  return content;
}

function showEnvironment(records) {
  const flat = (value, path, rows) => {
    if (value !== null && typeof value === "object") {
      for (const [key, each] of Object.entries(value)) flat(each, key === "value" ? path : [...path, key], rows);
    } else {
      rows.push([path.slice(-1)[0] ?? "", value]);
    }
    return rows;
  };
  byId("environment-list").replaceChildren(...records.map((record) => make("div", {},
    make("h3", {}, `${record.type} ${kindOf(record.class)}`),
    make("dl", {}, flat(record.payload, [], []).map(([key, value]) => [make("dt", {}, visible(key.replace(/^sk\./, ""))), make("dd", {}, visible(value))])))));
  byId("environment").hidden = !records.length;
}

function frameRow(frame, i) {
  const event = frame.payload && frame.payload["sk.event.name"];
  const text = frame.payload ? JSON.stringify(frame.payload) : frame.payloadText || "";
  const facts = `version ${frame.version}${frame.bigEndian ? ", big-endian" : ""}, uptime ${frame.uptime} ms, header ${frame.header} + payload ${frame.payloadLength}`
    + (frame.crc != null ? `, CRC-32 ${frame.crc.toString(16).padStart(8, "0")}` : "");
  return make("li", {
    class: "frame", role: "option", id: `frame-${i}`, "aria-selected": "false", onclick: () => chooseFrame(i, "bytes"),
    onpointerenter: () => mark(i, "hovered", true), onpointerleave: () => mark(i, "hovered", false),
  }, make("div", { class: "line1" }, make("span", { class: "kind" }, `${frame.type} ${kindOf(frame.class)} `, event != null ? nameOf(event) : ""),
    make("span", { class: "place" }, `${frame.offset} +${frame.length} \u00b7 ${frame.time.slice(11, 23) || frame.time}`)),
  make("div", { class: "facts" }, facts),
  make("div", { class: "payload", "data-pretty": "" }, visible(text)));
}

const NARROW = window.matchMedia("(max-width: 700px)");

function pieceOf(frame, offset) {
  const inside = offset - frame.offset;
  if (inside < frame.header) return ["head", frame.offset + frame.header];
  const body = frame.header + frame.payloadLength;
  return inside < body ? ["body", frame.offset + body] : ["check", frame.offset + frame.length];
}

function showBytes(content) {
  const raw = atob(content.bytes);
  const narrow = NARROW.matches;
  const width = narrow ? 8 : 16;
  const box = byId("bytes");
  box.className = narrow ? "bytes narrow" : "bytes";
  opened.pieces = new Map(content.frames.map((_, i) => [i, []]));
  const rows = [];
  let at = 0;
  const first = content.from - (content.from % width);
  for (let begin = first; begin < content.from + raw.length; begin += width) {
    const hex = make("span", { class: "hex" });
    const plain = make("span", { class: "plain" });
    let offset = Math.max(begin, content.from);
    hex.append("   ".repeat(offset - begin));
    plain.append(" ".repeat(offset - begin));
    const end = Math.min(begin + width, content.from + raw.length);
    while (offset < end) {
      while (at < content.frames.length - 1 && offset >= content.frames[at].offset + content.frames[at].length) ++at;
      const [kind, stop] = pieceOf(content.frames[at], offset);
      const upTo = Math.min(end, Math.max(stop, offset + 1));
      const bytes = [...raw.slice(offset - content.from, upTo - content.from)].map((c) => c.charCodeAt(0));
      const i = at;
      const events = { onclick: () => chooseFrame(i, "frames"), onpointerenter: () => mark(i, "hovered", true), onpointerleave: () => mark(i, "hovered", false) };
      const left = make("span", { class: `piece ${kind}`, ...events }, bytes.map((byte) => byte.toString(16).padStart(2, "0")).join(" "));
      const right = make("span", { class: `piece ${kind}`, ...events }, bytes.map((byte) => (byte > 31 && byte < 127 ? String.fromCharCode(byte) : "\u00b7")).join(""));
      opened.pieces.get(i).push(left, right);
      hex.append(left, upTo < end ? " " : "");
      plain.append(right);
      offset = upTo;
    }
    rows.push(make("div", { class: "row" }, make("span", { class: "at" }, begin.toString(16).padStart(6, "0")), hex, plain));
  }
  box.replaceChildren(...rows);
  box.scrollTop = 0;
  const whole = raw.length === content.end - content.from;
  byId("bytes-note").textContent = whole ? "" : `the first ${count(raw.length)} of ${count(content.end - content.from)}`;
}

function mark(i, kind, on) {
  for (const piece of opened.pieces.get(i) || []) piece.classList.toggle(kind, on);
}

function showPayload(i, pretty) {
  const frame = opened.frames[i];
  const text = frame.payload ? JSON.stringify(frame.payload, null, pretty ? 2 : 0) : frame.payloadText || "";
  opened.rows[i].querySelector(".payload").replaceChildren(visible(text, pretty));
}

/** `follow` is the side that is scrolled to it: where it was not chosen. */
function chooseFrame(i, follow = "both") {
  const before = opened.chosen;
  if (before >= 0 && opened.rows[before]) {
    mark(before, "chosen", false);
    opened.rows[before].setAttribute("aria-selected", "false");
    showPayload(before, false);
  }
  opened.chosen = i;
  mark(i, "chosen", true);
  opened.rows[i].setAttribute("aria-selected", "true");
  showPayload(i, true);
  byId("frames").setAttribute("aria-activedescendant", `frame-${i}`);
  if (follow !== "bytes") opened.rows[i].scrollIntoView({ block: "nearest" });
  if (follow !== "frames") opened.pieces.get(i)[0]?.scrollIntoView({ block: "start" });
}

async function turn(by) {
  if (by > 0 && opened.next !== null) opened.starts.push(opened.next);
  else if (by < 0 && opened.starts.length > 1) opened.starts.pop();
  else return false;
  await showFrames();
  chooseFrame(by > 0 ? 0 : opened.frames.length - 1);
  return true;
}

// -- Hands

function frameKey(event) {
  const last = opened.frames.length - 1;
  const moves = { ArrowDown: 1, j: 1, ArrowUp: -1, k: -1, PageDown: 10, PageUp: -10, Home: -Infinity, End: Infinity };
  if (!(event.key in moves) || last < 0) return;
  event.preventDefault();
  const wanted = opened.chosen + moves[event.key];
  if (Math.abs(moves[event.key]) === 1 && (wanted < 0 || wanted > last)) turn(moves[event.key]);
  else chooseFrame(Math.min(last, Math.max(0, wanted)));
}

function pageKey(event) {
  if (event.ctrlKey || event.metaKey || event.altKey || byId("log").open) return;
  if (event.target.matches("input, select, textarea")) {
    if (event.key === "Escape" && event.target === byId("name")) choose({ name: "" });
    return;
  }
  const row = event.target.closest("#log-rows tr");
  if (event.key === "/") byId("name").focus();
  else if (event.key === "j" || (row && event.key === "ArrowDown")) moveRow(1);
  else if (event.key === "k" || (row && event.key === "ArrowUp")) moveRow(-1);
  else if (row && (event.key === "Enter" || event.key === " ")) openLog(Number(row.dataset.n));
  else return;
  event.preventDefault();
}

function begin() {
  byId("fault-buttons").append(
    ...PRESETS.map(([text, fault]) => make("button", { type: "button", title: fault, onclick: () => changeFaults({ add: fault }) }, text)),
    make("button", { type: "button", id: "well", onclick: () => changeFaults({ clear: true }) }, "All is well again"));
  byId("fault-form").addEventListener("submit", async (event) => {
    event.preventDefault();
    if (await changeFaults({ add: byId("fault").value.trim() })) byId("fault").value = "";
  });
  byId("filter").addEventListener("submit", (event) => event.preventDefault());
  byId("name").addEventListener("input", () => choose({ name: byId("name").value }));
  byId("session").addEventListener("change", () => choose({ session: byId("session").value }));
  byId("clear-filter").addEventListener("click", () => choose({ name: "", session: "" }));
  byId("more-events").addEventListener("click", () => searchEvents(true));
  byId("log-rows").addEventListener("click", (event) => {
    const row = event.target.closest("tr");
    if (row) openLog(Number(row.dataset.n));
  });
  byId("close-log").addEventListener("click", () => byId("log").close());
  byId("log").addEventListener("close", () => byId("log-rows").querySelector(`[data-n="${opened.n}"]`)?.focus());
  byId("earlier-frames").addEventListener("click", () => turn(-1));
  byId("later-frames").addEventListener("click", () => turn(1));
  byId("frames").addEventListener("keydown", frameKey);
  document.addEventListener("keydown", pageKey);
  document.addEventListener("visibilitychange", () => {
    if (document.hidden) return;
    state.unseen = 0;
    document.title = "skelda-collector";
  });
  window.addEventListener("resize", paced(showRates, 150));
  NARROW.addEventListener("change", () => {
    if (!opened.frames.length) return;
    showBytes(opened.content);
    if (opened.chosen >= 0) chooseFrame(opened.chosen);
  });
  window.matchMedia("(prefers-color-scheme: dark)").addEventListener("change", showRates);
  setInterval(() => {
    if (!state.ready) return;
    if (state.faults.length) showFaults();
    const playing = state.faults[0];
    if (playing && playing.met && playing.remaining != null && playing.remaining < performance.now() - state.faultsAt) refreshAccount();
  }, 1000);
  setInterval(() => state.ready && showRates(), 10000);
  showFaults();
  showRates();
  load();
}

begin();
