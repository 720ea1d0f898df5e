# SPDX-License-Identifier: MIT
"""Real runs on the simulated node, with the faults that the bus shows, as tshark tells them.

Called with the build folder.
"""

import sys
import unittest

from session import Session
from tshark import TsharkTest

BUILD = sys.argv.pop() if len(sys.argv) > 1 else "build/release"
MESSAGES = 20
EXPERTS = ("frame.number", "_ws.expert.message")


class RealRuns(TsharkTest):
    """A session each."""

    def play(self, *fault, extra=0):
        """The experts of a session with a fault in its middle, behind which more answers come than usual."""
        with Session(BUILD, self.folder) as session:
            session.plug_in()
            session.load(MESSAGES)
            if fault:
                session.control(*fault)
            session.load(MESSAGES)
            for _ in range(extra):
                session.receive()
        self.path = self.write(session.capture)
        return [row[1] for row in self.fields(self.path, *EXPERTS, options=("-Y", "_ws.expert"))]

    def test_a_healthy_run_has_nothing_to_complain_of(self):
        """And all of its messages are told."""
        self.assertEqual(self.play(), [])
        ports = self.fields(self.path, "usbhal.port", options=("-Y", "usbhal.from_host == 1 && usbhal.port"))
        self.assertEqual(len(ports), 2 * MESSAGES)

    def test_a_read_that_times_out_is_a_slow_answer(self):
        """Of two seconds and more."""
        self.assertEqual(self.play("read", "silent", "1"), [["The device answers slowly"]])
        slow = self.fields(self.path, "usbhal.answer_time", options=("-Y", "usbhal.slow"))
        self.assertGreater(float(slow[0][0][0]), 2)

    def test_a_short_write_is_a_message_cut_and_sent_again(self):
        """The device sends the whole message once more, out of turn."""
        told = self.play("write", "short", "20", "1", extra=1)
        self.assertEqual(told, [["The transfer ends within the message: it is dropped"],
                                ["The device writes twice without a read"]])


if __name__ == "__main__":
    unittest.main()
