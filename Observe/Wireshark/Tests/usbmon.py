# SPDX-License-Identifier: MIT
"""Makes captures as usbmon does."""

import struct

LINK_TYPE_USBMON = 220
LINK_TYPE_USER0 = 147
SUBMIT, COMPLETE = b"S", b"C"
CONTROL, BULK = 2, 3
_SNAP_LENGTH = 262144


class Capture:
    """A capture in memory: one submission and one completion for each transfer."""

    def __init__(self, link_type=LINK_TYPE_USBMON, device=5, endpoints=(0x01, 0x81)):
        self._link_type = link_type
        self._device = device
        self._out, self._in = endpoints
        self._records = []
        self._request = 0
        self.time = 1_795_348_800_000_000  # microseconds

    def pass_time(self, milliseconds):
        """Lets time go by."""
        self.time += round(milliseconds * 1000)

    def from_host(self, data):
        """A transfer to the device: its bytes are in the submission."""
        self._request += 1
        self._add(SUBMIT, self._out, data, len(data))
        self.pass_time(0.1)
        self._add(COMPLETE, self._out, b"", len(data))

    def from_device(self, data, asked_for=16384, answered_at=None):
        """A transfer to the host: its bytes are in the completion, 10 ms later or at a time in microseconds."""
        self._request += 1
        self._add(SUBMIT, self._in, b"", asked_for)
        self.time = answered_at or self.time + 10_000
        self._add(COMPLETE, self._in, data, len(data))

    def described_as(self, device_class):
        """The answer to the host's question for the device's interface and endpoints."""
        interface = struct.pack("<9B", 9, 4, 0, 0, 2, device_class, 0, 0, 0)
        endpoints = b"".join(struct.pack("<BBBBHB", 7, 5, address, 2, 512, 0) for address in (self._out, self._in))
        length = 9 + len(interface) + len(endpoints)
        configuration = struct.pack("<BBHBBBBB", 9, 2, length, 1, 1, 0, 0x80, 50) + interface + endpoints
        self._request += 1
        setup = struct.pack("<BBHHH", 0x80, 6, 0x0200, 0, length)
        self._add(SUBMIT, 0x80, b"", length, CONTROL, setup)
        self._add(COMPLETE, 0x80, configuration, length, CONTROL)

    def packet(self, data):
        """A packet without a USB header, for the other link type."""
        self._records.append((self.time, data))
        self.pass_time(10)

    def _add(self, event, endpoint, data, length, kind=BULK, setup=None):
        header = struct.pack(
            "<QcBBBHbbqiiII8siiII", self._request, event, kind, endpoint, self._device, 1, 0 if setup else ord("-"),
            0 if data else ord("<" if endpoint & 0x80 else ">"), self.time // 1_000_000, self.time % 1_000_000,
            -115 if event == SUBMIT else 0, length, len(data), setup or bytes(8), 0, 0, 0, 0)
        self._records.append((self.time, header + data))

    def bytes(self):
        """The file."""
        head = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, _SNAP_LENGTH, self._link_type)
        return head + b"".join(
            struct.pack("<IIII", time // 1_000_000, time % 1_000_000, len(data), len(data)) + data
            for time, data in self._records)


def data(port, payload):
    """A data message."""
    return b"FADA%05d%04d" % (len(payload) + 4, port) + payload


NO_DATA = b"DEVICE_NODATA"
DELAY = b"DEVICE_WTSEND"


def max_read_size(size):
    """The device's filler."""
    return NO_DATA + b"%05d" % size
