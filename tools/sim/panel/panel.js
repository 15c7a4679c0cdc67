// The control panel: follows the simulator's state over the WebSocket /ws
// (the whole state first, then what changed, at most ten times a second) and
// changes it with JSON posts to /api/set and /api/control.
"use strict";

let state = null;

const $ = (id) => document.getElementById(id);

function show(text, bad) {
  const message = $("message");
  message.textContent = text;
  message.className = bad ? "bad" : "good";
}

async function post(path, body) {
  const response = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(body),
  });
  const answer = await response.json().catch(() => ({}));
  if (!response.ok) throw new Error(answer.error || response.statusText);
  return answer;
}

// A subject's value, and its change notified to the subscribers.
function setValue(subject, value, notify) {
  return post("/api/set", { subject, value: typeof value === "string" ? value : JSON.stringify(value), notify });
}

function control(action, extra) {
  return post("/api/control", Object.assign({ action }, extra || {}))
    .then(() => {
      show(action + " done", false);
      return true;
    })
    .catch((error) => {
      show(action + ": " + error.message, true);
      return false;
    });
}

function value(subject) {
  if (!state || !(subject in state.values)) return null;
  try {
    return JSON.parse(state.values[subject]);
  } catch (error) {
    return null;
  }
}

// ---- the television's controls -------------------------------------------------

function channels() {
  const list = value("Pref/Channel/List");
  return list && Array.isArray(list.ChList) ? list.ChList : [];
}

function sources() {
  const names = new Set(["TV"]);
  for (const channel of channels()) if (channel.Source) names.add(channel.Source);
  const current = value("Ctx/Media/Source/Info/Current");
  if (current && current.Source) names.add(current.Source);
  for (const port of ["HDMI1", "HDMI2", "HDMI3", "USB"]) names.add(port);
  return Array.from(names);
}

async function tune(index) {
  const list = channels();
  if (list.length === 0) return;
  const channel = list[(index + list.length) % list.length];
  const program = { ChName: channel.ChName, major: channel.major, minor: channel.minor,
                    ProgramTitle: channel.ChName + " now", Genre: "" };
  try {
    // The current programme first: an app that reads it when the change
    // arrives must find the new channel there.
    await setValue("Ctx/Media/Broadcast/Program/Current", program, false);
    await setValue("Ctx/Media/Broadcast/Program/Changed", program, true);
    show("tuned to " + channel.major + "-" + channel.minor + " " + channel.ChName, false);
  } catch (error) {
    show(error.message, true);
  }
}

function currentChannelIndex() {
  const program = value("Ctx/Media/Broadcast/Program/Current") || {};
  return channels().findIndex((c) => c.major === program.major && c.minor === program.minor);
}

// Every control sets ".../Current" before it notifies ".../Changed", never
// the other way round: an app reads the current value when told of a change.

// A level control (volume, brightness): the slider's level set on the
// ".../Current" subject and notified on ".../Changed".
async function setLevel(subject, slider, extra) {
  const level = Number($(slider).value);
  const current = subject + "/Current";
  const changed = Object.assign({}, value(current) || {}, { Level: level }, extra || {});
  $(slider + "-value").textContent = level;
  try {
    await setValue(current, changed, false);
    await setValue(subject + "/Changed", changed, true);
  } catch (error) {
    show(error.message, true);
  }
}

const setVolume = () => setLevel("Ctx/Sound/Volume/Level", "volume", { Mute: $("mute").checked });
const setBrightness = () => setLevel("Ctx/Env/Brightness/Level", "brightness");

async function setSource() {
  const source = $("source").value;
  const info = Object.assign({}, value("Ctx/Media/Source/Info/Current") || {}, { Source: source });
  try {
    await setValue("Ctx/Media/Source/Info/Current", info, false);
    await setValue("Ctx/Media/Source/Changed", { Source: source }, true);
  } catch (error) {
    show(error.message, true);
  }
}

async function launchApp() {
  const appId = $("app").value.trim();
  if (!appId) return;
  const app = { AppId: appId, AppName: appId, Status: "Foreground" };
  try {
    await setValue("Ctx/App/Info/Current", app, false);
    await setValue("Ctx/App/Info/Changed", app, true);
    $("app").dataset.shown = $("app").value;
    markDraft($("app"));
    show(appId + " in the foreground", false);
  } catch (error) {
    show(error.message, true);
  }
}

