// The operator's console. What it knows of the box comes from the box itself: the objects,
// their actions, arguments and accepted words from GET /api/schema; which objects and instances
// this box has from tavid's answers to gets through POST /api; the status from GET /api/status,
// taviweb's shared cache, at the cache's own interval. Only the texts an operator reads are
// written here: LABELS and CONFIRMATIONS, keyed by name; a name missing there is shown as it is.

// Friendlier texts for names of the box, for presentation only.
const LABELS = {
  device_status: "Box", input_hdmi_status: "HDMI input", output_rf_status: "RF output",
  output_ip_status: "IP output", device: "Output mode", output_mode: "Output mode", temperature: "Temperature (°C)",
  input_hdmi_enc: "Encoder", input_hdmi_ts: "Transport stream", input_hdmi_services: "Services",
  input_hdmi_streams: "Streams", lock: "Locked (1/0)",
  video_format: "Video format", video_gopsize: "GOP size", debug_code: "Hardware debug code",
  output_rf_mod: "Modulation", output_rf_ts: "Transport stream", output_rf_services: "Services",
  output_calibration: "I/Q calibration",
  output_ip_dst: "Destination", output_ip_ts: "Transport stream", output_ip_services: "Services",
  output_ip_ifconfig: "Streaming interface (eth1)",
  type: "Type", frequency: "Frequency (kHz)", level: "Level (dBm)", bandwidth: "Bandwidth (MHz)",
  symbolrate: "Symbol rate (kbaud)", constellation: "Constellation", guardinterval: "Guard interval",
  coderate: "Code rate", fftmode: "FFT mode", carriertype: "Carrier type", interleave: "Interleave",
  syncframe: "Sync frame", enabled: "On (1/0)", max_bitrate: "Maximum bitrate (kbit/s)",
  bitrate: "Bitrate (kbit/s)", overflow: "Overflow", ts_tag: "TS tag", tsid: "TSID", onid: "ONID",
  nid: "NID", private_data_specifier: "Private data specifier", network_name: "Network name",
  network_version: "Network version", service_tag: "Service tag", sid: "SID", service_name: "Name",
  lcn: "LCN", pmt_pid: "PMT PID", stream_tag: "Stream tag", pid: "PID", dst_addr: "Destination address",
  dst_port: "Destination port", dhcp: "DHCP (1/0)", address: "Address", netmask: "Netmask",
  gateway: "Gateway", dns: "DNS server", state: "State", code: "Code", i: "I", q: "Q",
  store_settings: "Store the settings", restore_settings: "Restore the stored settings", reset: "Reset",
};

// What an action does, said before it runs: by argument name and word, or by object name.
const CONFIRMATIONS = {
  level: {
    0: "The box reboots. Nothing is erased.",
    1: "Erases the management network settings (eth0 address and network configuration), then the box reboots.",
    2: "Erases the stored settings of the inputs and outputs and the streaming interface's (eth1) settings, then the box reboots.",
    3: "Erases everything the box has stored (all its settings and network configuration), then the box reboots.",
  },
  output_mode: "The box changes its output mode: that mode's factory settings replace the current settings and tavid restarts.",
  restore_settings: "The stored settings replace the current ones.",
};

const $ = (selector) => document.querySelector(selector);
const label = (name) => LABELS[name] ?? name;
let schema = null;      // objects by name, in the daemon's order
let statusNames = new Set();
let statusTimer = 0;
let answering = null;   // whether tavid answered the last status round
let nextId = 0;

// ---------------------------------------------------------------------------------------------
// Talking to taviweb

class Unreachable extends Error {}

async function fetchJSON(path, options) {
  let response;
  try {
    response = await fetch(path, { cache: "no-cache", ...options });
  } catch (failure) {
    throw new Unreachable(`taviweb does not answer: ${failure.message}`);
  }
  const body = await response.json().catch(() => null);
  if (response.status === 502) throw new Unreachable(`tavid does not answer: ${body?.error}`);
  if (!response.ok) throw new Error(body?.error ?? `HTTP ${response.status}`);
  return body;
}

