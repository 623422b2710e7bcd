"""The host side of a unit: its conversation, samples, recordings, and a virtual unit.

    import vexahost

    with vexahost.connect("build/unit") as unit:
        unit.open_controller()
        microphone = unit.open("Microphone")
        samples = microphone.read(2000, timeout=5)

Times are in seconds.
"""

from . import aio
from .client import Daq, Device, Unit, connect
from .errors import (
    Busy,
    CannotConnect,
    Error,
    Forked,
    InvalidArgument,
    LinkLost,
    NotOpen,
    ProtocolViolation,
    Refused,
    Timeout,
)
from .inbox import LinkStats, Stats
from .recorded_samples import RecordedBlock, recording_samples
from .recording import RecordedPacket, read_recording
from .samples import ChannelFormat, DeviceFormat, load_devices
from .source import Block
from .virtual_unit import ControlError, VirtualUnit

__version__ = "1.37"

__all__ = [
    "Block",
    "Busy",
    "CannotConnect",
    "ChannelFormat",
    "ControlError",
    "Daq",
    "Device",
    "DeviceFormat",
    "Error",
    "Forked",
    "InvalidArgument",
    "LinkLost",
    "LinkStats",
    "NotOpen",
    "ProtocolViolation",
    "RecordedBlock",
    "RecordedPacket",
    "Refused",
    "Stats",
    "Timeout",
    "Unit",
    "VirtualUnit",
    "aio",
    "connect",
    "load_devices",
    "read_recording",
    "recording_samples",
]
