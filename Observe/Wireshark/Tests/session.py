# SPDX-License-Identifier: MIT
"""The sample manager on a simulated node that captures, with a host that keeps what it exchanges as well."""

import os
import pathlib
import socket
import subprocess
import time

from usbmon import Capture, NO_DATA, data

LONGEST_TRANSFER = 65536
WAIT = 30  # seconds that something may take to happen
PAUSE = 0.05  # seconds between two looks


def wait_for(what, condition):
    """Waits until something holds."""
    deadline = time.monotonic() + WAIT
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(f"{what} did not happen within {WAIT} s")
        time.sleep(PAUSE)


class Session:
    """A node, a manager that sends back what comes on ports 1 and 2, and the host."""

    def __init__(self, build, folder):
        self._build = pathlib.Path(build)
        self._node = folder / "node"
        self.log = folder / "log"
        self.bus = folder / "bus.pcap"
        self.capture = Capture()
        self._socket = None
        self._simnode = self._build / "SimNode" / "simnode"
        self._processes = []

    def __enter__(self):
        self._start([self._simnode, "serve", "--dir", self._node, "--pcap", self.bus], {})
        wait_for("the start of the node", (self._node / "host").exists)
        preload = self._build / "SimNode" / "libsimnode-preload.so"
        self._start([self._build / "Examples" / "SampleManager" / "usbhal-sample-manager", "--retries", "1",
                     "--port", "1=echo", "--port", "2=echo", "--log-dir", self.log],
                    {"SIMNODE_DIR": str(self._node), "LD_PRELOAD": str(preload)})
        wait_for("the opening of the node", lambda: self.log_holds("successfully opened"))
        return self

    def __exit__(self, *_):
        for process in reversed(self._processes):
            process.terminate()
            process.wait(WAIT)
        if self._socket:
            self._socket.close()

    def _start(self, command, variables):
        self._processes.append(
            subprocess.Popen(command, env=dict(os.environ, **variables), stdout=subprocess.DEVNULL))

    def control(self, *words):
        """Sends a command to the node."""
        subprocess.run([self._simnode, "control", "--dir", self._node, *words], check=True, stdout=subprocess.DEVNULL)

    def log_holds(self, text):
        """Whether the log has this text."""
        files = self.log.glob("UsbHal*.log")
        return any(text in file.read_text(encoding="utf-8", errors="replace") for file in files)

    def plug_in(self):
        """Connects, and says something until the device answers."""
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket.settimeout(0.5)
        self._socket.connect(str(self._node / "host"))
        wait_for("an answer of the device", lambda: self.exchange(NO_DATA))
        self._socket.settimeout(WAIT)

    def pull(self):
        """The cable is out, whatever is on its way."""
        self.control("cable", "out")
        self._socket.close()

    def load(self, messages):
        """Sends data to two ports and takes the answers, message by message."""
        for number in range(1, messages + 1):
            self.exchange(data(1 + number % 2, b"measurement %06d\n" % number * 10))

    def exchange(self, transfer):
        """One transfer to the device, and its answer, or nothing when none comes."""
        self.capture.time = time.time_ns() // 1000
        self.capture.from_host(transfer)
        self._socket.send(transfer)
        return self.receive()

    def receive(self):
        """One transfer of the device, or nothing when none comes."""
        asked = time.time_ns() // 1000
        try:
            transfer = self._socket.recv(LONGEST_TRANSFER)
        except socket.timeout:
            return b""
        self.capture.time = asked
        self.capture.from_device(transfer, answered_at=time.time_ns() // 1000)
        return transfer