async function ask(action, object, args) {
  try {
    return await fetchJSON("api", {
      method: "POST", headers: { "Content-Type": "application/json" },
      body: JSON.stringify({ action, object, args }),
    });
  } catch (failure) {
    if (failure instanceof Unreachable) showDown(failure.message);
    throw failure;
  }
}

// The elements of a get's reply, or null for an error or a warning.
function elements(reply) {
  if (reply.result !== undefined) return [reply.result];
  if (Array.isArray(reply.arrayedResult)) return reply.arrayedResult;
  return null;
}

// A reply in words: null when it is a success.
function replyText(reply) {
  if (reply.errorCode !== undefined) return `The box refused this (error ${reply.errorCode}): ${reply.description}`;
  if (reply.warningCode !== undefined) return `The box could not do this (warning ${reply.warningCode}): ${reply.description}`;
  return null;
}

// ---------------------------------------------------------------------------------------------
// The banner and the status rounds

// Who does not answer and why, in words: "tavid does not answer: <taviweb's reason>".
function showDown(why) {
  const banner = $("#banner");
  banner.textContent = `${why}. The console tries again by itself.`;
  banner.hidden = false;
  answering = false;
  $("#summary").textContent = "tavid: not answering";
}

async function statusRound() {
  clearTimeout(statusTimer);
  let interval = 5;
  try {
    const status = await fetchJSON("api/status");
    interval = status.interval;
    if (!status.up) {
      showDown(`tavid does not answer: ${status.error}`);
    } else if (answering === false || schema === null || !sameNames(status)) {
      // tavid is back, or runs another output mode: everything is read again.
      await discover(status);
    } else {
      showStatus(status);
    }
  } catch (failure) {
    showDown(failure.message);
  }
  statusTimer = setTimeout(statusRound, interval * 1000);
}

const sameNames = (status) => Object.keys(status.objects).join() === [...statusNames].join();

function showStatus(status) {
  answering = true;
  $("#banner").hidden = true;
  for (const [name, reply] of Object.entries(status.objects)) {
    const object = schema.get(name);
    if (!object) continue;
    for (const values of elements(reply) ?? []) {
      const box = document.getElementById(`status-${name}-${values[object.id] ?? ""}`);
      if (box) fillStatus(box, object, values);
    }
  }
  $("#summary").textContent = `tavid: answering · status of ${new Date(Date.now() - status.age * 1000).toLocaleTimeString()}`;
}

// A status list, its values changed in place (a screen reader is not sent the whole list again).
function fillStatus(box, object, values) {
  for (const [key, value] of Object.entries(values)) {
    if (key === object.id) continue;
    const shown = [...box.querySelectorAll("dd")].find((detail) => detail.dataset.status === key);
    if (shown) {
      if (shown.textContent !== value) shown.textContent = value;
      continue;
    }
    const detail = element("dd", { text: value });
    detail.dataset.status = key;
    box.append(element("dt", { text: label(key) }), detail);
  }
}

// ---------------------------------------------------------------------------------------------
// Finding what the box has

const nests = (object) => object.args.some((arg) => arg.args || arg.items);

