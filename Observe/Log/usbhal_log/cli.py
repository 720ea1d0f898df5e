# SPDX-License-Identifier: MIT
"""The command line of usbhal-log."""

import argparse
import json
import os
import pathlib
import sys

from . import collecting, findings, following, reading, reporting, showing, summary, version

ATTENTION = 1
WRONG = 2


def main(arguments=None):
    """Runs the program. Returns its exit status: 0, 1 when something needs attention, 2 for a failure."""
    options = _parser().parse_args(arguments)
    try:
        return options.run(options) or 0
    except reading.LogError as error:
        print(f"usbhal-log: {error}", file=sys.stderr)
        return WRONG
    except BrokenPipeError:  # whoever read along has seen enough
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    except KeyboardInterrupt:
        return 0


def _parser():
    parser = argparse.ArgumentParser(
        prog="usbhal-log", description="Shows, sums up, draws and packs the log of the UsbHal library.")
    parser.add_argument("--version", action="version", version=f"usbhal-log {version.version()}",
                        help="print the version and exit")
    commands = parser.add_subparsers(required=True, metavar="COMMAND")
    _add_show(_command(commands, "show", _show, "print the log's lines in their order"))
    command = _command(commands, "summary", _summary, "sum up each run; exit status 1 when something needs attention")
    command.add_argument("--json", action="store_true", help="print it as JSON")
    command = _command(commands, "report", _report, "draw the log as one HTML page", target="FILE.html")
    command = _command(commands, "collect", _collect, "pack the log without payloads", target="FILE.tar.gz")
    return parser


def _command(commands, name, run, text, target=None):
    command = commands.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".")
    command.set_defaults(run=run)
    if target:
        command.add_argument("target", metavar=target, help="the file to write")
    command.add_argument("paths", metavar="PATH", nargs="*", default=["."],
                         help="folders of logs or files of a log; the working directory by default")
    return command


def _add_show(command):
    command.add_argument("--port", type=int, metavar="N", help="only lines that tell of port N")
    command.add_argument("--since", type=_since, metavar="T",
                         help="only lines from that time on: 12:30, 2026-11-22 12:30:05, or 10m for 10 minutes ago")
    command.add_argument("--function", metavar="NAME", help="only lines of that function of the library")
    command.add_argument("--follow", action="store_true", help="go on with what is written, until interrupted")
    command.add_argument("--color", choices=("auto", "always", "never"), default="auto",
                         help="colours, by default on a terminal")


def _since(text):
    try:
        return showing.parse_since(text)
    except ValueError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def _show(options):
    if options.follow and len(options.paths) != 1:
        raise reading.LogError("--follow takes one folder; give the one that logDir names.")
    sys.stdout.reconfigure(errors="replace", line_buffering=options.follow)
    if options.follow:
        records = following.Follower(options.paths[0]).records()
    else:
        records = reading.read_logs(reading.logs_in(options.paths))
    colour = options.color == "always" or options.color == "auto" and sys.stdout.isatty()
    showing.show(showing.chosen(records, options.port, options.since, options.function), sys.stdout, colour)


def _summary(options):
    total = summary.summarise(reading.read_logs(reading.logs_in(options.paths)))
    runs = [summary.as_data(run) for run in total.runs]
    attention = False
    for run in runs:
        found = findings.findings_of(run)
        run["findings"] = [{"text": f.text, "page": f.link} for f in found]
        attention = attention or bool(found)
        if not options.json:
            print(summary.as_text(run))
            print("\n".join(f"  ! {f.text} See {f.link}" for f in found) or "  Nothing needs attention.")
    if options.json:
        json.dump(runs, sys.stdout, indent=2)
        print()
    return ATTENTION if attention else 0


def _report(options):
    files = reading.logs_in(options.paths)
    place = pathlib.Path(options.paths[0]).resolve()
    page = reporting.report(reading.read_logs(files), f"Log of UsbHal in {place.name}")
    try:
        pathlib.Path(options.target).write_text(page, encoding="utf-8")
    except OSError as error:
        raise reading.LogError(f"{options.target} cannot be written: {error.strerror}; name another file.") from error


def _collect(options):
    collecting.collect(reading.logs_in(options.paths), options.target)
    print(f"{options.target} is ready to be sent; it holds no payload.")
