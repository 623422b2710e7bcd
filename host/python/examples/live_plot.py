#!/usr/bin/env python3
"""Plots the last seconds of a device as they come: live_plot.py Accelerometer"""

import argparse
from collections import deque
from typing import Any, Deque, Tuple

import matplotlib.animation
import matplotlib.pyplot as plt

import vexahost


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("device")
    parser.add_argument("--unit", help="address of the unit (build/unit)")
    parser.add_argument("--seconds", type=float, default=5.0, help="that are shown")
    parser.add_argument("--frames", type=int, help="end after so many pictures")
    parser.add_argument("--save", help="a file for the last picture, in place of a window")
    options = parser.parse_args()

    with vexahost.connect(options.unit) as unit:
        unit.open_controller()
        device = unit.open(options.device)
        figure, axes = plt.subplots()
        (line,) = axes.plot([], [])
        axes.set(xlabel="time in s", title=options.device)
        points: Deque[Tuple[float, float]] = deque()

        def draw(_: int, timeout: float = 0) -> Tuple[Any, ...]:
            try:
                while True:  # all that has come so far
                    block = device.read_block(timeout)
                    points.extend(zip(block.times, block.values))
                    timeout = 0
            except vexahost.Timeout:
                pass
            while points and points[-1][0] - points[0][0] > options.seconds:
                points.popleft()
            if points:
                line.set_data(*zip(*points))
                axes.relim()
                axes.autoscale_view()
            return (line,)

        if options.save:
            for number in range(options.frames or 10):
                draw(number, timeout=5)
            figure.savefig(options.save)
            print(f"{len(points)} samples in {options.save}")
        else:
            # It has to live until the window is closed.
            figure.vexahost_animation = matplotlib.animation.FuncAnimation(
                figure, draw, frames=options.frames, interval=50, cache_frame_data=False
            )
            plt.show()


if __name__ == "__main__":
    main()
