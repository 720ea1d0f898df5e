# SPDX-License-Identifier: MIT
"""Finds the files of a log, brings them into the order in which they were written, reads lines."""

import bz2
import calendar
import dataclasses
import gzip
import lzma
import pathlib
import re
import time

from . import texts

LAST_INDEX = 30000
LONGEST_LINE = 1 << 16  # bytes; what is longer is read in pieces
LONGEST_TEXT = 4096  # characters that a record keeps of a text that goes on over several lines

_NAME = re.compile(r"UsbHal(\d+)\.log(\.keep)?(\.gz|\.xz|\.bz2)?", re.IGNORECASE)
_OPENERS = {".gz": gzip.open, ".xz": lzma.open, ".bz2": bz2.open, None: open}
_HEAD = re.compile(
    r"(\d\d-\d\d-\d{4} \d\d:\d\d:\d\d):(\d{3}) \[THREAD (-?\d+)\] \[([^:\]\s]*):(\d+)\] (.*)", re.DOTALL)
_LAST_LINE = re.compile(
    r"(\d\d-\d\d-\d{4} \d\d:\d\d:\d\d):(\d{3})(ERROR: couldn't open new log file, stop logging !)")


class LogError(Exception):
    """What keeps the log from being read: one sentence for the user."""


@dataclasses.dataclass
class LogFile:
    """One file of a log."""
    path: pathlib.Path
    index: int
    kept: bool
    compression: str = None

    def open(self):
        """The file's bytes, unpacked."""
        return _OPENERS[self.compression](self.path, "rb")


@dataclasses.dataclass
class Record:
    """One line of the log, with the lines that a line break in its text has made of it."""
    time: float  # seconds of local time since 1970, as if it were UTC
    thread: int
    function: str
    text: str
    head: str  # the line as far as its text
    kind: str = None
    fields: dict = dataclasses.field(default_factory=dict)
    file: LogFile = None
    further: int = 0  # lines that follow and belong to it
    whole: bool = True  # false of what has no head or no end

    @property
    def port(self):
        """The port that the line tells of, or None."""
        port = self.fields.get("port")
        return None if port is None else int(port)


def logs_in(paths):
    """The files of the given folders and the given files, in the order in which they were written."""
    files = [file for path in paths for file in _files_at(pathlib.Path(path))]
    if not files:
        names = ", ".join(str(path) for path in paths)
        raise LogError(f"There is no UsbHal<n>.log in {names}; give the folder that logDir names.")
    return in_order([f for f in files if f.kept]) + in_order([f for f in files if not f.kept])


def _files_at(path):
    if path.is_dir():
        return [file for file in map(_log_file, sorted(path.iterdir())) if file]
    if not path.exists():
        raise LogError(f"{path} does not exist; give the folder that logDir names.")
    file = _log_file(path)
    if not file:
        raise LogError(f"{path} is not named like a log, UsbHal<n>.log, with .keep, .gz, .xz or .bz2 behind.")
    return [file]


def _log_file(path):
    found = _NAME.fullmatch(path.name)
    if not found or not path.is_file():
        return None
    compression = found[3].lower() if found[3] else None
    return LogFile(path, int(found[1]), bool(found[2]), compression)


def in_order(files):
    """Numbers go from 1 to 30000 and then from 1 again: the row begins behind its widest gap."""
    files = sorted(files, key=lambda file: file.index)
    if len(files) < 2:
        return files
    gaps = [(files[at].index - files[at - 1].index) % LAST_INDEX for at in range(len(files))]
    begin = max(range(len(files)), key=lambda at: (gaps[at], at == 0))
    row = files[begin:] + files[:begin]
    # File 30000 stays when the numbers begin anew, until they come by again.
    if row[-1].index == LAST_INDEX and first_time(row[-1]) < first_time(row[0]):
        row.insert(0, row.pop())
    return row


def first_time(file):
    """The time of the first line that has one, or 0."""
    for record in read_file(file):
        if record.whole:
            return record.time
    return 0.0


def missing_between(earlier, later):
    """How many files of one run are missing between two that follow each other."""
    if earlier.kept != later.kept:
        return 0
    return (later.index - earlier.index) % LAST_INDEX - 1


class Clock:
    """Turns dates into seconds; those of one second follow each other, so the last is kept."""

    def __init__(self):
        self._text = None
        self._seconds = 0

    def seconds(self, text):
        """Seconds since 1970 of a date of the log, without its milliseconds."""
        if text != self._text:
            self._seconds = calendar.timegm(time.strptime(text, "%d-%m-%Y %H:%M:%S"))
            self._text = text
        return self._seconds


class Parser:
    """Makes records of lines. A record is complete when the next one begins."""

    def __init__(self, file=None):
        self._file = file
        self._clock = Clock()
        self._pending = None

    def feed(self, line):
        """Takes one line; returns the record before it, or None while that goes on."""
        text = line.decode("utf-8", "replace").lstrip("\0")
        complete = text.endswith("\n")
        record = self._begin(text[:-1] if complete else text)
        if record is None:
            return self._continue(text[:-1] if complete else text)
        record.whole = complete
        done, self._pending = self._pending, record
        return _recognised(done)

    def end(self):
        """The last record, or None."""
        done, self._pending = self._pending, None
        return _recognised(done)

    def _begin(self, text):
        found = _HEAD.fullmatch(text)
        try:
            if found:
                seconds = self._clock.seconds(found[1]) + int(found[2]) / 1000
                head = text[:found.start(6)]
                return Record(seconds, int(found[3]), found[4], found[6], head, file=self._file)
            found = _LAST_LINE.fullmatch(text)
            if found:
                seconds = self._clock.seconds(found[1]) + int(found[2]) / 1000
                return Record(seconds, 0, "-", found[3], text[:found.start(3)], file=self._file)
        except ValueError:  # no such day
            pass
        return None

    def _continue(self, text):
        if self._pending is None:  # the file begins in the middle of a line
            self._pending = Record(0.0, 0, "", text, "", file=self._file, whole=False)
            return None
        self._pending.further += 1
        room = LONGEST_TEXT - len(self._pending.text)
        if room > 0:
            self._pending.text += ("\n" + text)[:room]
        return None


def _recognised(record):
    if record:
        record.kind, record.fields = texts.recognise(record.function, record.text)
    return record


def read_file(file):
    """The records of one file."""
    parser = Parser(file)
    try:
        with file.open() as stream:
            while line := stream.readline(LONGEST_LINE):
                if record := parser.feed(line):
                    yield record
    except (OSError, EOFError, lzma.LZMAError) as error:
        if record := parser.end():
            yield record
        raise LogError(f"{file.path} cannot be read: {error}; the lines before are told.") from error
    if record := parser.end():
        yield record


def read_logs(files):
    """The records of all files, one after the other."""
    for file in files:
        yield from read_file(file)


def printable(text):
    """A text for a terminal or a page: what a host has sent must not steer either of them."""
    if text.isprintable():
        return text
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)


def date_text(seconds):
    """A time of a record as people read it."""
    moment = time.gmtime(int(seconds))
    return time.strftime("%Y-%m-%d %H:%M:%S", moment) + f".{round(seconds % 1 * 1000) % 1000:03d}"
