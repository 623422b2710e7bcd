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
from collections import deque
from dataclasses import dataclass, fields
from functools import cached_property
from statistics import median
from typing import Any, Deque, Dict, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

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

    @cached_property
    def _number(self) -> struct.Struct:
        return struct.Struct(str(_code(self.type)))

    def seconds(self, block: bytes) -> Optional[float]:
        if self.offset + self._number.size > len(block):
            return None
        found = float(self._number.unpack_from(block, self.offset)[0]) * self.tick
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


class _Line:
    """A line through the times of the newest blocks over the index of their last samples.

    Old blocks count less and less, blocks that are far off count little.
    """

    def __init__(self) -> None:
        self.blocks = 0
        self.step = 0.0  # seconds from one sample to the next
        self._sum = self._x = self._xx = self._t = self._xt = 0.0
        self._known_step = self._known_weight = 0.0
        self._origin = self._offset = self._limit = 0.0

    def begin(self, step: float, trust: float, noise: float) -> None:
        """`trust` is the relative uncertainty of `step`, `noise` the usual distance of a time."""
        self.__init__()  # type: ignore[misc]
        self.step = self._known_step = max(step, _SHORTEST_STEP)
        self._known_weight = (noise / (trust * self.step)) ** 2
        self._limit = _FULL_NOISE * noise

    @property
    def end(self) -> float:
        """Of the newest block."""
        return self._origin + self._offset

    def skip(self, samples: float) -> None:
        """The next block comes so much later: samples are missing."""
        time = self.step * samples
        self._xt -= samples * self._t
        self._xx += samples * (samples * self._sum - 2 * self._x)
        self._x -= samples * self._sum
        self._xt -= time * self._x
        self._t -= time * self._sum
        self._origin += time

    def distance(self, samples: float, time: float) -> float:
        """How far a block of `samples` more at `time` would be from the line."""
        if self.blocks == 0:
            return 0.0
        return time - (self._origin + self.step * samples + self._offset)

    def add(self, samples: float, time: float) -> None:
        distance = abs(self.distance(samples, time))
        if self.blocks == 0:
            self._origin = time
        else:
            self.skip(samples)
            kept = 1 - 1 / _MEMORY
            self._sum *= kept
            self._x *= kept
            self._xx *= kept
            self._t *= kept
            self._xt *= kept
        self.blocks += 1
        is_far = self.blocks > _SURE_BLOCKS and distance > self._limit
        weight = self._limit / distance if is_far else 1.0
        self._sum += weight
        self._t += weight * (time - self._origin)
        spread = self._xx + self._known_weight
        product = self._xt + self._known_weight * self._known_step
        determinant = self._sum * spread - self._x * self._x
        self._offset = (self._t * spread - self._x * product) / determinant
        self.step = max((self._sum * product - self._x * self._t) / determinant, _SHORTEST_STEP)


class _ClockOffset:
    """How far the host's clock is ahead of a device's, told by the blocks with the least delay."""

    def __init__(self) -> None:
        self._slices: Deque[Tuple[float, float]] = deque(maxlen=12)  # device time, difference
        self._current: Optional[Tuple[float, float]] = None
        self._slice_began = self._began = self._last = 0.0
        self._trend = self._at_zero = 0.0  # seconds a second; difference at device time 0
        self._offset = 0.0

    def _update_trend(self) -> None:
        points = list(self._slices)
        slopes = [
            (later[1] - point[1]) / (later[0] - point[0])
            for i, point in enumerate(points)
            for later in points[i + 1 :]
        ]
        self._trend = min(max(median(slopes), -_MOST_TREND), _MOST_TREND)
        self._at_zero = median([difference - self._trend * at for at, difference in points])

    def _target(self, device: float, least: float) -> float:
        if len(self._slices) >= _TREND_SLICES:
            return self._at_zero + self._trend * device
        return min([least] + [difference for _, difference in self._slices])

    def add(self, device: float, arrival: float) -> float:
        """Seconds to add to the device's time: they change only slowly, but for a jump."""
        difference = arrival - device
        if self._current is not None and abs(difference - self._offset) > _JUMP:
            self.__init__()  # type: ignore[misc]
        if self._current is None:
            self._began = self._slice_began = self._last = device
            self._current = (device, difference)
            self._offset = difference
            return difference
        elapsed = device - self._last
        self._last = device
        if device - self._slice_began >= _SLICE:
            self._slices.append(self._current)
            self._current = (device, difference)
            self._slice_began = device
            if len(self._slices) >= _TREND_SLICES:
                self._update_trend()
        if difference < self._current[1]:
            self._current = (device, difference)
        slew = _EARLY_SLEW if device - self._began < _EARLY else _SLEW
        most = elapsed * slew
        target = self._target(device, self._current[1])
        self._offset += min(max(target - self._offset, -most), most)
        return self._offset


