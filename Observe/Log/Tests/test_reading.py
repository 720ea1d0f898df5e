# SPDX-License-Identifier: MIT
"""Files in their order, lines as they were written."""

import tracemalloc
import unittest

import place  # pylint: disable=unused-import
from logs import LogTest, line, lines
from usbhal_log import reading, summary


def _texts(folder):
    return [record.text for record in reading.read_logs(reading.logs_in([folder]))]


class Order(LogTest):
    """The order of a run's files."""

    def names(self):
        """The names of the files as they are read."""
        return [file.path.name for file in reading.logs_in([self.folder])]

    def make(self, *indexes, ending=""):
        """Files that were written in this order, an hour each."""
        for at, index in enumerate(indexes):
            self.write(f"UsbHal{index}.log{ending}", line("stop", f"{index}", at * 3600) + "\n")

    def test_numbers_and_not_letters_order_files(self):
        """9 comes before 10."""
        self.make(9, 10)
        self.assertEqual(self.names(), ["UsbHal9.log", "UsbHal10.log"])

    def test_one_follows_on_the_last_number(self):
        """The numbers begin anew behind 30000."""
        self.make(30000, 1)
        self.assertEqual(self.names(), ["UsbHal30000.log", "UsbHal1.log"])

    def test_the_file_that_stays_comes_first(self):
        """File 30000 stays when the numbers have begun anew."""
        self.make(30000, 17, 18)
        self.assertEqual(self.names(), ["UsbHal30000.log", "UsbHal17.log", "UsbHal18.log"])

    def test_the_file_that_stays_comes_first_to_the_end(self):
        """It is still the oldest one when the numbers come by again."""
        self.make(30000, 29998, 29999)
        self.assertEqual(self.names(), ["UsbHal30000.log", "UsbHal29998.log", "UsbHal29999.log"])

    def test_the_run_before_comes_first(self):
        """Whatever the numbers."""
        self.make(7, 8, ending=".keep")
        self.make(1)
        self.assertEqual(self.names(), ["UsbHal7.log.keep", "UsbHal8.log.keep", "UsbHal1.log"])

    def test_other_files_are_left_alone(self):
        """Only the library's own names count."""
        self.make(1)
        for name in ("UsbHal.log", "UsbHal2.log.bak", "xUsbHal3.log", "UsbHal4.txt"):
            self.write(name, "x")
        self.assertEqual(self.names(), ["UsbHal1.log"])

    def test_a_folder_without_a_log_is_told(self):
        """In one sentence that says what to do."""
        with self.assertRaisesRegex(reading.LogError, "There is no UsbHal<n>.log in .*; give the folder"):
            reading.logs_in([self.folder])

    def test_missing_files_are_counted_across_the_last_number(self):
        """From 29999 to 2 there are two."""
        files = [reading.LogFile(None, index, False) for index in (29999, 2)]
        self.assertEqual(reading.missing_between(*files), 2)


