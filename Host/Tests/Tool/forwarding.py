# SPDX-License-Identifier: MIT
"""What the tests of `usbhal forward` share."""

import os
import re
import shlex
import socket
import subprocess
import tempfile
import threading
import unittest

from device import Device, WAIT

TOOL = shlex.split(os.environ["USBHAL_TOOL"])


class Program:
    """A running `usbhal`, whose lines can be waited for."""

    def __init__(self, folder, *arguments, environment=None):
        self.process = subprocess.Popen([*TOOL, "--device", "sim:" + folder, *arguments], text=True,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env={**os.environ, "XDG_RUNTIME_DIR": folder, **(environment or {})})
        self._change = threading.Condition()
        self._errors = ""
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def line(self):
        """The next line of standard output."""
        return self.process.stdout.readline()

    def errors(self, pattern=""):
        """All of standard error, as soon as the pattern is in it."""
        with self._change:
            self._change.wait_for(lambda: re.search(pattern, self._errors), WAIT)
            return self._errors

    def end(self):
        """Asks for the end; the exit status."""
        self.process.terminate()
        return self.wait()

    def wait(self):
        """The exit status."""
        status = self.process.wait(WAIT)
        self._reader.join(WAIT)
        return status

    def discard(self):
        """Makes sure that nothing of it stays."""
        self.process.kill()
        self.wait()
        self.process.stdout.close()
        self.process.stderr.close()

    def _read(self):
        for line in self.process.stderr:
            with self._change:
                self._errors += line
                self._change.notify_all()


class ForwardTest(unittest.TestCase):
    """A device in a folder, and programs and sockets that end with the test."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def path(self, name):
        """The path of a file in the folder."""
        return os.path.join(self.folder, name)

    def device(self):
        """A device that is plugged in."""
        return Device(self.folder)

    def run_tool(self, *arguments, environment=None):
        """Starts the program."""
        program = Program(self.folder, *arguments, environment=environment)
        self.addCleanup(program.discard)
        return program

    def forward(self, *arguments, environment=None):
        """The program, and by port where it listens."""
        program = self.run_tool("forward", *arguments, environment=environment)
        places = {}
        for _ in [each for each in arguments if re.search(r":\d+$", each)]:
            _, place, _, _, port = program.line().split()
            places[int(port)] = place
        return program, places

    def connect(self, place):
        """A client of a place."""
        if place.startswith("/"):
            client = socket.socket(socket.AF_UNIX)
            client.settimeout(WAIT)
            client.connect(place)
        else:
            host, port = place.rsplit(":", 1)
            client = socket.create_connection((host.strip("[]"), int(port)), WAIT)
        self.addCleanup(client.close)
        return client

    def receive(self, client, size):
        """So many bytes, or what comes before the end."""
        received = b""
        while len(received) < size:
            more = client.recv(65536)
            if not more:
                break
            received += more
        return received

    def assert_ended(self, client):
        """The other end has ended the connection."""
        try:
            self.assertEqual(client.recv(100), b"")
        except ConnectionResetError:
            pass
