"""The session scripts of host/scripts, run by this module. A wait is one for what follows it."""

import time
from typing import Any, Callable, Dict

import pytest

import vexahost
from vexahost.inbox import Stats

COMPARE: Dict[str, Callable[[float, float], bool]] = {
    "<": float.__lt__, "<=": float.__le__, "=": float.__eq__, ">=": float.__ge__, ">": float.__gt__
}


class Script:
    def __init__(self, unit: vexahost.Unit) -> None:
        self.unit = unit
        self.devices: Dict[str, vexahost.Device] = {}
        self.opened: Dict[str, float] = {}
        self.forgotten = Stats()  # counts of the DAQ at the last opening of the controller
        self.patience = 0.0  # until when a check may become true: the waits of the script
        self.verbs: Dict[str, Callable[..., Any]] = {
            "controller": self.controller,
            "query": lambda wanted: self.until(
                lambda: unit.query_daq_application() == (wanted == "holds")
            ),
            "takeover": unit.take_over,
            "open": self.open,
            "close": self.close,
            "arm": lambda name: self.devices[name].arm(),
            "send": lambda name, data: self.devices[name].write(bytes.fromhex(data)),
            "mux": lambda command, data="": unit.send_multiplexer_command(
                int(command, 0), bytes.fromhex(data)
            ),
            "wait": self.wait,
            "check": lambda name, figure, compare, wanted: self.until(
                lambda: COMPARE[compare](self.figure(name, figure), float(wanted))
            ),
        }

    def run(self, text: str) -> int:
        """Runs all lines. The number of them that check something."""
        lines = [line for line in text.splitlines() if line.split("#")[0].strip()]
        for line in lines:
            words = line.split()
            if words[0] == "expect":
                assert words[1] == "refused", line
                with pytest.raises(vexahost.Refused) as refused:
                    self.verbs[words[3]](*words[4:])
                assert refused.value.code == int(words[2]), line
            else:
                self.verbs[words[0]](*words[1:])
        return len([line for line in lines if line.startswith(("expect", "check", "query"))])

    def until(self, condition: Callable[[], bool]) -> None:
        while not condition():
            assert time.monotonic() < self.patience, "it does not hold"
            time.sleep(0.02)

    def wait(self, duration: str) -> None:
        seconds = float(duration[:-2]) / 1000 if duration.endswith("ms") else float(duration[:-1])
        self.patience = time.monotonic() + seconds

    def controller(self, daq: str = "") -> None:
        self.devices.clear()
        self.forgotten = self.unit.daq.stats
        self.unit.open_controller(daq=daq == "daq")

    def open(self, name: str, id: str = "") -> None:
        self.devices[name] = self.unit.open(name, int(id, 0) if id else None)
        self.opened[name] = time.monotonic()

    def close(self, name: str) -> None:
        if name == "controller":
            self.unit.close_controller()
        else:
            self.unit.close_device(self.devices[name].id if name in self.devices else int(name, 0))

    def figure(self, name: str, figure: str) -> float:
        if name == "daq":
            stats, before = self.unit.daq.stats, self.forgotten
            wrong = stats.wrong_checksums - before.wrong_checksums
            return float({"packets": stats.blocks - before.blocks, "badsums": wrong}[figure])
        stats = self.devices[name].stats
        if figure == "rate":
            return stats.blocks / (time.monotonic() - self.opened[name])
        return float(getattr(stats, figure))
