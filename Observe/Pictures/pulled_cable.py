# SPDX-License-Identifier: MIT
"""A pulled cable under load, for real: leaves a folder with the log and a capture.

Called with the build folder and the folder to fill.
"""

import os
import pathlib
import subprocess
import sys
import time

from host import Host, WAIT

LOAD = 2  # seconds before the cable is pulled, and after it is back: the log keeps all of it
AWAY = 3  # seconds that somebody takes to put the cable back
LOST = "UsbHal switched to DISCONNECTED state"


def wait_for(what, condition):
    """Waits until something holds."""
    deadline = time.monotonic() + WAIT
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"pulled_cable.py: {what} did not happen within {WAIT} s")
        time.sleep(0.05)


def log_holds(folder, text):
    """Whether the log has this text."""
    return any(text in file.read_text(encoding="utf-8", errors="replace") for file in folder.glob("UsbHal*.log"))


def play(build, folder):
    """The whole story."""
    node, log = folder / "node", folder / "log"
    Host.control = str(build / "SimNode" / "simnode")
    daemon = subprocess.Popen([Host.control, "serve", "--dir", node], stdout=subprocess.DEVNULL)
    wait_for("the start of the node", (node / "host").exists)
    environment = dict(os.environ, SIMNODE_DIR=str(node), LD_PRELOAD=str(build / "SimNode" / "libsimnode-preload.so"))
    manager = subprocess.Popen([build / "Examples" / "SampleManager" / "usbhal-sample-manager", "--retries", "1",
                                "--port", "1=echo", "--port", "2=echo", "--log-dir", log], env=environment)
    try:
        host = Host(node)
        wait_for("the opening of the node", lambda: log_holds(log, "successfully opened"))
        host.plug_in()
        host.load(LOAD)
        host.pull()
        wait_for("the loss of the link", lambda: log_holds(log, LOST))
        time.sleep(AWAY)
        host.put_back()
        host.plug_in()
        host.load(LOAD)
    finally:
        manager.terminate()
        manager.wait(WAIT)
        daemon.terminate()
        daemon.wait(WAIT)
    (folder / "bus.pcap").write_bytes(host.capture.bytes())


if __name__ == "__main__":
    play(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve())
