"""The session scripts of host/scripts, run by this module. A wait is one for what follows it."""

import operator
import time
from typing import Any, Callable, Dict

import pytest

import vexahost

COMPARE = {"<": operator.lt, "<=": operator.le, "=": operator.eq, ">=": operator.ge}


class Script:
    def __init__(self, virtual: vexahost.VirtualUnit, unit: vexahost.Unit) -> None:
        self.virtual, self.unit = virtual, unit
        self.devices: Dict[str, vexahost.Device] = {}
        self.patience = 0.0  # until when a check may become true: the waits of the script
        self.verbs: Dict[str, Callable[..., Any]] = {
            "controller": self.controller,
            "query": lambda wanted: self.until(
                lambda: unit.query_daq_application(timeout=20) == (wanted == "holds")
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
        lines = [line.split("#")[0].split() for line in text.splitlines()]
        for words in filter(None, lines):
            if words[0] == "expect":
                with pytest.raises(vexahost.Refused) as refused:
                    self.verbs[words[3]](*words[4:])
                assert refused.value.code == int(words[2]), words
            else:
                self.verbs[words[0]](*words[1:])
        return sum(words[:1] in (["expect"], ["check"], ["query"]) for words in lines)

    def until(self, condition: Callable[[], Any]) -> None:
        while not condition():
            assert time.monotonic() < self.patience, "it does not hold"
            time.sleep(0.02)

    def wait(self, duration: str) -> None:
        self.patience = time.monotonic() + float(duration[:-1]) + 20  # a machine may be busy

    def controller(self, daq: str = "") -> None:
        if time.monotonic() < self.patience:  # for the hardware to be the application's again
            self.until(lambda: self.virtual.state()["applications"]["DAQ"]["holds"])
        self.unit.open_controller(daq=daq == "daq")

    def open(self, name: str, id: str = "") -> None:
        self.devices[name] = self.unit.open(name, int(id, 0) if id else None)

    def close(self, name: str) -> None:
        if name == "controller":
            return self.unit.close_controller()
        self.unit.close_device(self.devices[name].id if name in self.devices else int(name, 0))

    def figure(self, name: str, figure: str) -> float:
        stats = self.unit.daq.stats if name == "daq" else self.devices[name].stats
        if figure == "rate":
            return stats.blocks / (time.monotonic() - self.devices[name]._channel().opened)
        names = {"packets": "blocks", "badsums": "wrong_checksums"}
        return float(getattr(stats, names.get(figure, figure)))