// ---- drawing the state ------------------------------------------------------------

function fillSelect(select, options, selected) {
  const wanted = options.map((o) => o.value + "\u0000" + o.label).join("\u0001");
  if (select.dataset.options !== wanted) {
    select.innerHTML = "";
    for (const option of options) select.add(new Option(option.label, option.value));
    select.dataset.options = wanted;
  }
  if (selected !== undefined && document.activeElement !== select) select.value = selected;
}

function drawTelevision() {
  const current = value("Ctx/Media/Source/Info/Current") || {};
  fillSelect($("source"), sources().map((s) => ({ value: s, label: s })), current.Source);
  fillSelect($("channel"), channels().map((c, i) => ({ value: String(i), label: c.major + "-" + c.minor + " " + c.ChName })),
             String(currentChannelIndex()));
  const volume = value("Ctx/Sound/Volume/Level/Current") || {};
  if (document.activeElement !== $("volume") && typeof volume.Level === "number") {
    $("volume").value = volume.Level;
    $("volume-value").textContent = volume.Level;
  }
  $("mute").checked = !!volume.Mute;
  const brightness = value("Ctx/Env/Brightness/Level/Current") || {};
  if (document.activeElement !== $("brightness") && typeof brightness.Level === "number") {
    $("brightness").value = brightness.Level;
    $("brightness-value").textContent = brightness.Level;
  }
  const app = value("Ctx/App/Info/Current") || {};
  showField($("app"), app.AppId || "");
}

function drawService() {
  $("enabled").checked = state.enabled;
  $("answering").textContent = state.answering ? "answering" : "holding " + state.heldCalls + " call(s)";
  showField($("whitelist"), state.whiteList.join(" "));
  $("service").textContent = (state.enabled ? "enabled" : "disabled") + (state.answering ? "" : ", not answering") +
    (state.replay ? ", replay " + state.replay.played + "/" + state.replay.events : "");
}

// A field the user types into shows the state's value only while it holds
// the last value shown: anything else is a draft, kept through the state's
// updates (focused or not) until it is set or reverted.
function isDraft(field) {
  return field.dataset.shown !== undefined && field.value !== field.dataset.shown;
}

// A value's text box in cell, marked while it holds a draft, with the
// refusal of a set beside it; the refusal stays until the next edit or set.
function draftEditor(cell) {
  const text = document.createElement("textarea");
  text.spellcheck = false;
  const note = document.createElement("span");
  note.className = "draft-note";
  note.textContent = "draft, not set";
  const error = document.createElement("span");
  error.className = "error";
  text.addEventListener("input", () => {
    error.textContent = "";
    markDraft(text);
  });
  cell.append(text, note, error);
  return { text, error };
}

function markDraft(field) {
  const draft = isDraft(field);
  field.classList.toggle("draft", draft);
  const holder = field.closest("[data-draft-holder]");
  if (holder) holder.classList.toggle("draft", draft);
}

// Shows value in field unless the field holds a draft; the value is what a
// revert goes back to either way.
function showField(field, value) {
  if (!isDraft(field)) field.value = value;
  field.dataset.shown = value;
  markDraft(field);
}

function revertField(field) {
  if (field.dataset.shown !== undefined) field.value = field.dataset.shown;
  markDraft(field);
}

// The result codes and delays in force, as ctl status gives them; the code
// and delay fields show those of the subject typed beside them.
function drawFaults() {
  const codes = state.resultCodes || {};
  const delays = state.delaysMs || {};
  const body = $("faults").tBodies[0];
  body.innerHTML = "";
  const subjects = Array.from(new Set([...Object.keys(codes), ...Object.keys(delays)])).sort();
  for (const subject of subjects) {
    const row = body.insertRow();
    row.dataset.subject = subject;
    const name = row.insertCell();
    name.className = "subject";
    name.textContent = subject;
    name.title = subject;
    row.insertCell().textContent = subject in codes ? String(codes[subject]) : "0";
    row.insertCell().textContent = (delays[subject] || 0) + " ms";
    row.addEventListener("click", () => {
      $("fault-subject").value = subject;
      showFaultFields(true);
    });
  }
  if (subjects.length === 0) placeholder(body, 3, "none: every subject answers at once with code 0");
  showFaultFields(false);
}

