"""The times of samples, by the same rules as in the C++ library."""

from __future__ import annotations

from collections import deque
from math import inf
from statistics import median
from typing import TYPE_CHECKING, Deque, Optional, Tuple

from .inbox import RawBlock

if TYPE_CHECKING:
    from .samples import TimeFormat

_KEPT = 1 - 1 / 1000  # of a block's weight at the next one: the line goes by about 1,000 blocks
_FULL_NOISE = 5.0  # times the usual noise: further off, a block counts less
_SHIFTED_NOISE = 25.0  # times the usual noise: a block that is off
_SHIFTED_BLOCKS = 16  # in a row that are off: the device has moved
_JUMP = 0.5  # seconds: for so long, or so far
_FAR_BLOCKS = 3  # so many far off, so many in a row are enough
_LATE_BLOCKS, _LATE_JUMPS = 4, 2  # in a row, for so many times the jump: not only held up
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

    def add(self, samples: float, time: float, distance: float) -> None:
        """`distance`: that of the block."""
        weight = 1.0
        if self.blocks == 0:
            self._origin = time
        else:
            self.skip(samples)
            self._sum *= _KEPT
            self._x *= _KEPT
            self._xx *= _KEPT
            self._t *= _KEPT
            self._xt *= _KEPT
            if self.blocks >= _SURE_BLOCKS and not -self._limit <= distance <= self._limit:
                weight = self._limit / abs(distance)
        self.blocks += 1
        self._sum = total = self._sum + weight
        self._t = moved = self._t + weight * (time - self._origin)
        x = self._x
        spread = self._xx + self._known_weight
        product = self._xt + self._known_weight * self._known_step
        determinant = total * spread - x * x
        self._offset = (moved * spread - x * product) / determinant
        step = (total * product - x * moved) / determinant
        self.step = step if step > _SHORTEST_STEP else _SHORTEST_STEP


class _ClockOffset:
    """How far the host's clock is ahead of a device's, told by the blocks with the least delay."""

    def __init__(self) -> None:
        self._slices: Deque[Tuple[float, float]] = deque(maxlen=12)  # device time, difference
        self._current: Optional[Tuple[float, float]] = None
        self._slice_began = self._began = self._last = 0.0
        self._least = inf  # difference of the slices
        self._trend = self._at_zero = 0.0  # seconds a second; difference at device time 0
        self._offset = 0.0
        self._late = 0  # blocks in a row that have come much later than by the offset
        self._late_since = 0.0  # arrival of the first of them

    def _update_trend(self) -> None:
        points = list(self._slices)
        slopes = [
            (later[1] - point[1]) / (later[0] - point[0])
            for i, point in enumerate(points)
            for later in points[i + 1 :]
        ]
        self._trend = min(max(median(slopes), -_MOST_TREND), _MOST_TREND)
        self._at_zero = median([difference - self._trend * at for at, difference in points])

    def add(self, device: float, arrival: float) -> float:
        """Seconds to add to the device's time: they change only slowly, but for a jump."""
        difference = arrival - device
        if self._current is not None and abs(difference - self._offset) > _JUMP:
            # Earlier than it can be: a clock has jumped. Later: held up, unless it stays so.
            self._late = self._late + 1 if difference > self._offset else 0
            if self._late == 1:
                self._late_since = arrival
            is_long = arrival - self._late_since >= _LATE_JUMPS * _JUMP
            if self._late == 0 or (self._late >= _LATE_BLOCKS and is_long):
                self.__init__()  # type: ignore[misc]
        else:
            self._late = 0
        if self._current is None:
            self._began = self._slice_began = self._last = device
            self._current = (device, difference)
            self._offset = difference
            return difference
        # A new block can move the line's end back.
        elapsed = device - self._last if device > self._last else 0.0
        self._last = device
        if device - self._slice_began >= _SLICE:
            self._slices.append(self._current)
            self._least = min(slice_least for _, slice_least in self._slices)
            self._current = (device, difference)
            self._slice_began = device
            if len(self._slices) >= _TREND_SLICES:
                self._update_trend()
        least = self._current[1]
        if difference < least:
            self._current = (device, difference)
            least = difference
        if len(self._slices) >= _TREND_SLICES:
            target = self._at_zero + self._trend * device
        else:
            target = least if least < self._least else self._least
        most = elapsed * (_EARLY_SLEW if device - self._began < _EARLY else _SLEW)
        change = target - self._offset
        self._offset += change if -most <= change <= most else most if change > 0 else -most
        return self._offset


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
        self._noise = _ARRIVAL_NOISE  # of the times that samples follow
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

    def _begin_device(self, device: float) -> None:
        """The first block with the device's own time."""
        self._device = device
        self._noise = max(_TICK_NOISE * self._tick, _LEAST_NOISE)

    def _set_back(self, back: float) -> bool:
        """The device's time went back. False when it has wrapped, or gone back by little."""
        is_wrap = self._wrap > 0 and back > self._wrap / 2
        is_back = not is_wrap and back > _JUMP
        if is_wrap:
            self._wrapped += self._wrap
        elif is_back:
            self._wrapped = 0.0
        return is_back

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
            before = self._device
            if before is None:
                self._begin_device(device)
            else:
                is_back = device < before and self._set_back(before - device)
                self._device = device
            # A count of whole ticks: the middle of one.
            observed = device + self._wrapped + self._tick / 2
        is_bridged = not follows and self._bridges(lost, count, observed)
        distance = line.distance(count, observed)
        is_sure = line.blocks >= _SURE_BLOCKS
        # What was held up comes at once, and late: only what stays off has moved.
        if not is_sure or abs(distance) <= _SHIFTED_NOISE * self._noise:
            self._off, is_shifted = 0, False
        else:
            self._off = max(self._off, 0) + 1 if distance > 0 else min(self._off, 0) - 1
            if abs(self._off) == 1:
                self._off_since = observed
            is_long = observed - self._off_since >= _JUMP
            is_far = abs(distance) > max(_JUMP, _FAR_BLOCKS * line.step * count)
            is_shifted = is_long and abs(self._off) >= (_FAR_BLOCKS if is_far else _SHIFTED_BLOCKS)
        goes_on = line.blocks > 0 and not (is_back or is_shifted)
        if not goes_on or not (follows or is_bridged):
            passed = max(arrival - self._end, _SHORTEST_STEP)
            if device is not None:
                passed = min(max(observed, _SHORTEST_STEP), passed)
            self._begin(passed, count, _SHIFTED_TRUST if is_shifted else _LEARNED_TRUST)
            distance = 0.0
            if is_back:
                self._clocks = _ClockOffset()
        line.add(count, observed, distance)
        usual = line.step * count
        end = line.end
        if device is not None:
            end += self._clocks.add(end, arrival)
        begin = self._end
        has_jumped = device is not None and count > 1 and end - usual - begin > _JUMP
        if (has_jumped or not (goes_on and follows)) and end - usual > begin:
            begin = end - usual
        least = begin + _LEAST_PART * usual
        self._end = end = end if end > least else least
        step = (end - begin) / count
        return begin + step, step
