# SPDX-License-Identifier: MIT
"""The fixtures for tests of a device's program."""

import os
import subprocess

import pytest
import usbhal

PROGRAM = os.environ["SAMPLE_MANAGER"]
WAIT = 60


@pytest.fixture(name="device")
def fixture_device(usbhal_device, tmp_path):
    """A device whose port 1 echoes."""
    return usbhal_device([PROGRAM, "--port", "1=echo", "--log-dir", str(tmp_path / "log")])


def test_the_cable_out_and_in(device, usbhal_node):
    """The device is lost and found again."""
    usbhal_node.cable_out()
    device.wait_disconnected(WAIT)
    with pytest.raises(usbhal.LinkLost):
        device.port(1).write(b"hello", WAIT)
    usbhal_node.cable_in()
    device.wait_connected(WAIT)
    with device.port(1) as port:
        port.write(b"hello", WAIT)
        assert port.readexactly(5, WAIT) == b"hello"


def test_faults_are_said_to_the_node(device, usbhal_node):
    """By their words; a wrong one is an error."""
    assert "node=present" in usbhal_node.control("status")
    usbhal_node.control("latency", "5")
    usbhal_node.reset()
    with pytest.raises(subprocess.CalledProcessError):
        usbhal_node.control("nonsense")
    assert device.is_connected