async function discover(status) {
  const main = $("#console");
  main.setAttribute("aria-busy", "true");
  if (schema === null) {
    const described = await fetchJSON("api/schema");
    schema = new Map(described.objects.map((object) => [object.name, object]));
  }
  statusNames = new Set(Object.keys(status.objects));
  const groups = new Map();   // "<id key>=<value>" (or "" for the box-wide objects) -> group
  const group = (key, value) => {
    const name = key ? `${key}=${value}` : "";
    if (!groups.has(name)) groups.set(name, { key, value, parts: [] });
    return groups.get(name);
  };
  for (const [name, reply] of Object.entries(status.objects)) {
    const object = schema.get(name);
    if (!object) continue;
    for (const values of elements(reply) ?? []) group(object.id, values[object.id]).parts.push({ object, status: values });
  }
  for (const object of schema.values()) {
    // A whole record (the one the settings file keeps) is shown through its parts.
    if (statusNames.has(object.name) || nests(object)) continue;
    if (!object.actions.includes("get")) {
      group("", "").parts.push({ object, elements: [] });
      continue;
    }
    const reply = await ask("get", object.name, {});
    const found = elements(reply);
    if (found === null && object.id) continue;   // not in this output mode
    if (found === null) {
      group("", "").parts.push({ object, elements: [], problem: replyText(reply) });
      continue;
    }
    const byInstance = new Map();
    for (const values of found) {
      const value = object.id ? values[object.id] : "";
      if (!byInstance.has(value)) byInstance.set(value, []);
      byInstance.get(value).push(values);
    }
    for (const [value, list] of byInstance) group(object.id, value).parts.push({ object, elements: list });
  }
  // What belongs to the whole box (settings, maintenance) stands next to the box's own group.
  const [first, ...rest] = [...groups.values()];
  const ordered = groups.has("") ? [first, groups.get(""), ...rest.filter((one) => one.key)] : [first, ...rest];
  main.replaceChildren(...ordered.map((one) => renderGroup(one, groups)));
  main.setAttribute("aria-busy", "false");
  showStatus(status);
}

// ---------------------------------------------------------------------------------------------
// Rendering

function element(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name === "text") node.textContent = value;
    else node.setAttribute(name, value);
  }
  node.append(...children);
  return node;
}

// A group is named after its status object (or its first object), numbered when the box has
// several of its kind.
function groupTitle(group, groups) {
  if (!group.key) return "Settings and maintenance";
  const named = group.parts.find((part) => part.status) ?? group.parts[0];
  const several = [...groups.values()].filter((other) => other.key === group.key).length > 1;
  return several ? `${label(named.object.name)} ${group.value}` : label(named.object.name);
}

function renderGroup(group, groups) {
  const id = `group-${nextId++}`;
  group.title = groupTitle(group, groups);
  const section = element("section", { class: "group", "aria-labelledby": id }, element("h2", { id, text: group.title }));
  for (const part of group.parts) section.append(renderPart(part, group));
  return section;
}

function renderPart(part, group) {
  const { object } = part;
  const block = element("div", { class: "part" });
  // An object that is only run is named by its buttons.
  if (object.actions.includes("get")) block.append(element("h3", { text: part.status ? "Status" : label(object.name) }));
  if (part.status) {
    const list = element("dl", { id: `status-${object.name}-${group.value}`, class: "status" });
    fillStatus(list, object, part.status);
    block.append(list);
  } else if (!object.actions.includes("get")) {
    block.append(renderActions(object, group));
  } else {
    if (part.problem) block.append(element("p", { class: "problem", role: "alert", text: part.problem }));
    if (object.list && part.elements.length) block.append(renderTable(object, part.elements, group));
    else block.append(...part.elements.map((values) => renderForm(object, values, group)));
  }
  return block;
}

// An object that is only executed: one button, or one per accepted word of its argument.
function renderActions(object, group) {
  const form = element("form", { class: "actions", "aria-label": `${group.title}: ${label(object.name)}` });
  const output = element("output", { role: "status" });
  const run = async (args, title, confirmation) => {
    if (confirmation && !(await confirmed(title, confirmation))) return;
    await submit(form, [], output, "execute", object, args, () => form);
  };
  const choices = object.args.find((arg) => arg.words);
  const words = choices ? choices.words : [null];
  for (const word of words) {
    const title = word === null ? label(object.name) : `${label(object.name)} (${choices.name} ${word})`;
    const confirmation = word === null ? CONFIRMATIONS[object.name] : CONFIRMATIONS[choices.name]?.[word];
    const button = element("button", { type: "button", text: title });
    if (word !== null) button.classList.add("danger");
    button.addEventListener("click", () => run(word === null ? {} : { [choices.name]: word }, title, confirmation));
    form.append(button);
  }
  form.append(output);
  return form;
}

