# SPDX-License-Identifier: MIT
"""The functions of libusbhal-host for C, as Python calls them."""

import ctypes
import functools
import os
import time
from typing import Optional

TEXT_SIZE = 1000
FOR_EVER = 1e9
LOOK = 0.5  # seconds after which a wait looks for Ctrl-C


class DeviceError(Exception):
    """The device cannot be reached, and waiting does not help."""


class WrongName(DeviceError, ValueError):
    """A name that names no device, or a number that names no port."""


class LinkLost(DeviceError):
    """There is no link, or what was on its way is lost with it."""


class TimedOut(DeviceError, TimeoutError):
    """The time is over."""


_FAILURES = {-1: DeviceError, -2: WrongName, -3: LinkLost, -4: TimedOut, -5: DeviceError}
_TIMED_OUT = -4


# Not before it is used: pytest imports the plugin wherever the package is installed.
@functools.lru_cache(maxsize=None)
def _library() -> ctypes.CDLL:
    library = ctypes.CDLL(os.environ.get("USBHAL_HOST_LIBRARY", "libusbhal-host.so.1"))
    device = ctypes.c_void_p
    number = ctypes.c_int
    size = ctypes.c_size_t
    seconds = ctypes.c_double
    for name, result, arguments in (
            ("open", device, (ctypes.c_char_p, ctypes.c_char_p, size)),
            ("close", None, (device,)),
            ("wait", number, (device, number, seconds)),
            ("is_connected", number, (device,)),
            ("reason", None, (device, ctypes.c_char_p, size)),
            ("open_port", number, (device, number)),
            ("close_port", number, (device, number)),
            ("write", number, (device, number, ctypes.c_char_p, size, seconds)),
            ("read", ctypes.c_long, (device, number, ctypes.c_char_p, size, seconds))):
        function = getattr(library, "usbhal_" + name)
        function.restype = result
        function.argtypes = arguments
    return library


def deadline(timeout: Optional[float]) -> Optional[float]:
    """When a time is over; None for never."""
    return None if timeout is None else time.monotonic() + timeout


class Handle:
    """A device of the library, and its failures as exceptions."""

    def __init__(self, name: str) -> None:
        text = ctypes.create_string_buffer(TEXT_SIZE)
        self._device = _library().usbhal_open(os.fsencode(name), text, TEXT_SIZE)
        if not self._device:
            raise WrongName(text.value.decode(errors="replace"))

    def __del__(self) -> None:
        self.close()

    def close(self) -> None:
        """Closes the link."""
        device, self._device = getattr(self, "_device", None), None
        if device:
            _library().usbhal_close(device)

    def is_connected(self) -> bool:
        """Whether the device answers."""
        return bool(_library().usbhal_is_connected(self._open()))

    def reason(self) -> str:
        """Why there is no link."""
        text = ctypes.create_string_buffer(TEXT_SIZE)
        _library().usbhal_reason(self._open(), text, TEXT_SIZE)
        return text.value.decode(errors="replace")

    def wait(self, connected: bool, timeout: Optional[float]) -> None:
        """Waits until the device answers, or does not any more."""
        self._repeat(lambda left: _library().usbhal_wait(self._open(), int(connected), left), timeout)

    def open_port(self, number: int) -> None:
        """Keeps what the device sends to a port."""
        self._check(_library().usbhal_open_port(self._open(), number))

    def close_port(self, number: int) -> None:
        """Throws away what the device sends to a port; of a closed device, nothing is left to close."""
        if self._device:
            self._check(_library().usbhal_close_port(self._device, number))

    def write(self, number: int, data: bytes, timeout: Optional[float]) -> None:
        """Sends bytes, and waits for the answer."""
        left = FOR_EVER if timeout is None else timeout
        self._check(_library().usbhal_write(self._open(), number, bytes(data), len(data), left))

    def read(self, number: int, size: int, timeout: Optional[float]) -> bytes:
        """Waits for bytes."""
        buffer = ctypes.create_string_buffer(size)
        count = self._repeat(lambda left: _library().usbhal_read(self._open(), number, buffer, size, left), timeout)
        return buffer.raw[:count]

    def _open(self) -> int:
        if not self._device:
            raise DeviceError("the device is closed")
        return self._device

    # In parts, as the interpreter does nothing about a signal while it waits in the library.
    def _repeat(self, call, timeout: Optional[float]) -> int:
        end = deadline(timeout)
        while True:
            left = FOR_EVER if end is None else max(end - time.monotonic(), 0)
            result = call(min(left, LOOK))
            if result != _TIMED_OUT or left <= LOOK:
                return self._check(result)

    def _check(self, result: int) -> int:
        if result >= 0:
            return result
        texts = {-2: "a port is a number of 0 to 9999", -4: "the time is over", -5: "the port is closed"}
        raise _FAILURES[result](texts.get(result) or self.reason() or "there is no link")
