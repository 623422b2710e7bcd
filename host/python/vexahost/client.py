"""A unit, its devices and its DAQ, for threads."""

from __future__ import annotations

import atexit
import os
import sys
import time
import weakref
from types import TracebackType
from typing import Dict, Iterator, Optional, Sequence, Tuple, Type, TypeVar

from . import samples
from .engine import Engine
from .errors import Error, InvalidArgument
from .inbox import Channel, LinkStats, again
from .link import Operation, deadline_after
from .samples import DeviceFile, DeviceFormat, Samples
from .source import Block, DeviceSource, Source
from .transports import default_address, parse_address

_Result = TypeVar("_Result")
_Self = TypeVar("_Self", bound="Unit")
_Source = TypeVar("_Source", bound=Source)

DEFAULT_TIMEOUT = 3.0  # seconds
TAKE_OVER_TIMEOUT = 15.0  # the applications have 10 s to let go
_LEAVE_TIMEOUT = 1.0
CONTROLLER_ID = 1


class SyncSource(Source):
    """Samples of a device or of the DAQ."""

    def read(self, count: int, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Samples:
        """Exactly `count` samples (of each channel), the oldest first; `times` has their times.

        `timeout` in seconds; None: without end. After a Timeout nothing is lost: what came is
        given out by the next call.
        """
        return self._engine.run(self._read(count, deadline_after(timeout)))

    def read_block(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Block:
        """The oldest block that has not been given out; also one without samples."""
        return self._engine.run(self._read_block(deadline_after(timeout)))

    def blocks(self, timeout: Optional[float] = None) -> Iterator[Block]:
        """Blocks as they come, without end. Timeout when none comes for `timeout` seconds."""
        while True:
            yield self.read_block(timeout)


class Daq(SyncSource):
    """The acquisition board's packets. They come while the DAQ link is open."""


class Device(DeviceSource, SyncSource):
    """An open device. Closed at the end of a `with` block."""

    def write(self, data: bytes, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Sends bytes, at most 247, to the device. The unit does not answer."""
        self._engine.run(write_operation(self._engine, self._channel(), data, timeout))

    def arm(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Sends a HID sensor its init request: before its answer the unit drops its reports."""
        self.write(samples.HID_INIT_REQUEST, timeout)

    def close(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Closes the device; nothing happens when it is not open any more."""
        self._engine.run(close_operation(self._engine, self._channel(), timeout))

    def __enter__(self) -> Device:
        return self

    def __exit__(self, *exception: object) -> None:
        try:
            self.close()
        except Error:
            if exception[0] is None:
                raise


def write_operation(
    engine: Engine, channel: Channel, data: bytes, timeout: Optional[float]
) -> Operation[None]:
    engine.check_link(engine.connection)
    if channel.error is not None:
        raise again(channel.error)
    yield from engine.send_to(channel.number, data, deadline_after(timeout))


def close_operation(
    engine: Engine, channel: Channel, timeout: Optional[float]
) -> Operation[None]:
    if engine.link_error is None and engine.children.get(channel.number) is channel:
        yield from engine.close_device(channel.number, deadline_after(timeout))


def find_operation(
    engine: Engine, sources: Sequence[_Source], timeout: Optional[float]
) -> Operation[Tuple[_Source, Block]]:
    """The oldest block of several sources."""
    for source in sources:
        if source._pending:
            return source, source._take_pending()
    channels = [source._channel() for source in sources]
    deadline = deadline_after(timeout)
    raw = yield from engine.receive_any(channels, deadline)
    source = sources[channels.index(raw[0])]
    return source, source._decode(raw[1])


_engines: weakref.WeakSet[Engine] = weakref.WeakSet()


@atexit.register
def _close_all() -> None:
    """A program that ends leaves its units in order, whatever it has forgotten."""
    for engine in list(_engines):
        engine.close()


class BaseUnit:
    """What needs no waiting, for `Unit` and for `aio.Unit`."""

    def __init__(self, address: str, queue_capacity: int, devices: Optional[DeviceFile]) -> None:
        if queue_capacity < 1:
            raise InvalidArgument("the queue of a device holds at least one block")
        self.address = address
        self._devices: Dict[str, DeviceFormat] = samples.load_devices(devices)
        self._start = time.monotonic()
        #: Zero of all times, in seconds since 1970-01-01 00:00 UTC (time.time()).
        self.epoch = time.time()
        self._engine = Engine(parse_address(address), queue_capacity)
        _engines.add(self._engine)

    def __del__(self) -> None:
        # At the interpreter's end a thread may have stopped for good with the lock.
        if hasattr(self, "_engine") and not sys.is_finalizing():
            self._engine.close()

    @property
    def connection(self) -> int:
        """The number of the connection; each new one has a higher number."""
        return self._engine.connection

    @property
    def link_error(self) -> Optional[Error]:
        """What has ended the link; None while it is up."""
        return self._engine.link_error

    @property
    def stats(self) -> LinkStats:
        """Counts of the link since it was first made."""
        return self._engine.copy_stats()


class Unit(BaseUnit):
    """A whole conversation with a unit. Any thread.

    Timeouts are in seconds; None: without end. Requests to the controller are made one after the
    other; the timeout of one includes the wait for its turn. Every function can raise LinkLost,
    ProtocolViolation, Timeout and, after a fork, Forked. A refusal or a timeout leaves the link
    usable.
    """

    def __init__(self, address: str, queue_capacity: int, devices: Optional[DeviceFile]) -> None:
        super().__init__(address, queue_capacity, devices)
        #: The acquisition board.
        self.daq = Daq(self._engine, self._devices, self._start, "DAQ", self._engine.daq_channel)

    def _run(self, operation: Operation[_Result]) -> _Result:
        return self._engine.run(operation)

    def sync(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> bytes:
        """Brings the unit's parser and this side in step. Returns the reply's 26 bytes."""
        return self._run(self._engine.initial_sync(deadline_after(timeout)))

    def open_controller(
        self,
        daq: bool = False,
        id: int = CONTROLLER_ID,
        timeout: Optional[float] = DEFAULT_TIMEOUT,
    ) -> None:
        """Opens the controller, which closes all devices; with `daq` also the DAQ link.

        The controller is open also when the DAQ link was refused (code 59).
        """
        self._run(self._engine.open_controller(id, daq, deadline_after(timeout)))

    def query_daq_application(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> bool:
        """Whether the unit's own DAQ application holds the hardware."""
        return self._run(self._engine.query(deadline_after(timeout)))

    def take_over(self, timeout: Optional[float] = TAKE_OVER_TIMEOUT) -> None:
        """Makes the unit's applications give up the hardware and brings the DAQ link up."""
        self._run(self._engine.take_over(deadline_after(timeout)))

    def open(
        self, name: str, id: Optional[int] = None, timeout: Optional[float] = DEFAULT_TIMEOUT
    ) -> Device:
        """Opens the first attached device of the type that `name` stands for.

        `id`: any that is not in use; None: a free one.
        """
        channel = self._run(self._engine.open_device(name, id, deadline_after(timeout)))
        return Device(self._engine, self._devices, self._start, name, channel)

    def close_device(self, id: int, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Closes the device with this id, whoever has opened it."""
        self._run(self._engine.close_device(id, deadline_after(timeout)))

    def close_controller(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Closes the controller with all devices and hands the hardware back."""
        self._run(self._engine.close_controller(deadline_after(timeout)))

    def send_multiplexer_command(
        self, command: int, payload: bytes = b"", timeout: Optional[float] = DEFAULT_TIMEOUT
    ) -> None:
        """Sends a command to the DAQ and waits for its acknowledgement.

        Refused with code 48 while the DAQ link is closed.
        """
        self._run(self._engine.multiplexer_command(command, payload, deadline_after(timeout)))

    def send_raw(self, data: bytes, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Sends bytes as they are. What they open or close at the unit is not followed here."""
        self._run(self._engine.send(bytes(data), deadline_after(timeout)))

    def receive_any(
        self,
        sources: Sequence[_Source],
        timeout: Optional[float] = DEFAULT_TIMEOUT,
    ) -> Tuple[_Source, Block]:
        """The oldest block of several devices, of the DAQ as well, with the one that sent it."""
        return self._run(find_operation(self._engine, sources, timeout))

    def reconnect(self, timeout: Optional[float] = 10.0, lost: Optional[int] = None) -> None:
        """Ends the connection, then connects anew, with as many attempts as `timeout` allows.

        Nothing is open afterwards. Several threads that see one loss give the number of the lost
        connection (`connection`): one of them reconnects for all.
        """
        self._run(self._engine.reconnect(deadline_after(timeout), lost))

    def close(self) -> None:
        """Ends the connection, as if the cable were pulled; waits end with LinkLost."""
        self._engine.close()

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        """Closes the controller, if it is open, and the connection."""
        try:
            if self._engine.can_close_controller():
                self.close_controller(_LEAVE_TIMEOUT)
        except Error:
            if kind is None and self.link_error is None:
                raise
        finally:
            self.close()


def connect(
    address: Optional[str] = None,
    timeout: Optional[float] = DEFAULT_TIMEOUT,
    *,
    queue_capacity: int = 1024,
    devices: Optional[DeviceFile] = None,
) -> Unit:
    """Connects to a unit and synchronises, both within `timeout` seconds.

    `address`: the folder of a virtual unit or its socket, "tcp://HOST[:PORT]",
    "serial:///dev/NAME[?baud=38400][&rtscts=1]", "usb:" or "usb:VENDOR:PRODUCT[:SERIAL]";
    without it $VEXA_UNIT_DIR, else "build/unit".
    `queue_capacity`: blocks kept of each device until they are read; when one more comes, the
    oldest is dropped and counted.
    `devices`: where samples stand in blocks, a device file or its content; None: as the virtual
    unit sends them.
    CannotConnect when there is no unit, Busy when it has another host.
    """
    unit = Unit(chosen_address(address), queue_capacity, devices)
    unit._run(unit._engine.reconnect(deadline_after(timeout), once=True))
    return unit


def chosen_address(address: Optional[str]) -> str:
    if address is not None:
        return os.fspath(address)
    return default_address(os.environ.get("VEXA_UNIT_DIR"))
