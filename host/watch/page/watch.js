"use strict";
// The page of `qrd watch`. It shows what the server's events say, and asks it for what a person does to an app.
// Names and sentences come from strangers: they become text, never markup, each isolated in its own direction.

const columns = 4;
const placesPerPage = 24;
const maxDots = 8; // more pages than that are counted in words
const maxLogLines = 200;
const drawInterval = 50; // ms
const silence = 12000; // ms without a sign of life, after which the server is taken for gone
const pauseBetweenTries = 1500; // ms
const marksOfDirection = /[\u061c\u200e\u200f\u202a-\u202e\u2066-\u2069]/g; // by which a name could show as another
const patience = 10000; // ms for the server to answer a wish
const holdTime = 600; // ms until a press is a long one

const views = new Map(); // of each app on the screen, by identifier: {app, item, button, icons}
const folders = new Map(); // of each folder, by key: {name, item, button, views}
const rows = new Map(); // of each app of the sync, by identifier: {status, item, icon}
let openFolder = null; // its key
let described = null; // the button whose app is told of beneath the screen and in the folder
let held = null; // the app that is asked about before it is taken back
let followed = null; // the identifier of the app that the list of the sync was scrolled to
let lastSync = { running: false, apps: [] };

const $ = (identifier) => document.getElementById(identifier);
const fromTemplate = (name) => $(name).content.firstElementChild.cloneNode(true);
const isOnItsWay = (app) => app.state === "waiting" || app.state === "updating";

// --- Words ---
function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/** Sets the texts of what an element holds, by class. */
function fill(element, texts) {
  for (const [name, text] of Object.entries(texts)) setText(element.querySelector(`.${name}`), text);
}

/** A name within a sentence: whatever its direction, the words around it stay where they are. */
const nameIn = (text) => Object.assign(document.createElement("bdi"), { textContent: text });

function sizeText(whole, sent = whole) {
  const power = [1e3, 1e6, 1e9, 1e12].filter((size) => whole >= size).length;
  const texts = [...new Set([sent, whole])].map((bytes) => (bytes / 1000 ** power).toFixed(power && 1));
  return `${texts.join(" of ")} ${["bytes", "kB", "MB", "GB", "TB"][power]}`;
}

function timeLeftText(seconds) {
  const [size, unit] = [[1, "s"], [60, "min"], [3600, "h"]].findLast(([size]) => seconds >= 1.5 * size) ?? [1, "s"];
  return `${Math.max(1, Math.round(seconds / size))} ${unit}`;
}

const clock = new Intl.DateTimeFormat("en-GB", { timeStyle: "medium" });
const clockText = (time) => clock.format(new Date(time));
const countText = (count) => (count === 1 ? "1 app" : `${count} apps`);
/** A fraction, whatever has come. */
const part = (fraction) => Math.min(1, Math.max(0, Number(fraction) || 0));
const percentText = (fraction) => `${Math.floor(100 * part(fraction))} %`;

/** Why an app waits or has failed, and when it is tried again. */
const reasonText = ({ reason, nextTry }) => [reason, nextTry && `next try at ${clockText(nextTry)}`].filter(Boolean).join("; ");

/** What there is to say of an app on the screen, after its name. */
function stateText(app) {
  if (["failed", "waiting"].includes(app.stage)) return [app.stage, reasonText(app)].filter(Boolean).join(": ");
  const progress = app.progress > 0 ? `, ${percentText(app.progress)}` : "";
  const version = app.version ? `version ${app.version}` : "installed";
  return {
    waiting: `on its way${progress}`,
    updating: `installed, and its next version is on its way${progress}`,
    demoted: "not here but for its data; a sync brings it back",
    running: `${version}, running`,
  }[app.state] ?? version;
}

/** What a sync does with an app, or what has become of it. */
function stageText({ identifier, stage, fraction }) {
  const app = views.get(identifier)?.app;
  if (stage === "done") return app && !isOnItsWay(app) && app.state !== "demoted" ? "installed" : "done";
  if (stage === "failed" || stage === "waiting") return stage;
  if (!lastSync.running) return "left for the next sync";
  return stage === "transferring" ? percentText(fraction) : stage;
}