function showFaultFields(chosen) {
  const subject = $("fault-subject").value;
  const code = String((state.resultCodes || {})[subject] || 0);
  const delay = String((state.delaysMs || {})[subject] || 0);
  for (const [id, text] of [["fault-code", code], ["fault-delay", delay]]) {
    if (chosen) delete $(id).dataset.shown;
    showField($(id), text);
  }
}

// The one row of an empty table, saying why it is empty.
function placeholder(body, columns, text) {
  const cell = body.insertRow().insertCell();
  cell.colSpan = columns;
  cell.className = "placeholder";
  cell.textContent = text;
}

function subjectRow(subject) {
  const row = document.createElement("tr");
  row.dataset.subject = subject;
  row.dataset.draftHolder = "";
  const name = document.createElement("td");
  name.className = "subject";
  name.textContent = subject;
  name.title = subject;
  const cell = document.createElement("td");
  cell.className = "value";
  const { text, error } = draftEditor(cell);
  text.rows = 1;
  const buttons = document.createElement("td");
  buttons.className = "buttons";
  for (const [label, notify] of [["set", false], ["set and notify", true]]) {
    const button = document.createElement("button");
    button.textContent = label;
    button.className = notify ? "set-notify" : "set";
    button.addEventListener("click", async () => {
      error.textContent = "";
      try {
        JSON.parse(text.value);
      } catch (parseError) {
        error.textContent = "not JSON: " + parseError.message;
        return;
      }
      const sent = text.value;
      try {
        await setValue(subject, sent, notify);
        // The simulator keeps the text as given: it is what the next update shows.
        text.dataset.shown = sent;
        markDraft(text);
      } catch (postError) {
        error.textContent = postError.message;
      }
    });
    buttons.append(button);
  }
  // The text as data to the subscribers, the value kept as it is.
  const emit = document.createElement("button");
  emit.textContent = "notify only";
  emit.className = "emit";
  emit.title = "send this data to the subscribers without storing it";
  emit.addEventListener("click", async () => {
    error.textContent = "";
    try {
      await post("/api/control", { action: "emit", subject, value: text.value });
      show("notified " + subject, false);
    } catch (postError) {
      error.textContent = postError.message;
    }
  });
  const clear = document.createElement("button");
  clear.textContent = "clear";
  clear.className = "clear";
  clear.title = "remove the value: the service has no data for the subject";
  clear.addEventListener("click", () => control("clear", { subject }));
  buttons.append(emit, clear);
  const revert = document.createElement("button");
  revert.textContent = "revert";
  revert.className = "revert";
  revert.title = "drop the draft and show the value in force";
  revert.addEventListener("click", () => {
    error.textContent = "";
    revertField(text);
  });
  buttons.append(revert);
  row.append(name, cell, buttons);
  return row;
}

// The search box: a row shows when its subject or its text holds the words
// typed, in any case.
function matches(subject, text) {
  const filter = $("search").value.toLowerCase();
  return filter === "" || subject.toLowerCase().includes(filter) || text.toLowerCase().includes(filter);
}

function drawSubjects() {
  const body = $("subjects").tBodies[0];
  const subjects = Object.keys(state.values).sort();
  const rows = new Map(Array.from(body.rows).map((row) => [row.dataset.subject, row]));
  let previous = null;
  for (const subject of subjects) {
    let row = rows.get(subject);
    if (!row) {
      row = subjectRow(subject);
      // In sorted order among the rows there are, without a reload.
      if (previous) previous.after(row);
      else body.prepend(row);
    }
    previous = row;
    rows.delete(subject);
    const shown = state.values[subject];
    row.hidden = !matches(subject, shown);
    showField(row.querySelector("textarea"), shown);
  }
  for (const row of rows.values()) row.remove();
}

// A statistics subject's records, one tuple a line.
function recordsText(tuples) {
  if (!Array.isArray(tuples) || tuples.length === 0) return "[]";
  return "[\n" + tuples.map((t) => "  " + JSON.stringify(t)).join(",\n") + "\n]";
}

