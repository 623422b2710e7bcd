"""Samples and their times in the blocks of devices.

A device file names once where they stand (devices.schema.json); devices.json is the one of the
virtual unit. With numpy, samples and times are arrays; without it, array.array.
"""

from __future__ import annotations

import json
import math
import os
import struct
from array import array
from dataclasses import dataclass
from functools import cached_property
from typing import Any, Dict, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

from . import packets
from .errors import InvalidArgument
from .inbox import RawBlock

try:
    import numpy
except ImportError:  # numbers then come in arrays of the standard library
    numpy = None  # type: ignore[assignment]

#: numpy.ndarray, or array.array without numpy; of a device with several channels one row (a
#: list entry without numpy) a channel.
Samples = Any
DeviceFile = Union[str, "os.PathLike[str]", Mapping[str, Any]]

_CODES = {"u8": "B", "u16": "H", "u32": "I", "i8": "b", "i16": "h", "i32": "i"}
_CODES.update({"f32": "f", "f64": "d"})
_SIZES = {"B": 1, "b": 1, "H": 2, "h": 2, "I": 4, "i": 4, "f": 4, "d": 8}
_HID_REPORT_SIZE = 8

#: Arms a HID sensor: the unit drops its reports until the sensor has answered this.
HID_INIT_REQUEST = b"\x40" + bytes(_HID_REPORT_SIZE - 1)


def _code(kind: str) -> Optional[str]:
    """A type as struct writes it, with its byte order; None when it is no type."""
    base = kind.replace("s", "i", 1)
    order = "<"
    if base.endswith(("le", "be")) and not base.endswith("8"):
        order = ">" if base.endswith("be") else "<"
        base = base[:-2]
    elif base not in ("u8", "i8"):
        return None
    return order + _CODES[base] if base in _CODES else None


