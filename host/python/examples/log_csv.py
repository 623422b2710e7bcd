#!/usr/bin/env python3
"""Logs a device to CSV, also beyond a lost link: log_csv.py Microphone out.csv"""

import argparse
import csv

import vexahost


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("device")
    parser.add_argument("file")
    parser.add_argument("--unit", help="address of the unit (build/unit)")
    parser.add_argument("--samples", type=int, help="end after so many; without it Ctrl-C does")
    options = parser.parse_args()

    written = 0
    with vexahost.connect(options.unit) as unit, open(options.file, "w", newline="") as file:
        lines = csv.writer(file)
        lines.writerow(["time_s", "sequence", "value"])
        while options.samples is None or written < options.samples:
            try:
                unit.open_controller()
                for block in unit.open(options.device).blocks(timeout=10):
                    lines.writerows(
                        [f"{time:.6f}", block.sequence, value]
                        for time, value in zip(block.times, block.values)
                    )
                    written += len(block.values)
                    if options.samples is not None and written >= options.samples:
                        break
            except vexahost.LinkLost as error:
                print(f"{written} samples, then: {error}; waiting for the unit")
                unit.reconnect(timeout=None)
    print(f"{written} samples")


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
