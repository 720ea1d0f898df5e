# SPDX-License-Identifier: MIT
"""Commands that reach a device which a running `usbhal forward` has, and those that look at links."""

import json
import os
import re
import shutil
import socket
import stat
import subprocess
import threading
import unittest

from device import WAIT
from forwarding import ForwardTest, TOOL

BLOCK = bytes(range(256)) * 1000


class ControlTest(ForwardTest):
    """A forward of port 1 that has the device."""

    def setUp(self):
        super().setUp()
        self.node = self.device()
        self.program, self.places = self.forward("0:1")
        client = self.connect(self.places[1])
        client.sendall(b"hello")
        self.node.received(1, 5)
        self.node.forget()
        self.client = client

    def call(self, *arguments, given=b""):
        """What subprocess tells of another command."""
        return subprocess.run([*TOOL, "--device", "sim:" + self.folder, *arguments], input=given, check=False,
                              capture_output=True, timeout=WAIT, env={**os.environ, "XDG_RUNTIME_DIR": self.folder})

    def control(self):
        """A connection to the control socket, and its greeting."""
        raw = socket.socket(socket.AF_UNIX)
        raw.settimeout(WAIT)
        raw.connect(self.path(f"usbhal/{self.program.process.pid}"))
        self.addCleanup(raw.close)
        lines = raw.makefile("rb")
        self.addCleanup(lines.close)
        return raw, lines, json.loads(lines.readline())


class Commands(ControlTest):
    """They find the forward by the place of the device."""

    def test_cat_through_the_forward(self):
        """Both ways, beside the client of another port."""
        self.node.echo(2)
        called = self.call("cat", "2", "--linger", "20", given=BLOCK)
        self.assertEqual((called.returncode, called.stderr, called.stdout), (0, b"", BLOCK))
        self.client.sendall(b"still here")
        self.assertEqual(self.node.received(1, 10), b"still here")

    def test_send_ends_when_the_device_has_all(self):
        """Not when the forward has."""
        with open(self.path("file"), "wb") as file:
            file.write(BLOCK)
        called = self.call("send", "2", self.path("file"))
        self.assertEqual((called.returncode, called.stderr), (0, b""))
        self.assertEqual(self.node.received(2, len(BLOCK)), BLOCK)

    def test_a_port_in_use_is_refused_by_name_of_its_user(self):
        """A client of a socket, and another command."""
        called = self.call("cat", "1")
        self.assertEqual(called.returncode, 1)
        self.assertRegex(called.stderr.decode(), r"^usbhal: port 1 is in use by 127\.0\.0\.1:\d+\n$")
        raw, lines, _ = self.control()
        raw.sendall(b'{"port": 3, "user": "the test"}\n')
        self.assertEqual(json.loads(lines.readline()), {"largest": 10000})
        called = self.call("cat", "3")
        self.assertEqual(called.stderr, b"usbhal: port 3 is in use by the test\n")

    def test_what_is_lost_is_counted_by_the_command(self):
        """As over a link of its own."""
        self.node.swallow(True)
        called = subprocess.Popen([*TOOL, "--device", "sim:" + self.folder, "cat", "2"], stdin=subprocess.PIPE,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                  env={**os.environ, "XDG_RUNTIME_DIR": self.folder})
        self.addCleanup(called.stderr.close)
        called.stdin.write(b"0123456789")
        called.stdin.close()
        self.node.received(2, 10)
        self.node.unplug()
        self.assertEqual(called.wait(WAIT), 1)
        self.assertRegex(called.stderr.read().decode(),
                         r"the link is lost: usbhal forward \(process \d+\) has ended it; 10 bytes may not")

    def test_list_names_the_forward(self):
        """As who holds the node."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as control:
            control.bind(self.path("control"))
            control.listen()
            rows = json.loads(self.call("list", "--json").stdout)
        holders = [row["holder"] for row in rows if row["name"] == "sim:" + self.folder]
        self.assertEqual(holders, [f"usbhal forward (process {self.program.process.pid})"])

    def test_monitor_through_the_forward(self):
        """A line each second, with the ports' bytes."""
        self.node.send(1, BLOCK)
        self.assertEqual(self.receive(self.client, len(BLOCK)), BLOCK)
        monitor = self.run_tool("monitor", "--json")
        shown = [json.loads(monitor.line()) for _ in range(2)]
        self.assertEqual(shown[1]["ports"]["1"]["received"], len(BLOCK))
        self.assertEqual(shown[1]["ports"]["1"]["delivered"], 5)
        self.assertTrue(shown[1]["isUp"])
        self.assertGreater(shown[1]["turns"], shown[0]["turns"])
        self.assertGreater(shown[1]["cycleMs"], 0)
        self.assertEqual(monitor.end(), 0)