@dataclass(frozen=True)
class ChannelFormat:
    """Where the samples of one channel stand in a block."""

    name: str
    type: str
    offset: int  #: of the first sample, in bytes
    stride: Optional[int] = None  #: bytes from one sample to the next; None: the size of one
    count: Optional[int] = None  #: samples in a block; None: as many as fit
    scale: float = 1.0  #: value = number * scale + bias
    bias: float = 0.0
    unit: str = ""

    def __post_init__(self) -> None:
        if self.code is None:
            raise InvalidArgument(f'channel "{self.name}": "{self.type}" is no type of samples')
        if not 0 <= self.offset <= 254 or (self.stride or 1) < 1 or (self.count or 1) < 1:
            raise InvalidArgument(f'channel "{self.name}": offset, stride or count is out of range')

    @cached_property
    def code(self) -> Optional[str]:
        """The type as struct writes it, with its byte order."""
        return _code(self.type)

    def decode(self, block: bytes) -> Samples:
        code = str(self.code)
        size = _SIZES[code[1]]
        stride = self.stride or size
        fit = max(0, (len(block) - self.offset - size) // stride + 1)
        count = fit if self.count is None else min(fit, self.count)
        scaled = self.scale != 1.0 or self.bias != 0.0
        if numpy is not None:
            place = self.offset if count > 0 else 0  # also in a block that is too short
            view: Any = numpy.ndarray((count,), code, block, place, (stride,))
            found = view.astype(code[1])  # a copy that can be written to
            return found * self.scale + self.bias if scaled else found
        places = range(self.offset, self.offset + count * stride, stride)
        numbers = [struct.unpack_from(code, block, place)[0] for place in places]
        if scaled:
            return array("d", [number * self.scale + self.bias for number in numbers])
        return array(code[1], numbers)


_TICKS = {"s": 1.0, "ms": 1e-3, "us": 1e-6, "ns": 1e-9}


@dataclass(frozen=True)
class TimeFormat:
    """Where a block carries the device's own time."""

    type: str
    offset: int
    unit: str  #: what 1 stands for: "s", "ms", "us", "ns"

    def __post_init__(self) -> None:
        if _code(self.type) is None or not 0 <= self.offset <= 254 or self.unit not in _TICKS:
            raise InvalidArgument('"time": its type, offset or unit is none')

    @property
    def tick(self) -> float:
        """Seconds that 1 stands for."""
        return _TICKS[self.unit]

    @property
    def wrap(self) -> float:
        """Seconds after which it begins again at 0; 0: never."""
        code = str(_code(self.type))[1]
        return 0.0 if code in "fd" else self.tick * 2.0 ** (8 * _SIZES[code])

    def seconds(self, block: bytes) -> Optional[float]:
        code = str(_code(self.type))
        if self.offset + _SIZES[code[1]] > len(block):
            return None
        found = float(struct.unpack_from(code, block, self.offset)[0]) * self.tick
        return found if math.isfinite(found) else None


@dataclass(frozen=True)
class DeviceFormat:
    """Where the samples of a device stand in its blocks."""

    channels: Sequence[ChannelFormat]
    check: Optional[str] = None
    rate: Optional[float] = None  #: samples per second, until it is measured
    time: Optional[TimeFormat] = None

    def has_samples(self, block: bytes) -> bool:
        if self.check == "packet":
            is_packet = len(block) >= packets.HEADER_SIZE and block[1] == len(block)
            return is_packet and block[0] == packets.CLASS_DAQ and packets.has_right_checksum(block)
        if self.check == "report":
            return len(block) == _HID_REPORT_SIZE and block[0] & 0xC0 == 0
        return True

    def device_time(self, block: bytes) -> Optional[float]:
        """Seconds since the stream was opened, by the device's own clock, where it is known."""
        return self.time.seconds(block) if self.time else None

    def decode(self, block: bytes) -> Samples:
        if len(self.channels) == 1:
            return self.channels[0].decode(block)
        rows = [channel.decode(block) for channel in self.channels]
        shortest = min(len(row) for row in rows)
        rows = [row[:shortest] for row in rows]
        return numpy.stack(rows) if numpy is not None else rows


def load_devices(source: Optional[DeviceFile]) -> Dict[str, DeviceFormat]:
    """Reads a device file; None: the one of the virtual unit."""
    name = "devices"
    if isinstance(source, Mapping):
        entries = dict(source)
    else:
        name = os.fspath(source or os.path.join(os.path.dirname(__file__), "devices.json"))
        with open(name, encoding="utf-8") as file:
            try:
                entries = json.load(file)
            except ValueError as error:
                raise InvalidArgument(f"{name}: {error}") from error
    entries.pop("$schema", None)
    formats = {}
    for device, entry in entries.items():
        try:
            rest = dict(entry)
            channels = [ChannelFormat(**channel) for channel in rest.pop("channels")]
            if "time" in rest:
                rest["time"] = TimeFormat(**rest["time"])
            formats[device] = DeviceFormat(channels, **rest)
        except (KeyError, TypeError, ValueError) as error:
            raise InvalidArgument(f"{name}: {device}: {error}") from error
        if not channels or formats[device].check not in (None, "packet", "report"):
            raise InvalidArgument(f"{name}: {device}: no channels, or an unknown check")
    return formats


def format_for(devices: Mapping[str, DeviceFormat], name: str, block: bytes) -> DeviceFormat:
    """The format of a device; of one that has none, the first whose check its block passes."""
    if name in devices:
        return devices[name]
    guessed = (each for each in devices.values() if each.check and each.has_samples(block))
    return next(guessed, DeviceFormat((), "unknown"))


class Span(NamedTuple):
    """The times of consecutive samples."""

    begin: float  #: of the first, in seconds
    step: float
    length: int


NONE: Samples = array("h") if numpy is None else numpy.empty(0, numpy.int16)


def sample_count(values: Samples, channels: int) -> int:
    return len(values[0]) if channels > 1 else len(values)


def cut(values: Samples, channels: int, begin: int, end: Optional[int]) -> Samples:
    """The samples from `begin` to `end` of all channels."""
    if channels <= 1:
        return values[begin:end]
    return values[:, begin:end] if numpy is not None else [row[begin:end] for row in values]


def join(pieces: List[Samples], channels: int) -> Samples:
    if numpy is not None:
        return numpy.concatenate(pieces, axis=-1)
    if channels > 1:
        return [join([piece[i] for piece in pieces], 1) for i in range(channels)]
    joined = array(pieces[0].typecode)
    for piece in pieces:
        joined.extend(piece)
    return joined


class Timing:
    """Gives each sample a time, from the arrival of its block.

    The unit sends in bursts, so the arrival of one block says little. The end of each block is
    expected one block after the end of the last, at the measured rate, and follows the arrivals
    slowly. Times always go forward. A gap in the blocks, or half a second between what was
    expected and what was seen, starts anew.
    """

    _FOLLOW = 0.05  # part of the difference to the expected arrival that each block corrects
    _LEAST = 0.2  # part of its usual time that a block spans at least
    _JUMP = 0.5  # seconds
    _MEASURE = 0.1  # seconds until the measured rate counts
    _PAUSE = 5.0  # seconds without a block after which the rate is measured anew
    _SHORTEST = 1e-4  # seconds that the first block spans at least

    def __init__(self, opened: float, rate: Optional[float]) -> None:
        self._stated = rate
        self._guess: Optional[float] = None  # from the first block
        self._measured: Optional[float] = None
        self._end = opened  # time of the last sample
        self._sequence: Optional[int] = None
        self._first = opened  # arrival of the first block of this run, without gaps and pauses
        self._last = opened  # arrival of the newest block
        self._since = 0  # samples after that block

    @property
    def rate(self) -> Optional[float]:
        """Samples per second; None before it is known."""
        return self._measured or self._stated

    def place(self, block: RawBlock, count: int) -> Tuple[float, float]:
        """Time of the block's first sample, and from one sample to the next; both in seconds."""
        arrival = block.received
        follows = self._sequence is not None and block.sequence == (self._sequence + 1) & 0xFF
        self._sequence = block.sequence
        if count == 0:
            return arrival, 0.0
        self._measure(arrival, count, follows)
        rate = self.rate or self._guess
        if rate is None:
            self._guess = rate = count / max(arrival - self._end, self._SHORTEST)
        usual = count / rate
        begin, end = self._end, self._end + usual
        if follows and abs(arrival - end) <= self._JUMP:
            end += self._FOLLOW * (arrival - end)
        else:
            begin, end = max(begin, arrival - usual), arrival
        self._end = max(end, begin + self._LEAST * usual)
        step = (self._end - begin) / count
        return begin + step, step

    def _measure(self, arrival: float, count: int, follows: bool) -> None:
        if not follows or arrival - self._last > self._PAUSE:
            self._first = arrival
            self._since = 0
        else:
            self._since += count
            if arrival - self._first >= self._MEASURE:
                self._measured = self._since / (arrival - self._first)
        self._last = arrival


def times(begin: float, step: float, count: int) -> Samples:
    if numpy is not None:
        return begin + step * numpy.arange(count)
    return array("d", [begin + step * i for i in range(count)])
