"""The link to a unit: what runs an operation, who connects anew, who writes.

What a caller waits for is written as an *operation*: a generator that runs with the lock held and
yields the time until which it waits for a change, or a `Blocking` that is called without the lock.
A driver, one for threads (here) and one for asyncio, runs it. One daemon thread reads.
"""

from __future__ import annotations

import os
import time
from functools import partial
from typing import Any, Callable, Generator, List, NamedTuple, Optional, TypeVar, Union

from . import packets
from .errors import Error, Forked, InvalidArgument, LinkLost, Timeout
from .inbox import SYNC, Inbox, Request, again
from .receiver import Receiver
from .transports import Connect, Transport

_Result = TypeVar("_Result")

_SYNC_INTERVAL = 0.5
_RECONNECT_PAUSE = 0.1
_WRITE_PAUSE = 0.005  # while the unit takes nothing
_REASON_PATIENCE = 0.5  # for the reason of a lost link
_FAR = 3600.0


class Blocking(NamedTuple):
    """A call that may wait, made by the driver without the lock."""

    call: Callable[[], Any]


Operation = Generator[Union[float, Blocking], Any, _Result]


def deadline_after(timeout: Optional[float]) -> float:
    """`timeout` in seconds; None: without end."""
    return float("inf") if timeout is None else time.monotonic() + timeout


def time_left(deadline: float) -> float:
    return min(max(deadline - time.monotonic(), 0.0), _FAR)


