"""Ways to a unit: a virtual unit's socket, TCP, a serial line. For USB see usb.py."""

from __future__ import annotations

import errno
import os
import queue
import select
import socket
import stat
import threading
import time
from typing import Any, Callable, List, Optional, Union
from urllib.parse import parse_qs, urlsplit

from .errors import CannotConnect, InvalidArgument

TCP_PORT = 38144
BAUD = 38400
SOCKET_NAME = "host.sock"
_READ_SIZE = 1 << 16
_FAR = 3600.0  # seconds
_PAUSE = 0.02  # between two attempts while a unit's queue of hosts is full

Connect = Callable[[float], "Transport"]


class Transport:
    """A byte stream in each direction. Failures are OSError.

    One thread reads; `write` is called by one thread at a time; `interrupt` by any thread, and
    `release` once, when nobody reads or writes any more.
    """

    #: The unit puts a header before each chunk that it sends.
    has_frame_headers = False
    #: `write` can wait for the unit; it is then called where that does no harm.
    write_waits = False

    def read(self, timeout: float) -> bytes:
        """What has come; empty when nothing has within `timeout` seconds."""
        raise NotImplementedError

    def write(self, data: bytes) -> int:
        """Sends as much as can be sent at once. The number of bytes."""
        raise NotImplementedError

    def interrupt(self) -> None:
        """Ends the connection; a `read` under way ends soon."""
        raise NotImplementedError

    def release(self) -> None:
        """Gives the descriptors back. In a forked child the parent's connection stays."""
        raise NotImplementedError


class SocketTransport(Transport):
    """A connected stream socket."""

    def __init__(self, connected: socket.socket, has_frame_headers: bool) -> None:
        connected.setblocking(False)
        self._socket = connected
        self.has_frame_headers = has_frame_headers

    def read(self, timeout: float) -> bytes:
        try:
            poll = select.poll()
            poll.register(self._socket, select.POLLIN)
            if not poll.poll(timeout * 1000):
                return b""
            data = self._socket.recv(_READ_SIZE)
        except (BlockingIOError, InterruptedError):
            return b""
        if not data:
            raise ConnectionResetError("the unit closed the connection")
        return data

    def write(self, data: bytes) -> int:
        try:
            return self._socket.send(data)
        except (BlockingIOError, InterruptedError):
            return 0

    def interrupt(self) -> None:
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # the unit was faster

    def release(self) -> None:
        self._socket.close()


class SerialTransport(Transport):
    """A raw serial line, 8N1, through pyserial."""

    write_waits = True

    def __init__(self, line: Any) -> None:
        self._line = line

    def read(self, timeout: float) -> bytes:
        if self._line.timeout != timeout:
            self._line.timeout = timeout
        data = bytes(self._line.read(1))
        return data + bytes(self._line.read(self._line.in_waiting)) if data else data

    def write(self, data: bytes) -> int:
        import serial

        try:
            return int(self._line.write(data) or 0)
        except serial.SerialTimeoutException:
            # How much has gone is not known, so the packet counts as sent in part.
            return 1

    def interrupt(self) -> None:
        self._line.cancel_read()

    def release(self) -> None:
        self._line.close()


def connect_unit(path: str, deadline: float) -> Transport:
    """A virtual unit's host socket, or the folder in which it is. `deadline`: time.monotonic()."""
    try:
        is_folder = stat.S_ISDIR(os.stat(path).st_mode)
    except OSError:
        is_folder = False
    where = os.path.join(path, SOCKET_NAME) if is_folder else path
    made = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        made.setblocking(False)
        while True:
            try:
                made.connect(where)
                return SocketTransport(made, has_frame_headers=True)
            except BlockingIOError:
                # The unit's queue of hosts is full, and there is no event for its end.
                if time.monotonic() >= deadline:
                    raise TimeoutError(errno.ETIMEDOUT, "no answer in time") from None
                time.sleep(_PAUSE)
    except OSError as error:
        made.close()
        why = error.strerror or str(error)
        if error.errno in (errno.ENOENT, errno.ECONNREFUSED):
            folder = path if is_folder or not path.endswith(".sock") else os.path.dirname(path)
            why += (
                "; is a unit running there? Start one with: vexa-unit run --dir " + (folder or ".")
            )
        raise CannotConnect(f"cannot connect to a unit at {where}: {why}") from error


