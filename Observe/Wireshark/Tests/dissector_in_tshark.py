# SPDX-License-Identifier: MIT
"""The dissector, as tshark runs it."""

import resource
import shutil
import subprocess
import sys
import unittest

import golden
from transfers import corpus, hostile, received, REJECTED
from tshark import DISSECTOR, HERE, TsharkTest
from usbmon import Capture, DELAY, LINK_TYPE_USER0, NO_DATA, data, max_read_size

PACKETS = int(sys.argv.pop()) if len(sys.argv) > 1 and sys.argv[-1].isdigit() else 20000
SEED = 7200
HIGHEST_RATIO = 3


class Golden(TsharkTest):
    """What it tells of each message, each fault and each turn, word for word."""

    def test_each_capture_is_told_as_before(self):
        """golden.py --update writes down what is told now, to be looked at."""
        for name, capture in golden.captures().items():
            with self.subTest(capture=name):
                expected = golden.path_of(name).read_text(encoding="utf-8")
                self.assertEqual(golden.told(self, self.write(capture)), expected)

    def test_json_holds_the_fields(self):
        """Of two messages in one transfer."""
        capture = Capture()
        capture.from_host(data(3, b"hello") + data(5, b"x"))
        layers = self.json(self.write(capture), "-j", "usbhal", "-Y", "usbhal")[0]["_source"]["layers"]
        messages = [value for key, value in layers["usbhal"].items() if key == "usbhal"][0]
        self.assertEqual([message["usbhal.port"] for message in messages], ["3", "5"])
        self.assertEqual(messages[0]["usbhal.payload"], "68:65:6c:6c:6f")


class Foreign(TsharkTest):
    """Traffic that is not the library's."""

    def test_foreign_bulk_traffic_is_left_alone(self):
        """Also what looks like it at first."""
        capture = Capture()
        for payload in (b"USBC\x01\x02\x03\x04" + bytes(23), b"FADA", b"FADA0000", b"DEVICE", b"DEVICE_NODAT",
                        b"FADA00007ab12xyz", b"FADAabcde0001", b"DEVICE_WTSEND ", b"FADA000080001abc", bytes(512),
                        NO_DATA + b"\r\n", b"HTTP/1.1 200 OK\r\n\r\n", b"FADA000080001abcdFADA"):
            capture.from_host(payload)
            capture.from_device(payload)
        self.assertEqual(self.fields(self.write(capture), "frame.number", options=("-Y", "usbhal")), [])

    def test_what_begins_well_is_followed_into_its_faults(self):
        """An endpoint that was recognised stays so; the other endpoints are not."""
        capture = Capture()
        capture.from_host(b"before")
        capture.from_host(NO_DATA)
        capture.from_host(b"nonsense")
        capture.from_device(b"another endpoint")
        rows = self.fields(self.write(capture), "frame.number", "usbhal.kind", options=("-Y", "usbhal"))
        self.assertEqual(rows, [[["3"], ["1"]], [["5"], ["6"]]])

    def test_a_vendor_specific_device_is_shown_from_its_first_transfer(self):
        """Its class is known from the descriptors, so that a fault is one."""
        for device_class, expected in ((0xff, [[["3"], ["6"]], [["6"], ["2"]]]), (0x08, [[["6"], ["2"]]])):
            with self.subTest(device_class=device_class):
                capture = Capture()
                capture.described_as(device_class)
                capture.from_host(b"nonsense")
                capture.from_device(max_read_size(10000))
                path = self.write(capture)
                self.assertEqual(self.fields(path, "frame.number", "usbhal.kind", options=("-Y", "usbhal")), expected)

    def test_another_device_is_another_link(self):
        """Its delay is not that of the first one."""
        one, other = Capture(device=5), Capture(device=6)
        one.from_host(NO_DATA)
        one.from_device(DELAY)
        other.from_host(data(1, b"x"))
        one._records += other._records  # pylint: disable=protected-access
        self.assertEqual(self.fields(self.write(one), "frame.number", options=("-Y", "_ws.expert")), [])