/** Tells a person what came of it, and a screen reader, too, which does not hear what is behind an open folder. */
function answer(...words) {
  const line = document.createElement("span"); // a new one each time, which fades by itself
  line.append(...words);
  $($("folder").open ? "folder-answer" : "answer").replaceChildren(line);
}

// --- Icons ---
const characters = new Intl.Segmenter();

function newIcon() {
  const icon = fromTemplate("icon-template");
  const picture = icon.querySelector("img");
  picture.onload = picture.onerror = ({ type }) => { picture.hidden = type === "error"; };
  icon.addEventListener("animationend", () => icon.classList.remove("arrived"));
  return icon;
}

/** Draws an app's icon, and over it how far it is. */
function showIcon(icon, { name, icon: address, state = "", stage = "", progress }) {
  const picture = icon.querySelector("img");
  if (address && picture.getAttribute("src") !== address) picture.src = address;
  if (!address) picture.hidden = true;
  const [letter] = characters.segment(name.trim());
  fill(icon, { letter: letter?.segment.toUpperCase() ?? "" });
  Object.assign(icon.dataset, { state, stage });
  icon.style.setProperty("--part", part(progress));
}

/** A button of the screen with something above its name. */
function newPlace(above) {
  const item = fromTemplate("place-template");
  item.firstElementChild.prepend(above);
  return { item, button: item.firstElementChild };
}

function newView(identifier) {
  const icon = newIcon();
  const view = { ...newPlace(icon), app: null, icons: [icon] }; // its own icon first, then those on folders
  view.button.dataset.app = identifier;
  views.set(identifier, view);
  return view;
}

function showApp(app) {
  const view = views.get(app.identifier) ?? newView(app.identifier);
  const hasArrived = view.app && isOnItsWay(view.app) && ["installed", "running"].includes(app.state) && app.stage !== "failed";
  view.app = app;
  for (const icon of view.icons) {
    showIcon(icon, app);
    if (hasArrived) icon.classList.add("arrived");
  }
  // A screen reader on this app speaks at each tenth of the way, not at each percent.
  const words = stateText({ ...app, progress: Math.floor(10 * part(app.progress)) / 10 });
  fill(view.button, { name: app.name, unseen: `, ${words}` });
  if (view.button === described) describe(described);
  if (rows.has(app.identifier)) showRow(rows.get(app.identifier).status);
  return view;
}

function showFolder(key, { folder: name, apps }) {
  const folder = folders.get(key) ?? newPlace(fromTemplate("tile-template"));
  folders.set(key, Object.assign(folder, { name, views: apps.map(showApp) }));
  folder.button.dataset.folder = key;
  fill(folder.button, { name, unseen: `, folder of ${countText(apps.length)}` });
  folder.button.querySelector(".tile").replaceChildren(...folder.views.slice(0, 9).map((view) => {
    const icon = newIcon();
    showIcon(icon, view.app);
    view.icons.push(icon);
    return icon;
  }));
  if (key === openFolder) arrange($("folder-apps"), folder.views.map((view) => view.item));
  return folder.item;
}

// --- The home screen ---
/** Makes these the children of an element, and leaves alone those that stand where they belong. */
function arrange(parent, children) {
  const stay = new Set(children);
  [...parent.children].forEach((child) => stay.has(child) || child.remove());
  children.forEach((child, place) => {
    if (parent.children[place] !== child) parent.insertBefore(child, parent.children[place] ?? null);
  });
}

/** A page of the layout, spread over as many as it needs. */
const spread = (page) => (page.length === 0 ? [] : [page.slice(0, placesPerPage), ...spread(page.slice(placesPerPage))]);

