"""The conversation itself, once for `Unit` and for `aio.Unit`: requests, devices, blocks.

The unit drops a controller command that comes while it executes another. So one command at a time
has the turn, in the order of the calls, until its reply is here, also when nobody waits for that
any more. A late reply still changes what is open. Opening the controller takes the turn from a
late command, as the unit abandons it; a reply to an initial sync and a new connection do so too.
"""

from __future__ import annotations

import struct
import time
from typing import List, Optional, Tuple

from . import packets
from .errors import InvalidArgument, NotOpen, Refused, Timeout
from .inbox import CONTROLLER, MULTIPLEXER, Channel, RawBlock, Reply, Request, again
from .link import Link, Operation


class Engine(Link):
    """One unit. Any thread; each function is an operation, run by a driver."""

    # Requests.

    def command(
        self,
        what: str,
        command: int,
        deadline: float,
        arguments: Optional[bytes] = b"",
        child: Optional[int] = None,
    ) -> Operation[Reply]:
        """Sends a controller command and waits for its reply.

        Without `arguments` the child's id is the argument.
        """
        request = Request(CONTROLLER, command, what, child)
        yield from self._await_turn(request, deadline)
        self.begin(request)
        if arguments is None:
            arguments = struct.pack("<I", request.child)
        packet = packets.build_controller_command(
            request.controller, request.sequence, command, arguments
        )
        hint = ""
        if command == packets.OPEN_CHILD:
            hint = (
                "; the unit has no such device (capitals matter) or none attached, its type "
                "cannot be opened, or the id is in use"
            )
        reply = yield from self._ask(request, packet, deadline)
        if reply.is_error:
            shown = hint if reply.code == packets.CHILD_FAILED else ""
            raise Refused(what, reply.command, reply.code, shown)
        return reply

    def multiplexer_command(
        self, command: int, payload: bytes, deadline: float
    ) -> Operation[Reply]:
        if len(payload) > packets.MAX_COMMAND_PAYLOAD:
            raise InvalidArgument(f"the payload has more than {packets.MAX_COMMAND_PAYLOAD} bytes")
        what = f"multiplexer command {command}"
        request = self.begin(Request(MULTIPLEXER, command, what))
        packet = packets.build_multiplexer_command(request.sequence, command, payload)
        reply = yield from self._ask(request, packet, deadline)
        if reply.is_error:
            raise Refused(what, reply.command, reply.code)
        return reply

    def _ask(self, request: Request, packet: bytes, deadline: float) -> Operation[Reply]:
        sent = False
        try:
            yield from self.send(packet, deadline)
            sent = True
            while not self.is_ended(request):
                if time.monotonic() >= deadline:
                    raise Timeout(f"no answer in time to: {request.what}")
                yield deadline
            return self.reply_to(request)
        finally:
            if sent:
                self.abandon(request)
            else:
                self.withdraw(request)

    def _await_turn(self, request: Request, deadline: float) -> Operation[None]:
        mine = self.connection
        reopens = request.command == packets.OPEN_CONTROLLER
        self.waiting.append(request)
        try:
            is_next = False
            while True:
                self.check_link(mine)
                holder = self.holder_of_turn()
                if holder is not None and holder.is_late and reopens:
                    self.requests.remove(holder)
                    is_next = True
                    continue
                is_next = is_next or self.waiting[0] is request
                if holder is None and is_next:
                    if reopens or self.controller_open:
                        return
                    raise NotOpen(f"{request.what}: the controller is not open")
                if time.monotonic() >= deadline:
                    if holder is not None and holder.is_late:
                        raise Timeout(
                            f"the unit has not answered an earlier request yet: {holder.what}"
                        )
                    raise Timeout(f"the controller was busy too long for: {request.what}")
                yield deadline
        finally:
            self.waiting.remove(request)
            self.notify()

    def open_controller(self, controller: int, daq: bool, deadline: float) -> Operation[None]:
        arguments = struct.pack("<IB", controller, 1 if daq else 0)
        what = "open controller"
        command = packets.OPEN_CONTROLLER
        yield from self.command(what, command, deadline, arguments, controller)

    def open_device(self, name: str, child: Optional[int], deadline: float) -> Operation[Channel]:
        if len(name.encode()) > packets.MAX_DEVICE_NAME:
            raise InvalidArgument(f"the device name has more than {packets.MAX_DEVICE_NAME} bytes")
        if name == packets.CONTROLLER_NAME:
            raise InvalidArgument("a device of this name would open the controller anew")
        if child is None:
            child = self.reserve_id()
        asked = time.monotonic()
        try:
            arguments = packets.open_arguments(child, name)
            what = f"open {name}"
            yield from self.command(what, packets.OPEN_CHILD, deadline, arguments, child)
        finally:
            self.reserved.discard(child)
        channel = self.children.get(child)
        if channel is None:
            raise NotOpen(f"{name} was closed while it was opened")
        channel.opened = asked  # blocks may have been on their way before the reply
        return channel

    def close_device(self, child: int, deadline: float) -> Operation[None]:
        what = f"close child {child}"
        yield from self.command(what, packets.CLOSE_CHILD, deadline, None, child)

    def close_controller(self, deadline: float) -> Operation[None]:
        yield from self.command("close controller", packets.CLOSE_CHILD, deadline, None)

    def take_over(self, deadline: float) -> Operation[None]:
        yield from self.command("take DAQ over", packets.TAKE_DAQ_OVER, deadline)

    def query(self, deadline: float) -> Operation[bool]:
        command = packets.QUERY_DAQ_APPLICATION
        reply = yield from self.command("query DAQ application", command, deadline)
        return reply.code == 1

    def send_to(self, child: int, data: bytes, deadline: float) -> Operation[None]:
        if len(data) > packets.MAX_TO_DEVICE:
            raise InvalidArgument(f"the request has more than {packets.MAX_TO_DEVICE} bytes")
        if packets.reopens_controller(data):
            raise InvalidArgument(
                "the unit would execute these bytes as the command to open the controller"
            )
        yield from self.send(packets.build_tunnel(child, self.free_sequence(), data), deadline)

    # Blocks.

    def receive_any(
        self, wanted: List[Channel], deadline: float
    ) -> Operation[Tuple[Channel, RawBlock]]:
        """The oldest block of several; those from before the end of the link can still be had."""
        while True:
            ready = [channel for channel in wanted if channel.blocks]
            if ready:
                oldest = min(ready, key=lambda channel: channel.blocks[0].received)
                return oldest, oldest.blocks.popleft()
            self.check_wait(wanted, deadline)
            yield deadline

    def check_wait(self, channels: List[Channel], deadline: float) -> None:
        """Raises what ends a wait for blocks of these."""
        for channel in channels:
            if channel.error is not None:
                raise again(channel.error)
        if self.link_error is not None:
            raise again(self.link_error)
        if time.monotonic() >= deadline:
            raise Timeout("nothing came in time")

    def receive(self, channel: Channel, deadline: float) -> Operation[RawBlock]:
        if channel.blocks:
            return channel.blocks.popleft()
        _, block = yield from self.receive_any([channel], deadline)
        return block
