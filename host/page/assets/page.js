// The page: puts link, charts, log and controls together.

import { $, fill, node, submit, write } from "./dom.js";
import { Link } from "./link.js";
import { Channel } from "./store.js";
import { Charts } from "./charts.js";
import { Trigger } from "./trigger.js";
import { Log } from "./log.js";
import { setUpVirtualUnit } from "./virtual.js";

const LINK_LIMIT = 330000; // bytes per second that the link carries

const trigger = new Trigger();
const channels = new Map(); // id -> Channel
const page = { hello: null, state: null, dropped: 0, rate: 0, former: null };
let noticeTimer = 0;

function notice(text) {
  $("notice").textContent = text;
  clearTimeout(noticeTimer);
  noticeTimer = setTimeout(() => ($("notice").textContent = ""), 8000);
}

// Asks the unit for something; says what went wrong.
async function ask(request, members, what) {
  const answer = await link.ask(request, members);
  const problem = answer.problem || (answer.body?.ok === false ? answer.body.error : "");
  if (problem) notice(`${what}: ${problem}`);
  return answer;
}

const link = new Link({
  hello(hello) {
    page.hello = hello;
    $("unit").textContent = document.title = hello.unit;
    $("session").hidden = !hello.saves;
    $("events").replaceChildren();
    for (const control of document.querySelectorAll("aside button, aside input, aside select")) control.disabled = !hello.control;
    log.refill();
  },
  state(state) {
    page.state = state;
    showLink(state);
    showDevices(state);
    virtual.show(state.unit, page.hello);
  },
  samples(id, piece) {
    const channel = channels.get(id);
    if (!channel) return;
    trigger.look(id, { ...piece, gap: channel.add(piece) }, charts.span);
    showTrigger();
    if (!charts.isPaused) charts.touch();
  },
  packets: (packets) => log.add(packets),
  timeline: ({ lines }) => virtual.addEvents(lines),
  dropped({ frames }) {
    page.dropped += frames;
    for (const channel of channels.values()) channel.isBroken = true;
    notice(`this page was too slow for ${frames} frames of samples: there is a gap`);
  },
  answer: ({ problem }) => problem && notice(problem),
  closed(wasKnown) {
    $("link").className = "";
    $("link").textContent = wasKnown ? "vexa-host has ended; waiting for it" : "vexa-host cannot be reached, or the address has the wrong token";
  },
});
const charts = new Charts($("charts"), trigger, (time) => showPackets(time), (isPaused) => ($("pause").ariaPressed = String(isPaused)));
const log = new Log(link, (time) => charts.show(time));
const virtual = setUpVirtualUnit((body, what) => ask("unit", { body }, what), (time) => {
  charts.show(time);
  log.showTime(time);
});

// The packets of a moment in the charts; without one of where the cursor is.
function showPackets(time) {
  charts.mark("p", time);
  return log.showTime(charts.marks.p);
}

function showTrigger() {
  write($("trigger-state"), trigger.state && (trigger.state === "armed" ? "armed" : "triggered"));
}

const figure = (name, value) => node("div", {}, node("dt", { textContent: name }), node("dd", { textContent: value }));

function showLink(state) {
  const isUp = state.link === "up";
  $("link").className = isUp ? "up" : "";
  write($("link"), isUp ? "connected" : `not connected: ${state.why || "looking for the unit"}`);
  write($("recording"), state.recording && `The recording has stopped: ${state.recording}`);
  const { former } = page;
  if (!former || state.now - former.now > 0.9 || state.bytes < former.bytes) {
    if (former && state.now > former.now) page.rate = Math.max(0, (state.bytes - former.bytes) / (state.now - former.now));
    page.former = state;
  }
  const sum = (key) => state.devices.reduce((total, device) => total + device[key], 0);
  const daq = { taken: "taken by this page", holds: "held by the unit's application", free: "free" };
  $("figures").replaceChildren(
    figure("load", `${(page.rate / 1000).toFixed(1)} of 330 kB/s (${Math.round((100 * page.rate) / LINK_LIMIT)} %)`),
    figure("DAQ", daq[state.daq] ?? "unknown"),
    figure("gaps", sum("gaps")),
    figure("blocks dropped", sum("dropped")),
    figure("frames dropped", page.dropped),
    figure("wrong checksums", state.wrongChecksums),
    figure("resynchronised", state.resynchronised),
    figure("links lost", state.losses),
    figure("answer in", state.roundTrip === null ? "–" : `${(1000 * state.roundTrip).toFixed(0)} ms`),
    figure("viewers", state.viewers),
  );
}

function showDevices({ devices }) {
  const seen = new Set();
  for (const device of devices) {
    for (const { id, name, unit } of device.channels) {
      seen.add(id);
      if (channels.has(id)) continue;
      const channel = new Channel(id, device.name, device.child, name, unit);
      channels.set(id, channel);
      charts.add(channel);
    }
  }
  for (const id of channels.keys()) {
    if (seen.has(id)) continue;
    channels.delete(id);
    charts.remove(id);
  }
  charts.order([...seen]);
  $("empty").hidden = channels.size > 0;
  const options = charts.channels.map((channel) => [channel.id, channel.label]);
  fill($("trigger-channel"), options);
  if (!channels.has(trigger.channel) && options.length) trigger.set({ channel: Number($("trigger-channel").value) });
  const children = devices.filter(({ child }) => child);
  fill($("send-child"), children.map(({ child, name }) => [child, `${name} 0x${child.toString(16)}`]));
  fill($("filter-child"), [["", "all"], ...children.map(({ child, name }) => [child, name])]);
  const list = $("devices");
  const keys = devices.map(({ child, name, open }) => `${child} ${name} ${open}`).join();
  if (list.dataset.keys !== keys) {
    list.dataset.keys = keys;
    list.replaceChildren(...devices.map(deviceItem));
  }
  devices.forEach((device, i) => {
    const facts = list.children[i].lastChild;
    const rate = device.rate === null ? "" : `${device.rate.toFixed(1)} samples/s, `;
    const text = device.open ? `${rate}${device.blocks} blocks, ${device.gaps} gaps, ${device.dropped} dropped` : device.problem || "not open";
    write(facts, text);
    facts.className = !device.open && device.problem ? "bad" : "";
  });
}