function showScreen(screen) {
  const focused = document.activeElement;
  const place = placesIn($("pages")).indexOf(focused);
  const [apps, keys] = [new Set(), new Set()];
  for (const view of views.values()) view.icons.length = 1;
  const pages = screen.pages.flatMap(spread).map((page) => page.map((entry) => {
    (entry.apps ?? [entry]).forEach((app) => apps.add(app.identifier));
    if (!entry.apps) return showApp(entry).item;
    let key = entry.folder;
    while (keys.has(key)) key += " ";
    keys.add(key);
    return showFolder(key, entry);
  }));
  for (const identifier of views.keys()) if (!apps.has(identifier)) views.delete(identifier);
  for (const key of folders.keys()) if (!keys.has(key)) folders.delete(key);
  if (openFolder !== null && !folders.has(openFolder)) $("folder").close();

  arrange($("pages"), pages.map((_, number) => $("pages").children[number] ?? fromTemplate("page-template")));
  pages.forEach((page, number) => {
    $("pages").children[number].setAttribute("aria-label", `Page ${number + 1} of ${pages.length}`);
    arrange($("pages").children[number], page);
  });
  $("all").hidden = false;
  setText($("device"), screen.device);
  $("syncing").hidden = !screen.isSyncing;
  showPageNumber();
  rove($("pages"));
  if (place >= 0 && document.activeElement !== focused) { // it has moved, or has gone: then its neighbour gets the focus
    const left = placesIn($("pages"));
    (left.includes(focused) ? focused : left[Math.min(place, left.length - 1)])?.focus();
  }
  if (described && !described.isConnected) describe(null);
}

const pageShown = () => Math.round($("pages").scrollLeft / Math.max(1, $("pages").clientWidth));

function showPageNumber() {
  const count = $("pages").children.length;
  const number = Math.min(pageShown(), count - 1);
  $("back").disabled = number <= 0;
  $("on").disabled = number >= count - 1;
  const dots = Array.from({ length: count }, (_, page) => (page === number ? "●" : "○"));
  setText($("dots"), count > maxDots ? `${number + 1} of ${count}` : dots.join(" "));
}

const turnBy = (pages) => $("pages").scrollTo({ left: (pageShown() + pages) * $("pages").clientWidth });

// --- Moving about ---
const placesIn = (container) => [...container.querySelectorAll(".place")];

/** Of all places of a container Tab leads to one: this, or whichever it was, or the first. */
function rove(container, place = container.querySelector(".place[tabindex='0']") ?? container.querySelector(".place")) {
  container.querySelectorAll(".place[tabindex='0']").forEach((other) => { other.tabIndex = -1; });
  if (place) place.tabIndex = 0;
}

/** The place that a key leads to from a button, if it is such a key and there is one. */
function placeBeyond(button, key, container) {
  const all = placesIn(container);
  const page = placesIn(button.closest("ul"));
  const [inAll, inPage] = [all.indexOf(button), page.indexOf(button)];
  return {
    ArrowLeft: all[inAll - 1],
    ArrowRight: all[inAll + 1],
    ArrowUp: page[inPage - columns],
    ArrowDown: page[inPage + columns] ?? page.at(-1),
    Home: all[0],
    End: all.at(-1),
  }[key];
}

function describe(button) {
  described = button;
  const app = views.get(button?.dataset.app)?.app;
  const words = () => (app ? [nameIn(app.name), `: ${stateText(app)}`] : []);
  document.querySelectorAll(".about").forEach((about) => about.replaceChildren(...words()));
}

// --- What a person does ---
/** Asks the server to do something to an app, and tells what came of it. */
async function ask(path, { identifier, name }, whatIsDone) {
  try {
    const body = JSON.stringify({ app: identifier });
    const response = await fetch(path, { method: "POST", headers: { "Content-Type": "application/json" }, body, signal: AbortSignal.timeout(patience) });
    if (response.ok) return answer(nameIn(name), whatIsDone);
    return answer((await response.json().catch(() => ({}))).error ?? `It was refused (${response.status}).`);
  } catch {
    return answer("qrd watch does not answer; ask again when it does.");
  }
}

function offerToTakeBack({ app }) {
  if ($("take-back").open) return undefined;
  if (!isOnItsWay(app)) return answer(nameIn(app.name), " is not on its way, so there is nothing to take back.");
  held = app;
  $("take-back").dataset.state = app.state;
  $("take-back").returnValue = "";
  $("take-back-title").replaceChildren("Take ", nameIn(app.name), " back?");
  return $("take-back").showModal();
}

