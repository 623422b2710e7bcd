"""What can go wrong in a conversation with a unit. Each is also an exception that Python has."""

from __future__ import annotations

from . import packets


class Error(Exception):
    """Base of all errors of this module. The message is one line for a person."""


class InvalidArgument(Error, ValueError):
    """A wrong argument; nothing was sent."""


class CannotConnect(Error, ConnectionError):
    """No connection could be made."""


class Busy(Error, ConnectionError):
    """Another host is connected to the unit."""


class Timeout(Error, TimeoutError):
    """No answer in time; the link may still work."""


class LinkLost(Error, ConnectionError):
    """The connection has ended, from either side."""


class ProtocolViolation(Error, ConnectionError):
    """The unit sent invalid bytes; the link cannot be used any more."""


class NotOpen(Error, RuntimeError):
    """The controller or the device is not open; nothing was sent."""


class Forked(Error, RuntimeError):
    """The process has forked since the connection was made; it belongs to the parent."""


class Refused(Error, RuntimeError):
    """The unit answered with an error: `code`, to the command `command`."""

    def __init__(self, what: str, command: int, code: int, hint: str = "") -> None:
        meaning = packets.error_meaning(command, code)
        super().__init__(f"{what} was refused: error {code}, {meaning}{hint}")
        self.command = command
        self.code = code
