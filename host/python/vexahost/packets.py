"""Packets: their layout, what they are, how they are built, and what they say in words.

    0        1        2          3          4 .. length-1
    +--------+--------+----------+----------+----------------+
    | type   | length | sequence | checksum | payload        |
    +--------+--------+----------+----------+----------------+
"""

from __future__ import annotations

import struct
from typing import Optional
from zlib import adler32

HEADER_SIZE = 4
MAX_SIZE = 255
TUNNEL_HEADER_SIZE = 8
MAX_TO_DEVICE = MAX_SIZE - TUNNEL_HEADER_SIZE
MAX_COMMAND_PAYLOAD = MAX_SIZE - HEADER_SIZE - 1
MAX_DEVICE_NAME = 219

# Classes: the top three bits of the type.
CLASS_COMMAND = 0x40
CLASS_TUNNEL = 0x60
CLASS_DAQ = 0xA0
CLASS_MASK = 0xE0

ACKNOWLEDGE = 0x98
ERROR = 0x9C
DAQ_ACKNOWLEDGE = 0xB8
REPLY_SIZE = 7

OPEN_CHILD = 0x70
CLOSE_CHILD = 0x71
OPEN_CONTROLLER = 0x72
QUERY_DAQ_APPLICATION = 0x73
TAKE_DAQ_OVER = 0x74
_COMMAND_NAMES = {
    OPEN_CHILD: "open child",
    CLOSE_CHILD: "close child",
    OPEN_CONTROLLER: "open controller",
    QUERY_DAQ_APPLICATION: "query DAQ application",
    TAKE_DAQ_OVER: "take DAQ over",
}
CONTROLLER_NAME = "Controller"

SYNC_COMMAND = 26
SYNC_SIZE = 25
SYNC_SIGNATURE = bytes.fromhex("054a0649074808470946" "0a450b440c430d420e41")
SYNC_REPLY_SIZE = 26
SYNC_REPLY_SIGNATURE = bytes.fromhex("55aa56a957a858a759a6" "5aa55ba45ca35da25ea1")

CHILD_FAILED = 54
_ERRORS = {
    48: "the DAQ link is closed",
    49: "the controller does not know this command",
    50: "the session with the DAQ application has failed",
    CHILD_FAILED: "the child could not be opened or closed",
    57: "the DAQ did not come up during the take-over",
    59: "the DAQ did not come up when the controller was opened",
}


def checksum(packet: bytes) -> int:
    """The checksum that belongs into byte 3. Payloads of 250 and 251 bytes do not count."""
    length = packet[1]
    if not 5 <= length <= 253:
        return (packet[0] + length + packet[2]) & 0xFF
    # The lower half of zlib's sum is 1 and all bytes, which are too few to overflow it.
    return (adler32(packet[:length]) - 1 - packet[3]) & 0xFF


def has_right_checksum(packet: bytes) -> bool:
    return packet[3] == checksum(packet)


def build(kind: int, sequence: int, payload: bytes) -> bytes:
    """A packet of any type; `payload` has at most 251 bytes."""
    packet = bytearray((kind, HEADER_SIZE + len(payload), sequence, 0))
    packet += payload
    packet[3] = checksum(packet)
    return bytes(packet)


def build_initial_sync(sequence: int) -> bytes:
    return build(CLASS_COMMAND, sequence, bytes((SYNC_COMMAND,)) + SYNC_SIGNATURE)


def build_multiplexer_command(sequence: int, command: int, payload: bytes = b"") -> bytes:
    """A packet for the DAQ while the DAQ link is open, else for the service."""
    return build(CLASS_COMMAND, sequence, bytes((command,)) + payload)


def build_tunnel(child: int, sequence: int, inner: bytes) -> bytes:
    """Wraps `inner` for a device or the controller; at most MAX_TO_DEVICE bytes."""
    return build(CLASS_TUNNEL, sequence, struct.pack("<I", child) + inner)


def build_controller_command(
    controller: int, sequence: int, command: int, arguments: bytes = b""
) -> bytes:
    inner = build(CLASS_COMMAND, sequence, bytes((command,)) + arguments)
    return build_tunnel(controller, sequence, inner)


def open_arguments(child: int, name: str) -> bytes:
    text = name.encode() + b"\0"
    return struct.pack("<IB", child, len(text)) + text


def is_initial_sync(packet: bytes) -> bool:
    return (
        len(packet) == SYNC_SIZE == packet[1]
        and packet[5:] == SYNC_SIGNATURE
        and packet[0] & CLASS_MASK == CLASS_COMMAND
        and packet[4] == SYNC_COMMAND
        and has_right_checksum(packet)
    )


def is_initial_sync_reply(packet: bytes) -> bool:
    return (
        len(packet) == SYNC_REPLY_SIZE == packet[1]
        and packet[6:] == SYNC_REPLY_SIGNATURE
        and packet[0] & CLASS_MASK == CLASS_DAQ
        and packet[4] == SYNC_COMMAND
        and has_right_checksum(packet)
    )


def is_service_reply(packet: bytes) -> bool:
    """An acknowledgement or error of the service; its checksum is not looked at."""
    return len(packet) == REPLY_SIZE == packet[1] and packet[0] in (ACKNOWLEDGE, ERROR)


