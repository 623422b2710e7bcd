"""Samples of one device or of the DAQ, for `Unit` and for `aio.Unit`."""

from __future__ import annotations

from collections import deque
from dataclasses import replace
from typing import Callable, Deque, List, Mapping, Optional

from . import samples
from .engine import Engine
from .errors import InvalidArgument
from .inbox import Channel, RawBlock, Stats
from .link import Operation
from .samples import DeviceFormat, Samples, Span
from .timing import Timing


class Block:
    """A block of a device, or a packet of the DAQ."""

    __slots__ = (
        "sequence", "bytes", "received", "checksum_right", "count",
        "_values", "_raw", "_zero", "_span", "_format",
    )

    def __init__(
        self,
        values: Optional[Samples],
        raw: RawBlock,
        zero: float,
        span: Span,
        form: Optional[DeviceFormat],
    ) -> None:
        #: The device's number of the block, 0 to 255.
        self.sequence = raw.sequence
        self.bytes = raw.data
        #: Its arrival, seconds since the unit was connected.
        self.received = raw.received - zero
        #: False for a damaged packet of the DAQ, whose samples are left out.
        self.checksum_right = raw.checksum_right
        #: Samples of each channel.
        self.count = span[2]
        self._values = values  # None: not asked for yet
        self._raw = raw
        self._zero = zero
        self._span = span
        self._format = form

    @property
    def values(self) -> Samples:
        """Its samples; none in a block that holds none, such as an echo."""
        if self._values is None:
            self._values = self._format.decode(self.bytes) if self._format else samples.NONE
        return self._values

    @property
    def times(self) -> Samples:
        """The time of each sample, seconds since the unit was connected (Unit.epoch)."""
        return samples.times(*self._span)

    @property
    def device_time(self) -> Optional[float]:
        """Seconds since its stream was opened, by the device's own clock, where it is known."""
        return self._format.device_time(self.bytes) if self._format else None

    def _part(self, begin: int, end: int) -> Block:
        first, step, _ = self._span
        channels = len(self._format.channels) if self._format else 1
        values = samples.cut(self.values, channels, begin, end)
        span = Span(first + begin * step, step, end - begin)
        return Block(values, self._raw, self._zero, span, self._format)


class SampleReader:
    """Turns the blocks of one device into samples with times."""

    def __init__(
        self, name: str, devices: Mapping[str, DeviceFormat], opened: float, zero: float
    ) -> None:
        self._name = name
        self._devices = devices
        self._opened = opened
        self._zero = zero  # of all times
        self.form = devices.get(name)
        self._timing = self._make_timing()

    def _make_timing(self) -> Timing:
        form = self.form or DeviceFormat(())
        return Timing(self._opened, form.rate, form.time)

    @property
    def rate(self) -> Optional[float]:
        return self._timing.rate

    def read(self, raw: RawBlock) -> Block:
        if self.form is None:
            guessed = samples.format_for(self._devices, self._name, raw.data)
            self.form = guessed if guessed.channels else None
            self._timing = self._make_timing()
        form = self.form
        if not raw.checksum_right:  # its number may be wrong, and its samples are missing: a gap
            return Block(samples.NONE, raw, self._zero, Span(raw.received - self._zero, 0, 0), None)
        if form is None or not form.has_samples(raw.data):
            begin, step = self._timing.place(raw, 0)
            return Block(samples.NONE, raw, self._zero, Span(begin - self._zero, step, 0), None)
        count = form.count_in(raw.data)
        device = form.time.seconds(raw.data) if form.time else None
        begin, step = self._timing.place(raw, count, device)
        return Block(None, raw, self._zero, Span(begin - self._zero, step, count), form)


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
        self._channel = channel
        self._reader = SampleReader(name, devices, channel().opened, start)
        self._pending: Deque[Block] = deque()  # received, not all given out
        self._held = 0  # samples in these
        self._spans: List[Span] = []  # of the last read
        self.name = name

    @property
    def stats(self) -> Stats:
        """Counts since the device was opened: blocks, bytes, gaps, dropped."""
        return replace(self._channel().stats)

    @property
    def rate(self) -> Optional[float]:
        """Samples per second of each channel: stated until it is measured; None before."""
        return self._reader.rate

    @property
    def times(self) -> Samples:
        """Times of the samples of the last `read`, seconds since the unit was connected."""
        return samples.join([samples.times(*span) for span in self._spans or [Span(0, 0, 0)]], 1)

    @property
    def channels(self) -> List[str]:
        """Names of the channels, in the order of the rows of `values`."""
        form = self._reader.form
        return [channel.name for channel in form.channels] if form else []

    def _decode(self, raw: RawBlock) -> Block:
        return self._reader.read(raw)

    def _take_pending(self) -> Block:
        block = self._pending.popleft()
        self._held -= block.count
        return block

    def _read_block(self, deadline: float) -> Operation[Block]:
        if self._pending:
            return self._take_pending()
        raw = yield from self._engine.receive(self._channel(), deadline)
        return self._decode(raw)

    def _read(self, count: int, deadline: float) -> Operation[Samples]:
        if count < 1:
            raise InvalidArgument("at least one sample must be asked for")
        # What came stays pending until there is enough: nothing is lost at a timeout.
        channel = self._channel()
        while True:
            while channel.blocks and self._held < count:
                block = self._reader.read(channel.blocks.popleft())
                if block.count > 0:
                    self._pending.append(block)
                    self._held += block.count
            if self._held >= count:
                break
            self._engine.check_wait([channel], deadline)
            yield deadline
        self._held -= count
        taken: List[Block] = []
        while count > 0:
            block = self._pending.popleft()
            if block.count > count:
                self._pending.appendleft(block._part(count, block.count))
                block = block._part(0, count)
            count -= block.count
            taken.append(block)
        self._spans = [block._span for block in taken]
        return _join(taken, len(self.channels))


def _join(blocks: List[Block], channels: int) -> Samples:
    """The samples of blocks; of those that nobody has looked at, in one go."""
    form = blocks[0]._format
    if channels == 1 and form is not None and all([block._values is None for block in blocks]):
        values = form.channels[0].decode_all([(block.bytes, block.count) for block in blocks])
        if values is not None:
            return values
    return samples.join([block.values for block in blocks], channels)


class DeviceSource(Source):
    """What the open devices of `Unit` and of `aio.Unit` have in common."""

    id: int  #: its id at the unit

    def __init__(
        self,
        engine: Engine,
        devices: Mapping[str, DeviceFormat],
        start: float,
        name: str,
        channel: Channel,
    ) -> None:
        super().__init__(engine, devices, start, name, lambda: channel)
        self.id = channel.number
