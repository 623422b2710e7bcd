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
from dataclasses import dataclass, fields
from functools import cached_property
from typing import Any, Callable, Dict, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

from . import packets
from .errors import InvalidArgument

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

    @cached_property
    def _layout(self) -> Tuple[str, int, int, Any, Any]:
        """Code, size, stride; numpy's types in the block and as samples."""
        code = str(self.code)
        size = _SIZES[code[1]]
        kinds = (None, None) if numpy is None else (numpy.dtype(code), numpy.dtype(code[1]))
        return (code, size, self.stride or size, *kinds)

    @cached_property
    def _scale(self) -> Optional[Callable[[Any], Any]]:
        """Makes a number a value; None: it is one."""
        scale, bias = self.scale, self.bias
        # 1253 of 0.001 are 1.253, which a product with the nearest double misses.
        inverse = 1 / scale if scale else 0.0
        parts = float(round(inverse)) if 1 < abs(inverse) < 1e300 else 0.0
        if parts and scale == 1 / parts:
            return lambda number: number / parts + bias
        return None if scale == 1.0 and bias == 0.0 else lambda number: number * scale + bias

    def count_in(self, block: bytes) -> int:
        """Samples of a block."""
        _, size, stride, _, _ = self._layout
        count = (len(block) - self.offset - size) // stride + 1
        if count <= 0:
            return 0
        return count if self.count is None or count < self.count else self.count

    def decode(self, block: bytes) -> Samples:
        code, _, stride, read, kept = self._layout
        scaled = self._scale
        count = self.count_in(block)
        if numpy is not None:
            place = self.offset if count > 0 else 0  # also in a block that is too short
            view: Any = numpy.ndarray((count,), read, block, place, (stride,))
            found = view.astype(kept)  # a copy that can be written to
            return scaled(found) if scaled else found
        places = range(self.offset, self.offset + count * stride, stride)
        numbers = [struct.unpack_from(code, block, place)[0] for place in places]
        if scaled:
            return array("d", [scaled(number) for number in numbers])
        return array(code[1], numbers)

    def decode_all(self, blocks: Sequence[Tuple[bytes, int]]) -> Optional[Samples]:
        """The samples of blocks, with their counts, in one go; None where that is not possible."""
        _, size, stride, read, kept = self._layout
        if numpy is None or stride != size:
            return None
        at = self.offset
        found = b"".join([block[at : at + count * size] for block, count in blocks])
        values = numpy.frombuffer(found, read).astype(kept)
        return self._scale(values) if self._scale else values


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

    @cached_property
    def _layout(self) -> Tuple[struct.Struct, int, float]:
        """What reads it, the least size of a block that has it, and its tick."""
        number = struct.Struct(str(_code(self.type)))
        return number, self.offset + number.size, self.tick

    def seconds(self, block: bytes) -> Optional[float]:
        number, least, tick = self._layout
        if least > len(block):
            return None
        found: float = number.unpack_from(block, self.offset)[0] * tick
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

    def count_in(self, block: bytes) -> int:
        """Samples of each channel in a block."""
        if len(self.channels) == 1:
            return self.channels[0].count_in(block)
        return min([channel.count_in(block) for channel in self.channels], default=0)

    def decode(self, block: bytes) -> Samples:
        if len(self.channels) == 1:
            return self.channels[0].decode(block)
        rows = [channel.decode(block) for channel in self.channels]
        shortest = min(len(row) for row in rows)
        rows = [row[:shortest] for row in rows]
        return numpy.stack(rows) if numpy is not None else rows


_BUILT_IN = os.path.join(os.path.dirname(__file__), "devices.json")


def _usual_file() -> Optional[str]:
    """The device file that is taken when none is given, if there is one."""
    folder = os.environ.get("XDG_CONFIG_HOME", "")
    if not folder.startswith("/"):
        folder = os.path.expanduser("~/.config")
    name = os.path.join(folder, "vexa", "devices.json")
    return name if os.path.exists(name) else None


def _checked(entry: Any, known: Sequence[str], needed: Sequence[str]) -> Dict[str, Any]:
    if not isinstance(entry, Mapping):
        raise InvalidArgument("expected an object")
    for key in entry:
        if key not in known:
            raise InvalidArgument(f'no such key: "{key}"')
    for key in needed:
        if key not in entry:
            raise InvalidArgument(f'"{key}" is missing')
    return dict(entry)


def _device_format(entry: Any) -> DeviceFormat:
    form = _checked(entry, ("channels", "rate", "check", "time"), ("channels",))
    channels: List[ChannelFormat] = []
    if not isinstance(form["channels"], Sequence) or not form["channels"]:
        raise InvalidArgument('"channels": expected a list of at least one channel')
    for number, channel in enumerate(form["channels"]):
        name = channel.get("name", number + 1) if isinstance(channel, Mapping) else number + 1
        try:
            known = [field.name for field in fields(ChannelFormat)]
            channels.append(ChannelFormat(**_checked(channel, known, known[:3])))
            if name in [other.name for other in channels[:-1]]:
                raise InvalidArgument("there are two of this name")
        except (TypeError, ValueError) as error:
            text = str(error).replace(f'channel "{name}": ', "")
            raise InvalidArgument(f"channel {name}: {text}") from error
    rate, check, time = form.get("rate"), form.get("check"), form.get("time")
    if rate is not None and not (isinstance(rate, (int, float)) and rate > 0):
        raise InvalidArgument('"rate": expected a number above 0')
    if check not in (None, "packet", "report"):
        raise InvalidArgument('"check": expected packet or report')
    if time is not None:
        known = [field.name for field in fields(TimeFormat)]
        try:
            time = TimeFormat(**_checked(time, known, known))
        except InvalidArgument as error:
            raise InvalidArgument('"time": ' + str(error).replace('"time": ', "")) from error
    return DeviceFormat(channels, check, rate, time)


def _read_devices(name: str) -> Mapping[str, Any]:
    with open(name, encoding="utf-8") as file:
        try:
            entries = json.load(file)
        except ValueError as error:
            raise InvalidArgument(f"{name}: {error}") from error
    if not isinstance(entries, Mapping):
        raise InvalidArgument(f"{name}: expected an object with a device's format for each")
    return entries


def load_devices(source: Optional[DeviceFile]) -> Dict[str, DeviceFormat]:
    """Reads a device file; None: the one of the configuration folder, if there is one.

    What it does not name is as the virtual unit sends it.
    """
    source = _usual_file() if source is None else source
    formats: Dict[str, DeviceFormat] = {}
    for layer in ([] if source is None else [source]) + [_BUILT_IN]:
        name = "devices" if isinstance(layer, Mapping) else os.fspath(layer)
        entries = layer if isinstance(layer, Mapping) else _read_devices(name)
        for device, entry in entries.items():
            if device == "$schema" or device in formats:
                continue
            try:
                formats[device] = _device_format(entry)
            except (TypeError, ValueError) as error:
                raise InvalidArgument(f"{name}: {device}: {error}") from error
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


def times(begin: float, step: float, count: int) -> Samples:
    if numpy is not None:
        return begin + step * numpy.arange(count)
    return array("d", [begin + step * i for i in range(count)])
