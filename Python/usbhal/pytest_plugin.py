# SPDX-License-Identifier: MIT
"""Fixtures for tests of a program on the device, without the hardware.

    def test_greeting(usbhal_device):
        device = usbhal_device(["./my-program"])
        with device.port(1) as port:
            assert port.readline(10) == b"hello\\n"

The programs simnode and that of the device come from PATH, or from USBHAL_SIMNODE and where the test says.
"""

import os
import subprocess
from typing import Callable, Iterator, Sequence

import pytest

from . import Device

START_TIME = 30  # seconds for a program to open its ports
END_TIME = 30  # seconds for the node to end with its program, before it is killed


class Node:
    """A simulated device node, on which a program runs."""

    def __init__(self, folder: str) -> None:
        self.folder = folder
        self._simnode = os.environ.get("USBHAL_SIMNODE", "simnode")
        self._process = None

    @property
    def name(self) -> str:
        """The device's name for the host."""
        return "sim:" + self.folder

    def run(self, command: Sequence[str]) -> subprocess.Popen:
        """Starts a program on the node."""
        assert self._process is None, "a node runs one program"
        self._process = subprocess.Popen([self._simnode, "run", "--dir", self.folder, "--", *command])
        return self._process

    def control(self, *command: str) -> str:
        """Tells the node what to do, such as "read", "stuck"; its answer."""
        done = subprocess.run([self._simnode, "control", "--dir", self.folder, *command], check=True, text=True,
                              stdout=subprocess.PIPE)
        return done.stdout.strip()

    def cable_out(self) -> None:
        """Pulls the cable."""
        self.control("cable", "out")

    def cable_in(self) -> None:
        """Plugs it in again."""
        self.control("cable", "in")

    def reset(self) -> None:
        """Ends all faults."""
        self.control("reset")

    def close(self) -> None:
        """Ends the program and the node; kills the node when it does not end."""
        if self._process is None:
            return
        self._process.terminate()
        try:
            self._process.wait(END_TIME)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()


@pytest.fixture
def usbhal_node(tmp_path) -> Iterator[Node]:
    """A node of the test's own."""
    node = Node(str(tmp_path))
    yield node
    node.close()


@pytest.fixture
def usbhal_device(usbhal_node) -> Iterator[Callable[[Sequence[str]], Device]]:
    """Starts a program on the node, and returns the device once it answers."""
    devices = []

    def start(command: Sequence[str]) -> Device:
        usbhal_node.run(command)
        devices.append(Device(usbhal_node.name))
        devices[-1].wait_connected(START_TIME)
        return devices[-1]

    yield start
    for device in devices:
        device.close()
