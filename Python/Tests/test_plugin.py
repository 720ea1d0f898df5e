# SPDX-License-Identifier: MIT
"""The fixtures for tests of a device's program."""

import os
import signal
import subprocess
import sys

import pytest
import usbhal
from usbhal import pytest_plugin

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


def test_a_node_that_does_not_end_is_killed(tmp_path, monkeypatch):
    """The test that has it goes on."""
    stubborn = tmp_path / "stubborn"
    stubborn.write_text("#!/bin/sh\ntrap '' TERM\n: >$3/ready\nexec cat $3/never\n", encoding="ascii")
    stubborn.chmod(0o755)
    for fifo in ("ready", "never"):
        os.mkfifo(tmp_path / fifo)
    monkeypatch.setenv("USBHAL_SIMNODE", str(stubborn))
    monkeypatch.setattr(pytest_plugin, "END_TIME", 0.1)
    node = pytest_plugin.Node(str(tmp_path))
    process = node.run([PROGRAM])
    with open(tmp_path / "ready", "rb"):
        node.close()
    assert process.returncode == -signal.SIGKILL


def test_tests_without_a_device_need_no_library():
    """They have the plugin all the same."""
    subprocess.run([sys.executable, "-B", "-c", "import usbhal.pytest_plugin"], check=True, timeout=WAIT,
                   env={**os.environ, "USBHAL_HOST_LIBRARY": "/nowhere"})
