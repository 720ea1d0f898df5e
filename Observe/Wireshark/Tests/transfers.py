# SPDX-License-Identifier: MIT
"""Transfers for the tests: hostile ones out of the fuzzers' corpora, and what a receiver makes of each."""

import pathlib
import random
import re

import usbmon

ROOT = pathlib.Path(__file__).resolve().parents[3]
_CORPORA = [ROOT / "Tests" / "Fuzz" / place / name for place in ("Corpus", "Regressions")
            for name in ("core", "hostpeer", "messages")]
_PIECES = [usbmon.NO_DATA, usbmon.DELAY, b"FADA", b"DEVICE_CONN", b"00004", b"00015", b"99999", b"-0004", b" 0007", b"\0"]
LONGEST = 2000

NO_DATA, MAX_READ_SIZE, DELAY, DATA, PORT_OPENED, REJECTED = range(1, 7)


def corpus():
    """The files of the corpora as they are, each a transfer."""
    files = [file for folder in _CORPORA if folder.is_dir() for file in sorted(folder.iterdir())]
    assert len(files) > 50, files
    return [data[:LONGEST] for data in (file.read_bytes() for file in files) if data]


def hostile(count, seed):
    """Transfers made of the corpora by cutting, joining and changing."""
    source = random.Random(seed)
    base = corpus()
    for _ in range(count):
        data = bytearray(source.choice(base))
        for _ in range(source.randrange(4)):
            _change(data, source)
        yield bytes(data[:LONGEST]) or b"\0"


def _change(data, source):
    place = source.randrange(len(data) + 1)
    action = source.randrange(4)
    if action == 0:
        data[place:place] = source.choice(_PIECES)
    elif action == 1:
        data[place:place] = usbmon.data(source.randrange(10000), bytes(source.randrange(20)))
    elif action == 2:
        del data[place:place + source.randrange(1, 10)]
    else:
        data[place:place + 1] = bytes([source.randrange(256)])


def received(data, from_host):
    """(kind, port or None, consumed or None) of each message, worked out by the rules of the page on the wire."""
    told = []
    while data:
        kind, port, size = _first(data, from_host)
        told.append((kind, port, None if kind == REJECTED else size))
        data = data[size:]
    return told


def _first(data, from_host):
    if not from_host and re.match(rb"DEVICE_NODATA[0-9]{5}", data):
        return MAX_READ_SIZE, None, 18
    if data.startswith(usbmon.NO_DATA):
        return NO_DATA, None, 13
    if data == usbmon.DELAY:
        return DELAY, None, 13
    head = re.match(rb"FADA([0-9]{5})([0-9]{4})", data)
    if not head or not 4 <= int(head[1]) <= len(data) - 9:
        return REJECTED, None, len(data)
    size = int(head[1]) + 9
    opened = data[13:size] == b"DEVICE_CONN"
    return PORT_OPENED if opened else DATA, int(head[2]), size
