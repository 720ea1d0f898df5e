#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What is made of the figures of a campaign."""

import argparse
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TESTS))
import campaign

FUZZER_LOG = """\
#2048\tpulse  cov: 12 ft: 30 corp: 9/1b exec/s: 1024 rss: 30Mb
#4096\tDONE   cov: 1710 ft: 9000 corp: 700/31Kb lim: 2048 exec/s: 682 rss: 410Mb
stat::number_of_executed_units: 838814
stat::average_exec_per_sec:     682
"""
CTEST_LOG = "67% tests passed, 1 tests failed out of 3\n"
FORMER = "# Figures\n\n## model: passed\n\nkept\n\n## storms: FAILED\n\nold\n\n## exits: passed\n\nkept, too\n"


class Campaign(unittest.TestCase):
    """The script that reports, and its parts."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.log = pathlib.Path(folder.name, "log")
        self.figures = pathlib.Path(folder.name, "figures")

    def call(self, *words):
        """What the script prints."""
        environment = {**os.environ, "USBHAL_FIGURES": str(self.figures)}
        return subprocess.run([TESTS / "campaign.py", *words, self.log], env=environment,
                              check=True, capture_output=True, text=True).stdout

    def report(self):
        """The lines of a report."""
        return self.call("report", "--sources", "v1", "storms", "passed", "5").splitlines()

    def test_a_report_has_the_figures_of_the_programs_and_of_ctest(self):
        """In their order, counts without a fraction."""
        self.figures.write_text('{"figure":"losses, forced","value":12216555}\n{"figure":"time","value":0.25}\n')
        self.log.write_text(CTEST_LOG)
        self.assertEqual(self.report(), ["losses, forced: 12216555", "time: 0.25", "ctest entries: 3",
                                         "ctest entries failed: 1", "storms: passed in 5 s"])

    def test_a_campaign_need_not_have_figures(self):
        """Its result is told all the same."""
        self.log.write_text("")
        self.assertEqual(self.report(), ["storms: passed in 5 s"])

    def test_the_figures_of_a_fuzzer_are_recorded(self):
        """Those that it has at its end, not those on its way."""
        self.log.write_text(FUZZER_LOG)
        figures = ["fuzz core executions: 838814", "fuzz core coverage edges: 1710"]
        self.assertEqual(self.call("fuzzer", "core").splitlines(), figures)
        self.log.write_text("")
        self.assertEqual(self.report(), figures + ["storms: passed in 5 s"])

    def test_a_fuzzer_without_an_end_is_an_error(self):
        """It is not one of no executions."""
        self.log.write_text(FUZZER_LOG.partition("stat::")[0])
        with self.assertRaises(subprocess.CalledProcessError) as caught:
            self.call("fuzzer", "core")
        self.assertIn("the fuzzer core does not tell its executions", caught.exception.stderr)

    def test_a_section_takes_the_place_of_the_former(self):
        """The others stay, and a new one comes last."""
        options = argparse.Namespace(name="storms", result="passed", seconds=125, sources="v1")
        new = campaign.section(options, [("losses", 7)])
        self.assertIn(", 2 min 5 s, at v1.\n\n| what | figure |\n|---|---|\n| losses | 7 |\n", new)
        self.assertEqual(campaign.sections_with(FORMER, "storms", new),
                         ["## model: passed\n\nkept\n\n", new, "## exits: passed\n\nkept, too\n"])
        self.assertEqual(campaign.sections_with(FORMER, "soak", "## soak: passed\n")[-1], "## soak: passed\n")


if __name__ == "__main__":
    unittest.main()
