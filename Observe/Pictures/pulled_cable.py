# SPDX-License-Identifier: MIT
"""A pulled cable under load, for real: leaves a folder with the log and a capture.

Called with the build folder and the folder to fill.
"""

import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "Wireshark" / "Tests"))

from session import Session, wait_for  # pylint: disable=wrong-import-position

LOAD = 80  # messages before the cable is pulled, and after it is back: the log keeps all of it
AWAY = 3  # seconds that somebody takes to put the cable back
LOST = "UsbHal switched to DISCONNECTED state"


def play(build, folder):
    """The whole story."""
    with Session(build, folder) as session:
        session.plug_in()
        session.load(LOAD)
        session.pull()
        wait_for("the loss of the link", lambda: session.log_holds(LOST))
        time.sleep(AWAY)
        session.control("cable", "in")
        session.plug_in()
        session.load(LOAD)


if __name__ == "__main__":
    play(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve())