def _look_up(host: str, port: int, deadline: float) -> List[str]:
    """The addresses of a name. The system's look-up can neither be interrupted nor limited."""
    found: queue.SimpleQueue[Union[List[str], OSError]] = queue.SimpleQueue()

    def work() -> None:
        try:
            entries = socket.getaddrinfo(host, port, type=socket.SOCK_STREAM)
            found.put([str(entry[4][0]) for entry in entries])
        except OSError as error:
            found.put(error)

    threading.Thread(target=work, name="vexahost look-up", daemon=True).start()
    try:
        result = found.get(timeout=min(max(deadline - time.monotonic(), 0), _FAR))
    except queue.Empty:
        raise TimeoutError(errno.ETIMEDOUT, "no answer in time") from None
    if isinstance(result, OSError):
        raise result
    return result


def _connect_first(host: str, port: int, deadline: float) -> socket.socket:
    failure = OSError(errno.EADDRNOTAVAIL, "the name has no address")
    addresses = _look_up(host, port, deadline)
    for number, address in enumerate(addresses):
        # One that never answers leaves time for the others.
        share = (deadline - time.monotonic()) / (len(addresses) - number)
        try:
            return socket.create_connection((address, port), min(max(share, 0.001), _FAR))
        except OSError as error:
            failure = error
    raise failure


def connect_tcp(host: str, port: int, deadline: float) -> Transport:
    """A unit that serves TCP."""
    try:
        made = _connect_first(host, port, deadline)
    except OSError as error:
        why = error.strerror or str(error)
        raise CannotConnect(f"cannot connect to a unit at {host}:{port}: {why}") from error
    # A unit whose network has gone is noticed within about ten seconds.
    made.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
    for name, value in (("TCP_KEEPIDLE", 5), ("TCP_KEEPINTVL", 2), ("TCP_KEEPCNT", 3)):
        if hasattr(socket, name):
            made.setsockopt(socket.IPPROTO_TCP, getattr(socket, name), value)
    made.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return SocketTransport(made, has_frame_headers=False)


def connect_serial(path: str, baud: int, flow_control: bool) -> Transport:
    """A serial line. Needs pyserial."""
    try:
        import serial
    except ImportError as error:
        raise CannotConnect("serial lines need pyserial (Debian: python3-serial)") from error
    try:
        line = serial.Serial(
            path, baud, rtscts=flow_control, exclusive=True, timeout=1.0, write_timeout=0.05
        )
        line.reset_input_buffer()  # bytes from before this conversation
    except (OSError, ValueError) as error:
        raise CannotConnect(f"cannot open the serial line {path}: {error}") from error
    return SerialTransport(line)


def _number(text: str, what: str, address: str) -> int:
    if not text.isdigit():
        raise InvalidArgument(f'"{address}": {what} is no number')
    return int(text)


def parse_address(address: str) -> Connect:
    """How to connect to `address`; see vexahost.connect. Takes a deadline in time.monotonic()."""
    if address == "usb" or address.startswith("usb:"):
        from . import usb

        numbers = usb.parse_numbers(address[4:])
        return lambda deadline: usb.connect_usb(numbers)
    if address.startswith("tcp:"):
        parts = urlsplit(address)
        try:
            host, port = parts.hostname, parts.port
        except ValueError as error:
            raise InvalidArgument(f'"{address}": {error}') from error
        if not host or parts.path or port == 0:
            raise InvalidArgument(f'"{address}" is no address: expected tcp://HOST or HOST:PORT')
        return lambda deadline: connect_tcp(str(host), port or TCP_PORT, deadline)
    if address.startswith("serial:"):
        parts = urlsplit(address)
        if not parts.path:
            raise InvalidArgument(f'"{address}": expected serial:///dev/NAME?baud=38400')
        options = parse_qs(parts.query)
        baud = _number(options.pop("baud", [str(BAUD)])[0], "baud", address)
        flow_control = options.pop("rtscts", ["0"])[0] == "1"
        if options:
            raise InvalidArgument(f'"{address}": there is no option {next(iter(options))}')
        return lambda deadline: connect_serial(parts.path, baud, flow_control)
    return lambda deadline: connect_unit(address, deadline)


def default_address(environment: Optional[str]) -> str:
    """Where a unit is looked for when no address is given."""
    return environment or os.path.join("build", "unit")
