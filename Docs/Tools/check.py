#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Checks that the pages agree with each other, with the sources and with what was made of them.

Called with the folder that the documentation was built in; prints what is wrong.
"""

import os
import re
import subprocess
import sys
import tempfile
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote

import pages

DOCS = pages.ROOT / "Docs"
HEADER = pages.ROOT / "Src/UsbHal/UsbHalIntf.h"
faults = []


def fault(path, text, line=None):
    name = os.path.relpath(path, pages.ROOT)
    faults.append(f"{name}:{line}: {text}" if line else f"{name}: {text}")


def markdown_files():
    """The pages of the tree; what is built in it and beside it is none of them."""
    for folder, folders, names in os.walk(pages.ROOT):
        folders[:] = [name for name in folders if name != "build" and not name.startswith(".")]
        yield from (Path(folder) / name for name in names if name.endswith(".md"))


# ---- links ----


def check_links():
    for page in markdown_files():
        for line, _, target in pages.links_of(page.read_text(encoding="utf-8")):
            if not pages.is_relative(target):
                continue
            path, anchor = pages.resolve(page, target)
            if not path.exists():
                fault(page, f"the link {target} leads nowhere", line)
            elif anchor and anchor not in pages.anchors_of(path.read_text("utf-8")).values():
                fault(page, f"the link {target} names no heading", line)


class Html(HTMLParser):
    # Where marks are no marks.
    LITERAL = {"code", "pre", "script", "style", "title", "tt"}

    def __init__(self):
        super().__init__()
        self.targets = []
        self.anchors = set()
        self.raw_marks = []
        self._literal = []

    def handle_starttag(self, tag, attrs):
        if tag in self.LITERAL or (tag == "div" and (self._literal or ("class", "fragment") in attrs)):
            self._literal.append(tag)
        for name, value in attrs:
            if name in ("href", "src") and value:
                self.targets.append(value)
            elif name in ("id", "name") and value:
                self.anchors.add(value)


    def handle_endtag(self, tag):
        if self._literal and self._literal[-1] == tag:
            self._literal.pop()

    def handle_data(self, data):
        if not self._literal:
            self.raw_marks += re.findall(r"[^\n]{0,20}(?:\*\*|`|\]\()[^\n]{0,20}", data)


def check_html(folder):
    parsed = {}
    for file in folder.glob("*.html"):
        text = file.read_text(encoding="utf-8")
        parsed[file.name] = Html()
        parsed[file.name].feed(text)
        if str(pages.ROOT) in text:
            fault(file, "names the folder of the sources")
    for name, html in parsed.items():
        for text in html.raw_marks:
            fault(folder / name, f"shows the mark of Markdown in '{text}'")
        for target in html.targets:
            if re.match(r"[a-z]+:", target):
                continue
            file, _, anchor = unquote(target).partition("#")
            file = file or name
            if not (folder / file).exists():
                fault(folder / name, f"the link {target} leads nowhere")
            elif anchor and file in parsed and anchor not in parsed[file].anchors:
                fault(folder / name, f"the link {target} leads to no place of that page")


# ---- parameters ----


def check_parameters():
    record = re.search(r"struct ParamHal\n{\n(.*?)\n};", HEADER.read_text("utf-8"), re.S)[1]
    fields = re.findall(r"^ +[\w:]+ (\w+)(?: = \w+)?;", record, re.M)
    assert fields, record
    page = DOCS / "parameters.md"
    text = page.read_text(encoding="utf-8")
    told = "\n".join(re.findall(r"^#+ .*$|^\|[^|]*\|", text, re.M))
    for field in fields:
        if not re.search(rf"\b{field}\b", told):
            fault(page, f"ParamHal::{field} has no heading and no row")


# ---- log texts ----


def source_literals():
    """The texts in the library's sources; those that follow each other joined."""
    literals = set()
    for source in sorted((pages.ROOT / "Src/UsbHal").glob("*.[ch]*")):
        text = re.sub(r"//[^\n\"]*$", "", source.read_text(encoding="utf-8"), flags=re.M)
        for match in re.finditer(r'"(?:[^"\\\n]|\\.)*"(?:\s*"(?:[^"\\\n]|\\.)*")*', text):
            parts = re.findall(r'"((?:[^"\\\n]|\\.)*)"', match[0])
            literals.add("".join(parts).replace(r"\n", "").replace(r"\"", '"'))
    return literals


def is_made_of(text, literals):
    """Whether a text is part of a literal, or a row of whole ones."""
    if any(text in literal for literal in literals):
        return True
    whole = [literal for literal in literals if literal]
    reached = {0}
    for end in range(1, len(text) + 1):
        for literal in whole:
            if text.endswith(literal, 0, end) and end - len(literal) in reached:
                reached.add(end)
                break
    return len(text) in reached


_LOG_LINE = re.compile(r"\d\d-\d\d-\d{4} [\d:]{12} \[THREAD -?\d+\] \[(~?\w+):\d+\] (.*)$")


def check_log_text(page, line, text, literals):
    for part in re.split(r"<[^<>]*>", text):
        if part.strip() and not is_made_of(part, literals) and not is_made_of(part.strip(), literals):
            fault(page, f'the sources do not log "{part}"', line)


