"""Units on the USB, through pyusb."""

from __future__ import annotations

import errno
import re
from typing import Any, NamedTuple, Optional

from .errors import Busy, CannotConnect, InvalidArgument
from .transports import Transport

_CHUNK = 16384
_WRITE_TIMEOUT_MS = 50
_VENDOR_SPECIFIC = 0xFF


class Numbers(NamedTuple):
    """Which unit on the USB."""

    vendor: int = 0x1209
    product: int = 0x0001
    serial: Optional[str] = None  # any


def parse_numbers(text: str) -> Numbers:
    """ "", VENDOR:PRODUCT or VENDOR:PRODUCT:SERIAL, of four hexadecimal digits each."""
    if not text:
        return Numbers()
    match = re.fullmatch(r"([0-9a-fA-F]{4}):([0-9a-fA-F]{4})(?::(.+))?", text)
    if match is None:
        raise InvalidArgument(
            f'"{text}" is no unit on the USB: expected VENDOR:PRODUCT or VENDOR:PRODUCT:SERIAL, '
            "such as 1209:0001"
        )
    return Numbers(int(match[1], 16), int(match[2], 16), match[3])


class UsbTransport(Transport):
    """The interface of a unit with a bulk endpoint each way, claimed."""

    has_frame_headers = True
    write_waits = True

    def __init__(self, device: Any, interface: Any, inward: Any, outward: Any) -> None:
        self._device = device
        self._interface = interface
        self._in = inward
        self._out = outward
        self._ended = False

    def read(self, timeout: float) -> bytes:
        import usb.core

        if self._ended:
            raise ConnectionAbortedError("the connection was closed")
        try:
            # Short waits: nothing but their end interrupts them.
            return bytes(self._in.read(_CHUNK, timeout=max(1, int(min(timeout, 0.1) * 1000))))
        except usb.core.USBTimeoutError:
            return b""

    def write(self, data: bytes) -> int:
        import usb.core

        try:
            return int(self._out.write(data, timeout=_WRITE_TIMEOUT_MS))
        except usb.core.USBTimeoutError:
            return 0

    def interrupt(self) -> None:
        self._ended = True

    def release(self) -> None:
        import usb.core
        import usb.util

        try:
            # Selecting the setting anew tells the unit that this host has left.
            self._device.set_interface_altsetting(self._interface.bInterfaceNumber, 0)
            usb.util.release_interface(self._device, self._interface)
        except usb.core.USBError:
            pass  # unplugged
        usb.util.dispose_resources(self._device)


def connect_usb(numbers: Numbers) -> Transport:
    """Opens a unit on the USB. Needs pyusb and libusb-1.0."""
    try:
        import usb.core
        import usb.util
    except ImportError as error:
        raise CannotConnect("USB needs pyusb (Debian: python3-usb)") from error

    name = f"{numbers.vendor:04x}:{numbers.product:04x}"
    problem = f"no unit {name} is plugged in"
    try:
        devices = list(
            usb.core.find(find_all=True, idVendor=numbers.vendor, idProduct=numbers.product)
        )
    except usb.core.NoBackendError as error:
        raise CannotConnect("USB needs the library libusb-1.0") from error
    for device in devices:
        try:
            if numbers.serial is not None and device.serial_number != numbers.serial:
                continue
            for interface in device.get_active_configuration():
                bulk = [e for e in interface if usb.util.endpoint_type(e.bmAttributes) == 2]
                inward = [e for e in bulk if e.bEndpointAddress & 0x80]
                outward = [e for e in bulk if not e.bEndpointAddress & 0x80]
                is_unit = interface.bInterfaceClass == _VENDOR_SPECIFIC and inward and outward
                if not is_unit or interface.bAlternateSetting != 0:
                    continue
                usb.util.claim_interface(device, interface)
                # Ends the session of a host that was killed.
                device.set_interface_altsetting(interface.bInterfaceNumber, 0)
                return UsbTransport(device, interface, inward[0], outward[0])
            problem = f"the unit {name} has no pair of bulk endpoints"
        except (usb.core.USBError, ValueError) as error:  # ValueError: strings cannot be read
            if getattr(error, "errno", None) == errno.EBUSY:
                raise Busy(f"another host program has the unit {name} open") from error
            problem = f"the unit {name}: {error}"
    raise CannotConnect(problem)