class Socket(ControlTest):
    """For this user alone, and nothing that comes there disturbs."""

    def test_the_folder_is_for_this_user_alone(self):
        """And the socket is gone at the end."""
        self.assertEqual(stat.S_IMODE(os.stat(self.path("usbhal")).st_mode), 0o700)
        self.assertEqual(self.program.end(), 0)
        self.assertEqual(os.listdir(self.path("usbhal")), [])

    def test_a_killed_forward_hinders_nobody(self):
        """Its socket is passed over."""
        self.program.process.kill()
        self.program.wait()
        self.assertEqual(len(os.listdir(self.path("usbhal"))), 1)
        self.assertEqual(self.call("cat", "2", "--linger", "0", given=b"direct").returncode, 0)
        self.assertEqual(self.node.received(2, 6), b"direct")

    def test_a_folder_of_others_is_not_used(self):
        """The sockets that the user has named work."""
        self.program.end()
        shutil.rmtree(self.path("usbhal"))
        os.mkdir(self.path("usbhal"))
        os.chmod(self.path("usbhal"), 0o770)
        program, places = self.forward("0:1")
        self.assertIn("other commands do not reach the device: the folder", program.errors("alone"))
        self.connect(places[1]).sendall(b"hello")
        self.assertEqual(self.node.received(1, 5), b"hello")

    def test_requests_that_are_none(self):
        """Are refused, and the clients of ports notice nothing."""
        for request in (b"\n", b"hello\n", b"[]\n", b"{}\n", b'{"port": "1"}\n', b'{"port": -1}\n', b'{"port": 1e9}\n',
                        b'{"port": 10000}\n', b'{"port": 18446744073709551615}\n', b"\xff\n", b"{" * 3000 + b"\n"):
            with self.subTest(request=request):
                raw, lines, greeting = self.control()
                self.assertEqual(greeting["place"], "sim:" + os.path.realpath(self.folder))
                raw.sendall(request)
                self.assertEqual(json.loads(lines.readline()), {"error": "the request names no port of 0 to 9999"})
                self.assertEqual(lines.readline(), b"")
        raw, _, _ = self.control()
        raw.sendall(b"x" * 5000)
        self.assert_ended(raw)
        self.client.sendall(b"undisturbed")
        self.assertEqual(self.node.received(1, 11), b"undisturbed")


class Unresponsive(ForwardTest):
    """A forward that does not do what it should."""

    def greet(self, *answers):
        """Greets each caller as a forward of the device does, and gives it the next answer."""
        os.mkdir(self.path("usbhal"), 0o700)
        listening = socket.socket(socket.AF_UNIX)
        self.addCleanup(listening.close)
        listening.bind(self.path("usbhal/1"))
        listening.listen()
        threading.Thread(target=self.serve, args=(listening, answers), daemon=True).start()

    def serve(self, listening, answers):
        """Keeps the connections of those that it does not answer."""
        greeting = {"process": 1, "place": "sim:" + os.path.realpath(self.folder)}
        for answer in answers:
            caller = listening.accept()[0]
            self.addCleanup(caller.close)
            caller.sendall(json.dumps(greeting).encode() + b"\n" + answer)

    def test_a_command_that_gets_no_answer_ends(self):
        """Or one that is none: with a sentence, and without waiting for ever."""
        answers = (b'{"largest": 0}\n', b'{"largest": "10000"}\n', b"{}\n", b"")
        self.greet(*answers)
        for answer in answers:
            with self.subTest(answer=answer):
                program = self.run_tool("cat", "2")
                self.assertEqual(program.wait(), 1)
                self.assertEqual(program.errors(), "usbhal: usbhal forward (process 1), which has the device, does "
                                 "not answer: try again, or end it\n")