def check_log_texts():
    literals = source_literals()
    page = DOCS / "reading-the-log.md"
    text = page.read_text(encoding="utf-8")
    told = text.index("## What the texts mean")
    first_line = text[:told].count("\n") + 1
    rows = 0
    for line in pages.lines_of(text):
        match = _LOG_LINE.match(line.text) if line.kind == "code" else None
        if match:
            check_log_text(page, line.number, match[1], literals)
            message = re.sub(r"(?<![a-z\d])\d+", "<n>", match[2])
            check_log_text(page, line.number, message, literals)
        row = re.match(r"\| `([^`]+)` \|", line.text)
        if row and line.number > first_line:
            rows += 1
            check_log_text(page, line.number, row[1], literals)
    assert rows > 50, rows


# ---- manual pages ----


def check_manual(page, options):
    path = DOCS / "man" / page
    macros = "\n".join(re.findall(r"^\..*", path.read_text(encoding="utf-8"), re.M))
    told = set(re.findall(r"--([a-z-]+)", macros.replace(r"\-", "-")))
    for option in sorted(options - told):
        fault(path, f"the option --{option} is missing")
    for option in sorted(told - options):
        fault(path, f"the program has no option --{option}")


def options_in(source, pattern):
    found = re.findall(pattern, (pages.ROOT / source).read_text(encoding="utf-8"))
    assert found, source
    return set(found) | {"help", "version"}


def check_manuals():
    cli11 = r'[",]--([a-z-]+)"'
    check_manual("simnode.1.in", options_in("SimNode/Daemon/main.cpp", cli11))
    check_manual("usbhal.1.in", options_in("Host/Tool/CommandLine.cpp", cli11))
    manager = options_in("Examples/SampleManager/CommandLine.cpp", cli11)
    check_manual("usbhal-sample-manager.1.in", manager)
    log = options_in("Observe/Log/usbhal_log/cli.py", cli11)
    check_manual("../../Observe/Log/usbhal-log.1.in", log)


def check_made_manuals(folder):
    for path in sorted(folder.glob("man*/*.[13]")) + sorted(folder.glob("*.1")):
        if str(pages.ROOT) in path.read_text(encoding="utf-8"):
            fault(path, "names the folder of the sources")


# ---- the port's page ----


def weaknesses():
    """What stands in bold at the begin of each row, without the mark at its end."""
    text = (DOCS / "behaviour-to-know.md").read_text(encoding="utf-8")
    return [title.rstrip(".,") for title in re.findall(r"^\| \*\*(.+?)\*\*", text, re.M)]


def test_functions():
    functions = set()
    for source in (pages.ROOT / "Tests").glob("*/tst_*.cpp"):
        text = source.read_text(encoding="utf-8")
        slots = re.search(r"^private slots:\n(.*?)^(?:private:|};)", text, re.M | re.S)
        functions.update(re.findall(r"^    void (\w+)\(\)", slots[1], re.M) if slots else [])
    return functions


def check_port_page():
    page = DOCS / "port.md"
    functions = test_functions()
    text = page.read_text(encoding="utf-8").partition("| the facade | the port | test |\n")[2]
    rows = re.findall(r"^\| ([^|]+) \| [^|]+ \| ([^|]*) \|$", text.partition("\n\n")[0], re.M)
    told = [title for title, _ in rows]
    if told != weaknesses():
        fault(page, f"its rows differ: {set(told) ^ set(weaknesses()) or 'in their order'}")
    for title, tests in rows:
        names = re.findall(r"`(\w+)`", tests)
        if not names:
            fault(page, f"the row '{title}' names no test")
        for name in set(names) - functions:
            fault(page, f"there is no test {name}")


# ---- code ----


def blocks_for_files(page):
    """(file name, text) of the blocks that the reader is to put into a file."""
    lines = page.read_text(encoding="utf-8").split("\n")
    for language, number, block in pages.blocks_of("\n".join(lines)):
        before = next(line for line in reversed(lines[: number - 2]) if line.strip())
        names = re.findall(r"`([\w.]+)`", before)
        if language == "cpp" and names:
            yield names[-1], "\n".join(block) + "\n"


def check_example(name, *shown_in):
    example = (pages.ROOT / name).read_text(encoding="utf-8")
    for page in shown_in:
        blocks = pages.blocks_of(page.read_text(encoding="utf-8"))
        if example not in ["\n".join(block) + "\n" for _, _, block in blocks]:
            fault(page, f"does not show {name} as it is")


def check_examples():
    readme = pages.ROOT / "README.md"
    check_example("Examples/Client/main.cpp", readme, DOCS / "getting-started.md")
    check_example("Examples/PortChat/main.cpp", readme, DOCS / "port.md")


def check_code():
    flags = subprocess.check_output(["pkg-config", "--cflags", "Qt5Core"], text=True).split()
    command = [os.environ.get("CXX", "c++"), "-std=c++17", "-fsyntax-only", "-fPIC", "-Wall"]
    command += ["-Wextra", "-Werror", "-I", str(HEADER.parent), *flags, "-x", "c++"]
    for page in sorted(DOCS.glob("*.md")):
        for name, text in blocks_for_files(page):
            with tempfile.TemporaryDirectory() as folder:
                source = Path(folder) / name
                source.write_text(text, encoding="utf-8")
                if subprocess.run([*command, str(source)], check=False).returncode != 0:
                    fault(page, f"{name} does not compile")


if __name__ == "__main__":
    built = Path(sys.argv[1])
    check_links()
    check_html(built / "html")
    check_parameters()
    check_log_texts()
    check_manuals()
    check_made_manuals(built / "man")
    check_port_page()
    check_examples()
    check_code()
    sys.exit("\n".join(faults) if faults else 0)
