#!/usr/bin/env python3
"""Makes the picture of docs/python.md from a virtual unit: plot_sensors.py python.png"""

import sys

import matplotlib

matplotlib.use("Agg")

import matplotlib.pyplot as plt  # noqa: E402

import vexahost  # noqa: E402


def main(file: str) -> None:
    with vexahost.VirtualUnit() as virtual, virtual.connect() as unit:
        unit.open_controller()
        sensors = {"Accelerometer": 400, "Spectrometer": 520, "Microphone": 5200}
        devices = [unit.open(name) for name in sensors]
        figure, rows = plt.subplots(len(sensors), sharex=True, figsize=(8, 4.5), dpi=80)
        for device, axes in zip(devices, rows):
            values = device.read(sensors[device.name], timeout=10)
            axes.plot(device.times, values, ".-", markersize=2, linewidth=0.7)
            axes.set_title(f"{device.name}, {device.rate:.0f} samples/s", fontsize=9)
        rows[-1].set(xlabel="seconds since the unit was connected", xlim=(2, 3))
        figure.tight_layout()
        figure.savefig(file)


if __name__ == "__main__":
    main(sys.argv[1])