function tap({ dataset }) {
  const app = views.get(dataset.app)?.app;
  if (app) return isOnItsWay(app) ? ask("/prioritize", app, " comes first.") : answer(nameIn(app.name), `: ${stateText(app)}`);
  openFolder = dataset.folder;
  $("folder-answer").replaceChildren();
  setText($("folder-title"), folders.get(openFolder).name);
  arrange($("folder-apps"), folders.get(openFolder).views.map((view) => view.item));
  rove($("folder-apps"));
  return $("folder").showModal();
}

const hold = ({ dataset }) => dataset.app && offerToTakeBack(views.get(dataset.app));

/** Hears the taps, long presses and keys on the places of a container. */
function listen(container) {
  let press = null; // {timer, wasLong}
  const letGo = () => clearTimeout(press?.timer);
  const on = (names, react) => names.split(" ").forEach((name) => container.addEventListener(name, (event) => {
    const button = event.target.closest(".place");
    if (button) react(event, button);
  }));
  on("pointerdown", (event, button) => {
    letGo();
    press = { wasLong: false };
    if (event.button === 0) press.timer = setTimeout(() => { press.wasLong = true; hold(button); }, holdTime);
  });
  on("pointerup pointercancel pointerout", letGo);
  on("contextmenu", (event, button) => { event.preventDefault(); hold(button); });
  on("click", (event, button) => {
    if (!press?.wasLong) tap(button); // the click that ends a long press is none
    press = null;
  });
  on("keydown", (event, button) => {
    letGo();
    press = null; // a key's click ends no press
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    if (event.key === "Delete") hold(button);
    const next = placeBeyond(button, event.key, container);
    next?.focus();
    if (next || event.key.startsWith("Arrow")) event.preventDefault();
  });
  on("focusin", (event, button) => rove(container, button));
  on("focusin pointerover", (event, button) => describe(button));
  on("focusout pointerout", () => describe(document.activeElement));
}

// --- The sync and the log ---
function showRow(status) {
  const row = rows.get(status.identifier) ?? { item: fromTemplate("row-template"), icon: newIcon() };
  rows.set(status.identifier, row);
  row.status = status;
  row.address = views.get(status.identifier)?.app.icon ?? row.address; // also of an app that has left the screen
  if (row.icon.parentElement !== row.item) row.item.prepend(row.icon);
  showIcon(row.icon, { name: status.name, icon: row.address });
  fill(row.item, { name: status.name, stage: stageText(status), reason: reasonText(status) });
  row.item.dataset.stage = status.stage;
  row.item.style.setProperty("--part", part(status.fraction));
  return row.item;
}

function syncTitle({ running, purpose = "a sync", inUseBy, apps }) {
  const failed = apps.filter((app) => app.stage === "failed").length;
  const what = purpose.replace(/^an? /, ""); // a sync, a restore, a visit to the store
  if (running) return what === "sync" ? "Syncing" : `A ${what} is running`;
  if (inUseBy) return "In use";
  if (apps.length === 0) return "No sync is running";
  return failed > 0 ? `The ${what} has ended; ${countText(failed)} failed` : `The ${what} has ended`;
}

function showSync(sync) {
  lastSync = sync;
  const { running, apps, inUseBy } = sync;
  const known = new Set(apps.map((app) => app.identifier));
  for (const identifier of rows.keys()) if (!known.has(identifier)) rows.delete(identifier);
  arrange($("rows"), apps.map(showRow));
  const underWay = apps.find((app) => app.stage === "transferring")?.identifier;
  if (underWay && underWay !== followed && !$("rows").matches(":hover, :focus")) { // or else somebody reads there
    followed = underWay;
    $("rows").scrollTop = rows.get(underWay).item.offsetTop - $("rows").clientHeight / 2;
  }
  setText($("sync-title"), syncTitle(sync));
  const user = inUseBy?.process && `${inUseBy.purpose} since ${clockText(inUseBy.since)} (process ${inUseBy.process})`;
  setText($("in-use"), inUseBy ? `The device is in use by ${user || "another command"}.` : "");
  $("bar").value = part(sync.fraction);
  fill($("figures"), {
    finished: apps.length > 0 ? `${sync.finished} of ${apps.length}` : "",
    sent: apps.length > 0 ? sizeText(sync.bytes, sync.sentBytes) : "",
    rate: running && sync.rate !== null ? `${sizeText(sync.rate)}/s` : "",
    left: running && sync.secondsLeft !== null ? timeLeftText(sync.secondsLeft) : "",
  });
  document.title = `${running ? `${percentText(sync.fraction)} – ` : ""}${$("device").textContent}`;
}

