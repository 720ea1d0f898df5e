# SPDX-License-Identifier: MIT
"""Makes logs for the tests."""

import bz2
import datetime
import gzip
import lzma
import pathlib
import tempfile
import unittest

BEGIN = datetime.datetime(2026, 11, 22, 12, 0, 0)

START = [("setupConfig", "configuration is now set"), ("openConnection", "opening driver"),
         ("openConnection", "start communication thread"), ("_onConnected", "socket #1CONNECTED")]
LINK_UP = [("_updateStatus", "UsbHal switched to CONNECTED state")]
READS_LOST = [("_connectedFunc", "Disconnect read attempts : 5"), ("_connectedFunc", "Disconnect write attempts : 0"),
              ("_connectedFunc", "Disconnect number retries : 4"),
              ("_connectedFunc", "Disconnect cable disconnection detected : false"),
              ("_updateStatus", "UsbHal switched to DISCONNECTED state"),
              ("_changeAllSocketsState", "emit disconnected"), ("_onDisconnected", "socket #1DISCONNECTED"),
              ("_onDisconnected", "0 messages removed from Write FIFO for port 1"),
              ("_connectedFunc", "closeDriverAfterConnectionError = false")]
STOP = [("stop", "watchdog stopped"), ("_connectedFunc", "USB driver closed"),
        ("_updateStatus", "UsbHal switched to DISCONNECTED state"),
        ("_endOfConnectedThread", "clean exit of communication thread"), ("stop", "communication thread stopped")]


def line(function, text, seconds=0.0, number=1):
    """One line of a log, without its end."""
    moment = BEGIN + datetime.timedelta(seconds=seconds)
    date = moment.strftime("%d-%m-%Y %H:%M:%S:") + f"{moment.microsecond // 1000:03d}"
    return f"{date} [THREAD -1234] [{function}:{number}] {text}"


def lines(*groups):
    """Groups of (seconds, [(function, text)...]) as the text of a file."""
    return "".join(line(function, text, seconds) + "\n" for seconds, group in groups for function, text in group)


class LogTest(unittest.TestCase):
    """A test with a folder of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, text):
        """Writes a file, packed as its name says."""
        data = text if isinstance(text, bytes) else text.encode()
        packers = {".gz": gzip.compress, ".xz": lzma.compress, ".bz2": bz2.compress}
        path = self.folder / name
        path.write_bytes(packers.get(path.suffix, bytes)(data))
        return path
