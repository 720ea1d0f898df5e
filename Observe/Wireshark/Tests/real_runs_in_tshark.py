# SPDX-License-Identifier: MIT
"""Real runs on the simulated node, captured by it, as tshark tells them.

Called with the build folder.
"""

import sys
import unittest

import faults
import golden
from demo import Demo
from session import Session
from tshark import TsharkTest

BUILD = sys.argv.pop() if len(sys.argv) > 1 else "build/release"
MESSAGES = 20
EXPERTS = ("frame.number", "_ws.expert.message")
OUT, IN = "0x01", "0x81"


class Faults(TsharkTest):
    """What the cable carries when a call fails, word for word."""

    def test_each_fault_is_captured_as_before(self):
        """golden.py --update BUILD writes down what is told now, to be looked at."""
        for name in faults.FAULTS:
            with self.subTest(fault=name):
                expected = golden.path_of(f"simnode-{name}").read_text(encoding="utf-8")
                path = faults.capture(BUILD, self.folder, name)
                self.assertEqual(golden.told_of_link(self, path), expected)


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
        self.path = session.bus
        self.check_same_transfers(self.write(session.capture))
        return [row[1] for row in self.fields(self.path, *EXPERTS, options=("-Y", "_ws.expert"))]

    def check_same_transfers(self, path):
        """The node has captured what the host has kept, and at most what the host did not wait for in the end."""
        for endpoint in (OUT, IN):
            by_host, by_node = self.transfers(path, endpoint), self.transfers(self.path, endpoint)
            self.assertGreater(len(by_host), 2 * MESSAGES)
            self.assertEqual(by_node[:len(by_host)], by_host)
            self.assertLessEqual(len(by_node), len(by_host) + (2 if endpoint == IN else 0))

    def transfers(self, path, endpoint):
        """The bytes of each, without the dissector."""
        return self.call(path, "-T", "fields", "-e", "usb.capdata", "-Y",
                         f"usb.capdata && usb.endpoint_address == {endpoint}", scripts=()).split()

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


class DemoRun(TsharkTest):
    """The demo, with files both ways over five ports."""

    def test_each_byte_of_each_file_is_told(self):
        """By the port's messages, twice, as the demo has two rounds; and no message is rejected."""
        demo = Demo(BUILD, self.folder)
        demo.run()
        rejected = self.fields(demo.bus, "frame.number", options=("-Y", "usbhal.rejected"))
        self.assertEqual(rejected, [])
        for port in demo.PORTS:
            with self.subTest(port=port):
                self.assertEqual(self.stream(demo.bus, port, 1), demo.from_host(port) * 2)
                answers = self.stream(demo.bus, port, 0)
                self.assertEqual(answers.count(demo.stored), 2)
                self.assertEqual(answers.replace(demo.stored, b""), demo.from_device(port) * 2)

    def stream(self, path, port, from_host):
        """What a port carries, without the word that tells that it is open again."""
        rows = self.fields(path, "usbhal.port", "usbhal.kind", "usbhal.payload",
                           options=("-Y", f"usbhal.from_host == {from_host} && usbhal.port == {port}"))
        return b"".join(self.payloads(row, port) for row in rows)

    @staticmethod
    def payloads(row, port):
        """Of one transfer."""
        kinds = [kind for kind in row[1] if kind in ("4", "5")]
        chosen = [payload for number, kind, payload in zip(row[0], kinds, row[2]) if (number, kind) == (str(port), "4")]
        return b"".join(bytes.fromhex(payload.replace(":", "")) for payload in chosen)


if __name__ == "__main__":
    unittest.main()
