# SPDX-License-Identifier: MIT
"""A product's own test, in ten lines: its program on a simulated node, and a host that speaks with it."""

import os

PROGRAM = os.environ.get("SAMPLE_MANAGER", "usbhal-sample-manager")


def test_port_1_returns_what_it_receives(usbhal_device, tmp_path):
    device = usbhal_device([PROGRAM, "--port", "1=echo", "--log-dir", str(tmp_path / "log")])
    with device.port(1) as port:
        port.write(b"hello, device\n", timeout=10)
        assert port.readline(timeout=10) == b"hello, device\n"
