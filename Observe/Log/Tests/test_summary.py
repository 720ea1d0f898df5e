# SPDX-License-Identifier: MIT
"""What is told of a run, and what needs attention."""

import pathlib
import re
import unittest

import place
from logs import LINK_UP, LogTest, READS_LOST, START, STOP, lines
from usbhal_log import findings, reading, summary

TROUBLESHOOTING = place.LOG.parents[1] / "Docs" / findings.PAGE


def told(text):
    """The text of (function, text) pairs of one moment."""
    return [tuple(row.split(" ", 1)) for row in text.strip().splitlines()]


class SummaryTest(LogTest):
    """Sums up a log of one file."""

    def sum_up(self, *groups, name="UsbHal1.log"):
        """The runs as plain data."""
        self.write(name, lines(*groups))
        total = summary.summarise(reading.read_logs(reading.logs_in([self.folder])))
        return [summary.as_data(run) for run in total.runs]

    def run_of(self, *groups):
        """The only run."""
        runs = self.sum_up(*groups)
        self.assertEqual(len(runs), 1)
        return runs[0]

    def anchors(self, *groups):
        """Where the findings of the only run lead."""
        return [finding.anchor for finding in findings.findings_of(self.run_of(*groups))]


class Runs(SummaryTest):
    """Runs and their times."""

    def test_a_run_begins_with_its_configuration(self):
        """Two processes, one after the other, in a file made of both their logs."""
        runs = self.sum_up((0, START + LINK_UP), (5, STOP), (60, START + LINK_UP), (62, STOP))
        self.assertEqual([run["seconds"] for run in runs], [5, 2])

    def test_the_run_before_is_a_run_of_its_own(self):
        """Also when its beginning is not there any more."""
        self.write("UsbHal3.log.keep", lines((0, LINK_UP), (9, STOP)))
        runs = self.sum_up((60, LINK_UP))
        self.assertEqual([(run["kept"], run["seconds"]) for run in runs], [(True, 9), (False, 0)])

    def test_up_time_of_the_link(self):
        """From CONNECTED to DISCONNECTED, and to the end of the log."""
        run = self.run_of((0, START), (10, LINK_UP), (20, READS_LOST), (23, LINK_UP), (30, STOP))
        self.assertEqual(run["link"]["up_seconds"], 17)
        self.assertTrue(run["ended_cleanly"])

    def test_missing_files_are_counted(self):
        """A file between two others is not there."""
        self.write("UsbHal1.log", lines((0, START)))
        self.assertEqual(self.sum_up((5, LINK_UP), name="UsbHal4.log")[0]["log"]["missing_files"], 2)

    def test_a_clock_that_was_set_back_is_counted(self):
        """Some milliseconds are not: threads take turns."""
        run = self.run_of((100, START), (99.995, LINK_UP), (10, STOP))
        self.assertEqual(run["log"]["clock_steps_back"], 1)


class Link(SummaryTest):
    """Losses, their causes, recoveries."""

    def test_recoveries_have_median_and_worst(self):
        """Of three: 2, 3 and 10 s."""
        run = self.run_of((0, START + LINK_UP), (10, READS_LOST), (12, LINK_UP), (20, READS_LOST), (30, LINK_UP),
                          (40, READS_LOST), (43, LINK_UP), (50, STOP))
        link = run["link"]
        self.assertEqual((link["gained"], link["lost"]), (4, 3))
        self.assertEqual((link["recovery_median"], link["recovery_worst"]), (3, 10))

    def test_the_cause_is_the_side_that_failed(self):
        """Reads here."""
        run = self.run_of((0, START + LINK_UP), (10, READS_LOST))
        self.assertEqual(run["link"]["causes"], {"5 reads without a valid message": 1})
        self.assertTrue(run["link"]["down_at_end"])

    def test_failed_writes_are_told_with_their_error(self):
        """The error stands some lines before."""
        lost = [("write", "Gadget, error code = -1"), ("write", "Write error: 90: Message too long"),
                ("write", "_write() failed (no byte sent)"), ("_connectedFunc", "Disconnect read attempts : 0"),
                ("_connectedFunc", "Disconnect write attempts : 5")] + READS_LOST[2:]
        run = self.run_of((0, START + LINK_UP), (10, lost))
        self.assertEqual(run["link"]["causes"], {"5 writes failed (90: Message too long)": 1})

    def test_a_stop_is_no_loss(self):
        """And nothing to attend to."""
        run = self.run_of((0, START + LINK_UP), (10, STOP))
        self.assertEqual((run["link"]["lost"], run["link"]["causes"]), (0, {"stop": 1}))
        self.assertEqual(findings.findings_of(run), [])

    def test_the_watchdog_is_a_cause(self):
        """It takes the link down itself."""
        restart = told("""_mainLoop watchdog errors: 41
_mainLoop max watchdog errors: 40
_stopWorkerThread communication thread did not stop -> killed
_updateStatus UsbHal switched to DISCONNECTED state""")
        run = self.run_of((0, START + LINK_UP), (10, restart), (12, LINK_UP), (20, STOP))
        self.assertEqual((run["watchdog_restarts"], run["kills"]), (1, 1))
        self.assertEqual(run["link"]["causes"]["the watchdog restarted the thread"], 1)