function statisticsRow(kind) {
  const row = document.createElement("tr");
  row.dataset.subject = kind.subject;
  row.dataset.draftHolder = "";
  const name = row.insertCell();
  name.className = "subject";
  name.textContent = kind.subject;
  name.title = kind.subject;
  const signature = document.createElement("span");
  signature.className = "signature";
  signature.textContent = kind.signature;
  name.append(signature);
  const cell = row.insertCell();
  cell.className = "value";
  const { text, error } = draftEditor(cell);
  const buttons = row.insertCell();
  buttons.className = "buttons";
  const set = document.createElement("button");
  set.textContent = "set";
  set.className = "set";
  set.addEventListener("click", async () => {
    error.textContent = "";
    let tuples;
    try {
      tuples = JSON.parse(text.value);
    } catch (parseError) {
      error.textContent = "not JSON: " + parseError.message;
      return;
    }
    try {
      await post("/api/control", { action: "statistics", subject: kind.subject, tuples });
      // The simulator keeps the tuples as sent: what the next update shows.
      text.value = text.dataset.shown = recordsText(tuples);
      markDraft(text);
      show("statistics of " + kind.subject + " set", false);
    } catch (postError) {
      error.textContent = postError.message;
    }
  });
  const revert = document.createElement("button");
  revert.textContent = "revert";
  revert.className = "revert";
  revert.addEventListener("click", () => {
    error.textContent = "";
    revertField(text);
  });
  buttons.append(set, revert);
  return row;
}

function drawStatistics() {
  const body = $("statistics").tBodies[0];
  const kinds = state.statisticsKinds || [];
  if (body.rows.length !== kinds.length) {
    body.innerHTML = "";
    for (const kind of kinds) body.append(statisticsRow(kind));
  }
  for (const row of body.rows) {
    const text = recordsText((state.statistics || {})[row.dataset.subject]);
    row.hidden = !matches(row.dataset.subject, text);
    showField(row.querySelector("textarea"), text);
  }
}

// The channel events the simulator can send, and the subjects each notifies.
function drawEvents() {
  const kinds = state.eventKinds || [];
  fillSelect($("event-kind"), kinds.map((k) => ({ value: k.kind, label: k.kind })));
  const chosen = kinds.find((k) => k.kind === $("event-kind").value);
  $("event-subjects").textContent = chosen ? "notifies " + chosen.subjects.join(", ") : "";
}

async function sendEvent() {
  const data = $("event-data").value.trim();
  $("event-error").textContent = "";
  if (data !== "") {
    try {
      JSON.parse(data);
    } catch (parseError) {
      $("event-error").textContent = "not JSON: " + parseError.message;
      return;
    }
  }
  const body = { action: "event", kind: $("event-kind").value };
  if (data !== "") body.data = data;
  try {
    await post("/api/control", body);
    show("event " + body.kind + " sent", false);
  } catch (postError) {
    $("event-error").textContent = postError.message;
  }
}

// A client as the calls table names a caller: process[pid], else its bus name.
function clientName(client) {
  const known = (state.clients || {})[client];
  if (!known || !known.pid) return client;
  return (known.process || "?") + "[" + known.pid + "]";
}

const kTypes = { 1: "read", 2: "write", 3: "subscribe", 4: "unsubscribe", 5: "request" };

function drawCalls() {
  const body = $("calls").tBodies[0];
  body.innerHTML = "";
  for (const call of (state.calls || []).slice(-30).reverse()) {
    const row = body.insertRow();
    const time = new Date(call.time_ms).toLocaleTimeString();
    const type = call.method === "ServiceEnable" ? "enable" : kTypes[call.type] || call.method;
    for (const text of [time, (call.process || "?") + "[" + (call.pid || "?") + "]", type, call.subject || "",
                        call.code === undefined ? "" : call.code, call.delay_ms ? call.delay_ms + " ms" : ""]) {
      row.insertCell().textContent = text;
    }
  }
  if (body.rows.length === 0) placeholder(body, 6, "no call served yet");
  const list = $("subscriptions");
  list.innerHTML = "";
  for (const [subject, clients] of Object.entries(state.subscriptions || {})) {
    const item = document.createElement("li");
    item.dataset.subject = subject;
    item.textContent = subject + ": " + clients.map(clientName).join(", ");
    item.title = clients.join(", ");
    list.append(item);
  }
  if (list.children.length === 0) {
    const item = document.createElement("li");
    item.className = "placeholder";
    item.textContent = "no client subscribed";
    list.append(item);
  }
}

