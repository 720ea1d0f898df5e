# SPDX-License-Identifier: MIT
"""Lets the tests import the program's modules, which lie beside them in the tree."""

import pathlib
import sys

LOG = pathlib.Path(__file__).resolve().parents[1]
PROGRAM = LOG / "usbhal-log"
VERSION = LOG.parents[1] / "Scripts" / "version"
sys.path.insert(0, str(LOG))