class Link(Inbox):
    """The connection to one unit, made anew where it is lost. Any thread."""

    def __init__(self, connect: Connect, capacity: int) -> None:
        super().__init__(capacity)
        self._connect = connect
        self._process = os.getpid()
        self._transport: Optional[Transport] = None
        self._receiver: Optional[Receiver] = None
        self._closes = 0
        self._reconnecting = False
        self._torn = False  # a packet was sent in part: an initial sync goes first
        self.link_error = LinkLost("there is no connection yet")

    # Drivers.

    def check_process(self) -> None:
        if os.getpid() != self._process:
            raise Forked("this connection belongs to the process that has made it, before a fork")

    def run(self, operation: Operation[_Result]) -> _Result:
        """Runs an operation on this thread. An exception such as KeyboardInterrupt ends it."""
        self.check_process()
        with self.changed:
            try:
                wanted = next(operation)
                while True:
                    if isinstance(wanted, Blocking):
                        wanted = self._run_blocking(operation, wanted)
                    else:
                        self.changed.wait(time_left(wanted))
                        wanted = next(operation)
            except StopIteration as end:
                result: _Result = end.value
                return result
            finally:
                operation.close()

    def _run_blocking(
        self, operation: Operation[_Result], blocking: Blocking
    ) -> Union[float, Blocking]:
        self.changed.release()
        try:
            result = blocking.call()
        except Exception as error:
            self.changed.acquire()
            return operation.throw(error)
        except BaseException:  # Ctrl-C
            self.changed.acquire()
            raise
        self.changed.acquire()
        return operation.send(result)

    # The connection.

    def can_close_controller(self) -> bool:
        """Whether there is a controller to close, and this process may do it."""
        is_mine = os.getpid() == self._process
        return is_mine and self.controller_open and self.link_error is None

    def reconnect(
        self, deadline: float, lost: Optional[int] = None, once: bool = False
    ) -> Operation[None]:
        """Connects anew and synchronises; with `once` there is one attempt."""
        closes = self._closes
        while self._reconnecting:
            if time.monotonic() >= deadline:
                raise Timeout("another thread is reconnecting")
            yield deadline
            self._check_closes(closes)
        if lost is not None and self.connection != lost and self.link_error is None:
            return
        self._reconnecting = True
        try:
            while True:
                try:
                    yield from self._attempt(deadline, closes)
                    return
                except InvalidArgument:
                    raise
                except Error:
                    self._check_closes(closes)
                    if once or time.monotonic() >= deadline:
                        raise
                until = min(deadline, time.monotonic() + _RECONNECT_PAUSE)
                while time.monotonic() < until:
                    yield until
                    self._check_closes(closes)
        except BaseException:
            self._end_connection()
            raise
        finally:
            self._reconnecting = False
            self.notify()

    def _check_closes(self, closes: int) -> None:
        if self._closes != closes:
            raise LinkLost("the link was closed by this side")

    def _attempt(self, deadline: float, closes: int) -> Operation[None]:
        self._end_connection()
        while self.writing or (self._receiver is not None and self._receiver.is_running):
            yield deadline_after(1)
        connected: List[Transport] = []
        given_up = False

        def connect() -> None:
            transport = self._connect(deadline)
            with self.changed:
                connected.append(transport)
                if given_up:
                    drop()

        def drop() -> None:
            for transport in connected:
                transport.interrupt()
                transport.release()

        try:
            yield Blocking(connect)
            self._check_closes(closes)
        except BaseException:
            given_up = True
            drop()
            raise
        self._use(connected[0])
        yield from self.initial_sync(deadline)

    def _use(self, transport: Transport) -> None:
        self._torn = False
        self.restart()
        self._transport = transport
        self._receiver = Receiver(self, transport, self._send_sync_at_once)

    def _end_connection(self) -> None:
        self.fail(LinkLost("the link was closed by this side"))
        if self._receiver is not None:
            self._receiver.stop()
        self._transport = None

    def close(self) -> None:
        """Ends the connection, and a reconnect under way. In a forked child: only its own copy."""
        if os.getpid() != self._process:
            if self._transport is not None:
                self._transport.release()
                self._transport = None
            return
        with self.changed:
            self._closes += 1
            self._end_connection()

    # Packets.

    def send(self, packet: bytes, deadline: float) -> Operation[None]:
        """Sends a packet when its turn has come."""
        mine = self.connection
        while True:
            self.check_link(mine)
            if not self.writing:
                break
            if time.monotonic() >= deadline:
                raise Timeout("the unit accepted no bytes in time")
            yield deadline
        self.writing = True
        try:
            if self._torn:
                sync = packets.build_initial_sync(self.free_sequence())
                yield from self._write_whole(sync, deadline)
                self._torn = False
            yield from self._write_whole(packet, deadline)
        finally:
            self.writing = False
            self.notify()

    def _write_whole(self, data: bytes, deadline: float) -> Operation[None]:
        transport = self._transport
        if transport is None:
            raise again(self.link_error or self.former_error)
        write = transport.write
        at = 0
        try:
            while at < len(data):
                rest = data[at:]
                try:
                    if transport.write_waits:
                        at += yield Blocking(partial(write, rest))
                    else:
                        at += write(rest)
                except OSError as error:
                    # What the unit said before it left is a better reason.
                    until = min(deadline, deadline_after(_REASON_PATIENCE))
                    while self.link_error is None and time.monotonic() < until:
                        yield until
                    raise again(self.link_error or LinkLost(str(error))) from error
                if at < len(data):
                    if time.monotonic() >= deadline:
                        raise Timeout("the unit accepted no bytes in time")
                    yield deadline_after(_WRITE_PAUSE)
        finally:
            self._torn = self._torn or 0 < at < len(data)
        if self._transport is not transport:
            raise again(self.link_error or self.former_error)

    def _send_sync_at_once(self) -> None:
        """On the receiving thread, which must not wait for a unit that waits for it to read."""
        if self.writing or self._transport is None:
            return
        sync = packets.build_initial_sync(self.free_sequence())
        sent = self._transport.write(sync)
        self._torn = (self._torn or sent > 0) and sent < len(sync)

    def initial_sync(self, deadline: float) -> Operation[bytes]:
        request = self.begin(Request(SYNC, packets.SYNC_COMMAND, "initial sync"))
        try:
            packet = packets.build_initial_sync(request.sequence)
            while True:
                self.sync_awaited = True
                yield from self.send(packet, deadline)
                until = min(deadline, deadline_after(_SYNC_INTERVAL))
                while not self.is_ended(request) and time.monotonic() < until:
                    yield until
                if self.is_ended(request):
                    reply = self.reply_to(request)
                    self.forget_late_requests()
                    return reply.data
                if time.monotonic() >= deadline:
                    raise Timeout("no answer in time to: initial sync")
        finally:
            if request.reply is None:
                self.sync_awaited = False
            self.withdraw(request)
