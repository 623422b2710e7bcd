"""A test of a host program against a virtual unit whose cable is pulled: pytest test_cable_pull.py

The fixture `virtual_unit` comes with vexahost.
"""

import threading
from typing import List

import vexahost


def record(unit: vexahost.Unit, values: List[int]) -> None:
    """The host program that is tested: it comes back each time the cable does."""
    while len(values) < 4000:
        try:
            unit.open_controller()
            values.extend(unit.open("Microphone").read(2000, timeout=5))
        except vexahost.LinkLost:
            unit.reconnect(timeout=10)


def test_a_pulled_cable_loses_no_recording(virtual_unit: vexahost.VirtualUnit) -> None:
    values: List[int] = []
    with virtual_unit.connect() as unit:
        program = threading.Thread(target=record, args=(unit, values), daemon=True)
        program.start()
        virtual_unit.wait("streaming Microphone")
        virtual_unit.cable(False)
        virtual_unit.wait(host=False)
        virtual_unit.cable(True)
        program.join(20)
        assert len(values) == 4000 and unit.connection > 1
