#!/usr/bin/env python3
"""Logs devices to HDF5, a group a device with values and times: hdf5_logger.py out.h5 Microphone"""

import argparse
import time

import h5py
import numpy

import vexahost


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file")
    parser.add_argument("devices", nargs="+")
    parser.add_argument("--unit", help="address of the unit (build/unit)")
    parser.add_argument("--seconds", type=float, default=10.0)
    options = parser.parse_args()

    with vexahost.connect(options.unit) as unit, h5py.File(options.file, "w") as file:
        unit.open_controller()
        file.attrs["epoch"] = unit.epoch  # zero of all times, seconds since 1970
        sources = [unit.open(name) for name in options.devices]
        for source in sources:
            group = file.create_group(source.name)
            group.create_dataset("values", (0,), numpy.int16, maxshape=(None,), chunks=(4096,))
            group.create_dataset("times", (0,), numpy.float64, maxshape=(None,), chunks=(4096,))
        end = time.monotonic() + options.seconds
        while time.monotonic() < end:
            source, block = unit.receive_any(sources, timeout=10)
            for key, new in (("values", block.values), ("times", block.times)):
                data = file[source.name][key]
                data.resize(len(data) + len(new), axis=0)
                data[len(data) - len(new) :] = new
        for source in sources:
            group = file[source.name]
            group.attrs["gaps"] = source.stats.gaps
            group.attrs["dropped"] = source.stats.dropped
            print(f"{source.name}: {len(group['values'])} samples, {source.stats.gaps} gaps")


if __name__ == "__main__":
    main()
