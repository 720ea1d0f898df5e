# SPDX-License-Identifier: MIT
"""`usbhal forward` as a device, its clients and a service manager see it."""

import os
import resource
import signal
import socket
import unittest

from device import WAIT
from forwarding import ForwardTest

BLOCK = bytes(range(256)) * 1000


class Tunnels(ForwardTest):
    """Bytes through TCP and UNIX sockets."""

    def check_both_ways(self, place, port):
        """A client and the device exchange more than a transfer holds."""
        client = self.connect(place)
        client.sendall(BLOCK)
        self.assertEqual(self.node.received(port, len(BLOCK)), BLOCK)
        self.node.send(port, BLOCK[::-1])
        self.assertEqual(self.receive(client, len(BLOCK)), BLOCK[::-1])

    def setUp(self):
        super().setUp()
        self.node = self.device()

    def test_several_forwards_in_one_line(self):
        """TCP of both kinds, by number and by name, and a UNIX socket."""
        program, places = self.forward("0:1", "localhost:0:2", "[::1]:0:3", f"unix:{self.path('log')}:9999")
        self.assertRegex(places[1], r"^127\.0\.0\.1:\d+$")
        self.assertRegex(places[3], r"^\[::1\]:\d+$")
        self.assertEqual(places[9999], self.path("log"))
        for port, place in places.items():
            with self.subTest(place=place):
                self.check_both_ways(place, port)
        self.assertEqual(program.end(), 0)
        self.assertNotIn("may not have reached", program.errors())

    def test_a_unix_socket_is_for_the_user_alone_and_removed_at_the_end(self):
        """Whatever the umask."""
        program, places = self.forward(f"unix:{self.path('log')}:1")
        self.assertEqual(os.stat(places[1]).st_mode & 0o077, 0)
        self.assertEqual(program.end(), 0)
        self.assertFalse(os.path.exists(places[1]))

    def test_a_killed_program_leaves_nothing_that_hinders_the_next(self):
        """The socket is still there, and replaced."""
        program, places = self.forward(f"unix:{self.path('log')}:1")
        program.process.kill()
        program.wait()
        self.assertTrue(os.path.exists(places[1]))
        program, places = self.forward(f"unix:{self.path('log')}:1")
        self.check_both_ways(places[1], 1)


class Clients(ForwardTest):
    """One at a time, for as long as it has something to do."""

    def setUp(self):
        super().setUp()
        self.node = self.device()

    def begin(self, *options):
        """A forward of port 1 with a client that is served."""
        self.program, places = self.forward("0:1", *options)
        self.place = places[1]
        return self.served()

    def served(self):
        """A client that has reached the device."""
        client = self.connect(self.place)
        self.node.forget()
        client.sendall(b"hello")
        self.assertEqual(self.node.received(1, 5), b"hello")
        return client

    def test_a_second_client_is_refused_by_name_of_the_first(self):
        """The first is not disturbed."""
        first = self.begin()
        name = "%s:%d" % first.getsockname()
        second = self.connect(self.place)
        self.assert_ended(second)
        self.assertRegex(self.program.errors("in use"),
                         rf"usbhal: refused 127\.0\.0\.1:\d+: port 1 is in use by {name}\n")
        first.sendall(b", device")
        self.assertEqual(self.node.received(1, 13), b"hello, device")

    def test_a_client_that_has_sent_all_gets_its_answer(self):
        """And then its end, which makes room for the next."""
        client = self.begin("--linger", "20")
        client.shutdown(socket.SHUT_WR)
        self.node.send(1, BLOCK)
        self.assertEqual(self.receive(client, len(BLOCK)), BLOCK)
        self.assert_ended(client)
        self.served()

    def test_the_next_waits_for_one_that_is_about_to_go(self):
        """It is not refused."""
        self.begin("--linger", "1").close()
        self.served()
        self.assertNotIn("refused", self.program.errors())

    def test_clients_that_come_and_go_leave_nothing(self):
        """No descriptor, and no client that is not served."""
        self.begin("--linger", "0").close()
        folder = f"/proc/{self.program.process.pid}/fd"
        self.served().close()
        before = len(os.listdir(folder))
        for _ in range(100):
            self.served().close()
        self.assertLessEqual(len(os.listdir(folder)), before + 2)

    def test_a_client_that_breaks_its_connection_is_told(self):
        """The next is served."""
        client = self.begin()
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\x01\0\0\0\0\0\0\0")
        client.close()
        self.assertRegex(self.program.errors("broken"),
                         r"usbhal: 127\.0\.0\.1:\d+ has broken its connection to port 1\n")
        self.served()

    def test_a_client_that_reads_nothing_holds_the_device_back(self):
        """What it does not read is not thrown away, and not kept without bound."""
        client = self.begin()
        self.node.send(1, BLOCK * 80)
        self.program.errors("takes nothing")
        kept = self.node.sent()
        self.assertLess(kept, len(BLOCK) * 80)
        received = self.receive(client, len(BLOCK) * 80)
        self.assertEqual(len(received), len(BLOCK) * 80)
        self.assertEqual(received, BLOCK * 80)

    def test_bytes_without_a_client_are_thrown_away(self):
        """The next client gets none of them."""
        self.begin("--linger", "0").close()
        self.served().close()
        self.node.send(1, b"to nobody")
        self.assertEqual(self.node.sent(9), 9)
        client = self.served()
        self.node.send(1, b"to you")
        self.assertEqual(self.receive(client, 6), b"to you")


