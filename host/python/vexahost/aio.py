"""The same names for asyncio: `async with vexahost.aio.connect("build/unit") as unit`.

The conversation is the one of `vexahost.Unit`. A wait that is cancelled ends at once and leaves no
thread behind; a request whose wait was cancelled counts as late.
"""

from __future__ import annotations

import asyncio
import threading
from typing import Any, AsyncIterator, Generator, Optional, Sequence, Tuple, TypeVar

from . import samples
from .client import (
    _LEAVE_TIMEOUT,
    CONTROLLER_ID,
    DEFAULT_TIMEOUT,
    TAKE_OVER_TIMEOUT,
    BaseUnit,
    chosen_address,
    close_operation,
    find_operation,
    write_operation,
)
from .engine import Engine
from .errors import Error
from .link import Blocking, Operation, deadline_after, time_left
from .samples import DeviceFile, Samples
from .source import Block, DeviceSource, Source

_Result = TypeVar("_Result")
_Source = TypeVar("_Source", bound=Source)


async def _call(blocking: Blocking) -> Any:
    """Makes the call on a thread of its own, which ends with it and keeps no program waiting."""
    loop = asyncio.get_running_loop()
    future: asyncio.Future[Any] = loop.create_future()

    def settle(error: Optional[Exception], result: Any) -> None:
        if future.done():
            return
        if error is not None:
            future.set_exception(error)
        else:
            future.set_result(result)

    def work() -> None:
        error: Optional[Exception] = None
        result: Any = None
        try:
            result = blocking.call()
        except Exception as failure:
            error = failure
        try:
            loop.call_soon_threadsafe(settle, error, result)
        except RuntimeError:
            pass  # the loop has ended meanwhile

    threading.Thread(target=work, name="vexahost call", daemon=True).start()
    return await future


async def _run(engine: Engine, operation: Operation[_Result]) -> _Result:
    """Runs an operation on the running loop."""
    engine.check_process()
    loop = asyncio.get_running_loop()
    changed = asyncio.Event()

    def listen() -> None:
        try:
            loop.call_soon_threadsafe(changed.set)
        except RuntimeError:
            pass  # the loop has ended meanwhile

    with engine.changed:
        engine.listeners.add(listen)
    try:
        resume = operation.__next__
        while True:
            with engine.changed:
                changed.clear()
                try:
                    wanted = resume()
                except StopIteration as end:
                    result: _Result = end.value
                    return result
            resume = operation.__next__
            if isinstance(wanted, Blocking):
                resume = await _answer(operation, wanted)
                continue
            # asyncio.wait_for can lose a cancellation that comes together with the change.
            timer = loop.call_later(time_left(wanted), changed.set)
            try:
                await changed.wait()
            finally:
                timer.cancel()
    finally:
        with engine.changed:
            engine.listeners.discard(listen)
            operation.close()


async def _answer(operation: Operation[_Result], blocking: Blocking) -> Any:
    """How the operation goes on after the call."""
    try:
        value = await _call(blocking)
    except Exception as error:
        failure = error
        return lambda: operation.throw(failure)
    return lambda: operation.send(value)


