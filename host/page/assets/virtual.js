// The controls that only a virtual unit has.

import { $, node, submit } from "./dom.js";

const BEHAVIOURS = {
  "answers at once": { delayMs: 0, silent: false, refuses: [] },
  "answers after 3 s": { delayMs: 3000, silent: false, refuses: [] },
  "is silent": { delayMs: 0, silent: true, refuses: [] },
  "refuses to let go": { delayMs: 0, silent: false, refuses: [2] },
};

// `ask(body, what)` sends a request to the unit's control socket.
export function setUpVirtualUnit(ask) {
  let isIn = true;
  $("app-how").replaceChildren(...Object.keys(BEHAVIOURS).map((name) => new Option(name)));
  const tell = async (body, what) => {
    const { problem, body: answer } = await ask(body, what);
    if (problem || answer?.ok === false) return;
    $("events").prepend(node("li", { textContent: `${new Date().toLocaleTimeString()} ${what}` }));
  };
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
    const times = Number($("fault-times").value);
    tell({ request: "fault.set", call, action, times, ...time }, `${call} will ${action === "late" ? "be late" : action}, ${times} times`);
  });

  const sensorItem = (device, mayControl) => {
    const { name, type, attached, rate, blockSize } = device;
    const button = node("button", { textContent: attached ? "Detach" : "Attach", disabled: !mayControl });
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
      $("cable").textContent = isIn ? "Pull the cable" : "Put the cable in";
      const keys = JSON.stringify(unit.devices);
      if ($("sensors").dataset.keys === keys) return;
      $("sensors").dataset.keys = keys;
      $("sensors").replaceChildren(...unit.devices.map((device) => sensorItem(device, hello.control)));
      const chosen = $("sensor-name").value;
      $("sensor-name").replaceChildren(...unit.devices.map(({ name }) => new Option(name)));
      if (chosen) $("sensor-name").value = chosen;
      $("attached").replaceChildren(...unit.devices.filter(({ attached }) => attached).map(({ name }) => new Option(name)));
      $("calls").replaceChildren(...Object.keys(unit.calls).map((name) => new Option(name)));
    },
  };
}