class Hostile(TsharkTest):
    """Transfers of the fuzzers."""

    def check(self, path, packets):
        """Each transfer is told as the rules say."""
        rows = self.fields(path, "usbhal.kind", "usbhal.port", "usbhal.consumed")
        rows = [row for row in rows if row[0]]
        self.assertEqual(len(rows), len(packets))
        for row, (transfer, from_host) in zip(rows, packets):
            expected = received(transfer, from_host)
            self.assertEqual(
                row, [[str(kind) for kind, _, _ in expected],
                      [str(port) for _, port, _ in expected if port is not None],
                      [str(size) for kind, _, size in expected if kind != REJECTED]], transfer)

    def capture_of(self, transfers):
        """The transfers in turns, behind a message that each side is known by."""
        capture = Capture()
        packets = [(NO_DATA, True), (max_read_size(10000), False)]
        for at, transfer in enumerate(transfers):
            packets.append((transfer, at % 2 == 0))
        for transfer, from_host in packets:
            (capture.from_host if from_host else capture.from_device)(transfer)
        return capture, packets

    def test_each_of_the_corpora_is_told_as_the_rules_say(self):
        """As they are, from both sides."""
        transfers = [transfer for transfer in corpus() for _ in range(2)]
        capture, packets = self.capture_of(transfers)
        self.check(self.write(capture), packets)

    def test_changed_ones_are_told_as_the_rules_say(self):
        """No error in Lua among them either, as tshark must not complain."""
        for part in range(0, PACKETS, 20000):
            capture, packets = self.capture_of(hostile(min(20000, PACKETS - part), SEED + part))
            self.check(self.write(capture), packets)

    def test_without_a_usb_header_they_do_no_harm(self):
        """As packets of type USER0."""
        capture = Capture(LINK_TYPE_USER0)
        transfers = list(hostile(2000, SEED - 1))
        for transfer in transfers:
            capture.packet(transfer)
        rows = self.fields(self.write(capture), "usbhal.kind")
        self.assertEqual(sum(1 for row in rows if row and row[0]), len(transfers))


class Ports(TsharkTest):
    """What ports carry."""

    LINES = HERE / "lines.lua"

    def setUp(self):
        super().setUp()
        capture = Capture()
        capture.from_host(NO_DATA)
        capture.from_device(max_read_size(10000))
        capture.from_host(data(3, b"one\ntw") + data(4, b"other\n") + data(3, b"o\nth"))
        capture.from_device(data(3, b"ans"))
        capture.from_host(data(3, b"ree\n"))
        capture.from_device(data(3, b"wer\n"))
        self.path = self.write(capture)

    def test_a_stream_is_put_together_for_the_dissector_below(self):
        """For each direction apart, in one pass and in two."""
        for passes in ((), ("-2",)):
            with self.subTest(passes=passes):
                text = self.call(self.path, *passes, "-o", "usbhal.ports:3:testlines", "-T", "fields", "-e",
                                 "testlines.line", "-Y", "testlines.line", scripts=(DISSECTOR, self.LINES))
                self.assertEqual(text.split(), ["one\\n,two\\n", "three\\n", "answer\\n"])

    def test_a_port_is_mapped_to_any_dissector(self):
        """By the preference."""
        capture = Capture()
        capture.from_host(data(7, b'{"a": 1}'))
        rows = self.call(self.write(capture), "-o", "usbhal.ports:1:http,7:json", "-T", "fields", "-e", "json.key")
        self.assertEqual(rows.split(), ["a"])

    def test_statistics_count_ports_and_delays(self):
        """At the end of tshark."""
        capture = Capture()
        capture.from_host(data(3, b"12345") + data(3, b"67"))
        capture.from_device(DELAY)
        capture.pass_time(989.9)
        capture.from_host(NO_DATA)
        capture.from_device(max_read_size(10000))
        rows = self.call(self.write(capture), "-q", "-o", "usbhal.statistics:TRUE").splitlines()
        self.assertEqual([row.split() for row in rows[1:3]],
                         [["3", "host", "2", "7", "6.9"], "1 delays, 1.000 s in all, of 1.010 s".split()])


class Profile(TsharkTest):
    """The columns and colours that come with it."""

    def test_columns_and_colours_are_taken(self):
        """tshark, which reads the same files, complains of a fault in them."""
        shutil.copytree(HERE.parent / "profile", self.folder / "config" / "wireshark" / "profiles")
        capture = Capture()
        capture.from_host(data(7, b"hello"))
        capture.from_device(b"nonsense")
        capture.from_device(data(8, b"hello"))
        told = self.call(self.write(capture), "-C", "UsbHal", "--color", "-Y", "usbhal").splitlines()
        self.assertEqual([row.split()[5] for row in told], ["7", "8"])
        self.assertEqual(len({row.split("m", 1)[0] for row in told}), 2)


class Speed(TsharkTest):
    """What it costs."""

    def seconds(self, path, scripts, options):
        """Processor time of tshark."""
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        self.call(path, *options, scripts=scripts, output=subprocess.DEVNULL)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime

    def test_it_takes_at_most_three_times_as_long(self):
        """Traffic as it usually is, a message each way; a line for each packet, and all that can be told."""
        capture = Capture()
        for number in range(10000):
            capture.from_host(data(number % 5, bytes(400)) if number % 2 else NO_DATA)
            capture.from_device(max_read_size(10000) if number % 3 else data(number % 5, bytes(400)))
        path = self.write(capture)
        for options in ((), ("-V",)):
            with self.subTest(options=options):
                ratios = [self.seconds(path, [DISSECTOR], options) / self.seconds(path, [], options) for _ in range(2)]
                print(f"tshark {' '.join(options)} takes {min(ratios):.2f} times as long with the dissector")
                self.assertLess(min(ratios), HIGHEST_RATIO)


if __name__ == "__main__":
    unittest.main()
