#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Doxygen's input filter: prints a Markdown page as Doxygen needs it to show what a forge shows.

Headings get labels, links between pages refer to these, links to files that are not part of the
HTML become plain text.
"""

import html
import os
import re
import sys
from pathlib import Path

import pages

# The pages of the HTML, as Docs/CMakeLists.txt lists them; names in the tree, divided by blanks.
SHOWN = [pages.ROOT / name for name in os.environ["USBHAL_DOCS_PAGES"].split()]
HEADERS = [pages.ROOT / "Src/UsbHal/UsbHalIntf.h", pages.ROOT / "Src/UsbHalPort/UsbHalPort.h"]


def label_of(page):
    if page == pages.ROOT / "README.md":
        return "mainpage"
    name = page.stem.lower()
    return page.parent.name.lower() if name == "readme" else name


def label_of_heading(page, anchor):
    return f"{label_of(page)}_{anchor}"


def link(page, label, target):
    label = label.replace("`", "")  # which Doxygen would show
    if not pages.is_relative(target):
        return f"[{label}]({target})"
    path, anchor = pages.resolve(page, target)
    if path in HEADERS:
        return f"[{label}](@ref {path.name})"
    if path not in SHOWN:
        return label
    if anchor:
        return f"[{label}](@ref {label_of_heading(path, anchor)})"
    name = label_of(path)
    return f"[{label}](@ref {'index' if name == 'mainpage' else name})"


def with_code_tags(text):
    """Code spans that Doxygen would not end where they end: an apostrophe ends them before, and within
    a table's row a bar, though it is escaped."""

    def code(match):
        hard = "'" in match[1] or (text.startswith("|") and r"\|" in match[1])
        return f"<code>{html.escape(match[1], quote=False)}</code>" if hard else match[0]

    return re.sub(r"`([^`]*)`", code, text)


def convert(page):
    text = page.read_text(encoding="utf-8")
    anchors = pages.anchors_of(text)
    for line in pages.lines_of(text):
        heading = pages.heading_of(line)
        if heading:
            level, title = heading
            label = label_of(page) if level == 1 else label_of_heading(page, anchors[line.number])
            yield f"{'#' * level} {title} {{#{label}}}"
        elif line.kind == "fence":
            yield re.sub(r"```(text|ini)$", "```{.unparsed}", line.text)
        else:
            text = pages.replace_links(line, lambda *found: link(page, *found))
            # Doxygen takes asterisks before code for asterisks.
            yield with_code_tags(pages.with_bold_tags(text) if line.kind == "text" else text)


if __name__ == "__main__":
    sys.stdout.reconfigure(encoding="utf-8")
    print("\n".join(convert(Path(sys.argv[1]).resolve())))
