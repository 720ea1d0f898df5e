#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Reports what a campaign has counted, for the scripts that run campaigns.

The figures are in the file that the environment's USBHAL_FIGURES names, a line of JSON each; what tools that
write no JSON have counted is read from their logs.
"""

import argparse
import datetime
import os
import pathlib
import platform
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent / "Support"))
import figures  # pylint: disable=wrong-import-position

HEAD = """# Figures of the campaigns

What `Scripts/campaign long` ran and counted, campaign by campaign, with the date, the time
it took and the state of the sources.

Machine: {machine}, {memory:.0f} GiB, {system}.
Compilers: {gcc}; {clang}.

"""


def figures_of_fuzzer(target, log):
    """What libFuzzer says at its end."""
    found = {"executions": re.search(r"^stat::number_of_executed_units: *(\d+)$", log, re.MULTILINE),
             "coverage edges": re.search(r"DONE *cov: (\d+)", log)}
    missing = [what for what, match in found.items() if not match]
    if missing:
        sys.exit(f"campaign.py: the log of the fuzzer {target} does not tell its {' and '.join(missing)}")
    return [(f"fuzz {target} {what}", int(match[1])) for what, match in found.items()]


def figures_of_ctest(log):
    """What ctest says at its end; none in the log of anything else."""
    return [pair for failed, tests in re.findall(
        r"^\d+% tests passed, (\d+) tests failed out of (\d+)$", log, re.MULTILINE)
        for pair in (("ctest entries", int(tests)), ("ctest entries failed", int(failed)))]


def text_of(value):
    """A count without a fraction, anything else with six digits."""
    return str(int(value)) if value == int(value) else f"{value:g}"


def section(options, found):
    """What the document says of the campaign."""
    rows = "".join(f"| {name} | {text_of(value)} |\n" for name, value in found)
    minutes, seconds = divmod(options.seconds, 60)
    return (f"## {options.name}: {options.result}\n\n"
            f"{datetime.date.today().isoformat()}, {minutes} min {seconds} s, at {options.sources}.\n\n"
            f"| what | figure |\n|---|---|\n{rows}\n")


def sections_with(text, name, new):
    """The sections of a document, the new one in the place of the campaign's former or at the end."""
    sections = re.findall(r"^## .*?(?=^## |\Z)", text, re.MULTILINE | re.DOTALL)
    names = [former.partition(":")[0] for former in sections]
    if f"## {name}" not in names:
        return sections + [new]
    sections[names.index(f"## {name}")] = new
    return sections


def head():
    """What all campaigns were run on."""
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return HEAD.format(machine=figures.machine(), memory=memory,
                       system=platform.freedesktop_os_release()["PRETTY_NAME"],
                       gcc=figures.first_line_of("g++", "--version"),
                       clang=figures.first_line_of("clang++", "--version"))


def report(options):
    """Prints the figures of a campaign, and brings the document up to date."""
    log = options.log.read_text(encoding="utf-8", errors="replace")
    found = figures.recorded(pathlib.Path(os.environ["USBHAL_FIGURES"])) + figures_of_ctest(log)
    for name, value in found:
        print(f"{name}: {text_of(value)}")
    print(f"{options.name}: {options.result} in {options.seconds} s")
    if options.document:
        former = options.document.read_text(encoding="utf-8") if options.document.exists() else ""
        sections = sections_with(former, options.name, section(options, found))
        options.document.write_text(head() + "".join(sections), encoding="utf-8")


def fuzzer(options):
    """Prints the figures of a fuzzer, and records them where figures are wanted."""
    for name, value in figures_of_fuzzer(options.target, options.log.read_text(encoding="utf-8", errors="replace")):
        print(f"{name}: {value}")
        if "USBHAL_FIGURES" in os.environ:
            figures.record(pathlib.Path(os.environ["USBHAL_FIGURES"]), name, value)


def arguments():
    """The command line's."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(required=True)
    command = commands.add_parser("report", help="print the figures of a campaign")
    command.add_argument("--document", type=pathlib.Path, help="the page to bring up to date")
    command.add_argument("--sources", required=True, help="their state")
    command.add_argument("name")
    command.add_argument("result")
    command.add_argument("seconds", type=int)
    command.add_argument("log", type=pathlib.Path)
    command.set_defaults(run=report)
    command = commands.add_parser("fuzzer", help="print and record the figures of a fuzzer")
    command.add_argument("target")
    command.add_argument("log", type=pathlib.Path)
    command.set_defaults(run=fuzzer)
    return parser.parse_args()


if __name__ == "__main__":
    parsed = arguments()
    parsed.run(parsed)
