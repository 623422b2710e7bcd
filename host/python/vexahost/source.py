"""Samples of one device or of the DAQ, for `Unit` and for `aio.Unit`."""

from __future__ import annotations

from collections import deque
from dataclasses import replace
from typing import Callable, Deque, List, Mapping, NamedTuple, Optional

from . import samples
from .engine import Engine
from .errors import InvalidArgument
from .inbox import Channel, RawBlock, Stats
from .link import Operation
from .samples import DeviceFormat, Samples


class Block(NamedTuple):
    """A block of a device, or a packet of the DAQ."""

    values: Samples  #: its samples; none in a block that holds none, such as an echo
    times: Samples  #: of each sample, seconds since the unit was connected (Unit.epoch)
    sequence: int  #: the device's number of the block, 0 to 255
    bytes: bytes
    device_time: Optional[float]  #: seconds since its stream was opened, by the device's clock
    received: float  #: arrival, seconds since the unit was connected
    checksum_right: bool = True


class Source:
    """What a device and the DAQ have in common."""

    def __init__(
        self,
        engine: Engine,
        devices: Mapping[str, DeviceFormat],
        start: float,
        name: str,
        channel: Callable[[], Channel],
    ) -> None:
        self._engine = engine
        self._devices = devices
        self._start = start  # zero of all times, time.monotonic()
        self._channel = channel
        self._format = devices.get(name)
        stated = self._format.rate if self._format else None
        self._timing = samples.Timing(channel().opened, stated)
        self._pending: Deque[Block] = deque()  # received, not all given out
        self._times: Samples = samples.times(0, 0, 0)
        self.name = name

    @property
    def stats(self) -> Stats:
        """Counts since the device was opened: blocks, bytes, gaps, dropped."""
        return replace(self._channel().stats)

    @property
    def rate(self) -> Optional[float]:
        """Samples per second of each channel: stated until it is measured; None before."""
        return self._timing.rate

    @property
    def times(self) -> Samples:
        """Times of the samples of the last `read`, seconds since the unit was connected."""
        return self._times

    @property
    def channels(self) -> List[str]:
        """Names of the channels, in the order of the rows of `values`."""
        return [channel.name for channel in self._format.channels] if self._format else []

    def _decode(self, raw: RawBlock) -> Block:
        if self._format is None:
            guessed = samples.format_for(self._devices, self.name, raw.data)
            self._format = guessed if guessed.channels else None
        form = self._format
        holds = form is not None and raw.checksum_right and form.has_samples(raw.data)
        values = form.decode(raw.data) if form and holds else samples.times(0, 0, 0)
        count = samples.sample_count(values, len(form.channels)) if form and holds else 0
        begin, step = self._timing.place(raw, count)
        return Block(
            values,
            samples.times(begin - self._start, step, count),
            raw.sequence,
            raw.data,
            form.device_time(raw.data) if form and holds else None,
            raw.received - self._start,
            raw.checksum_right,
        )

    def _read_block(self, deadline: float) -> Operation[Block]:
        if self._pending:
            return self._pending.popleft()
        raw = yield from self._engine.receive(self._channel(), deadline)
        return self._decode(raw)

    def _read(self, count: int, deadline: float) -> Operation[Samples]:
        if count < 1:
            raise InvalidArgument("at least one sample must be asked for")
        # What came stays pending until there is enough: nothing is lost at a timeout.
        have = sum(len(block.times) for block in self._pending)
        while have < count:
            raw = yield from self._engine.receive(self._channel(), deadline)
            block = self._decode(raw)
            if len(block.times) > 0:
                self._pending.append(block)
                have += len(block.times)
        channels = len(self.channels)
        values, times = [], []
        while count > 0:
            block = self._pending.popleft()
            there = len(block.times)
            if there > count:
                rest = block._replace(
                    values=samples.cut(block.values, channels, count, None),
                    times=block.times[count:],
                )
                self._pending.appendleft(rest)
                block = block._replace(
                    values=samples.cut(block.values, channels, 0, count),
                    times=block.times[:count],
                )
            count -= len(block.times)
            values.append(block.values)
            times.append(block.times)
        self._times = samples.join(times, 1)
        return samples.join(values, channels)
