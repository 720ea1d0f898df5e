# SPDX-License-Identifier: MIT
"""Captures of which all that is told is written down: golden.py --update BUILD writes it anew."""

import pathlib
import sys

import faults
from tshark import TsharkTest
from usbmon import Capture, DELAY, LINK_TYPE_USER0, NO_DATA, data, max_read_size

_FOLDER = pathlib.Path(__file__).resolve().parent / "Golden"
_FIELDS = ("frame.number", "usbhal.from_host", "usbhal.kind", "usbhal.port", "usbhal.length", "usbhal.payload",
           "usbhal.max_read_size", "usbhal.consumed", "usbhal.rejected", "usbhal.answer_time",
           "_ws.expert.message", "_ws.expert.severity", "_ws.col.Protocol", "_ws.col.Info")

# Without times, which differ from run to run.
_LINK_FIELDS = ("frame.number", "usb.bus_id", "usb.device_address", "usb.endpoint_address", "usb.transfer_type",
                "usb.urb_type", "usb.urb_status", "usb.urb_len", "usb.data_len", "usbhal.kind", "usbhal.port", "usbhal.payload",
                "usbhal.max_read_size", "usbhal.rejected", "_ws.expert.message", "_ws.col.Info")
_NEVER_SLOW = ("-o", "usbhal.slow:600000")


def _messages():
    capture = Capture()
    capture.from_host(NO_DATA)
    capture.from_device(max_read_size(10000))
    capture.from_host(data(3, b"hello") + data(5, b"x" * 12) + data(9999, b""))
    capture.from_device(data(0, b"answer"))
    capture.from_host(NO_DATA + data(1, b"behind") + DELAY)
    capture.from_device(data(2, b"DEVICE_CONN"))
    capture.from_host(data(2, b"DEVICE_CONN"))
    capture.from_device(NO_DATA)
    capture.from_host(data(1, b"DEVICE_NODATA") * 25)
    capture.from_device(max_read_size(0))
    return capture


def _faults():
    capture = Capture()
    capture.from_host(NO_DATA)
    capture.from_device(max_read_size(10000))
    for fault in (b"nonsense", b"FADA00099" b"0001x", b"FADA0000", b"FADAabcde0001", b"FADA000030001x",
                  b"FADA00007ab12xyz", DELAY + data(1, b"lost"), data(1, b"good") + b"bad", b"\0", b"fada000050003x"):
        capture.from_host(fault)
        capture.from_device(fault)
    return capture


def _turns():
    capture = Capture()
    capture.from_host(NO_DATA)
    capture.from_device(max_read_size(10000))
    capture.from_device(data(1, b"again"))
    capture.from_host(NO_DATA)
    capture.from_host(NO_DATA)
    capture.from_device(DELAY)
    capture.from_host(data(1, b"too early"))
    capture.from_device(DELAY)
    capture.from_host(NO_DATA)
    capture.from_device(max_read_size(10000))
    capture.from_host(data(1, b"in time"))
    capture.pass_time(1500)
    capture.from_device(max_read_size(10000))
    return capture


def _bare():
    capture = Capture(LINK_TYPE_USER0)
    for packet in (NO_DATA, max_read_size(10000), data(3, b"hello"), DELAY, b"nonsense"):
        capture.packet(packet)
    return capture


def captures():
    """The captures by their names."""
    return {"messages": _messages(), "faults": _faults(), "turns": _turns(), "bare": _bare()}


def path_of(name):
    """Where it is written down what is told of a capture."""
    return _FOLDER / f"{name}.txt"


def _lines(test, path, names, options):
    lines = []
    for row in test.fields(path, *names, options=options):
        row += [[]] * (len(names) - len(row))
        lines += [f"{name}: {'; '.join(value)}" for name, value in zip(names, row) if value] + [""]
    return "\n".join(lines)


def told(test, path):
    """One line for each field of each packet that has it."""
    return _lines(test, path, _FIELDS, ("-Y", "usbhal"))


def told_of_link(test, path):
    """The same of a capture of simnode, with what has no message in it."""
    return _lines(test, path, _LINK_FIELDS, _NEVER_SLOW)


class _Writer(TsharkTest):
    def runTest(self):  # pylint: disable=invalid-name
        """Writes all down."""
        for name, capture in captures().items():
            path_of(name).write_text(told(self, self.write(capture)), encoding="utf-8")
        for name in faults.FAULTS:
            path = faults.capture(sys.argv[2], self.folder, name)
            path_of(f"simnode-{name}").write_text(told_of_link(self, path), encoding="utf-8")


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] != "--update":
        sys.exit("golden.py: it should be: golden.py --update BUILD")
    result = _Writer()()
    sys.exit(0 if result.wasSuccessful() else str(result.errors + result.failures))
