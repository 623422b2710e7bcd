"""What this side knows of a conversation.

Which requests are under way, which devices are open, and what came until somebody receives it.
"""

from __future__ import annotations

import threading
import time
from collections import deque
from dataclasses import dataclass, replace
from typing import Callable, Deque, Dict, List, NamedTuple, Optional, Set

from . import packets
from .errors import Error, LinkLost, NotOpen

# Who answers a request.
SYNC = "initial sync"
MULTIPLEXER = "multiplexer"
CONTROLLER = "controller"

_FIRST_ID = 0x11
_MOST_REQUESTS = 128  # late ones must leave numbers for new ones


class Reply(NamedTuple):
    source: str
    is_error: bool
    command: int
    request_sequence: int
    code: int
    data: bytes


class Request:
    """A request to the unit, from before it is sent until its reply is here."""

    def __init__(self, source: str, command: int, what: str, child: Optional[int] = None) -> None:
        self.source = source
        self.command = command
        self.what = what  # in words
        self.child = child  # the one that it names; of one that closes and names none: controller
        self.sequence = 0
        self.controller = 0
        self.opens_child = False  # the child was not open before
        self.is_late = False  # nobody waits any more
        self.reply: Optional[Reply] = None
        self.error: Optional[Error] = None  # why there will be no reply

    def is_answered_by(self, reply: Reply) -> bool:
        if reply.source != self.source or reply.request_sequence != self.sequence:
            return False
        if reply.command == self.command:
            return True
        # The unit reports that it could not close an unknown child under the open command's number.
        closes = self.source == CONTROLLER and self.command == packets.CLOSE_CHILD
        return reply.is_error and closes and reply.command == packets.OPEN_CHILD


class RawBlock(NamedTuple):
    """A block of a device, or a packet of the DAQ."""

    data: bytes
    received: float  # time.monotonic()
    sequence: int  # of the device's blocks, modulo 256; of a DAQ packet the DAQ's own
    checksum_right: bool  # the unit passes DAQ packets on even with a wrong one


@dataclass
class Stats:
    """Counts since a device was opened; of the DAQ, since the connection was first made."""

    blocks: int = 0  #: received, dropped ones included
    bytes: int = 0  #: in these blocks
    gaps: int = 0  #: times that a sequence number did not follow the last one
    dropped: int = 0  #: dropped from a full queue
    wrong_checksums: int = 0  #: of the DAQ's packets; they are not dropped


@dataclass
class LinkStats:
    """Counts of the link since it was first made."""

    frames: int = 0
    packets: int = 0
    wrong_checksums: int = 0  #: packets dropped because of their checksum
    stray_replies: int = 0  #: replies for which no request waits (any more)
    stray_packets: int = 0  #: for no open device, or unknown
    resynchronisations: int = 0  #: times that the start of a packet had to be searched for


class Channel:
    """The blocks of one device or of the DAQ that nobody has received yet."""

    def __init__(self, number: int, capacity: int, expected: Optional[int], stats: Stats) -> None:
        self.number = number  # the device's id
        self.opened = time.monotonic()
        self.blocks: Deque[RawBlock] = deque()
        self.stats = stats
        self.error: Optional[Error] = None  # why nothing comes any more
        self._capacity = capacity
        self._expected = expected

    def add(self, block: RawBlock) -> None:
        data, _, sequence, checksum_right = block
        stats = self.stats
        stats.blocks += 1
        stats.bytes += len(data)
        if checksum_right:
            self.count_sequence(sequence)
        else:
            stats.wrong_checksums += 1
            self._expected = None  # its number may be what is wrong
        if len(self.blocks) >= self._capacity:
            self.blocks.popleft()
            stats.dropped += 1
        self.blocks.append(block)

    def count_sequence(self, sequence: int) -> None:
        if self._expected is not None and sequence != self._expected:
            self.stats.gaps += 1
        self._expected = (sequence + 1) & 0xFF

    def forget(self) -> None:
        self.blocks.clear()
        self._expected = None

    def end(self, error: Error) -> None:
        self.blocks.clear()
        self.error = error


def again(error: Error) -> Error:
    """A new exception like `error`, so that no traceback grows with each one who gets it."""
    return type(error)(*error.args)