def is_daq_reply(packet: bytes) -> bool:
    return len(packet) == REPLY_SIZE == packet[1] and packet[0] == DAQ_ACKNOWLEDGE


def is_tunnel(packet: bytes) -> bool:
    return packet[0] & CLASS_MASK == CLASS_TUNNEL and len(packet) >= TUNNEL_HEADER_SIZE


def tunnel_id(packet: bytes) -> int:
    return int.from_bytes(packet[4:8], "little")


def reopens_controller(inner: bytes) -> bool:
    """Whether the unit would execute `inner`, for whatever child, as "open controller"."""
    padded = inner[4:21].ljust(17, b"\0")
    if padded[0] == OPEN_CONTROLLER:
        return True
    return padded[0] == OPEN_CHILD and padded[5:] == b"\x0bController\0"


def error_meaning(command: int, code: int) -> str:
    if code == 50 and command == OPEN_CHILD:
        return "ten children are open already"
    return _ERRORS.get(code, "unknown error")


# Words.


def command_name(command: int) -> str:
    return _COMMAND_NAMES.get(command) or f"command 0x{command:X}"


def is_controller_command(command: int) -> bool:
    return command in _COMMAND_NAMES


def count_bytes(count: int) -> str:
    return f"{count} byte" if count == 1 else f"{count} bytes"


def device_name_in(inner: bytes) -> str:
    """The name in an open-child command, with "?" for what is no printable ASCII."""
    if len(inner) <= 10:
        return ""
    name = inner[10 : 10 + inner[9]].split(b"\0")[0]
    return "".join(chr(byte) if 0x20 <= byte < 0x7F else "?" for byte in name)


def _describe_controller_command(address: int, inner: bytes) -> str:
    command = inner[4]
    name = command_name(command)
    if len(inner) < 9:
        return name
    child = int.from_bytes(inner[5:9], "little")
    if command == OPEN_CHILD and len(inner) >= 10:
        if reopens_controller(inner):
            return f"open controller 0x{child:X}, with DAQ, by name"
        return f'{name} 0x{child:X} "{device_name_in(inner)}"'
    if command == OPEN_CHILD:
        return f"{name} 0x{child:X}"
    if command == CLOSE_CHILD:
        return f"{'close controller' if child == address else name} 0x{child:X}"
    if command == OPEN_CONTROLLER:
        with_daq = len(inner) > 9 and inner[9] != 0
        return f"{name} 0x{child:X}, {'with' if with_daq else 'without'} DAQ"
    return name


def _describe_to_unit(packet: bytes) -> str:
    kind = packet[0] & CLASS_MASK
    if is_tunnel(packet):
        inner = packet[TUNNEL_HEADER_SIZE:]
        if (
            len(inner) >= 5
            and inner[1] == len(inner)
            and inner[0] & CLASS_MASK == CLASS_COMMAND
            and is_controller_command(inner[4])
        ):
            return _describe_controller_command(tunnel_id(packet), inner)
        return f"{count_bytes(len(inner))} to child 0x{tunnel_id(packet):X}"
    if kind == CLASS_COMMAND and len(packet) > HEADER_SIZE:
        if packet[4] == SYNC_COMMAND:
            return "initial sync"
        return f"multiplexer command 0x{packet[4]:X}"
    return f"packet of type 0x{packet[0]:X}"


def _describe_reply(reply: bytes, name: str) -> str:
    text = f"{name} (request {reply[5]})"
    if reply[0] == ERROR:
        return f"{text}: error {reply[6]}, {error_meaning(reply[4], reply[6])}"
    if reply[4] == QUERY_DAQ_APPLICATION:
        return f"{text}: result {reply[6]}"
    return f"{text}: done"


def _describe_from_unit(packet: bytes) -> str:
    if is_tunnel(packet):
        inner = packet[TUNNEL_HEADER_SIZE:]
        if is_service_reply(inner):
            return _describe_reply(inner, command_name(inner[4]))
        return f"{count_bytes(len(inner))} from child 0x{tunnel_id(packet):X}"
    if is_initial_sync_reply(packet):
        return f"initial-sync reply (request {packet[5]})"
    if is_service_reply(packet):
        return _describe_reply(packet, f"multiplexer command 0x{packet[4]:X}")
    if is_daq_reply(packet):
        return "DAQ: " + _describe_reply(packet, f"command 0x{packet[4]:X}")
    if packet[0] & CLASS_MASK == CLASS_DAQ:
        return f"DAQ packet of {count_bytes(len(packet))}"
    return f"packet of type 0x{packet[0]:X}"


def describe(packet: bytes, to_unit: bool) -> str:
    """A packet in a few words, such as 'open child 0x1001 "Microphone"'."""
    if len(packet) < HEADER_SIZE:
        return f"fragment of {count_bytes(len(packet))}"
    text = _describe_to_unit(packet) if to_unit else _describe_from_unit(packet)
    if packet[1] != len(packet):
        return f"{text} (length byte says {packet[1]})"
    return text if has_right_checksum(packet) else f"{text} (checksum WRONG)"


def hex_text(data: bytes, most: Optional[int] = None) -> str:
    """ "a0 14 00": the first `most` bytes in hex, followed by " .." when there are more."""
    if most is None or len(data) <= most:
        return data.hex(" ")
    return data[:most].hex(" ") + " .."
