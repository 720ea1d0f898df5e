# SPDX-License-Identifier: MIT
"""Prints the lines of a log, chosen and coloured."""

import calendar
import datetime
import re

from . import reading, texts

_COLOURS = {"bad": "31;1", "warn": "33", "good": "32", "plain": None}
_FORMS = ("%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%d-%m-%Y %H:%M:%S", "%d-%m-%Y %H:%M", "%Y-%m-%d")
_UNITS = {"s": 1, "m": 60, "h": 3600, "d": 86400}


def parse_since(text, now=None):
    """Seconds as records count them: of a date and time, of a time today, or of a time ago (10m).

    Raises ValueError.
    """
    now = now or datetime.datetime.now()
    if ago := re.fullmatch(r"(\d+)([smhd])", text):
        return _seconds(now - datetime.timedelta(seconds=int(ago[1]) * _UNITS[ago[2]]))
    if re.fullmatch(r"\d?\d:\d\d(:\d\d)?", text):
        text = now.strftime("%Y-%m-%d ") + text
    for form in _FORMS:
        try:
            return _seconds(datetime.datetime.strptime(text.replace("T", " "), form))
        except ValueError:
            continue
    raise ValueError(f"'{text}' is no time; it should be like 12:30, 2026-11-22 12:30:05 or 10m")


def _seconds(moment):
    return calendar.timegm(moment.timetuple())


def chosen(records, port=None, since=None, function=None):
    """The records of that port, from that time on, of that function; None chooses all."""
    for record in records:
        if port is not None and record.port != port:
            continue
        if since is not None and record.time < since:
            continue
        if function is not None and record.function != function:
            continue
        yield record


def coloured(record):
    """The record's line for a terminal."""
    colour = _COLOURS[texts.severity(record.kind)]
    text = reading.printable(record.text)
    head = f"\033[2m{reading.printable(record.head)}\033[0m"
    return f"{head}\033[{colour}m{text}\033[0m" if colour else head + text


def plain(record):
    """The record's line as it is, but for control characters."""
    return reading.printable(record.head + record.text)


def show(records, out, colour):
    """Prints records."""
    form = coloured if colour else plain
    for record in records:
        print(form(record), file=out)

