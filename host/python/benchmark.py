#!/usr/bin/env python3
"""CPU and losses of a host in Python at the link's limit: nine streams of the scenario busy-lab.

    PYTHONPATH=. python3 benchmark.py [SECONDS]
"""

import os
import sys
import time

import vexahost

DEVICES = ("Accelerometer", "Spectrometer", "Microphone") * 3


def main(seconds: float) -> None:
    with vexahost.VirtualUnit(scenario="busy-lab") as virtual, virtual.connect() as unit:
        unit.open_controller()
        devices = [unit.open(name) for name in DEVICES]
        samples, highest = 0, 0
        cpu, start = time.process_time(), time.monotonic()
        load = os.getloadavg()[0]
        while time.monotonic() - start < seconds:
            for device in devices:
                block = device.read(590, timeout=5)  # of five blocks
                samples += len(block)
                highest = max(highest, int(block.max() if hasattr(block, "max") else max(block)))
        taken = time.monotonic() - start
        cpu = time.process_time() - cpu
        stats = [device.stats for device in devices]
        blocks = sum(each.blocks for each in stats)
        amount = sum(each.bytes for each in stats)
        print(
            f"{taken:.1f} s: {blocks / taken:.0f} blocks/s, {amount / taken / 1000:.0f} kB/s, "
            f"{samples / taken:.0f} samples/s, highest {highest}\n"
            f"CPU {100 * cpu / taken:.1f} % of a core; "
            f"gaps {sum(each.gaps for each in stats)}, "
            f"dropped {sum(each.dropped for each in stats)}, "
            f"resynchronisations {unit.stats.resynchronisations}\n"
            f"load of the machine at the start {load:.1f}, {os.cpu_count()} cores"
        )


if __name__ == "__main__":
    main(float(sys.argv[1]) if len(sys.argv) > 1 else 60.0)
