# SPDX-License-Identifier: MIT
"""A log as large as they come: what each command takes of time and memory, and that the memory stays below a limit.

Called with the megabytes of the log, 20 when none are named.
"""

import os
import subprocess
import sys
import tempfile
import time
import unittest

import place
from logs import LINK_UP, LogTest, READS_LOST, START, STOP, lines

MEGABYTES = int(sys.argv.pop()) if len(sys.argv) > 1 and sys.argv[-1].isdigit() else 20
# MB, for a log of 1 GB. What is not only shown keeps the events of each run, of which that has 330.
MOST_MEMORY = {"show": 60, "summary": 160, "collect": 160, "report": 480}
FILE_SIZE = 4_000_000  # bytes of a file of the log
LOSSES_IN_RUN = 100
TRAFFIC = [("_processDataMessage", "400 new bytes to be read by client connected on port 1"),
           ("read", "Message read for client #1of size 400"),
           ("write", "Add to write queue message of size: 400")] * 50


def sessions():
    """Lines without an end: runs with traffic and losses of the link, a second each."""
    seconds = 0
    while True:
        yield lines((seconds, START), (seconds, LINK_UP))
        for _ in range(LOSSES_IN_RUN):
            yield lines((seconds + 1, TRAFFIC), (seconds + 2, READS_LOST), (seconds + 3, LINK_UP))
            seconds += 3
        yield lines((seconds, STOP))
        seconds += 1


class LargeLog(LogTest):
    """Written once for all commands."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.log = folder.name
        cls.size = cls.lines = number = 0
        source = sessions()
        while cls.size < MEGABYTES * 1_000_000:
            number += 1
            with open(os.path.join(cls.log, f"UsbHal{number}.log"), "w", encoding="ascii") as file:
                while file.tell() < FILE_SIZE and cls.size + file.tell() < MEGABYTES * 1_000_000:
                    text = next(source)
                    cls.lines += text.count("\n")
                    file.write(text)
                cls.size += file.tell()

    def measured(self, *arguments, output=subprocess.DEVNULL):
        """The exit status of a call, whose memory must stay below its limit."""
        begin = time.monotonic()
        process = subprocess.Popen([sys.executable, place.PROGRAM, *map(str, arguments), self.log], stdout=output)
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        memory = usage.ru_maxrss / 1024
        print(f"{arguments[0]}: {self.size / 1e6:.0f} MB, {self.lines} lines in {time.monotonic() - begin:.1f} s "
              f"with {memory:.0f} MB of memory")
        self.assertLess(memory, MOST_MEMORY[arguments[0]])
        return process.returncode

    def test_show(self):
        """Each line is there."""
        shown = self.folder / "shown"
        with open(shown, "wb") as output:
            self.assertEqual(self.measured("show", output=output), 0)
        with open(shown, "rb") as text:
            self.assertEqual(sum(1 for _ in text), self.lines)

    def test_summary(self):
        """Losses need attention."""
        self.assertEqual(self.measured("summary"), 1)

    def test_report(self):
        """A page that a browser can open."""
        page = self.folder / "log.html"
        self.assertEqual(self.measured("report", page), 0)
        self.assertLess(page.stat().st_size, 30_000_000)

    def test_collect(self):
        """An archive."""
        archive = self.folder / "log.tar.gz"
        self.assertEqual(self.measured("collect", archive), 0)
        self.assertGreater(archive.stat().st_size, 0)


if __name__ == "__main__":
    unittest.main()