class Direct(ForwardTest):
    """Without a forward."""

    def test_monitor_has_a_link_of_its_own(self):
        """And shows that the device goes and comes."""
        node = self.device()
        monitor = self.run_tool("monitor")
        first = json.loads(monitor.line())
        self.assertTrue(first["isUp"])
        self.assertGreater(first["cycleMs"], 0)
        node.unplug()
        shown = first
        while shown["losses"] == 0:
            shown = json.loads(monitor.line())
        self.assertFalse(shown["isUp"])
        node.plug()
        while not shown["isUp"]:
            shown = json.loads(monitor.line())
        self.assertEqual(monitor.end(), 0)

    def test_bench_measures_an_echo(self):
        """In text and in JSON."""
        node = self.device()
        node.echo(1)
        bench = self.run_tool("bench", "1", "--count", "20", "--bytes", "100000", "--json")
        self.assertEqual(bench.wait(), 0)
        told = json.loads(bench.process.stdout.read())
        times = told["roundTripMs"]
        self.assertEqual(times["count"], 20)
        self.assertLess(0, times["min"])
        self.assertLessEqual(times["min"], times["median"])
        self.assertLessEqual(times["median"], times["p99"])
        self.assertEqual(told["throughput"]["bytes"], 100000)
        self.assertGreater(told["throughput"]["bytesPerSecond"], 0)
        bench = self.run_tool("bench", "1", "--count", "20", "--bytes", "1000")
        self.assertEqual(bench.wait(), 0)
        text = bench.process.stdout.read()
        self.assertRegex(text, r"^round trip of 16 bytes, 20 times: min [\d.]+ ms, median [\d.]+ ms, p99 [\d.]+ ms\n")
        self.assertEqual(sum(map(int, re.findall(r"^ +\d+ ms +(\d+) #+$", text, re.M))), 20)
        self.assertRegex(text, r"throughput, both ways at once: [\d.]+ kB/s \(1000 bytes in [\d.]+ s\)\n$")

    def test_bench_says_what_does_not_echo(self):
        """Another answer, and none."""
        node = self.device()
        node.send(1, b"no echo")
        bench = self.run_tool("bench", "1")
        self.assertEqual(bench.wait(), 1)
        self.assertEqual(bench.errors(), "usbhal: port 1 cannot be measured: something else has come back: does the "
                         "port echo?\n")
        bench = self.run_tool("bench", "1")
        self.assertEqual(bench.wait(), 4)
        self.assertEqual(bench.errors(), "usbhal: port 1 cannot be measured: nothing has come back for 10 s: does the "
                         "port echo?\n")

    def test_the_log_has_what_is_told_with_its_time(self):
        """Added to what the file has."""
        for count in (1, 2):
            program = self.run_tool("--log", self.path("log"), "--wait", "0", "cat", "1")
            self.assertEqual(program.wait(), 3)
            with open(self.path("log"), encoding="ascii") as file:
                lines = file.readlines()
            self.assertEqual(len(lines), count)
            self.assertRegex(lines[-1], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} no device for 0 s: ")
        program = self.run_tool("--log", "/nowhere/log", "list")
        self.assertEqual(program.wait(), 1)
        self.assertEqual(program.errors(), "usbhal: cannot write /nowhere/log: No such file or directory; name a file "
                         "that can be written\n")


if __name__ == "__main__":
    unittest.main()