class LostLink(ForwardTest):
    """The device goes and comes back, and the sockets stay."""

    def setUp(self):
        super().setUp()
        self.node = self.device()

    def lose(self, *options):
        """A forward of port 1 whose client has sent ten bytes that were not answered."""
        self.program, places = self.forward("0:1", *options)
        self.place = places[1]
        client = self.connect(self.place)
        client.sendall(b"hello")
        self.assertEqual(self.node.received(1, 5), b"hello")
        self.node.send(1, b"hello, host")
        self.assertEqual(self.receive(client, 11), b"hello, host")
        self.node.swallow(True)
        client.sendall(b"0123456789")
        self.node.received(1, 15)
        return client

    def come_back(self):
        """The device is plugged in again."""
        self.node.swallow(False)
        self.node.forget()
        self.node.plug()
        self.program.errors("the device is back")

    def test_clients_see_the_end_and_the_loss_is_counted(self):
        """Later clients are served again."""
        client = self.lose()
        self.node.unplug()
        self.assert_ended(client)
        errors = self.program.errors("port 1: (.|\n)*is lost|is lost(.|\n)*port 1:")
        self.assertRegex(errors, r"usbhal: the link is lost: .*; waiting for the device\n")
        self.assertIn("usbhal: port 1: 10 bytes may not have reached the device\n", errors)
        self.come_back()
        self.connect(self.place).sendall(b"again")
        self.assertEqual(self.node.received(1, 5), b"again")

    def test_without_the_device_clients_are_refused(self):
        """With the reason."""
        self.lose()
        self.node.unplug()
        self.program.errors("port 1:")
        client = self.connect(self.place)
        self.assert_ended(client)
        self.assertRegex(self.program.errors("refused"), r"refused 127\.0\.0\.1:\d+: the device is not there\n")

    def test_clients_that_hold_go_on_with_what_was_not_sent(self):
        """What was on its way is lost and counted."""
        client = self.lose("--on-lost", "hold")
        client.sendall(b"held")
        self.node.unplug()
        self.program.errors("10 bytes may not have reached")
        self.come_back()
        self.assertEqual(self.node.received(1, 4), b"held")
        self.node.send(1, b"welcome back")
        self.assertEqual(self.receive(client, 12), b"welcome back")

    def test_a_client_that_comes_meanwhile_is_held(self):
        """It is served when the device is there."""
        self.node.unplug()
        program, places = self.forward("0:1", "--on-lost", "hold")
        client = self.connect(places[1])
        client.sendall(b"early")
        self.assertIn("waiting for the device sim:", program.errors("waiting"))
        self.node.plug()
        self.assertEqual(self.node.received(1, 5), b"early")

    def test_a_device_that_does_not_answer_ends_the_client(self):
        """There is a gap in what it sent."""
        client = self.lose()
        self.assert_ended(client)
        self.assertIn("10 bytes may not have reached the device", self.program.errors("10 bytes"))


