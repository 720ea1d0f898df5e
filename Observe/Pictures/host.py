# SPDX-License-Identifier: MIT
"""A USB host of the simulated node that keeps a capture of what it exchanges, as usbmon would."""

import pathlib
import socket
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "Wireshark" / "Tests"))

from usbmon import Capture, NO_DATA, data  # pylint: disable=wrong-import-position

LONGEST_TRANSFER = 65536
WAIT = 20  # seconds that something may take to happen


class Host:
    """One end of the cable."""

    def __init__(self, node):
        self._node = pathlib.Path(node)
        self._socket = None
        self.capture = Capture()

    def plug_in(self):
        """Connects, and says something until the device answers."""
        deadline = time.monotonic() + WAIT
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket.settimeout(0.5)
        self._socket.connect(str(self._node / "host"))
        while time.monotonic() < deadline:
            self.send(NO_DATA)
            if self.receive():
                return
        raise TimeoutError("the device did not answer")

    def pull(self):
        """The cable is out, whatever is on its way."""
        subprocess.run([self.control, "control", "--dir", self._node, "cable", "out"], check=True,
                       stdout=subprocess.DEVNULL)
        self._socket.close()

    def put_back(self):
        """The cable is in again; nobody speaks yet."""
        subprocess.run([self.control, "control", "--dir", self._node, "cable", "in"], check=True,
                       stdout=subprocess.DEVNULL)

    control = "simnode"

    def load(self, seconds):
        """Sends data to two ports and takes the answers, message by message."""
        end = time.monotonic() + seconds
        number = 0
        while time.monotonic() < end:
            number += 1
            self.send(data(1 + number % 2, b"measurement %06d\n" % number * 10))
            self.receive()

    def send(self, transfer):
        """One transfer to the device."""
        self.capture.time = time.time_ns() // 1000
        self.capture.from_host(transfer)
        self._socket.send(transfer)

    def receive(self):
        """One transfer of the device, or nothing after a while."""
        asked = time.time_ns() // 1000
        try:
            transfer = self._socket.recv(LONGEST_TRANSFER)
        except socket.timeout:
            return b""
        self.capture.time = asked
        self.capture.from_device(transfer, answered_at=time.time_ns() // 1000)
        return transfer