_MEMORY = 1000  # blocks that the line goes by
_FULL_NOISE = 5.0  # times the usual noise: further off, a block counts less
_SHIFTED_NOISE = 25.0  # times the usual noise: a block that is off
_SHIFTED_BLOCKS = 16  # in a row that are off: the device has moved
_JUMP = 0.5  # seconds: for so long, or so far
_FEW_BLOCKS = 2  # with which a line has a slope at all
_SURE_BLOCKS = 8
_BRIDGED_BLOCKS = 2  # that the end of a gap may be from where it should be
_LEAST_PART = 0.2  # of its usual time that a block spans at least
_SHORTEST_STEP = 1e-7
_TICK_NOISE, _LEAST_NOISE = 0.4, 1e-4  # of the device's resolution; seconds
_ARRIVAL_NOISE = 0.01  # seconds: the unit sends in bursts of about 30 ms
_STATED_TRUST, _GUESSED_TRUST, _LEARNED_TRUST, _SHIFTED_TRUST = 0.05, 0.3, 0.001, 0.05
_SLICE = 5.0  # seconds of which the block with the least delay counts
_TREND_SLICES = 3
_MOST_TREND = 1e-3
_EARLY, _EARLY_SLEW, _SLEW = 5.0, 0.05, 0.001


class Timing:
    """Gives each sample of one device a time, on the host's clock.

    The same as SampleClock of the C++ library; a table of blocks and times holds them together.
    The last sample of a block is at the moment at which the device finished the block. Where
    blocks carry the device's own time, samples follow it, and it is compared with the arrivals
    for its distance from the host's clock alone; else they follow the arrivals. Times always go
    forward. A jump begins anew, and so does a gap that does not fit the time that has passed.
    """

    def __init__(
        self, opened: float, rate: Optional[float], time: Optional[TimeFormat] = None
    ) -> None:
        self._stated = rate
        is_count = time is not None and time.wrap > 0
        self._tick = time.tick if time is not None and is_count else 0.0
        self._wrap = time.wrap if time is not None else 0.0
        self._line = _Line()
        self._clocks = _ClockOffset()
        self._learned: Optional[float] = None  # seconds from one sample to the next
        self._sequence: Optional[int] = None
        self._device: Optional[float] = None  # the newest, as it stands in the block
        self._wrapped = 0.0  # seconds that wraps of the device's time have added
        self._end = opened  # time of the last sample
        self._off = 0  # blocks in a row that were far from the line, negative: before it
        self._off_since = 0.0  # the first of them

    @property
    def rate(self) -> Optional[float]:
        """Samples per second; None before it is known."""
        if self._line.blocks >= _SURE_BLOCKS:
            return 1 / self._line.step
        if self._learned is not None:
            return 1 / self._learned
        if self._stated is not None or self._line.blocks < _FEW_BLOCKS:
            return self._stated
        return 1 / self._line.step

    def _unwrap(self, device: float) -> Tuple[float, bool]:
        """The device's time without wraps, and whether it was set back."""
        back = device if self._device is None else self._device
        back -= device
        self._device = device
        is_wrap = self._wrap > 0 and back > self._wrap / 2
        is_back = not is_wrap and back > _JUMP
        if is_wrap:
            self._wrapped += self._wrap
        elif is_back:
            self._wrapped = 0.0
        return device + self._wrapped, is_back

    @property
    def _noise(self) -> float:
        if self._device is None:
            return _ARRIVAL_NOISE
        return max(_TICK_NOISE * self._tick, _LEAST_NOISE)

    def _begin(self, passed: float, count: int, trust: float) -> None:
        if self._learned is not None:
            self._line.begin(self._learned, trust, self._noise)
        elif self._stated is not None:
            self._line.begin(1 / self._stated, _STATED_TRUST, self._noise)
        else:
            has_slope = self._line.blocks >= _FEW_BLOCKS
            step = self._line.step if has_slope else passed / count
            self._line.begin(step, _GUESSED_TRUST, self._noise)
        self._off = 0

    def _bridges(self, lost: int, count: int, observed: float) -> bool:
        """Whether blocks are missing whose number and usual size fit the time that has passed."""
        line = self._line
        if line.blocks < _FEW_BLOCKS:
            return False
        most = max(_SHIFTED_NOISE * self._noise, _BRIDGED_BLOCKS * line.step * count)
        if abs(line.distance(lost * count + count, observed)) > most:
            return False
        line.skip(lost * count)
        return True

    def place(
        self, block: RawBlock, count: int, device: Optional[float] = None
    ) -> Tuple[float, float]:
        """Time of the block's first sample, and from one sample to the next; both in seconds.

        `device`: the device's own time of the block, in seconds.
        """
        line, arrival = self._line, block.received
        lost = 0 if self._sequence is None else (block.sequence - self._sequence - 1) & 0xFF
        follows = self._sequence is not None and lost == 0
        self._sequence = block.sequence
        if line.blocks >= _SURE_BLOCKS:
            self._learned = line.step
        if count == 0:
            if not follows:
                self._line = _Line()
            return arrival, 0.0
        observed, is_back = arrival, False
        if device is not None:
            observed, is_back = self._unwrap(device)
            observed += self._tick / 2  # a count of whole ticks: the middle of one
        is_bridged = not follows and self._bridges(lost, count, observed)
        distance = line.distance(count, observed)
        is_sure = line.blocks >= _SURE_BLOCKS
        # What was held up comes at once, and late: only what stays off has moved.
        if not is_sure or abs(distance) <= _SHIFTED_NOISE * self._noise:
            self._off = 0
        else:
            self._off = max(self._off, 0) + 1 if distance > 0 else min(self._off, 0) - 1
            if abs(self._off) == 1:
                self._off_since = observed
        is_shifted = abs(self._off) >= _SHIFTED_BLOCKS and observed - self._off_since >= _JUMP
        goes_on = line.blocks > 0 and not (is_back or is_shifted)
        if not goes_on or not (follows or is_bridged):
            passed = max(arrival - self._end, _SHORTEST_STEP)
            if device is not None:
                passed = min(max(observed, _SHORTEST_STEP), passed)
            self._begin(passed, count, _SHIFTED_TRUST if is_shifted else _LEARNED_TRUST)
            if is_back:
                self._clocks = _ClockOffset()
        line.add(count, observed)
        usual = line.step * count
        end = line.end
        if device is not None:
            end += self._clocks.add(end, arrival)
        begin = self._end if goes_on and follows else max(self._end, end - usual)
        self._end = max(end, begin + _LEAST_PART * usual)
        step = (self._end - begin) / count
        return begin + step, step


def times(begin: float, step: float, count: int) -> Samples:
    if numpy is not None:
        return begin + step * numpy.arange(count)
    return array("d", [begin + step * i for i in range(count)])
