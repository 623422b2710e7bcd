"""Samples of the devices in a recording."""

from __future__ import annotations

import os
from typing import Dict, Iterator, NamedTuple, Optional, Tuple, Union

from . import packets, samples
from .inbox import RawBlock
from .recording import FROM_UNIT, Decoder, read_frames
from .samples import DeviceFile
from .source import Block, SampleReader


class RecordedBlock(NamedTuple):
    """A block of a device in a recording."""

    device: str  #: its name; "DAQ"; "child 0x11" when nobody was seen to open it
    child: Optional[int]  #: its id at the unit; None: the DAQ
    block: Block  #: times in seconds since the first frame of the recording


def recording_samples(
    path: Union[str, os.PathLike[str]],
    device: Optional[str] = None,
    devices: Optional[DeviceFile] = None,
) -> Iterator[RecordedBlock]:
    """Yields the blocks of the devices in a recording with their samples, as they are wanted.

    `device`: of this one only. `devices`: as for `connect`. Times are by the same rule as those
    of a unit; 0 is the first frame, whose moment is the first `time` of `read_recording`.
    InvalidArgument, after the blocks before it, at a fault in the file.
    """
    formats = samples.load_devices(devices)
    decoder = Decoder()
    start: Optional[int] = None
    readers: Dict[Optional[int], Tuple[int, SampleReader]] = {}
    for frame in read_frames(path):
        start = frame.time_ns if start is None else start
        for packet in decoder.add(frame):
            is_daq = packet.kind == "daq-packet"
            is_child = packet.kind == "child-data" and packet.checksum_right
            if packet.direction != FROM_UNIT or not (is_daq or is_child):
                continue
            child = None if is_daq else packet.child
            asked = None if child is None else decoder.device(child)
            name = asked.name if asked else "DAQ" if child is None else f"child 0x{child:X}"
            if device not in (None, name):
                continue
            number = asked.number if asked else 0
            if child not in readers or readers[child][0] != number:
                opened = (asked.time_ns - start) / 1e9 if asked else 0.0
                readers[child] = (number, SampleReader(name, formats, opened, 0.0))
            data = packet.bytes if is_daq else packet.bytes[packets.TUNNEL_HEADER_SIZE :]
            received = (packet.time_ns - start) / 1e9
            raw = RawBlock(data, received, packet.bytes[2], packet.checksum_right)
            yield RecordedBlock(name, child, readers[child][1].read(raw))
