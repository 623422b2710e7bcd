// The controls that only a virtual unit has.

import { $, fill, node, setUpMoments, submit, write } from "./dom.js";

const BEHAVIOURS = {
  "answers at once": { delayMs: 0, silent: false, refuses: [] },
  "answers after 3 s": { delayMs: 3000, silent: false, refuses: [] },
  "is silent": { delayMs: 0, silent: true, refuses: [] },
  "refuses to let go": { delayMs: 0, silent: false, refuses: [2] },
};

const MOST_EVENTS = 500;

// `tell(body, what)` sends a request to the unit's control socket; `onTime` is called with a moment that is chosen.
export function setUpVirtualUnit(tell, onTime) {
  let isIn = true;
  $("app-how").replaceChildren(...Object.keys(BEHAVIOURS).map((name) => new Option(name)));
  setUpMoments($("events"), onTime);
  $("cable").onclick = () => tell({ request: "cable", in: !isIn }, isIn ? "cable out" : "cable in");
  $("clear-faults").onclick = () => tell({ request: "fault.clear" }, "no faults");
  submit("sensor", () => {
    const [name, key, text] = [$("sensor-name").value, $("sensor-key").value, $("sensor-value").value];
    const value = text !== "" && Number.isFinite(Number(text)) ? Number(text) : text;
    tell({ request: "attach", name, [key]: value }, `${name}: ${key} ${text}`);
  });
  submit("app", () => {
    const [name, how] = [$("app-name").value, $("app-how").value];
    tell({ request: "app", name, ...BEHAVIOURS[how] }, `${name} ${how}`);
  });
  submit("fault", () => {
    const [call, action] = [$("fault-call").value, $("fault-action").value];
    const time = action === "fail" ? {} : { ms: 1000 };
    const count = Number($("fault-times").value);
    tell({ request: "fault.set", call, action, count, ...time }, `set the fault of ${call}`);
  });

  const sensorItem = (device, mayControl) => {
    const { name, type, attached, rate, blockSize } = device;
    const does = attached ? "Detach" : "Attach";
    const button = node("button", { textContent: does, ariaLabel: `${does} ${name}`, disabled: !mayControl });
    button.onclick = () => tell({ request: attached ? "detach" : "attach", name }, `${name} ${attached ? "detached" : "attached"}`);
    const comes = device.source ? `from ${Object.keys(device.source).join(", ")}` : `${rate} blocks/s of ${blockSize} bytes, ${device.waveform}`;
    return node("li", {}, node("b", { textContent: name }), button, node("small", { textContent: `type ${type}, ${comes}` }));
  };

  return {
    // `unit` is the state that the control socket tells.
    show(unit, hello) {
      $("virtual").hidden = !hello?.virtual;
      if (!unit?.devices) return;
      isIn = unit.cable.in;
      write($("cable"), isIn ? "Pull the cable" : "Put the cable in");
      const keys = JSON.stringify(unit.devices);
      if ($("sensors").dataset.keys === keys) return;
      $("sensors").dataset.keys = keys;
      $("sensors").replaceChildren(...unit.devices.map((device) => sensorItem(device, hello.control)));
      fill($("sensor-name"), unit.devices.map(({ name }) => [name, name]));
      $("attached").replaceChildren(...unit.devices.filter(({ attached }) => attached).map(({ name }) => new Option(name)));
      $("calls").replaceChildren(...Object.keys(unit.calls).map((name) => new Option(name)));
    },
    // What has happened: the newest first. The last one comes again when it has happened again.
    addEvents(lines) {
      const list = $("events");
      for (const [number, time, text, isProblem, times] of lines) {
        const words = `${time.toFixed(2)} ${text}${times > 1 ? ` (${times} times)` : ""}`;
        const item = node("div", { tabIndex: -1, className: isProblem ? "bad" : "", textContent: words });
        Object.assign(item.dataset, { number, time });
        if (list.firstChild?.dataset.number === String(number)) list.firstChild.remove();
        list.prepend(item);
      }
      while (list.childElementCount > MOST_EVENTS) list.lastChild.remove();
    },
  };
}
