# SPDX-License-Identifier: MIT
"""The demo, as Scripts/demo plays it, on a simulated node that captures."""

import os
import pathlib
import random
import subprocess

from session import WAIT, wait_for

_SIZE = 30000  # bytes of a file; three whole transfers of the device
_SEED = 7200


class Demo:
    """A node, a manager with a file service on each port, and the demo's host."""

    PORTS = (1, 2, 3, 4, 5)

    def __init__(self, build, folder):
        self._build = pathlib.Path(build)
        self._folder = folder
        self._node = folder / "node"
        self.bus = folder / "bus.pcap"
        source = random.Random(_SEED)
        for port in self.PORTS:
            for name in ("to-device", "to-host"):
                self._file(name, port).write_bytes(source.randbytes(_SIZE))

    def _file(self, name, port):
        return self._folder / f"{name}-{port}"

    def run(self):
        """Both rounds, with a pulled cable between them."""
        with self._start("SimNode/simnode", "serve", "--dir", self._node, "--pcap", self.bus) as node:
            try:
                wait_for("the start of the node", (self._node / "host").exists)
                self._run_on_node()
            finally:
                node.terminate()
                node.wait(WAIT)

    def _run_on_node(self):
        told = self._folder / "manager.log"
        with open(told, "wb") as output, self._start_manager(output) as manager:
            try:
                ports = [f"{port}={self._file('to-device', port)}:{self._file('to-host', port)}:"
                         f"{self._file('stored', port)}" for port in self.PORTS]
                subprocess.run([self._build / "Demo/usbhal-demo-host", "--node", self._node, "--manager-output", told,
                                *self._port_options(ports)], stdout=subprocess.DEVNULL, check=True, timeout=4 * WAIT)
            finally:
                manager.terminate()
                manager.wait(WAIT)

    def _start_manager(self, output):
        ports = [f"{port}=file:{self._file('to-host', port)}:{self._file('stored', port)}" for port in self.PORTS]
        variables = {"SIMNODE_DIR": str(self._node), "LD_PRELOAD": str(self._build / "SimNode" / "libsimnode-preload.so")}
        return self._start("Examples/SampleManager/usbhal-sample-manager", "--retries", "1", "--log-dir",
                           self._folder / "log", *self._port_options(ports), output=output, variables=variables)

    @staticmethod
    def _port_options(ports):
        return [word for port in ports for word in ("--port", port)]

    def _start(self, program, *words, output=subprocess.DEVNULL, variables=None):
        return subprocess.Popen([self._build / program, *words], stdout=output,
                                env=dict(os.environ, **variables or {}))

    def from_host(self, port):
        """What the host sends through a port in a round."""
        return b"SEND\nFILE %d\n" % _SIZE + self._file("to-device", port).read_bytes()

    def from_device(self, port):
        """What the device sends through a port in a round, but for its word that it has stored the file."""
        return b"FILE %d\n" % _SIZE + self._file("to-host", port).read_bytes()

    @property
    def stored(self):
        """The device's word that it has stored a file."""
        return b"STORED %d\n" % _SIZE
