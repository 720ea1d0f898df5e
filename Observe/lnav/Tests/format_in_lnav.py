# SPDX-License-Identifier: MIT
"""The lnav format, as lnav itself reads it."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "Log" / "Tests"))

# pylint: disable=wrong-import-position
from logs import LogTest, line, lines
import place  # pylint: disable=unused-import
from usbhal_log import texts

LEVELS = {"bad": "error", "warn": "warning", "good": "info", "plain": "info"}
VALUES = {"state": "CONNECTED", "node": "/dev/x", "bool": "true", "error": "5: Input/output error",
          "file": "./UsbHal1.log", "side": "device to finish reading", "payload": "FADA00"}


class Format(LogTest):
    """Asks lnav what it has read."""

    def setUp(self):
        super().setUp()
        place = self.folder / "home" / ".config" / "lnav" / "formats" / "usbhal"
        place.mkdir(parents=True)
        shutil.copy(HERE.parent / "usbhal.json", place)
        self.environment = dict(os.environ, HOME=str(self.folder / "home"), TERM="dumb",
                                XDG_CONFIG_HOME=str(self.folder / "home" / ".config"))

    def ask(self, query, *files):
        """The rows of a query."""
        called = subprocess.run(["lnav", "-n", "-c", f";{query}", "-c", ":write-json-to -", *files],
                                env=self.environment, capture_output=True, text=True, check=False, timeout=60)
        self.assertEqual(called.stderr, "")
        return json.loads(called.stdout)

    def test_lnav_finds_no_fault_with_the_format(self):
        """Nor with its samples."""
        called = subprocess.run(["lnav", "-C"], env=self.environment, capture_output=True, text=True,
                                check=False, timeout=60)
        self.assertEqual((called.returncode, called.stderr), (0, ""))

    def test_a_line_has_its_parts(self):
        """Time, thread, function, source line, text."""
        log = self.write("UsbHal1.log", line("read", "Message read for client #3of size 14", 1.5, 166) + "\n")
        rows = self.ask('SELECT log_time, thread, "function", line, log_body FROM usbhal_log', log)
        self.assertEqual(rows, [{"log_time": "2026-11-22 12:00:01.500", "thread": "-1234", "function": "read",
                                 "line": 166, "log_body": "Message read for client #3of size 14"}])

    def test_levels_are_those_of_the_other_program(self):
        """What is red here is an error there."""
        said = [(function, re.sub(r"<(\w+)>", lambda found: VALUES.get(found[1], "7"), rule.template), rule)
                for rule in texts.RULES for function in rule.functions if function != "-"]
        log = self.write("UsbHal1.log", lines(*((at, [each[:2]]) for at, each in enumerate(said))))
        rows = self.ask("SELECT log_level, log_body FROM usbhal_log ORDER BY log_line", log)
        self.assertEqual(len(rows), len(said))
        for row, (_, text, rule) in zip(rows, said):
            with self.subTest(text=text):
                self.assertEqual((row["log_level"], row["log_body"]), (LEVELS[texts.severity(rule.kind)], text))

    def test_the_last_line_of_a_log_that_stopped_is_read(self):
        """It has no thread."""
        log = self.write("UsbHal2.log", lines((0, [("stop", "watchdog stopped")])) +
                         "22-11-2026 12:00:01:000ERROR: couldn't open new log file, stop logging !\n")
        rows = self.ask("SELECT log_level FROM usbhal_log ORDER BY log_line", log)
        self.assertEqual([row["log_level"] for row in rows], ["info", "error"])

    def test_kept_and_current_files_are_one_log(self):
        """In the order of their times."""
        kept = self.write("UsbHal9.log.keep", line("stop", "before", 0) + "\n")
        now = self.write("UsbHal1.log", line("stop", "after", 60) + "\n")
        rows = self.ask("SELECT log_body FROM usbhal_log ORDER BY log_line", now, kept)
        self.assertEqual([row["log_body"] for row in rows], ["before", "after"])


if __name__ == "__main__":
    unittest.main()