class AsyncSource(Source):
    """Samples of a device or of the DAQ."""

    async def read(self, count: int, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Samples:
        """See vexahost.Device.read."""
        return await _run(self._engine, self._read(count, deadline_after(timeout)))

    async def read_block(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> Block:
        """The oldest block that has not been given out; also one without samples."""
        return await _run(self._engine, self._read_block(deadline_after(timeout)))

    async def blocks(self, timeout: Optional[float] = None) -> AsyncIterator[Block]:
        """Blocks as they come, without end. Timeout when none comes for `timeout` seconds."""
        while True:
            yield await self.read_block(timeout)


class Daq(AsyncSource):
    """The acquisition board's packets. They come while the DAQ link is open."""


class Device(DeviceSource, AsyncSource):
    """An open device. Closed at the end of an `async with` block."""

    async def write(self, data: bytes, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Sends bytes, at most 247, to the device. The unit does not answer."""
        operation = write_operation(self._engine, self._channel(), data, timeout)
        await _run(self._engine, operation)

    async def arm(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Sends a HID sensor its init request: before its answer the unit drops its reports."""
        await self.write(samples.HID_INIT_REQUEST, timeout)

    async def close(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Closes the device; nothing happens when it is not open any more."""
        await _run(self._engine, close_operation(self._engine, self._channel(), timeout))

    async def __aenter__(self) -> Device:
        return self

    async def __aexit__(self, *exception: object) -> None:
        try:
            await self.close()
        except Error:
            if exception[0] is None:
                raise


class Unit(BaseUnit):
    """See vexahost.Unit. One event loop at a time."""

    def __init__(self, address: str, queue_capacity: int, devices: Optional[DeviceFile]) -> None:
        super().__init__(address, queue_capacity, devices)
        #: The acquisition board.
        self.daq = Daq(self._engine, self._devices, self._start, "DAQ", self._engine.daq_channel)

    async def _do(self, operation: Operation[_Result]) -> _Result:
        return await _run(self._engine, operation)

    async def sync(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> bytes:
        """Brings the unit's parser and this side in step. Returns the reply's 26 bytes."""
        return await self._do(self._engine.initial_sync(deadline_after(timeout)))

    async def open_controller(
        self,
        daq: bool = False,
        id: int = CONTROLLER_ID,
        timeout: Optional[float] = DEFAULT_TIMEOUT,
    ) -> None:
        """Opens the controller, which closes all devices; with `daq` also the DAQ link."""
        await self._do(self._engine.open_controller(id, daq, deadline_after(timeout)))

    async def query_daq_application(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> bool:
        """Whether the unit's own DAQ application holds the hardware."""
        return await self._do(self._engine.query(deadline_after(timeout)))

    async def take_over(self, timeout: Optional[float] = TAKE_OVER_TIMEOUT) -> None:
        """Makes the unit's applications give up the hardware and brings the DAQ link up."""
        await self._do(self._engine.take_over(deadline_after(timeout)))

    async def open(
        self, name: str, id: Optional[int] = None, timeout: Optional[float] = DEFAULT_TIMEOUT
    ) -> Device:
        """Opens the first attached device of the type that `name` stands for."""
        channel = await self._do(self._engine.open_device(name, id, deadline_after(timeout)))
        return Device(self._engine, self._devices, self._start, name, channel)

    async def close_device(self, id: int, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Closes the device with this id, whoever has opened it."""
        await self._do(self._engine.close_device(id, deadline_after(timeout)))

    async def close_controller(self, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Closes the controller with all devices and hands the hardware back."""
        await self._do(self._engine.close_controller(deadline_after(timeout)))

    async def send_multiplexer_command(
        self, command: int, payload: bytes = b"", timeout: Optional[float] = DEFAULT_TIMEOUT
    ) -> None:
        """Sends a command to the DAQ and waits for its acknowledgement."""
        deadline = deadline_after(timeout)
        await self._do(self._engine.multiplexer_command(command, payload, deadline))

    async def send_raw(self, data: bytes, timeout: Optional[float] = DEFAULT_TIMEOUT) -> None:
        """Sends bytes as they are. What they open or close at the unit is not followed here."""
        await self._do(self._engine.send(bytes(data), deadline_after(timeout)))

    async def receive_any(
        self,
        sources: Sequence[_Source],
        timeout: Optional[float] = DEFAULT_TIMEOUT,
    ) -> Tuple[_Source, Block]:
        """The oldest block of several devices, of the DAQ as well, with the one that sent it."""
        return await self._do(find_operation(self._engine, sources, timeout))

    async def reconnect(
        self, timeout: Optional[float] = 10.0, lost: Optional[int] = None
    ) -> None:
        """Ends the connection, then connects anew. Nothing is open afterwards."""
        await self._do(self._engine.reconnect(deadline_after(timeout), lost))

    def close(self) -> None:
        """Ends the connection, as if the cable were pulled; waits end with LinkLost."""
        self._engine.close()

    async def leave(self) -> None:
        """Closes the controller, if it is open, and the connection."""
        try:
            if self._engine.can_close_controller():
                await self.close_controller(_LEAVE_TIMEOUT)
        finally:
            self.close()


class _Connecting:
    """What connect() returns: it can be awaited, or entered with `async with`."""

    def __init__(self, unit: Unit, timeout: Optional[float]) -> None:
        self._unit = unit
        self._timeout = timeout

    async def _connect(self) -> Unit:
        engine = self._unit._engine
        await _run(engine, engine.reconnect(deadline_after(self._timeout), once=True))
        return self._unit

    def __await__(self) -> Generator[Any, None, Unit]:
        return self._connect().__await__()

    async def __aenter__(self) -> Unit:
        return await self._connect()

    async def __aexit__(self, *exception: object) -> None:
        try:
            await self._unit.leave()
        except Error:
            if exception[0] is None and self._unit.link_error is None:
                raise


def connect(
    address: Optional[str] = None,
    timeout: Optional[float] = DEFAULT_TIMEOUT,
    *,
    queue_capacity: int = 1024,
    devices: Optional[DeviceFile] = None,
) -> _Connecting:
    """See vexahost.connect: `async with connect(...) as unit`, or `unit = await connect(...)`."""
    return _Connecting(Unit(chosen_address(address), queue_capacity, devices), timeout)
