# SPDX-License-Identifier: MIT
"""Ports of a device that runs UsbHal, from the USB host.

    with usbhal.Device("usb:1d6b:0104") as device:
        device.wait_connected(10)
        with device.port(1) as port:
            port.write(b"hello\\n")
            print(port.readline(5))

Everything may be called from any thread; calls that wait let other threads run. Times are in seconds, and
None waits without end.
"""

import os
import time
from types import TracebackType
from typing import Optional, Type

from . import _library
from ._library import DeviceError, LinkLost, TimedOut, WrongName

__all__ = ["Device", "DeviceError", "LinkLost", "Port", "TimedOut", "WrongName"]

_CHUNK = 65536


class _Closing:
    """Something that ends with the block that it is made for."""

    def close(self) -> None:
        """Ends it; a second call does nothing."""
        raise NotImplementedError

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()


class Device(_Closing):
    """A device that comes and goes; it is looked for from the beginning on.

    Its name is one of those that the option --device of usbhal takes, by default that in USBHAL_DEVICE.
    """

    def __init__(self, name: Optional[str] = None) -> None:
        self._handle = _library.Handle(name or os.environ.get("USBHAL_DEVICE", "usb"))

    def __enter__(self) -> "Device":
        return self

    @property
    def is_connected(self) -> bool:
        """Whether the device answers."""
        return self._handle.is_connected()

    @property
    def reason(self) -> str:
        """Why there is no link."""
        return self._handle.reason()

    def wait_connected(self, timeout: Optional[float] = None) -> None:
        """Waits until the device answers."""
        self._handle.wait(True, timeout)

    def wait_disconnected(self, timeout: Optional[float] = None) -> None:
        """Waits until the device does not answer any more."""
        self._handle.wait(False, timeout)

    def port(self, number: int) -> "Port":
        """A port, 0 to 9999; what the device sends to it is kept from now on."""
        return Port(self._handle, number)

    def close(self) -> None:
        """Closes the link. No other thread may be in a call with the device."""
        self._handle.close()


class Port(_Closing):
    """The byte stream of one port. What is read by one reader is not there for another."""

    def __init__(self, handle: "_library.Handle", number: int) -> None:
        handle.open_port(number)
        self._handle = handle
        self._number = number
        self._kept = b""

    def __enter__(self) -> "Port":
        return self

    @property
    def number(self) -> int:
        """The number of the port."""
        return self._number

    def write(self, data: bytes, timeout: Optional[float] = None) -> None:
        """Sends bytes, and waits until the device has answered all of them.

        After TimedOut or LinkLost nobody knows how many have reached it.
        """
        self._handle.write(self._number, data, timeout)

    def read(self, size: int = _CHUNK, timeout: Optional[float] = None) -> bytes:
        """Waits for bytes, and returns as many as there are, up to size.

        After the link was lost, one read fails with LinkLost, as what it would have got next is lost, too.
        """
        if not self._kept:
            return self._fetch(size, timeout)
        return self._take(min(size, len(self._kept)))

    def readexactly(self, size: int, timeout: Optional[float] = None) -> bytes:
        """Waits for so many bytes. When they do not come, those that have come stay for later."""
        deadline = _library.deadline(timeout)
        while len(self._kept) < size:
            self._more(deadline)
        return self._take(size)

    def readline(self, timeout: Optional[float] = None) -> bytes:
        """Waits for a line, and returns it with its end. A part of one stays for later."""
        deadline = _library.deadline(timeout)
        while b"\n" not in self._kept:
            self._more(deadline)
        return self._take(self._kept.index(b"\n") + 1)

    def close(self) -> None:
        """Throws away what was not read, and ends the calls that wait: the port is closed for all that use it."""
        self._kept = b""
        self._handle.close_port(self._number)

    def _more(self, deadline: Optional[float]) -> None:
        left = None if deadline is None else max(deadline - time.monotonic(), 0)
        self._kept += self._fetch(_CHUNK, left)

    def _fetch(self, size: int, timeout: Optional[float]) -> bytes:
        try:
            return self._handle.read(self._number, size, timeout)
        except LinkLost:
            self._kept = b""  # the rest of it does not come
            raise

    def _take(self, size: int) -> bytes:
        taken, self._kept = self._kept[:size], self._kept[size:]
        return taken