function draw() {
  drawTelevision();
  drawService();
  drawFaults();
  drawSubjects();
  drawStatistics();
  drawEvents();
  drawCalls();
}

// Without the simulator the state shown is only what it was: greyed out, and
// nothing to press until the simulator is back and its state is in.
function setLive(live) {
  if (document.body.classList.contains("offline") === !live) return;
  document.body.classList.toggle("offline", !live);
  for (const control of document.querySelectorAll("main button, main input, main select, main textarea")) {
    if (control.id !== "search") control.disabled = !live;
  }
}

// A change as the simulator sends it: the values that changed or went, the
// calls served since, and any other field whole (null when it went).
function applyDelta(base, delta) {
  for (const [key, field] of Object.entries(delta)) {
    if (key === "delta" || key === "values" || key === "removed" || key === "calls") continue;
    if (field === null) delete base[key];
    else base[key] = field;
  }
  Object.assign(base.values, delta.values || {});
  for (const subject of delta.removed || []) delete base.values[subject];
  for (const call of delta.calls || []) {
    const told = base.calls.findIndex((c) => c.n === call.n);
    if (told >= 0) base.calls[told] = call;
    else if (!base.calls.length || call.n > base.calls[base.calls.length - 1].n) base.calls.push(call);
  }
  base.calls.splice(0, Math.max(0, base.calls.length - 100));
  return base;
}

function connect() {
  const socket = new WebSocket("ws://" + location.host + "/ws");
  socket.onopen = () => {
    $("connection").textContent = "live";
    $("connection").className = "good";
  };
  socket.onmessage = (event) => {
    const message = JSON.parse(event.data);
    state = message.delta && state ? applyDelta(state, message) : message;
    draw();
    setLive(true);
    document.body.dataset.updates = String(Number(document.body.dataset.updates || 0) + 1);
  };
  socket.onclose = () => {
    $("connection").textContent = "disconnected, reconnecting...";
    $("connection").className = "bad";
    setLive(false);
    setTimeout(connect, 1000);
  };
}

$("volume").addEventListener("change", setVolume);
$("mute").addEventListener("change", setVolume);
$("brightness").addEventListener("change", setBrightness);
$("source").addEventListener("change", setSource);
$("channel").addEventListener("change", () => tune(Number($("channel").value)));
$("channel-up").addEventListener("click", () => tune(currentChannelIndex() + 1));
$("channel-down").addEventListener("click", () => tune(currentChannelIndex() - 1));
$("app-set").addEventListener("click", launchApp);
$("enabled").addEventListener("change", () => control($("enabled").checked ? "enable" : "disable"));
$("stop-answering").addEventListener("click", () => control("stop-answering"));
$("resume-answering").addEventListener("click", () => control("resume-answering"));
$("restart").addEventListener("click", () => control("restart", { pause_ms: Number($("restart-pause").value) }));
$("whitelist-set").addEventListener("click", () => {
  const names = $("whitelist").value.split(/\s+/).filter((n) => n);
  return control("whitelist", { names }).then((done) => {
    if (!done) return;
    $("whitelist").dataset.shown = names.join(" ");
    $("whitelist").value = names.join(" ");
    markDraft($("whitelist"));
  });
});
for (const id of ["app", "whitelist"]) $(id).addEventListener("input", () => markDraft($(id)));
$("code-set").addEventListener("click",
  () => control("code", { subject: $("fault-subject").value, value: Number($("fault-code").value) }));
$("delay-set").addEventListener("click",
  () => control("delay", { subject: $("fault-subject").value, value: Number($("fault-delay").value) }));
$("search").addEventListener("input", () => state && (drawSubjects(), drawStatistics()));
$("event-kind").addEventListener("change", () => state && drawEvents());
$("event-send").addEventListener("click", sendEvent);
$("event-data").addEventListener("input", () => ($("event-error").textContent = ""));
$("fault-subject").addEventListener("input", () => state && showFaultFields(true));
for (const id of ["fault-code", "fault-delay"]) $(id).addEventListener("input", () => markDraft($(id)));
connect();
