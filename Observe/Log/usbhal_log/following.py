# SPDX-License-Identifier: MIT
"""Follows a log that is still written, through its rotation and the start of a next run."""

import os
import time

from . import reading

POLL_PERIOD = 0.1  # seconds
SETTLE_PERIOD = 0.3  # seconds after which a line is told though no other line has ended it


class Follower:
    """Yields the records of a folder's current run as they come."""

    def __init__(self, folder, pause=time.sleep):
        self._folder = folder
        self._pause = pause
        self._file = None
        self._stream = None
        self._identity = None
        self._parser = None
        self._partial = b""
        self._last_byte = 0.0

    def records(self):
        """Endless: first what is there, then what comes."""
        while True:
            if self._stream is None and not self._open_first():
                self._pause(POLL_PERIOD)
                continue
            yield from self._read_new()
            if self._superseded():
                yield from self._read_new()
                yield from self._finish()
                self._open_next()
            else:
                yield from self._settle()
                self._pause(POLL_PERIOD)

    def _files(self):
        try:
            files = reading.logs_in([self._folder])
        except reading.LogError:
            return []
        return [file for file in files if not file.kept and not file.compression]

    def _open_first(self):
        files = self._files()
        return bool(files) and self._open(files[0])

    def _open(self, file):
        try:
            self._stream = open(file.path, "rb")
        except FileNotFoundError:  # rotation was quicker
            return False
        self._file = file
        status = os.fstat(self._stream.fileno())
        self._identity = (status.st_dev, status.st_ino)
        self._parser = reading.Parser(file)
        return True

    def _read_new(self):
        while line := self._stream.readline(reading.LONGEST_LINE):
            self._last_byte = time.monotonic()
            self._partial += line
            if not self._partial.endswith(b"\n") and len(self._partial) < reading.LONGEST_LINE:
                continue
            record = self._parser.feed(self._partial)
            self._partial = b""
            if record:
                yield record

    def _settle(self):
        if time.monotonic() - self._last_byte >= SETTLE_PERIOD:
            if record := self._parser.end():
                yield record

    def _finish(self):
        if self._partial:
            if record := self._parser.feed(self._partial):
                yield record
            self._partial = b""
        if record := self._parser.end():
            yield record

    # A file that is followed by another is complete; one that has lost its name is of the run before.
    def _superseded(self):
        files = self._files()
        places = [at for at, file in enumerate(files) if _identity(file.path) == self._identity]
        return bool(files) and (not places or places[0] + 1 < len(files))

    def _open_next(self):
        files = self._files()
        places = [at for at, file in enumerate(files) if _identity(file.path) == self._identity]
        self._stream.close()
        self._stream = None
        following = files[places[0] + 1:] if places else files
        if following:
            self._open(following[0])


def _identity(path):
    try:
        status = os.stat(path)
    except FileNotFoundError:
        return None
    return status.st_dev, status.st_ino