function addToLog(lines) {
  const log = $("log");
  const isAtEnd = log.scrollHeight - log.scrollTop - log.clientHeight < 8;
  for (const { time, level, text } of lines) {
    const line = fromTemplate("line-template"); // without the identifier that stands before each message of the plug-in
    fill(line, { time: clockText(time), level: level === "error" ? "error" : "", text: text.replace(/^[\w.]+\|/, "") });
    log.append(line);
  }
  while (log.children.length > maxLogLines) log.firstElementChild.remove();
  if (isAtEnd) log.scrollTop = log.scrollHeight;
}

// --- The server ---
const reactions = { screen: showScreen, app: showApp, sync: showSync, log: addToLog };
const news = new Map(); // what has come since the last drawing, of each thing the latest

function draw() {
  const latest = [...news.values()];
  news.clear();
  latest.forEach(({ event, told }) => reactions[event](told));
}

/** Takes in an event, to be drawn with those that come right after it. */
function hear(text) {
  const { event, data } = Object.fromEntries(text.split("\n").map((line) => line.split(/: ?(.*)/s)));
  if (!Object.hasOwn(reactions, event)) return;
  if (news.size === 0) setTimeout(draw, drawInterval);
  const told = JSON.parse(data, (name, value) => (
    typeof value === "string" && name !== "identifier" ? value.replace(marksOfDirection, "") : value));
  const key = `${event} ${told.identifier}`;
  const lines = event === "log" ? [...(news.get(key)?.told ?? []), told].slice(-maxLogLines) : null;
  news.delete(key); // what comes later is drawn later
  news.set(key, { event, told: lines ?? told });
}

/** Hears the server's events until they end; the status of its answer, or 0. It reads the stream itself, since comments
 *  are a sign of life, too, and since the status says what is wrong. */
async function follow() {
  const end = new AbortController();
  let timer = setTimeout(() => end.abort(), silence);
  try {
    const response = await fetch("/events", { signal: end.signal });
    if (!response.ok) return response.status;
    $("log").replaceChildren();
    $("stale").replaceChildren();
    const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
    let rest = "";
    for (;;) {
      const { done, value } = await reader.read();
      if (done) return 0;
      clearTimeout(timer);
      timer = setTimeout(() => end.abort(), silence);
      const events = (rest + value).split("\n\n");
      rest = events.pop();
      events.forEach(hear);
    }
  } catch {
    return 0;
  } finally {
    clearTimeout(timer);
    end.abort();
  }
}

const whyNotLive = {
  0: "qrd watch does not answer. This page goes on by itself as soon as it does; if it was ended, start it again.",
  403: "qrd watch was started anew, with another address. Open the one that it has printed, here or in another tab.",
  503: "too many pages watch this device. Close one of them; this one goes on by itself then.",
};

async function watch() {
  for (;;) {
    const status = await follow();
    if ($("stale").textContent === "") $("stale").dataset.since = clockText(Date.now());
    setText($("stale"), `Not live since ${$("stale").dataset.since}: ${whyNotLive[status] ?? whyNotLive[0]}`);
    await new Promise((goOn) => { setTimeout(goOn, pauseBetweenTries); });
  }
}

$("back").addEventListener("click", () => turnBy(-1));
$("on").addEventListener("click", () => turnBy(1));
$("pages").addEventListener("scroll", showPageNumber);
$("folder").addEventListener("close", () => { openFolder = null; });
$("take-back").addEventListener("close", ({ target }) => target.returnValue && ask("/cancel", held, " is taken back."));
[$("pages"), $("folder-apps")].forEach(listen);
watch();
