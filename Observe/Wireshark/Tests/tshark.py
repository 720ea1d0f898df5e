# SPDX-License-Identifier: MIT
"""Calls tshark with the dissector and with nothing of the user's."""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
DISSECTOR = HERE.parent / "usbhal.lua"
_NOISE = "Running as user"


class TsharkTest(unittest.TestCase):
    """A test with a folder and a home of its own."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, capture, name="capture.pcap"):
        """Writes a capture; returns its path."""
        path = self.folder / name
        path.write_bytes(capture.bytes())
        return path

    def call(self, path, *options, scripts=(DISSECTOR,), output=subprocess.PIPE):
        """Standard output of tshark, which must not complain."""
        command = ["tshark", "-n", "-r", str(path)]
        for script in scripts:
            command += ["-X", f"lua_script:{script}"]
        home = dict(os.environ, HOME=str(self.folder), XDG_CONFIG_HOME=str(self.folder / "config"))
        called = subprocess.run([*command, *options], env=home, stdout=output, stderr=subprocess.PIPE,
                                text=True, errors="replace", check=False, timeout=170)
        complaints = [row for row in called.stderr.splitlines() if not row.startswith(_NOISE)]
        self.assertEqual((called.returncode, complaints), (0, []))
        self.assertNotIn("Lua Error", called.stdout or "")
        return called.stdout

    def fields(self, path, *names, options=()):
        """Rows of fields; a field is the list of its values."""
        chosen = [word for name in names for word in ("-e", name)]
        text = self.call(path, "-T", "fields", "-E", "separator=/t", "-E", "aggregator=;", *chosen, *options)
        return [[value.split(";") if value else [] for value in row.split("\t")] for row in text.splitlines()]

    def json(self, path, *options):
        """The packets as tshark's JSON tells them, without the frame's own layers."""
        return json.loads(self.call(path, "-T", "json", "--no-duplicate-keys", *options))