class BadInput(ForwardTest):
    """One sentence on standard error, and the exit status."""

    def check(self, arguments, status, text):
        """The program ends by itself."""
        program = self.run_tool("forward", *arguments)
        self.assertEqual(program.wait(), status)
        self.assertIn(text, program.errors())

    def test_wrong_command_lines(self):
        """The word, what is wrong with it, and how it should be."""
        form = "; write [BIND:]LOCAL:PORT or unix:PATH:PORT\n"
        for word, reason in (("8080", "the port of the device is missing"),
                             ("8080:10000", "'10000' is no port of the device of 0 to 9999"),
                             ("8080:", "'' is no port of the device of 0 to 9999"),
                             ("8080:1x", "'1x' is no port of the device of 0 to 9999"),
                             ("65536:1", "'65536' is no local port of 0 to 65535"),
                             ("localhost:http:1", "'http' is no local port of 0 to 65535"),
                             (":8080:1", "the address to bind is empty"), ("unix::1", "the path is missing")):
            with self.subTest(word=word):
                self.check([word], 2, f"usbhal: '{word}' names no forward: {reason}{form}")
        self.check(["0:1", "0:1"], 2, "usbhal: port 1 is forwarded twice")
        self.check([], 2, "FORWARD is required")
        self.check(["0:1", "--on-lost", "wait"], 2, "wait")

    def test_a_local_port_in_use(self):
        """Or a path."""
        with socket.create_server(("127.0.0.1", 0)) as other:
            place = "127.0.0.1:%d" % other.getsockname()[1]
            self.check([place + ":1"], 1, f"usbhal: cannot listen on {place}: Address already in use; choose another "
                       "local port, or 0 for a free one\n")
        path = self.path("taken")
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(path)
            other.listen()
            self.check([f"unix:{path}:1"], 1, f"usbhal: cannot listen on {path}: Address already in use; choose "
                       "another path\n")

    def test_a_file_is_not_taken_for_a_socket(self):
        """It stays as it is."""
        path = self.path("file")
        with open(path, "w", encoding="ascii") as file:
            file.write("precious")
        self.check([f"unix:{path}:1"], 1, f"cannot listen on {path}: Address already in use")
        with open(path, encoding="ascii") as file:
            self.assertEqual(file.read(), "precious")

    def test_places_that_are_none(self):
        """A name that does not resolve, an address of another machine, a path that is too long."""
        self.check(["no.such.name.invalid:0:1"], 1, "usbhal: cannot find the address no.such.name.invalid: ")
        self.check(["192.0.2.1:0:1"], 1, "usbhal: cannot listen on 192.0.2.1:0: Cannot assign requested address")
        self.check(["unix:/" + 200 * "x" + ":1"], 1, "is longer than a socket's path may be\n")

    def test_what_waiting_cannot_mend(self):
        """A folder that does not exist."""
        self.folder += "/nowhere"
        self.check(["0:1"], 1, "/nowhere/host: No such file or directory")


class Service(ForwardTest):
    """As a service manager sees it."""

    def notices(self, socket_name):
        """What is sent to the manager, a notice at a time."""
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.settimeout(WAIT)
        manager.bind(socket_name)
        return manager

    def test_readiness_signs_of_life_and_the_end(self):
        """With a device and without, the program is ready and lives."""
        for name in (self.path("manager"), "\0usbhal-test-" + self.path("manager")):
            with self.subTest(name=name):
                manager = self.notices(name)
                program, _ = self.forward("0:1", environment={"NOTIFY_SOCKET": name.replace("\0", "@"),
                                                              "WATCHDOG_USEC": "300000"})
                self.assertEqual(manager.recv(1000), b"READY=1")
                told = [manager.recv(1000) for _ in range(4)]
                self.assertIn(b"STATUS=Waiting for the device", told)
                self.assertGreater(told.count(b"WATCHDOG=1"), 1)
                self.assertEqual(program.end(), 0)
                while told[-1] != b"STOPPING=1":
                    told.append(manager.recv(1000))

    def test_the_watchdog_of_another_process_is_not_served(self):
        """Of the program's parent, for example."""
        self.device()
        manager = self.notices(self.path("manager"))
        program, _ = self.forward("0:1", environment={"NOTIFY_SOCKET": self.path("manager"),
                                                      "WATCHDOG_USEC": "1000", "WATCHDOG_PID": "1"})
        told = [manager.recv(1000) for _ in range(3)]
        self.assertEqual(told, [b"READY=1", b"STATUS=Waiting for the device", b"STATUS=Forwarding"])
        program.process.send_signal(signal.SIGINT)
        self.assertEqual(program.wait(), 0)
        self.assertEqual(manager.recv(1000), b"STOPPING=1")


class Descriptors(ForwardTest):
    """There are no more."""

    def setUp(self):
        super().setUp()
        if os.environ.get("USBHAL_SANITIZE"):
            reason = "a sanitizer takes descriptors itself, to look at an object"
            print(f"SKIP   : {self.id()}: {reason}", flush=True)
            self.skipTest(reason)

    def test_a_client_waits_when_there_is_no_descriptor(self):
        """Until there is one again."""
        node = self.device()
        program, places = self.forward("0:1", "0:2", "--linger", "0")
        first = self.connect(places[1])
        first.sendall(b"hello")
        self.assertEqual(node.received(1, 5), b"hello")
        self.limit(program.process.pid)
        second = self.connect(places[2])
        second.sendall(b"patient")
        self.assertRegex(program.errors("cannot"), r"cannot accept a client on .*: Too many open files; it has to wait\n")
        first.close()
        self.assertEqual(node.received(2, 7), b"patient")

    def limit(self, process):
        """Lets a process have no more descriptors than it has."""
        taken = set(map(int, os.listdir(f"/proc/{process}/fd")))
        limit = min(set(range(len(taken) + 1)) - taken)
        resource.prlimit(process, resource.RLIMIT_NOFILE, (limit, limit))


if __name__ == "__main__":
    unittest.main()