class Inbox:
    """All functions that change something need the lock, which is that of `changed`."""

    def __init__(self, capacity: int) -> None:
        self.changed = threading.Condition()
        self.listeners: Set[Callable[[], None]] = set()  # of asyncio; called with the lock
        self.requests: List[Request] = []  # without a reply
        self.waiting: List[Request] = []  # for their turn, in order
        self.reserved: Set[int] = set()  # ids of devices that are being opened
        self.controller_id = 0
        self.controller_open = False
        self.children: Dict[int, Channel] = {}
        self.daq_stats = Stats()
        self.daq = Channel(0, max(capacity, 1), None, self.daq_stats)
        self.link_stats = LinkStats()
        self.connection = 0  # counts the calls of restart
        self.link_error: Optional[Error] = None
        self.former_error: Error = LinkLost("there is no connection yet")
        self.sync_awaited = False
        self.writing = False  # a packet is on its way to the unit
        self._capacity = max(capacity, 1)
        self._next_sequence = 1

    def notify(self) -> None:
        self.changed.notify_all()
        for listener in self.listeners:
            listener()

    # The link.

    def fail(self, error: Error) -> None:
        """Ends all present and future waits. Only the first call has an effect."""
        if self.link_error is None:
            self.link_error = error
        self.notify()

    def restart(self) -> None:
        """After fail: drops devices, requests and packets, and allows new waits."""
        if self.link_error is None:
            return
        self.former_error = self.link_error
        self.close_all(self.former_error)
        self.daq.end(self.former_error)
        self.daq = Channel(0, self._capacity, None, self.daq_stats)
        for request in self.requests:
            request.error = self.former_error
        self.requests.clear()
        self.controller_id = 0
        self.link_error = None
        self.sync_awaited = True
        self.connection += 1
        self.notify()

    def check_link(self, connection: int) -> None:
        """Raises what has ended that connection."""
        if self.connection != connection:
            raise again(self.former_error)
        if self.link_error is not None:
            raise again(self.link_error)

    # Requests.

    def holder_of_turn(self) -> Optional[Request]:
        return next((each for each in self.requests if each.source == CONTROLLER), None)

    def begin(self, request: Request) -> Request:
        """Gives a request its number and keeps its reply from now on."""
        request.sequence = self.free_sequence()
        if request.source == CONTROLLER:
            self._apply_begin(request)
        self.requests.append(request)
        return request

    def free_sequence(self) -> int:
        if len(self.requests) >= _MOST_REQUESTS:
            oldest = next((each for each in self.requests if each.is_late), None)
            if oldest is not None:
                self.requests.remove(oldest)
        taken = {each.sequence for each in self.requests}
        number = self._next_sequence
        while number in taken:
            number = (number + 1) & 0xFF
        self._next_sequence = (number + 1) & 0xFF
        return number

    def reserve_id(self) -> int:
        number = _FIRST_ID
        while number in self.children or number in self.reserved or number == self.controller_id:
            number += 1
        self.reserved.add(number)
        return number

    def _apply_begin(self, request: Request) -> None:
        if request.command == packets.OPEN_CONTROLLER:
            self.close_all(NotOpen("the controller was opened anew, which closes all devices"))
            self.controller_id = request.child or 0
        elif request.command == packets.OPEN_CHILD:
            # A device may send before the reply is here, so its blocks are kept from now on.
            child = request.child or 0
            request.opens_child = child != self.controller_id and child not in self.children
            if request.opens_child:
                self.children[child] = Channel(child, self._capacity, 0, Stats())
        elif request.command == packets.CLOSE_CHILD and request.child is None:
            request.child = self.controller_id
        request.controller = self.controller_id

    def _apply_reply(self, request: Request, reply: Reply) -> None:
        if request.source != CONTROLLER:
            return
        if request.command == packets.OPEN_CONTROLLER:
            self.controller_open = True  # also when the DAQ link could not be opened
        elif request.command == packets.OPEN_CHILD:
            if reply.is_error and request.opens_child:
                self._close_child(request.child)
        elif request.command == packets.CLOSE_CHILD and not reply.is_error:
            if request.child == self.controller_id:
                self.close_all(NotOpen("the controller is closed"))
            else:
                self._close_child(request.child)

    def _close_child(self, child: Optional[int]) -> None:
        channel = self.children.pop(child or 0, None)
        if channel is not None:
            channel.end(NotOpen("the device is not open"))

    def close_all(self, error: Error) -> None:
        for channel in self.children.values():
            channel.end(error)
        self.children.clear()
        self.controller_open = False
        self.daq.forget()

    def is_ended(self, request: Request) -> bool:
        return bool(request.reply or request.error or self.link_error)

    def reply_to(self, request: Request) -> Reply:
        """The reply to a request that has ended, or the error for which there is none."""
        if request.reply is None:
            raise again(request.error or self.link_error or self.former_error)
        return request.reply

    def abandon(self, request: Request) -> None:
        """Nobody waits for the reply any more. It may still come."""
        request.is_late = True
        self.notify()

    def withdraw(self, request: Request) -> None:
        """The request was not sent, or its reply does not matter any more."""
        if request in self.requests:
            self.requests.remove(request)
            if request.opens_child:
                self._close_child(request.child)
            self.notify()

    def forget_late_requests(self) -> None:
        """The unit has answered an initial sync: what is still late gets no reply any more."""
        for request in [each for each in self.requests if each.is_late]:
            self.withdraw(request)

    # From the unit.

    def deliver_reply(self, reply: Reply) -> bool:
        """False when nobody waits for this reply."""
        request = next((each for each in self.requests if each.is_answered_by(reply)), None)
        if request is None:
            return False
        self.requests.remove(request)
        self._apply_reply(request, reply)
        request.reply = reply
        return not request.is_late

    def is_controller(self, child: int) -> bool:
        """The ids under which the controller answers: its own, or 0 when its entry is gone."""
        return child in (self.controller_id, 0)

    def daq_channel(self) -> Channel:
        return self.daq

    def copy_stats(self) -> LinkStats:
        return replace(self.link_stats)
