"""Recordings of the link (pcapng, link type 147), packet by packet in words."""

from __future__ import annotations

import os
import struct
from dataclasses import dataclass
from typing import BinaryIO, Dict, Iterator, List, NamedTuple, Optional, Set, Tuple, Union

from . import packets
from .errors import InvalidArgument
from .readers import (
    FRAME_HEADER_SIZE,
    Packet,
    PacketReader,
    RequestReader,
    frame_payload_size,
)

TO_UNIT = "to-unit"
FROM_UNIT = "from-unit"

_SECTION = 0x0A0D0D0A
_INTERFACE = 1
_ENHANCED_PACKET = 6
_BYTE_ORDER_MAGIC = 0x1A2B3C4D
_LINK_TYPE = 147
_MOST_BLOCK = 1 << 26  # no frame of ours comes near it
_COMMENT_OPTION = 1
_FLAGS_OPTION = 2
_RESOLUTION_OPTION = 9
_INBOUND = 1  # seen from the host: from the unit
_EVENTS_OF_CABLE = ("cable in", "cable out")


class Frame(NamedTuple):
    """One record: a chunk of the unit with its header, one write of a host, or an event."""

    time_ns: int  # since 1970-01-01 00:00 UTC
    direction: str
    data: bytes
    comment: str


@dataclass(frozen=True)
class RecordedPacket:
    """One packet of a recording, or one remark about it."""

    frame: int  #: number of the frame that holds its last byte, from 1
    time_ns: int  #: of that frame, nanoseconds since 1970-01-01 00:00 UTC
    direction: str  #: "to-unit" or "from-unit"
    kind: str  #: "initial-sync", "controller-reply", "child-data", "event" and so on
    checksum_right: bool
    child: Optional[int]  #: id in a tunnel packet
    bytes: bytes
    words: str  #: one line

    @property
    def time(self) -> float:
        """Seconds since 1970-01-01 00:00 UTC."""
        return self.time_ns / 1e9