class PortsAndBytes(SummaryTest):
    """Ports, delays, bytes, errors."""

    def test_a_port_that_comes_back_was_not_opened_again(self):
        """It is cut off once and opened once."""
        up = LINK_UP + [("_onConnected", "socket #1CONNECTED")]
        port = self.run_of((0, START + LINK_UP), (10, READS_LOST), (12, up))["ports"]["1"]
        self.assertEqual((port["opened"], port["cut_off"], port["closed"]), (1, 1, 0))

    def test_a_close_does_not_cut_off(self):
        """Though the log says DISCONNECTED then, too."""
        close = told("""closeConnection closeConnection on port 1
_onDisconnected socket #1DISCONNECTED
_onDisconnected 3 messages removed from Write FIFO for port 1
_closeConnection port #1 has been CLOSED""")
        port = self.run_of((0, START + LINK_UP), (10, close), (12, START[3:]))["ports"]["1"]
        self.assertEqual((port["opened"], port["cut_off"], port["closed"]), (2, 0, 1))
        self.assertEqual(port["removed_messages"], 3)

    def test_refused_ports_and_errors_by_code(self):
        """Errors 4 and 5 name the port."""
        errors = told("""_onError Tried to open a port already opened ! Param = 1
_onError Too many clients connected ! Param = 9
_onError Driver not initialized !""")
        run = self.run_of((0, START + LINK_UP + errors))
        self.assertEqual(run["errors"], {"4": 1, "5": 1, "7": 1})
        self.assertEqual([run["ports"][port]["refused"] for port in ("1", "9")], [1, 1])

    def test_bytes_are_added_up(self):
        """As far as the log tells them."""
        traffic = told("""_processDataMessage 14 new bytes to be read by client connected on port 1
_processDataMessage 20 new bytes to be read by client connected on port 1
read Message read for client #1of size 14
write Add to write queue message of size: 27""")
        run = self.run_of((0, START + LINK_UP + traffic))
        self.assertEqual(run["ports"]["1"]["received_bytes_told"], 34)
        self.assertEqual(run["ports"]["1"]["read_bytes_told"], 14)
        self.assertEqual(run["written"], {"messages": 1, "bytes_with_headers": 27})

    def test_delays_have_their_length(self):
        """From the request to its end."""
        ask = [("_connectedFunc", "Ask host to delay further writes")]
        end = [("_connectedFunc", "Warn host he can write again")]
        delays = self.run_of((0, START + LINK_UP), (10, ask), (12, end), (20, ask), (21, end), (30, STOP))["delays"]
        self.assertEqual((delays["count"], delays["longest"], delays["total"]), (2, 2, 3))


class Findings(SummaryTest):
    """What needs attention, and where the documentation tells of it."""

    CASES = {
        "_connectedFunc Ask host to delay further writes": "the-host-gets-device_wtsend-and-nothing-else",
        "_processDataMessage ERROR: Buffer Overflow on port #1": "the-host-gets-device_wtsend-and-nothing-else",
        "_processDataMessage ERROR: Message received is not valid: x": "readyread-never-comes",
        "_processDataMessage ERROR: message received for non-connected port: 4": "readyread-never-comes",
        "_onDisconnected 2 messages removed from Write FIFO for port 1": "nothing-arrives-at-the-host",
        "write Write buffer storage limit reached, rest of the data dropped":
            "write-returns-0-or-less-than-it-was-given",
        "_onError Too many clients connected ! Param = 9": "openconnection-returns-false",
        "stop communication thread still running": "stop-takes-long-or-ends-in-a-kill",
        "write _write() failed (no byte sent)": "the-link-comes-and-goes",
        "_openDrvInstance Error: unable to open driver instance: /dev/x( 2: No such file or directory )":
            "the-link-does-not-come-up",
        "_mainLoop watchdog errors: 41": "the-watchdog-restarts-the-thread",
        "_mainLoop a text that is new": "still-not-clear",
    }

    def test_each_case_has_its_finding(self):
        """One line more than a run without findings."""
        for case, anchor in self.CASES.items():
            with self.subTest(case=case):
                self.assertEqual(self.anchors((0, START + LINK_UP), (1, told(case))), [anchor])

    def test_a_link_that_never_came_up_is_found(self):
        """The host did not speak."""
        self.assertEqual(self.anchors((0, START)), ["the-link-does-not-come-up"])

    def test_a_long_delay_is_found_and_a_short_one_is_not(self):
        """A short one is what delays are for."""
        ask = told("_connectedFunc Ask host to delay further writes")
        end = told("_connectedFunc Warn host he can write again")
        self.assertEqual(self.anchors((0, START + LINK_UP + ask), (2, end)), [])
        self.assertEqual(len(self.anchors((0, START + LINK_UP + ask), (12, end))), 1)

    def test_a_log_that_stopped_is_found(self):
        """By its last line."""
        self.write("UsbHal1.log", lines((0, START + LINK_UP)) +
                   "22-11-2026 12:00:01:000ERROR: couldn't open new log file, stop logging !\n")
        run = summary.summarise(reading.read_logs(reading.logs_in([self.folder]))).runs[0]
        self.assertEqual([f.anchor for f in findings.findings_of(summary.as_data(run))], ["the-log-stops"])

    def test_each_link_leads_to_a_heading(self):
        """Of the page that is in the documentation."""
        from usbhal_log import reporting  # pylint: disable=import-outside-toplevel
        headings = [row.lstrip("# ") for row in TROUBLESHOOTING.read_text("utf-8").splitlines() if row.startswith("#")]
        known = {reporting.heading_anchor(heading, "-") for heading in headings}
        used = set(re.findall(r'"([a-z0-9]+(?:[-_][a-z0-9]+){2,})"', pathlib.Path(findings.__file__).read_text("utf-8")))
        used = {name for name in used if "-" in name}  # the others are names of data
        self.assertLessEqual(used, known)
        self.assertEqual(used, set(self.CASES.values()) | {"the-log-stops"})



if __name__ == "__main__":
    unittest.main()
