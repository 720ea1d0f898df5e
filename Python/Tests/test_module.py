# SPDX-License-Identifier: MIT
"""The module as a program calls it, with a device that answers every transfer."""

import os
import signal
import sys
import tempfile
import threading
import time
import unittest

import usbhal
from device import Device, WAIT

BLOCK = bytes(range(256)) * 1000


class ModuleTest(unittest.TestCase):
    """A device that is plugged in, and the host's end of it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.node = Device(self.folder)
        self.device = usbhal.Device("sim:" + self.folder)
        self.addCleanup(self.device.close)

    def port(self, number=1):
        """A port of the device that answers."""
        self.device.wait_connected(WAIT)
        return self.device.port(number)


    def unplug_after(self, data):
        """Pulls the cable when port 1 has received something."""
        self.node.received(1, len(data))
        self.node.unplug()


class Bytes(ModuleTest):
    """Through a port."""

    def test_both_ways(self):
        """More than a transfer holds."""
        port = self.port(9999)
        self.node.echo(9999)
        port.write(BLOCK, WAIT)
        self.assertEqual(self.node.received(9999, len(BLOCK)), BLOCK)
        self.assertEqual(port.readexactly(len(BLOCK), WAIT), BLOCK)
        self.assertEqual((port.number, self.device.is_connected), (9999, True))

    def test_read_returns_what_there_is(self):
        """Up to the size that is asked for."""
        port = self.port()
        self.node.send(1, b"hello")
        self.assertEqual(port.read(3, WAIT), b"hel")
        self.assertEqual(port.read(timeout=WAIT), b"lo")

    def test_no_bytes_are_there_at_once(self):
        """Whether others wait or not."""
        port = self.port()
        self.assertEqual(port.read(0, WAIT), b"")
        self.node.send(1, b"hello")
        self.assertEqual(port.read(1, WAIT), b"h")
        self.assertEqual(port.read(0, WAIT), b"")
        self.assertEqual(port.readexactly(4, WAIT), b"ello")

    def test_lines(self):
        """With their ends; a part of one stays."""
        port = self.port()
        self.node.send(1, b"one\ntwo\nthr")
        self.assertEqual(port.readline(WAIT), b"one\n")
        self.assertEqual(port.readline(WAIT), b"two\n")
        with self.assertRaises(usbhal.TimedOut):
            port.readline(0.1)
        self.node.send(1, b"ee\nrest")
        self.assertEqual(port.readline(WAIT), b"three\n")
        self.assertEqual(port.read(2, WAIT), b"re")
        self.assertEqual(port.readexactly(2, WAIT), b"st")

    def test_ports_do_not_mix(self):
        """Each has its own bytes."""
        one, two = self.port(1), self.port(2)
        self.node.send(2, b"two")
        self.node.send(1, b"one")
        self.assertEqual((one.readexactly(3, WAIT), two.readexactly(3, WAIT)), (b"one", b"two"))

    def test_a_reader_that_takes_nothing_holds_the_device_back(self):
        """Nothing is thrown away."""
        port = self.port()
        self.node.send(1, BLOCK * 8)
        self.assertGreaterEqual(self.node.sent(900000), 900000)
        with self.assertRaises(TimeoutError):
            self.port(2).write(b"late", 0.5)
        self.assertLess(self.node.sent(), 1024 * 1024)
        self.assertEqual(port.readexactly(len(BLOCK) * 8, WAIT), BLOCK * 8)
        self.assertEqual(self.node.received(2, 4), b"late")


class FullPort(ModuleTest):
    """The device is held back as a whole."""

    def setUp(self):
        super().setUp()
        self.full, self.other = self.port(1), self.port(2)
        self.node.send(1, BLOCK * 8)
        self.assertGreaterEqual(self.node.sent(900000), 900000)

    def test_a_loss_is_seen(self):
        """And ends the calls for the other ports."""
        self.node.unplug()
        self.device.wait_disconnected(WAIT)
        with self.assertRaises(usbhal.LinkLost):
            self.other.read(1, WAIT)

    def test_the_end_of_its_port_lets_the_device_go_on(self):
        """What was not read is thrown away."""
        self.full.close()
        self.other.write(b"hello", WAIT)
        self.assertEqual(self.node.received(2, 5), b"hello")
        self.assertEqual(self.node.sent(len(BLOCK) * 8), len(BLOCK) * 8)


class ClosedPort(ModuleTest):
    """It is there for nobody."""

    def test_calls_fail(self):
        """Those that wait, too; closing it again does nothing, and it can be opened again."""
        port = self.port()
        self.node.send(1, b"part of a line")
        closing = threading.Thread(target=port.close)
        closing.start()
        with self.assertRaisesRegex(usbhal.DeviceError, "the port is closed"):
            port.readline(WAIT)
        closing.join()
        port.close()
        with self.assertRaisesRegex(usbhal.DeviceError, "the port is closed"):
            port.write(b"hello", WAIT)
        self.node.forget()
        self.device.port(1).write(b"again", WAIT)
        self.assertEqual(self.node.received(1, 5), b"again")

    def test_after_the_device(self):
        """There is nothing left to close."""
        port = self.port()
        self.device.close()
        port.close()

    def test_one_that_was_never_opened(self):
        """Is not opened by what is written to it."""
        handle = usbhal._library.Handle("sim:" + self.folder)
        self.addCleanup(handle.close)
        for _ in range(2):
            with self.assertRaisesRegex(usbhal.DeviceError, "the port is closed"):
                handle.write(1, b"hello", WAIT)


class Failures(ModuleTest):
    """As exceptions."""

    def test_a_time_that_is_over(self):
        """Of a read, and of a wait for what does not happen."""
        port = self.port()
        with self.assertRaises(usbhal.TimedOut):
            port.read(1, 0.1)
        with self.assertRaises(usbhal.TimedOut):
            self.device.wait_disconnected(0)

    def test_a_lost_link(self):
        """What is on its way is lost; the device is found again."""
        port = self.port()
        self.node.swallow(True)
        threading.Thread(target=self.unplug_after, args=(b"hello",)).start()
        with self.assertRaises(usbhal.LinkLost):
            port.write(b"hello", WAIT)
        with self.assertRaises(usbhal.LinkLost):
            port.read(1, WAIT)
        self.device.wait_disconnected(WAIT)
        self.assertNotEqual(self.device.reason, "")
        self.node.swallow(False)
        self.node.forget()
        self.node.plug()
        self.device.wait_connected(WAIT)
        port.write(b"again", WAIT)
        self.assertEqual(self.node.received(1, 5), b"again")

    def come_back(self):
        """The cable is out, and in again."""
        self.node.unplug()
        self.device.wait_disconnected(WAIT)
        self.node.plug()
        self.device.wait_connected(WAIT)

    def test_a_loss_while_nobody_reads(self):
        """Is what the next read says, once, and not a line of two halves."""
        port = self.port()
        self.node.send(1, b"line\npart")
        self.assertEqual(port.readline(WAIT), b"line\n")
        for text in (b"one\n", b"two\n"):
            self.come_back()
            self.node.send(1, text)
            with self.assertRaises(usbhal.LinkLost):
                port.readline(WAIT)
            self.assertEqual(port.readline(WAIT), text)

    def test_the_last_words_of_a_device(self):
        """Are there until it is back."""
        port = self.port()
        self.node.send(1, b"last words")
        self.assertEqual(port.read(5, WAIT), b"last ")
        self.node.unplug()
        self.device.wait_disconnected(WAIT)
        self.assertEqual(port.read(3, WAIT), b"wor")
        self.node.plug()
        self.device.wait_connected(WAIT)
        with self.assertRaises(usbhal.LinkLost):
            port.read(2, WAIT)

    def test_a_device_that_does_not_answer(self):
        """Has thrown the bytes away."""
        port = self.port()
        self.node.swallow(True)
        with self.assertRaises(usbhal.LinkLost):
            port.write(b"hello", WAIT)

    def test_wrong_names(self):
        """Of a device and of a port."""
        with self.assertRaisesRegex(usbhal.WrongName, "^'ttyUSB0' names no device: "):
            usbhal.Device("ttyUSB0")
        for number in (-1, 10000):
            with self.assertRaises(usbhal.WrongName):
                self.device.port(number)

    def test_what_waiting_cannot_mend(self):
        """Is said at once."""
        with usbhal.Device("sim:/nowhere/at/all") as device:
            with self.assertRaisesRegex(usbhal.DeviceError, "No such file or directory"):
                device.wait_connected()

    def test_a_closed_device(self):
        """Says so; closing it again does nothing."""
        self.device.close()
        self.device.close()
        with self.assertRaisesRegex(usbhal.DeviceError, "the device is closed"):
            self.device.wait_connected(WAIT)

    def test_the_environment_names_the_device(self):
        """Where the program does not."""
        os.environ["USBHAL_DEVICE"] = "sim:/nowhere/at/all"
        self.addCleanup(os.environ.pop, "USBHAL_DEVICE")
        with usbhal.Device() as device:
            with self.assertRaisesRegex(usbhal.DeviceError, "/nowhere/at/all"):
                device.wait_connected()


class Waiting(ModuleTest):
    """A wait holds up neither other threads nor a signal."""

    def test_other_threads_run_meanwhile(self):
        """One writes what the other waits for."""
        port = self.port()
        self.node.echo(1)
        writer = threading.Thread(target=port.write, args=(b"from a thread", WAIT))
        writer.start()
        self.assertEqual(port.readexactly(13, WAIT), b"from a thread")
        writer.join()

    def interrupt(self):
        """Ctrl-C, once the main thread waits in the library."""
        main = threading.main_thread().ident
        end = time.monotonic() + WAIT
        while time.monotonic() < end and sys._current_frames()[main].f_code.co_filename != usbhal._library.__file__:
            time.sleep(0.01)
        os.kill(os.getpid(), signal.SIGINT)

    def test_a_signal_ends_a_wait(self):
        """As Ctrl-C does."""
        port = self.port()
        begin = time.monotonic()
        with self.assertRaises(KeyboardInterrupt):
            threading.Thread(target=self.interrupt).start()
            port.read(1, WAIT)
        self.assertLess(time.monotonic() - begin, WAIT)


if __name__ == "__main__":
    unittest.main()