function confirmed(title, text) {
  const dialog = $("#confirm");
  $("#confirm-title").textContent = `${title}?`;
  $("#confirm-text").textContent = text;
  $("#confirm-button").textContent = title;
  return new Promise((resolve) => {
    dialog.addEventListener("close", () => resolve(dialog.returnValue === "confirm"), { once: true });
    dialog.returnValue = "cancel";
    dialog.showModal();
  });
}

// The action that changes an object: set, or execute for an object that is changed by running it.
const changeAction = (object) => ["set", "execute"].find((action) => object.actions.includes(action));

// What tells one member of a list from the others (the tags of a service, a stream): the
// arguments by which a set addresses it.
const identity = (object, values) => (object.select ?? []).map((name) => [name, values[name]]);

const memberTitle = (object, values) => identity(object, values).map(([key, value]) => `${label(key)} ${value}`).join(", ");

// The fields of one element, in the order the box gave them, then the arguments it takes but
// does not report; the id and what identifies a member are not fields.
function fieldSpecs(object, values) {
  const action = changeAction(object);
  const known = new Map(object.args.map((arg) => [arg.name, arg]));
  const fixed = new Set(object.select ?? []);
  const keys = [...Object.keys(values), ...[...known.keys()].filter((name) => !(name in values))];
  const specs = [];
  for (const key of keys) {
    const value = values[key];
    const arg = known.get(key);
    if (key === object.id || fixed.has(key) || arg?.args || arg?.items) continue;
    if ((value !== undefined && typeof value !== "string") || (value === undefined && arg?.set === false)) continue;
    // Keys the description does not name are the box's own pass-through settings when it names
    // no argument at all (the network-settings service's); otherwise they go back unchanged.
    const editable = Boolean(action) && (arg ? arg.set !== false : known.size === 0);
    specs.push({ key, value: value ?? "", arg, editable });
  }
  return specs;
}

function renderForm(object, values, group) {
  const form = element("form", { class: "object", novalidate: "" });
  form.setAttribute("aria-label", `${group.title}: ${label(object.name)}`);
  const fields = fieldSpecs(object, values).map((spec) => renderField(spec));
  form.append(...fields.map((field) => element("div", { class: field.editable ? "field" : "field fixed" }, ...field.parts)));
  form.append(...formEnd(object, values, group, form, form, fields, (fresh) => renderForm(object, fresh, group)));
  return form;
}

// A list (services, streams): a table, one form per member.
function renderTable(object, members, group) {
  const heads = fieldSpecs(object, members[0]).map((spec) => spec.key);
  const head = element("tr", {}, ...[...(object.select ?? []), ...heads].map((key) => element("th", { scope: "col", text: label(key) })),
    element("th", { scope: "col", text: "" }));
  const body = element("tbody", {}, ...members.map((values) => renderRow(object, values, group)));
  return element("div", { class: "table" }, element("table", {}, element("thead", {}, head), body));
}

function renderRow(object, values, group) {
  const title = memberTitle(object, values);
  const form = element("form", { id: `form-${nextId++}`, novalidate: "" });
  form.setAttribute("aria-label", `${group.title}: ${label(object.name)} · ${title}`);
  const fields = fieldSpecs(object, values).map((spec) => renderField(spec, form.id));
  const row = element("tr", {}, ...identity(object, values).map(([key, value]) =>
    element("th", { scope: "row", "data-label": label(key), text: value })),
    ...fields.map((field) => element("td", { class: field.editable ? "" : "fixed" }, ...field.parts)));
  form.append(...formEnd(object, values, group, form, row, fields, (fresh) => renderRow(object, fresh, group)));
  row.append(element("td", {}, form));
  return row;
}

