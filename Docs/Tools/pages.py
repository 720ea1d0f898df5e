# SPDX-License-Identifier: MIT
"""The Markdown pages as a Git forge shows them: headings with their anchors, links, code blocks."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent

_FENCE = re.compile(r" {0,3}(```+|~~~+)(.*)")
_HEADING = re.compile(r"(#{1,6}) +(.*?)( +#+)?$")
_LINK = re.compile(r"(?<!!)\[((?:[^\[\]]|\[[^\]]*\])*)\]\(([^()\s]+)\)")
_CODE_SPAN = re.compile(r"(`+)(?!`).*?(?<!`)\1(?!`)")


class Line:
    """One line of a page, with the kind that decides what may be in it."""

    def __init__(self, number, text, kind):
        self.number = number
        self.text = text
        self.kind = kind  # "text", "fence" (opens or closes), "code"


def lines_of(text):
    """The lines of a page. What an indented block or a fence holds is code."""
    result = []
    fence = None
    blank_or_code_before = True
    for number, line in enumerate(text.split("\n"), 1):
        match = _FENCE.match(line)
        if fence:
            closes = match and match[1].startswith(fence) and not match[2].strip()
            result.append(Line(number, line, "fence" if closes else "code"))
            if closes:
                fence = None
                blank_or_code_before = False
        elif match:
            fence = match[1]
            result.append(Line(number, line, "fence"))
        elif line.startswith("    ") and blank_or_code_before:
            result.append(Line(number, line, "code"))
        else:
            result.append(Line(number, line, "text"))
            blank_or_code_before = not line.strip()
    return result


def blocks_of(text):
    """(language, first line's number, lines) of each fenced block."""
    result = []
    block = None
    for line in lines_of(text):
        if line.kind == "fence":
            if block is None:
                block = (line.text.strip("`~ "), line.number + 1, [])
            else:
                result.append(block)
                block = None
        elif block is not None:
            block[2].append(line.text)
    return result


def heading_of(line):
    """(level, text) of a heading, else None."""
    match = _HEADING.match(line.text) if line.kind == "text" else None
    return (len(match[1]), match[2]) if match else None


def anchors_of(text):
    """The anchor of each heading, by line number, as forges make them."""
    result = {}
    taken = {}
    for line in lines_of(text):
        heading = heading_of(line)
        if not heading:
            continue
        slug = re.sub(r"[^\w\- ]", "", _LINK.sub(r"\1", heading[1]).lower()).replace(" ", "-")
        count = taken.get(slug, 0)
        taken[slug] = count + 1
        result[line.number] = f"{slug}-{count}" if count else slug
    return result


def _code_spans(text):
    return [match.span() for match in _CODE_SPAN.finditer(text)]


def replace_links(line, replace):
    """The line's text with each link outside of code spans replaced by replace(label, target)."""
    if line.kind != "text":
        return line.text
    spans = _code_spans(line.text)

    def handle(match):
        if any(start < match.start() < end for start, end in spans):
            return match[0]
        return replace(match[1], match[2])

    return _LINK.sub(handle, line.text)


def with_bold_tags(text):
    """The text with <b> in place of the asterisks, code spans being left alone."""
    spans = _code_spans(text)
    marks = [
        match.start()
        for match in re.finditer(r"\*\*", text)
        if not any(start < match.start() < end for start, end in spans)
    ]
    for begin, end in reversed(list(zip(marks[::2], marks[1::2]))):
        text = f"{text[:begin]}<b>{text[begin + 2:end]}</b>{text[end + 2:]}"
    return text


def links_of(text):
    """(line number, label, target) of each link."""
    result = []
    for line in lines_of(text):

        def note(label, target, number=line.number):
            result.append((number, label, target))
            return ""

        replace_links(line, note)
    return result


def is_relative(target):
    return not re.match(r"[a-z][a-z0-9+.-]*:|/", target)


def resolve(page, target):
    """(path in the tree or None for the page itself, anchor) of a relative link."""
    path, _, anchor = target.partition("#")
    return ((page.parent / path).resolve() if path else page), anchor