def _time_ns(units: int, resolution: int) -> int:
    power = resolution & 0x7F
    per_second = 2**power if resolution & 0x80 else 10**power
    return int(units * 1_000_000_000 // per_second)


class _Pcapng:
    """The frames of a file, in either byte order and with any time resolution."""

    def __init__(self, file: BinaryIO, name: str) -> None:
        self._file = file
        self._name = name
        self._order = ""  # none before the first section
        self._interfaces: List[Tuple[int, int]] = []  # link type, time resolution
        self._start = 0  # of the block that is read

    def _fail(self, what: str) -> InvalidArgument:
        return InvalidArgument(f"{self._name}: {what}, at byte {self._start}")

    def _read(self, size: int) -> bytes:
        data = self._file.read(size)
        if len(data) < size:
            raise self._fail(
                "the capture breaks off" if self._order else "this is no pcapng capture"
            )
        return data

    def _number(self, data: bytes, at: int) -> int:
        return int(struct.unpack_from(self._order + "I", data, at)[0])

    def frames(self) -> Iterator[Frame]:
        while True:
            head = self._file.read(4)
            if not head:
                if self._start == 0:
                    raise self._fail("the file is empty")
                return
            head += self._read(8 - len(head))
            kind, body = self._block(head)
            if kind == _INTERFACE:
                self._add_interface(body)
            elif kind == _ENHANCED_PACKET:
                yield self._frame(body)

    def _block(self, head: bytes) -> Tuple[int, bytes]:
        is_section = head[:4] == struct.pack("<I", _SECTION)
        if not is_section and not self._order:
            raise self._fail("this is no pcapng capture")
        rest = b""
        if is_section:
            rest = self._read(4)
            orders = {struct.pack(order + "I", _BYTE_ORDER_MAGIC): order for order in "<>"}
            if rest not in orders:
                raise self._fail("this is no pcapng capture")
            self._order = orders[rest]
            self._interfaces = []
        length = self._number(head, 4)
        if length < 12 or length % 4 or length > _MOST_BLOCK:
            raise self._fail(f"a block of {length} bytes cannot be")
        rest += self._read(length - 8 - len(rest))
        if self._number(rest, len(rest) - 4) != length:
            raise self._fail("the two lengths of a block differ")
        self._start += length
        return self._number(head, 0), rest[:-4]

    def _options(self, data: bytes) -> Iterator[Tuple[int, bytes]]:
        at = 0
        while at + 4 <= len(data):
            code, length = struct.unpack_from(self._order + "HH", data, at)
            if code == 0:
                return
            if at + 4 + length > len(data):
                raise self._fail("the options of a block do not fit into it")
            yield code, data[at + 4 : at + 4 + length]
            at += 4 + (length + 3) // 4 * 4

    def _add_interface(self, body: bytes) -> None:
        if len(body) < 8:
            raise self._fail("an interface block is too short")
        resolution = 6  # microseconds
        for code, value in self._options(body[8:]):
            if code == _RESOLUTION_OPTION and value:
                resolution = value[0]
        self._interfaces.append((int(struct.unpack_from(self._order + "H", body)[0]), resolution))

    def _frame(self, body: bytes) -> Frame:
        if len(body) < 20:
            raise self._fail("a packet block is too short")
        number, high, low, size, _ = struct.unpack_from(self._order + "5I", body)
        data = body[20 : 20 + size]
        if len(data) < size:
            raise self._fail("the data of a packet block does not fit into it")
        if number >= len(self._interfaces):
            raise self._fail("a packet block names an interface that is not there")
        link_type, resolution = self._interfaces[number]
        if link_type != _LINK_TYPE:
            raise self._fail(
                f"this is a capture of something else (link type {link_type}, not {_LINK_TYPE})"
            )
        comment, direction = "", TO_UNIT
        for code, value in self._options(body[20 + (size + 3) // 4 * 4 :]):
            if code == _COMMENT_OPTION:
                comment = value.decode(errors="replace")
            elif code == _FLAGS_OPTION and len(value) == 4:
                inbound = self._number(value, 0) & 3 == _INBOUND
                direction = FROM_UNIT if inbound else TO_UNIT
        return Frame(_time_ns(high << 32 | low, resolution), direction, data, comment)


class AskedDevice(NamedTuple):
    """A device that the host has asked the unit to open."""

    name: str
    time_ns: int  #: when
    number: int  #: counts these requests


class Decoder:
    """Follows one conversation: remembers the ids of the controller and of the devices."""

    def __init__(self) -> None:
        self._frame = 0
        self._time = 0
        self._requests = RequestReader()
        self._replies = PacketReader()
        self._replies.await_sync_reply()
        self._violation_reported = False
        self._controller: Optional[int] = None
        self._devices: Dict[int, AskedDevice] = {}
        self._closed: Set[int] = set()  # ids whose device the host has asked to close
        self._asked = 0

    def add(self, frame: Frame) -> Iterator[RecordedPacket]:
        """The packets that `frame` completes."""
        self._frame += 1
        self._time = frame.time_ns
        if not frame.data:
            yield from self._event(frame)
        elif frame.direction == TO_UNIT:
            for packet in self._requests.feed(frame.data):
                yield self._request(packet)
        else:
            yield from self._frame_of_unit(frame.data)

    def finish(self) -> Iterator[RecordedPacket]:
        """The end of the recording or of a connection."""
        unfinished = self._requests.unfinished
        if unfinished:
            yield self._broken(
                TO_UNIT, "the beginning of a packet that never came whole", unfinished
            )

    def _event(self, frame: Frame) -> Iterator[RecordedPacket]:
        if frame.comment in _EVENTS_OF_CABLE:
            yield from self.finish()
            self._requests = RequestReader()
            self._replies = PacketReader()
            self._replies.lose_step()
            self._violation_reported = False
            self._controller = None
            self._devices.clear()
        words = "".join(c if c >= " " else "?" for c in frame.comment) or "no bytes"
        yield RecordedPacket(
            self._frame, self._time, frame.direction, "event", True, None, b"", words
        )

    def _request(self, packet: Packet) -> RecordedPacket:
        if not packet.checksum_right:
            return self._packet(TO_UNIT, "broken", packet)
        kind = self._kind_of_request(packet.data)
        if kind == "controller-command":
            self._follow(packet.data[packets.TUNNEL_HEADER_SIZE :])
        elif kind == "initial-sync":
            self._replies.lose_step()
            self._violation_reported = False
        return self._packet(TO_UNIT, kind, packet)

    def _frame_of_unit(self, data: bytes) -> Iterator[RecordedPacket]:
        size = frame_payload_size(data) if len(data) >= FRAME_HEADER_SIZE else None
        if size is None:
            yield self._broken(FROM_UNIT, "no frame header", data)
            return
        self._replies.feed(data[FRAME_HEADER_SIZE:])
        packet = self._replies.next()
        while packet is not None:
            yield self._packet(FROM_UNIT, self._kind_from_unit(packet.data), packet)
            packet = self._replies.next()
        if self._replies.is_violated and not self._violation_reported:
            self._violation_reported = True
            yield self._broken(FROM_UNIT, "no packet: " + self._replies.violation)
        if len(data) != FRAME_HEADER_SIZE + size:
            got = len(data) - FRAME_HEADER_SIZE
            yield self._broken(FROM_UNIT, f"frame of {size} bytes with {got}")

    def _kind_of_request(self, packet: bytes) -> str:
        if packets.is_tunnel(packet):
            reopens = packets.reopens_controller(packet[packets.TUNNEL_HEADER_SIZE :])
            is_command = reopens or packets.tunnel_id(packet) == self._controller
            return "controller-command" if is_command else "child-data"
        if packet[0] & packets.CLASS_MASK != packets.CLASS_COMMAND:
            return "other"
        is_sync = len(packet) == packets.SYNC_SIZE and packet[4] == packets.SYNC_COMMAND
        return "initial-sync" if is_sync else "multiplexer-command"

    def _kind_from_unit(self, packet: bytes) -> str:
        if packets.is_tunnel(packet):
            # The controller answers under id 0 when its entry is gone by then.
            child = packets.tunnel_id(packet)
            of_controller = child == self._controller or (child == 0 and 0 not in self._devices)
            reply = packets.is_service_reply(packet[packets.TUNNEL_HEADER_SIZE :])
            return "controller-reply" if of_controller and reply else "child-data"
        if packets.is_initial_sync_reply(packet):
            return "initial-sync-reply"
        if packet[0] & packets.CLASS_MASK == packets.CLASS_DAQ:
            return "multiplexer-reply" if packets.is_daq_reply(packet) else "daq-packet"
        return "multiplexer-reply" if packets.is_service_reply(packet) else "other"

    def _follow(self, inner: bytes) -> None:
        """Remembers the id that a command assigns."""
        if len(inner) < 9:
            return
        child = int.from_bytes(inner[5:9], "little")
        if packets.reopens_controller(inner):
            self._controller = child
            self._devices.clear()
        elif inner[4] == packets.OPEN_CHILD:
            if child not in self._devices or child in self._closed:  # else the unit will refuse
                self._asked += 1
                name = packets.device_name_in(inner)
                self._devices[child] = AskedDevice(name, self._time, self._asked)
                self._closed.discard(child)
        elif inner[4] == packets.CLOSE_CHILD:
            self._closed.add(child)

    def device(self, child: int) -> Optional[AskedDevice]:
        """The device behind an id; None when nobody has asked for it."""
        return self._devices.get(child)

    def _words(self, direction: str, kind: str, packet: Packet) -> str:
        data = packet.data
        inner = data[packets.TUNNEL_HEADER_SIZE :]
        if kind == "child-data" and packet.checksum_right:
            child = packets.tunnel_id(data)
            way = "to" if direction == TO_UNIT else "from"
            text = f"{packets.count_bytes(len(inner))} {way} child 0x{child:X}"
            device = self._devices.get(child)
            return text if device is None else f'{text} "{device.name}"'
        if kind == "controller-command" and not (
            len(inner) > 4 and packets.is_controller_command(inner[4])
        ):
            child = packets.tunnel_id(data)
            return f"packet to controller 0x{child:X} that is none of its commands"
        return packets.describe(data, direction == TO_UNIT)

    def _packet(self, direction: str, kind: str, packet: Packet) -> RecordedPacket:
        child = packets.tunnel_id(packet.data) if packets.is_tunnel(packet.data) else None
        words = self._words(direction, kind, packet)
        right = packet.checksum_right
        return RecordedPacket(
            self._frame, self._time, direction, kind, right, child, packet.data, words
        )

    def _broken(self, direction: str, words: str, data: bytes = b"") -> RecordedPacket:
        return RecordedPacket(
            self._frame, self._time, direction, "broken", False, None, data, words
        )


def read_frames(path: Union[str, os.PathLike[str]]) -> Iterator[Frame]:
    with open(path, "rb") as file:
        yield from _Pcapng(file, os.fspath(path)).frames()


def read_recording(path: Union[str, os.PathLike[str]]) -> Iterator[RecordedPacket]:
    """Yields the packets of a recording, read as far as they are wanted.

    InvalidArgument, after the packets before it, at a fault in the file.
    """
    decoder = Decoder()
    for frame in read_frames(path):
        yield from decoder.add(frame)
    yield from decoder.finish()
