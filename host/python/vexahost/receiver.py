"""The receiving thread: bytes to frames to packets, and these into the inbox."""

from __future__ import annotations

import threading
import time
from typing import Callable, Optional

from . import packets
from .errors import Busy, Error, LinkLost, ProtocolViolation
from .inbox import CONTROLLER, MULTIPLEXER, SYNC, Inbox, RawBlock, Reply
from .readers import FrameReader, Packet, PacketReader
from .transports import Transport

_READ_TIMEOUT = 1.0  # of an idle link, in seconds
# While the step is lost: how often to look, how often to send an initial sync, and for how long.
_SEARCH_TIMEOUT = 0.1
_SYNC_REPEAT = 0.5
_SEARCH_LIMIT = 5.0


class Receiver:
    """Reads one transport until it ends, on a thread that keeps no program from ending."""

    def __init__(self, inbox: Inbox, transport: Transport, send_sync: Callable[[], None]) -> None:
        self._inbox = inbox
        self._transport = transport
        self._send_sync = send_sync  # called on the thread, with the lock; must not wait
        self._frames = FrameReader()
        self._packets = PacketReader()
        self._packets.lose_step()
        self._frames_before = inbox.link_stats.frames
        self._violation = ""
        self._search_ends: Optional[float] = None  # none: in step, or nothing was received so far
        self._next_sync = 0.0
        self._now = 0.0  # when the bytes that are looked at came
        self._stopped = False
        self.is_running = True
        threading.Thread(target=self._run, name="vexahost", daemon=True).start()

    def stop(self) -> None:
        """Ends the connection and, soon, the thread. With the lock."""
        if not self._stopped:
            self._stopped = True
            if self.is_running:
                self._transport.interrupt()

    def _run(self) -> None:
        try:
            error = self._read_until_error()
        except Exception as failure:  # whatever it is, nobody may wait for this thread in vain
            error = LinkLost(f"the receiving thread has failed: {failure!r}")
        with self._inbox.changed:
            if not self._stopped:
                self._inbox.fail(error)
            while self._inbox.writing and self._transport.write_waits:
                self._inbox.changed.wait(_SEARCH_TIMEOUT)
            self._stopped = True
            self.is_running = False
            self._transport.release()
            self._inbox.notify()

    def _read_until_error(self) -> Error:
        while True:
            try:
                data = self._transport.read(
                    _READ_TIMEOUT if self._search_ends is None else _SEARCH_TIMEOUT
                )
            except OSError as error:
                return LinkLost(error.strerror or str(error))
            self._now = time.monotonic()
            with self._inbox.changed:
                if self._stopped:
                    return LinkLost("the link was closed by this side")
                failure = self._on_bytes(data) or self._resynchronise()
                if data:
                    self._inbox.notify()
                if failure is not None:
                    return failure

    def _on_bytes(self, data: bytes) -> Optional[Error]:
        if not self._transport.has_frame_headers:
            self._on_payload(data)
            return None
        for piece in self._frames.feed(data):
            self._on_payload(piece)
        self._inbox.link_stats.frames = self._frames_before + self._frames.frames
        if self._frames.is_busy:
            return Busy("another host is connected to the unit")
        if self._frames.violation:
            return ProtocolViolation(self._frames.violation)
        return None

    def _resynchronise(self) -> Optional[Error]:
        if self._search_ends is None:
            return None
        if self._packets.in_step:
            self._search_ends = None
        elif self._now >= self._search_ends:
            return ProtocolViolation(
                self._violation + "; no initial sync has brought the link back in step"
            )
        elif self._now >= self._next_sync:
            self._next_sync = self._now + _SYNC_REPEAT
            self._inbox.sync_awaited = True
            try:
                self._send_sync()
            except OSError as error:
                return LinkLost(error.strerror or str(error))
        return None

    def _on_payload(self, payload: bytes) -> None:
        reader, inbox = self._packets, self._inbox
        reader.feed(payload)
        while reader.has_input:
            if inbox.sync_awaited and not reader.awaits_sync_reply:
                reader.await_sync_reply()
            elif not inbox.sync_awaited and reader.in_step:
                reader.awaits_sync_reply = False
            packet = reader.next()
            while packet is not None:
                self._on_packet(packet)
                packet = reader.next()
            if reader.is_violated:
                inbox.link_stats.resynchronisations += 1
                self._violation = reader.violation
                self._search_ends = self._now + _SEARCH_LIMIT
                self._next_sync = 0.0
                reader.lose_step()

    def _on_packet(self, packet: Packet) -> None:
        data, right = packet
        inbox, stats = self._inbox, self._inbox.link_stats
        stats.packets += 1
        kind = data[0] & packets.CLASS_MASK
        if not right and kind != packets.CLASS_DAQ:
            stats.wrong_checksums += 1
        elif kind == packets.CLASS_TUNNEL and len(data) >= packets.TUNNEL_HEADER_SIZE:
            self._on_tunnel_packet(data)
        elif packets.is_initial_sync_reply(data):
            inbox.sync_awaited = False
            self._on_reply(SYNC, data)
        elif packets.is_service_reply(data):
            self._on_reply(MULTIPLEXER, data)
        elif kind != packets.CLASS_DAQ:
            stats.stray_packets += 1
        elif right and packets.is_daq_reply(data):
            inbox.daq.count_sequence(data[2])
            self._on_reply(MULTIPLEXER, data)
        else:
            inbox.daq.add(RawBlock(data, self._now, data[2], right))

    def _on_tunnel_packet(self, data: bytes) -> None:
        child = packets.tunnel_id(data)
        inner = data[packets.TUNNEL_HEADER_SIZE :]
        channel = self._inbox.children.get(child)
        if channel is not None:
            channel.add(RawBlock(inner, self._now, data[2], True))
        elif (
            self._inbox.is_controller(child)
            and packets.is_service_reply(inner)
            and packets.has_right_checksum(inner)
        ):
            self._on_reply(CONTROLLER, inner)
        else:
            self._inbox.link_stats.stray_packets += 1

    def _on_reply(self, source: str, data: bytes) -> None:
        code = 0 if source == SYNC else data[6]
        is_error = data[0] == packets.ERROR
        reply = Reply(source, is_error, data[4], data[5], code, data)
        is_awaited = self._inbox.deliver_reply(reply)
        # This side's own initial syncs are no requests.
        if not is_awaited and not (source == SYNC and self._search_ends is not None):
            self._inbox.link_stats.stray_replies += 1