function renderField(spec, owner) {
  const { key, value, arg, editable } = spec;
  const id = `field-${nextId++}`;
  let control;
  if (editable && arg?.words) {
    control = element("select", { id, name: key });
    const words = arg.words.includes(value) ? arg.words : [value, ...arg.words];
    control.append(...words.map((word) => element("option", { value: word, text: word })));
    control.value = value;
  } else {
    control = element("input", { id, name: key, value, autocomplete: "off", spellcheck: "false" });
    control.readOnly = !editable;
  }
  if (owner) {
    // In a table's row: as wide as what it holds.
    control.setAttribute("form", owner);
    if (control.tagName === "INPUT") control.size = Math.max(3, value.length + 1);
  }
  control.dataset.value = value;
  control.dataset.arg = key;
  const message = element("span", { class: "field-problem", id: `${id}-problem`, role: "alert" });
  control.setAttribute("aria-describedby", message.id);
  return { ...spec, control, parts: [element("label", { for: id, text: label(key) }), control, message] };
}

// The button, the message and the submission of a form whose fields are given; `shown` is what
// the page shows of it (the form, or a table's row), replaced by render(fresh values) after a change.
function formEnd(object, values, group, form, shown, fields, render) {
  const action = changeAction(object);
  const output = element("output", { role: "status", "aria-live": "polite" });
  const parts = [];
  if (action) parts.push(element("div", { class: "buttons" }, element("button", { text: action === "set" ? "Save" : "Apply" })));
  parts.push(output);
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    const args = { ...(object.id ? { [object.id]: group.value } : {}), ...Object.fromEntries(identity(object, values)) };
    const changes = [];
    for (const field of fields) {
      const changed = field.control.value !== field.control.dataset.value;
      if (!field.editable || changed || field.arg?.mandatory) args[field.key] = field.control.value;
      if (field.editable && changed) changes.push(field);
    }
    if (changes.length === 0) {
      output.textContent = "Nothing changed.";
      return;
    }
    const texts = action === "execute" ? changes.map((field) => CONFIRMATIONS[field.key]).filter((text) => typeof text === "string") : [];
    const title = `${label(object.name)}: ${changes.map((field) => field.control.value).join(", ")}`;
    if (texts.length && !(await confirmed(title, texts.join(" ")))) return;
    // A set is read back; what an execute changes (a mode: tavid restarts) the status rounds bring.
    await submit(form, fields, output, action, object, args,
      () => (action === "set" ? reread(shown, object, group, values, render) : kept(shown, fields)));
  });
  return parts;
}

async function submit(form, fields, output, action, object, args, done) {
  for (const field of fields) {
    field.control.removeAttribute("aria-invalid");
    field.parts[2].textContent = "";
  }
  form.setAttribute("aria-busy", "true");
  output.className = "";
  output.textContent = "Sending…";
  let reply;
  try {
    reply = await ask(action, object.name, args);
  } catch (failure) {
    output.className = "problem";
    output.textContent = `Not sent: ${failure.message}`;
    form.setAttribute("aria-busy", "false");
    return;
  }
  form.setAttribute("aria-busy", "false");
  const problem = replyText(reply);
  if (problem) {
    output.className = "problem";
    output.textContent = problem;
    markField(fields, reply.description, problem);
    return;
  }
  const shown = await done();
  shown.querySelector("output").textContent = action === "set" ? "Saved." : "Done.";
}

// The daemon names the argument it refused in brackets at the end of its description.
function markField(fields, description, problem) {
  const named = /\(([^()]*)\)$/.exec(description ?? "");
  const field = named && fields.find((one) => one.key === named[1]);
  if (!field) return;
  field.control.setAttribute("aria-invalid", "true");
  field.parts[2].textContent = problem;
}

function kept(shown, fields) {
  for (const field of fields) field.control.dataset.value = field.control.value;
  return shown;
}

// After a change, the object is read again: the page shows what the box now holds.
async function reread(shown, object, group, values, render) {
  const args = object.id ? { [object.id]: group.value } : {};
  const found = elements(await ask("get", object.name, args).catch(() => ({})));
  if (found === null) return shown;
  const title = memberTitle(object, values);
  const replacement = render(found.find((candidate) => memberTitle(object, candidate) === title) ?? found[0]);
  shown.replaceWith(replacement);
  return replacement;
}

statusRound();