function deviceItem({ child, name }) {
  const button = (textContent, title, request) =>
    node("button", { textContent, title, ariaLabel: title, disabled: !page.hello?.control, onclick: () => ask(request, { child }, title) });
  const close = button("Close", `Close ${name}`, child ? "close" : "handBack");
  const arm = child ? [button("Arm", `Arm the HID sensor ${name}`, "arm")] : [];
  return node("li", {}, node("b", { textContent: name }), ...arm, close, node("small"));
}

// --- controls -----------------------------------------------------------------------------------

function save(name, blob) {
  const anchor = node("a", { href: URL.createObjectURL(blob), download: name });
  anchor.click();
  setTimeout(() => URL.revokeObjectURL(anchor.href), 1000);
}
const stamp = () => new Date().toISOString().replace(/[:.]/g, "-").slice(0, 19);

const saveCsv = () => save(`samples-${stamp()}.csv`, new Blob([charts.csv()], { type: "text/csv" }));

async function copyPicture() {
  const canvas = charts.picture();
  if (!canvas) return notice("there is no chart yet");
  const blob = await new Promise((resolve) => canvas.toBlob(resolve));
  try {
    await navigator.clipboard.write([new ClipboardItem({ "image/png": blob })]);
    notice("The picture is in the clipboard.");
  } catch {
    save(`charts-${stamp()}.png`, blob);
  }
}

async function saveSession() {
  const answer = await fetch("session.pcapng", { headers: { authorization: `Bearer ${link.token}` } });
  if (answer.ok) save(`session-${stamp()}.pcapng`, await answer.blob());
  else notice(`the session cannot be saved: ${await answer.text()}`);
}

function setTrigger() {
  trigger.set({
    mode: $("trigger-mode").value,
    channel: Number($("trigger-channel").value),
    edge: Number($("trigger-edge").value),
    level: Number($("trigger-level").value) || 0,
    before: Math.min(100, Math.max(0, Number($("trigger-before").value))) / 100,
  });
  showTrigger();
  charts.live();
}

$("pause").onclick = () => charts.pause();
$("csv").onclick = saveCsv;
$("picture").onclick = copyPicture;
$("session").onclick = saveSession;
$("span").onchange = () => charts.setSpan(Number($("span").value));
$("trigger").onchange = setTrigger;
$("take").onclick = () => ask("takeOver", {}, "take over");
$("hand").onclick = () => ask("handBack", {}, "hand back");
submit("open", async () => {
  const name = $("open-name").value.trim();
  const { problem } = await ask("open", { name }, `open ${name}`);
  if (!problem) $("open-name").value = "";
});
submit("send", () => ask("send", { child: Number($("send-child").value), bytes: $("send-bytes").value }, "send"));

const KEYS = [
  [" ", "Space", "pause, or go on", () => charts.pause()],
  ["+", "+", "zoom in", () => charts.zoom(0.5)],
  ["-", "−", "zoom out", () => charts.zoom(2)],
  ["ArrowLeft", "←", "back in time", () => charts.pan(-0.2)],
  ["ArrowRight", "→", "forward in time", () => charts.pan(0.2)],
  ["End", "End", "the newest samples", () => charts.live()],
  ["a", "a", "cursor A here", () => charts.mark("a")],
  ["b", "b", "cursor B here", () => charts.mark("b")],
  ["m", "m", "the packets of this moment; there Enter shows a packet's moment", async () => (await showPackets())?.focus()],
  ["c", "c", "no cursors", () => charts.clearMarks()],
  ["t", "t", "arm the trigger again", setTrigger],
  ["s", "s", "save what is visible as CSV", saveCsv],
  ["p", "p", "copy a picture", copyPicture],
  ["o", "o", "open a device", () => $("open-name").focus()],
  ["/", "/", "look for a text in the packets", () => $("filter-text").focus()],
  ["f", "f", "follow the packets, or stand still", () => log.follow(!log.isFollowing)],
  ["?", "?", "this sheet", () => $("sheet").showModal()],
];
$("help").onclick = () => $("sheet").showModal();
for (const [, key, words] of KEYS) $("keys").append(node("dt", {}, node("kbd", { textContent: key })), node("dd", { textContent: words }));
document.addEventListener("keydown", (event) => {
  const { target, key } = event;
  if (key === "Escape" && target.matches("input, select")) return target.blur();
  if (event.ctrlKey || event.metaKey || event.altKey || target.matches("input, select, textarea") || $("sheet").open) return;
  if (event.defaultPrevented || (target.closest("[role=log]") && /^(Arrow|End)/.test(key))) return;
  if (key === " " && target.matches("button")) return;
  const entry = KEYS.find(([name]) => name === key);
  if (!entry) return;
  event.preventDefault();
  entry[3]();
});

// For measurements and tests.
globalThis.vexa = { page, channels, charts, log, trigger, link };
