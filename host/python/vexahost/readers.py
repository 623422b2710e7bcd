"""Cut byte streams: the unit's chunks with their headers, and the packets in either direction."""

from __future__ import annotations

from typing import List, NamedTuple, Optional

from . import packets

FRAME_HEADER_SIZE = 8
FRAME_MARK = b"U012"
MAX_FRAME_PAYLOAD = 30000
BUSY_HEADER = b"\0\0\0\0BUSY"


class Packet(NamedTuple):
    """A whole packet, at least 4 bytes."""

    data: bytes
    checksum_right: bool


def frame_payload_size(header: bytes) -> Optional[int]:
    """The payload length that a frame header of 8 bytes gives; None when it is no frame header."""
    size = int.from_bytes(header[:4], "little")
    is_header = header[4:8] == FRAME_MARK and 1 <= size <= MAX_FRAME_PAYLOAD
    return size if is_header else None


class FrameReader:
    """Takes the headers out of what a unit sends over USB or its host socket."""

    def __init__(self) -> None:
        self._header = b""
        self._left = 0  # bytes of the payload that are still to come
        self.frames = 0
        self.violation = ""  # what is wrong with the header that ended the reading

    @property
    def is_busy(self) -> bool:
        """The unit has said that another host is connected."""
        return self._header == BUSY_HEADER

    def feed(self, data: bytes) -> List[bytes]:
        """The pieces of payload in `data`; after a violation no more."""
        pieces: List[bytes] = []
        at = 0
        while at < len(data) and not self.violation:
            if self._left > 0:
                piece = data[at : at + self._left]
                pieces.append(piece)
                self._left -= len(piece)
                at += len(piece)
                continue
            missing = FRAME_HEADER_SIZE - len(self._header)
            self._header += data[at : at + missing]
            at += missing
            if len(self._header) == FRAME_HEADER_SIZE:
                self._end_header()
        return pieces

    def _end_header(self) -> None:
        size = frame_payload_size(self._header)
        if size is None:
            fault = 'no "U012" at its end'
            if self._header[4:] == FRAME_MARK:
                length = int.from_bytes(self._header[:4], "little")
                fault = f"length {length}, not 1 to {MAX_FRAME_PAYLOAD}"
            self.violation = f"bad frame header ({fault}): {packets.hex_text(self._header)}"
            return
        self._header = b""
        self._left = size
        self.frames += 1


_GOOD_ENOUGH = 4  # a checksum that is right by chance is one in 256


class PacketReader:
    """Cuts what a unit sends into packets.

    A packet whose length byte is smaller than its header is a violation: nothing comes any more
    until `lose_step`. While a reply to an initial sync is awaited it is found at any position.
    """

    def __init__(self) -> None:
        self._input = b""
        self._at = 0
        self._partial = bytearray()
        self._newest = bytearray()  # the last bytes, while a sync reply is awaited
        self._good_in_row = 0
        self.awaits_sync_reply = False
        self.in_step = True
        self.is_violated = False

    def feed(self, data: bytes) -> None:
        """More of the stream. What `next` has not used of the former input is dropped."""
        self._input = data
        self._at = 0

    @property
    def has_input(self) -> bool:
        return self._at < len(self._input)

    def await_sync_reply(self) -> None:
        self.awaits_sync_reply = True
        self._newest = bytearray(self._partial[-packets.SYNC_REPLY_SIZE :])

    def lose_step(self) -> None:
        """It is not known any more where the next packet begins.

        Until a sync reply, which is awaited, or four good packets in a row, packets with a wrong
        checksum are skipped, and nothing is a violation.
        """
        if self.is_violated:
            self._partial.clear()
        self.is_violated = False
        self.in_step = False
        self._good_in_row = 0
        self.await_sync_reply()

    @property
    def violation(self) -> str:
        return f"packet with length byte {self._partial[1]}: {packets.hex_text(self._partial)}"

    def next(self) -> Optional[Packet]:
        """The next packet; None when the input is used up, or after a violation."""
        while self._at < len(self._input) and not self.is_violated:
            if not self.in_step or self.awaits_sync_reply:
                packet = self._add_byte(self._input[self._at])
            elif self._partial:
                packet = self._complete_partial()
            else:
                packet = self._cut()
            if packet is not None:
                return packet
        return None

    def _cut(self) -> Optional[Packet]:
        at, data = self._at, self._input
        left = len(data) - at
        if left >= packets.HEADER_SIZE:
            length = data[at + 1]
            if packets.HEADER_SIZE <= length <= left:
                self._at = at + length
                packet = data[at : at + length]
                return Packet(packet, packets.has_right_checksum(packet))
        return self._complete_partial()

    def _complete_partial(self) -> Optional[Packet]:
        have = len(self._partial)
        wanted = packets.HEADER_SIZE if have < packets.HEADER_SIZE else self._partial[1]
        taken = self._input[self._at : self._at + wanted - have]
        self._at += len(taken)
        self._partial += taken
        return self._end_packet()

    def _add_byte(self, byte: int) -> Optional[Packet]:
        self._at += 1
        if self.awaits_sync_reply:
            self._newest.append(byte)
            del self._newest[: -packets.SYNC_REPLY_SIZE]
            if byte == packets.SYNC_REPLY_SIGNATURE[-1]:
                newest = bytes(self._newest)
                if packets.is_initial_sync_reply(newest):
                    self.awaits_sync_reply = False
                    self.in_step = True
                    self._partial.clear()
                    return Packet(newest, True)
        self._partial.append(byte)
        return self._end_packet()

    def _end_packet(self) -> Optional[Packet]:
        if len(self._partial) < packets.HEADER_SIZE:
            return None
        length = self._partial[1]
        if length < packets.HEADER_SIZE:
            self.is_violated = self.in_step
            if not self.is_violated:
                self._partial.clear()
            self._good_in_row = 0
            return None
        if len(self._partial) < length:
            return None
        packet = bytes(self._partial)
        self._partial.clear()
        right = packets.has_right_checksum(packet)
        if not self.in_step:
            self._good_in_row = self._good_in_row + 1 if right else 0
            self.in_step = self._good_in_row >= _GOOD_ENOUGH
            if not right:
                return None
        return Packet(packet, right)


class RequestReader:
    """Cuts what a host sends into packets, as a unit does: an initial sync counts anywhere."""

    def __init__(self) -> None:
        self._partial = bytearray()
        self._newest = bytearray()

    @property
    def unfinished(self) -> bytes:
        return bytes(self._partial)

    def feed(self, data: bytes) -> List[Packet]:
        """A packet whose length byte is less than 4 comes as its 4 header bytes."""
        found: List[Packet] = []
        for byte in data:
            self._newest.append(byte)
            del self._newest[: -packets.SYNC_SIZE]
            if packets.is_initial_sync(self._newest):
                found.append(Packet(bytes(self._newest), True))
                self._partial.clear()
                self._newest.clear()
                continue
            self._partial.append(byte)
            have = len(self._partial)
            if have < packets.HEADER_SIZE or have < self._partial[1]:
                continue
            packet = bytes(self._partial)
            self._partial.clear()
            right = packet[1] == have and packets.has_right_checksum(packet)
            found.append(Packet(packet, right))
        return found
