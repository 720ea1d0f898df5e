# SPDX-License-Identifier: MIT
"""The program as it is called."""

import json
import os
import queue
import subprocess
import sys
import tarfile
import threading
import unittest

import place
from logs import LINK_UP, LogTest, READS_LOST, START, STOP, line, lines

WAIT = 20  # seconds that something may take to happen


class ProgramTest(LogTest):
    """Runs the program over a folder."""

    def call(self, *arguments):
        """What subprocess tells of a call."""
        return subprocess.run([sys.executable, place.PROGRAM, *map(str, arguments)],
                              capture_output=True, text=True, check=False, timeout=60)


class Version(ProgramTest):
    """That of the project."""

    def test_the_version_is_no_error(self):
        """It is told by its name and number."""
        expected = subprocess.run([place.VERSION], capture_output=True, text=True, check=True).stdout
        called = self.call("--version")
        self.assertEqual((called.stdout, called.returncode), (f"usbhal-log {expected}", 0))


class Show(ProgramTest):
    """Lines on standard output."""

    def setUp(self):
        super().setUp()
        self.write("UsbHal30000.log", lines((0, START), (1, LINK_UP)))
        self.write("UsbHal1.log", lines((60, [("read", "Message read for client #3of size 14")])) +
                   line("stop", "\x1b[2Jnonsense", 61) + "\n")

    def test_all_lines_in_their_order(self):
        """As they stand in the files."""
        told = self.call("show", self.folder).stdout.splitlines()
        self.assertEqual(len(told), 7)
        self.assertIn("configuration is now set", told[0])
        self.assertIn("#3of size 14", told[5])

    def test_lines_are_chosen(self):
        """By port, by time, by function."""
        for options, count in ((("--port", "3"), 1), (("--port", "1"), 1), (("--function", "openConnection"), 2),
                               (("--since", "2026-11-22 12:00:30"), 2)):
            with self.subTest(options=options):
                self.assertEqual(len(self.call("show", *options, self.folder).stdout.splitlines()), count)

    def test_control_characters_are_made_visible(self):
        """They came from a host."""
        self.assertNotIn("\x1b", self.call("show", self.folder).stdout)

    def test_colours_are_for_terminals(self):
        """Or for those who ask for them."""
        self.assertIn("\x1b[32m", self.call("show", "--color", "always", self.folder).stdout)

    def test_a_wrong_time_is_told(self):
        """With how it should be."""
        called = self.call("show", "--since", "yesterday", self.folder)
        self.assertEqual(called.returncode, 2)
        self.assertIn("it should be like 12:30", called.stderr)

    def test_a_reader_that_goes_is_no_fault(self):
        """As in usbhal-log show | head."""
        with subprocess.Popen([sys.executable, place.PROGRAM, "show", self.folder], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdout.close()
            self.assertEqual((process.stderr.read(), process.wait(WAIT)), (b"", 0))


class Follow(ProgramTest):
    """A log that grows."""

    def setUp(self):
        super().setUp()
        self.path = self.write("UsbHal1.log", line("stop", "first") + "\n")
        self.process = subprocess.Popen([sys.executable, place.PROGRAM, "show", "--follow", self.folder],
                                        stdout=subprocess.PIPE, text=True)
        self.told = queue.Queue()
        self.reader = threading.Thread(target=self._read)
        self.reader.start()
        self.addCleanup(self._end)

    def _read(self):
        for row in self.process.stdout:
            self.told.put(row)

    def _end(self):
        self.process.terminate()
        self.process.wait(WAIT)
        self.reader.join(WAIT)
        self.process.stdout.close()

    def append(self, name, text):
        """Adds a line to a file."""
        with open(self.folder / name, "a", encoding="utf-8") as file:
            file.write(line("stop", text) + "\n")

    def expect(self, text):
        """The next line ends with this text."""
        self.assertTrue(self.told.get(timeout=WAIT).endswith(f" {text}\n"))

    def test_new_lines_come(self):
        """Without a line behind them."""
        self.expect("first")
        self.append("UsbHal1.log", "second")
        self.expect("second")

    def test_rotation_is_followed(self):
        """Over two files, of which the first one goes."""
        self.expect("first")
        self.append("UsbHal1.log", "last of 1")
        self.append("UsbHal2.log", "first of 2")
        self.expect("last of 1")
        self.expect("first of 2")
        os.remove(self.path)
        self.append("UsbHal3.log", "first of 3")
        self.expect("first of 3")

    def test_a_next_run_is_followed(self):
        """It renames the files of this one."""
        self.expect("first")
        os.rename(self.path, f"{self.path}.keep")
        self.append("UsbHal1.log", "of the next run")
        self.expect("of the next run")


class Summary(ProgramTest):
    """Sums and exit status."""

    def test_a_good_run_ends_with_0(self):
        """Nothing needs attention."""
        self.write("UsbHal1.log", lines((0, START + LINK_UP), (5, STOP)))
        called = self.call("summary", self.folder)
        self.assertEqual(called.returncode, 0, called.stderr)
        self.assertIn("Nothing needs attention.", called.stdout)

    def test_a_loss_ends_with_1_and_a_sentence_that_links(self):
        """Each finding tells where to read on."""
        self.write("UsbHal1.log", lines((0, START + LINK_UP), (5, READS_LOST), (7, LINK_UP), (9, STOP)))
        called = self.call("summary", self.folder)
        self.assertEqual(called.returncode, 1, called.stderr)
        self.assertIn("! The link was lost once: 5 reads without a valid message. "
                      "See troubleshooting.md#the-link-comes-and-goes", called.stdout)

    def test_json_tells_the_same(self):
        """For programs."""
        self.write("UsbHal1.log", lines((0, START + LINK_UP), (5, READS_LOST), (7, LINK_UP), (9, STOP)))
        called = self.call("summary", "--json", self.folder)
        run = json.loads(called.stdout)[0]
        self.assertEqual((called.returncode, run["link"]["recovery_worst"], len(run["findings"])), (1, 2, 1))

    def test_no_log_ends_with_2(self):
        """And one sentence."""
        called = self.call("summary", self.folder)
        self.assertEqual((called.returncode, len(called.stderr.splitlines())), (2, 1))


class Collect(ProgramTest):
    """An archive without payloads."""

    SECRET = "S3CRET"

    def collected(self, name, text):
        """What an archive of this file holds, by name."""
        self.write(name, text)
        called = self.call("collect", self.folder / "logs.tar.gz", self.folder)
        self.assertEqual(called.returncode, 0, called.stderr)
        with tarfile.open(self.folder / "logs.tar.gz") as archive:
            return {member.name: archive.extractfile(member).read().decode() for member in archive}

    def test_what_a_host_sent_is_left_out(self):
        """Wherever the log shows it, also behind a line break, in what is torn and in what is not known."""
        text = "".join(line(function, text + self.SECRET + "\n" + self.SECRET) + "\n" for function, text in (
            ("_processAllMessages", "Message: "), ("_flushReadBuffer", "Discarded message : "),
            ("_processDataMessage", "ERROR: Message received is not valid: "),
            ("_processDataMessage", "ERROR: Received message with wrong size ! Trash it: "),
            ("_processDataMessage", "ERROR: Received message with invalid connection id ! Trash it: "),
            ("_processDataMessage", "["), ("_read", "5: "), ("write", "a text that is new ")))
        held = self.collected("UsbHal1.log", self.SECRET + "\n" + text + line("stop", "watch" + self.SECRET))
        self.assertNotIn(self.SECRET, "".join(held.values()))
        self.assertIn("Discarded message : <13 characters left out>", held["usbhal-log/UsbHal1.log"])

    def test_all_else_stays_as_it_is(self):
        """So that the archive tells the same story."""
        text = lines((0, START + LINK_UP), (5, READS_LOST), (7, LINK_UP), (9, STOP))
        held = self.collected("UsbHal2.log.keep.gz", text)
        self.assertEqual(held["usbhal-log/UsbHal2.log.keep"], text)
        self.assertEqual(json.loads(held["usbhal-log/summary.json"])[0]["link"]["lost"], 1)
        self.assertIn("system: Linux", held["usbhal-log/system.txt"])


if __name__ == "__main__":
    unittest.main()