class Lines(LogTest):
    """Lines of all kinds."""

    def records(self, text):
        """The records of a file with that text."""
        self.write("UsbHal1.log", text)
        return list(reading.read_logs(reading.logs_in([self.folder])))

    def test_packed_files_are_read_like_plain_ones(self):
        """All that Python unpacks."""
        for index, ending in enumerate(("", ".gz", ".xz", ".bz2"), 1):
            self.write(f"UsbHal{index}.log{ending}", line("stop", f"text {index}") + "\n")
        self.assertEqual(_texts(self.folder), ["text 1", "text 2", "text 3", "text 4"])

    def test_a_damaged_packed_file_is_told_after_its_lines(self):
        """What could be read comes first."""
        path = self.write("UsbHal1.log.gz", "".join(line("stop", f"{n}") + "\n" for n in range(20000)))
        path.write_bytes(path.read_bytes()[:-2000])
        told = []
        with self.assertRaisesRegex(reading.LogError, "cannot be read"):
            for record in reading.read_logs(reading.logs_in([self.folder])):
                told.append(record)
        self.assertGreater(len(told), 100)

    def test_a_line_has_its_parts(self):
        """Time, thread, function, text."""
        record = self.records(line("read", "Message read for client #3of size 14", 1.5) + "\n")[0]
        self.assertEqual((record.thread, record.function, record.kind, record.port), (-1234, "read", "read", 3))
        self.assertEqual(reading.date_text(record.time), "2026-11-22 12:00:01.500")

    def test_a_torn_last_line_is_kept(self):
        """A process that was killed on a full disk leaves one."""
        records = self.records(line("stop", "watchdog stopped") + "\n" + line("stop", "communication thr"))
        self.assertEqual([(r.kind, r.whole) for r in records], [("stopping", True), (None, False)])

    def test_line_breaks_of_a_host_belong_to_the_text(self):
        """They make further lines that have no date."""
        text = line("_processAllMessages", "Message: a\nb\n\nc") + "\n" + line("stop", "watchdog stopped") + "\n"
        records = self.records(text)
        self.assertEqual([(r.kind, r.further) for r in records], [("rest", 3), ("stopping", 0)])
        self.assertEqual(records[0].text, "Message: a\nb\n\nc")

    def test_the_last_line_of_a_log_that_stopped_is_known(self):
        """It has no thread, and no blank behind its date."""
        records = self.records("22-11-2026 12:00:00:123ERROR: couldn't open new log file, stop logging !\n")
        self.assertEqual([(r.kind, r.text[:5]) for r in records], [("log_ended", "ERROR")])

    def test_zero_bytes_of_a_file_that_was_cut_are_passed_over(self):
        """The library goes on at the place where it was."""
        records = self.records(b"\0" * 100000 + line("stop", "watchdog stopped").encode() + b"\n")
        self.assertEqual(records[-1].kind, "stopping")

    def test_a_date_that_is_none_does_no_harm(self):
        """Such a line is one without a head."""
        records = self.records("99-99-2026 12:00:00:123 [THREAD 1] [stop:1] watchdog stopped\n")
        self.assertEqual([r.whole for r in records], [False])

    def test_bytes_that_are_no_text_do_no_harm(self):
        """A host may send anything."""
        head = line("_processAllMessages", "Message: ").encode()
        self.assertEqual(self.records(head + b"\xff\xfe\x1b[2J\n")[0].kind, "rest")

    def test_what_steers_a_terminal_is_made_visible(self):
        """Else a host could write on the reader's screen."""
        self.assertEqual(reading.printable("a\x1b[2J\u202eb\n"), "a\\x1b[2J\\u202eb\\n")


class Size(LogTest):
    """Memory does not grow with the log."""

    def test_memory_is_bounded(self):
        """Ten times the log takes no more memory."""
        peaks = []
        for count in (2000, 20000):
            text = "".join(lines((second, [("read", f"Message read for client #{second % 5}of size 20")]))
                           for second in range(count))
            self.write("UsbHal1.log.gz", text)
            del text
            tracemalloc.start()
            summary.summarise(reading.read_logs(reading.logs_in([self.folder])))
            peaks.append(tracemalloc.get_traced_memory()[1])
            tracemalloc.stop()
        self.assertLess(peaks[1], peaks[0] + 1_000_000)

    def test_a_line_without_end_is_read_in_pieces(self):
        """50 MB without a line break do not have to fit."""
        path = self.write("UsbHal1.log", line("_processAllMessages", "Message: "))
        with path.open("ab") as file:
            for _ in range(50):
                file.write(b"x" * 1_000_000)
        tracemalloc.start()
        records = list(reading.read_logs(reading.logs_in([self.folder])))
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        self.assertEqual([r.kind for r in records], ["rest"])
        self.assertLess(peak, 2_000_000)


if __name__ == "__main__":
    unittest.main()
