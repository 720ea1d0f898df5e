# SPDX-License-Identifier: MIT
"""Takes the texts that the library logs out of its sources."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[3]
SOURCES = ROOT / "Src" / "UsbHal"
_LITERAL = r'"(?:[^"\\\n]|\\.)*"'


def _without_comments(text):
    keep = re.compile(rf"({_LITERAL})|//[^\n]*|/\*.*?\*/", re.DOTALL)
    return keep.sub(lambda found: found[1] or " ", text)


def _arguments(text, at):
    """What stands between the bracket at that place and the one that closes it, cut at its commas."""
    parts, part, depth = [], "", 0
    for piece in re.finditer(rf"{_LITERAL}|.", text[at:], re.DOTALL):
        piece = piece[0]
        if piece in "([{":
            depth += 1
            if depth == 1:
                continue
        elif piece in ")]}":
            depth -= 1
            if depth == 0:
                return [p.strip() for p in parts + [part]]
        if piece == "," and depth == 1:
            parts.append(part)
            part = ""
        else:
            part += piece
    raise AssertionError(f"a call without an end: {text[at:at + 80]}")


def _literals(part):
    """The text of a row of literals, or None."""
    if not re.fullmatch(rf"(?:{_LITERAL}\s*)+", part):
        return None
    return "".join(literal[1:-1] for literal in re.findall(_LITERAL, part))


def _choices(part, constants):
    """What a part may be, as texts in which None is anything."""
    if re.fullmatch(r"\w+", part) and part in constants:
        return [constants[part]]
    chosen = re.fullmatch(rf"[^?]*\?\s*({_LITERAL})\s*:\s*({_LITERAL})", part, re.DOTALL)
    if chosen:
        return [_literals(chosen[1]), _literals(chosen[2])]
    return [_literals(part)]


def _texts_of(parts, constants):
    rows = [[]]
    for part in parts:
        rows = [row + [choice] for row in rows for choice in _choices(part, constants)]
    return rows


def _calls(text, constants):
    for found in re.finditer(r"(?<![\w:])(?:logLine|log)(?=\()", text):
        arguments = _arguments(text, found.end())
        function = _literals(re.sub(r"^LogPart\((.*)\)$", r"\1", arguments[0]))
        if function is None:  # a declaration, or the one call that passes all others on
            continue
        braced = next((argument for argument in arguments[1:] if argument.startswith("{")), None)
        assert braced, f"a text that is no list: {arguments}"
        for row in _texts_of(_arguments(braced, 0), constants):
            yield function, row


def logged_texts():
    """(function, row of parts) of each text in the sources; a part that is None may be anything."""
    found = []
    for text in source_files():
        constants = dict(re.findall(r'(?<!\w)([a-z]\w*) = (?:\w+\()?"([^"]*)"\)?;', text))
        found += _calls(text, constants)
    return found


def source_files():
    """The sources, without their comments."""
    files = sorted(SOURCES.rglob("*.cpp")) + sorted(SOURCES.rglob("*.h"))
    assert files, f"no sources in {SOURCES}"
    return [_without_comments(file.read_text(encoding="utf-8")) for file in files]


def pattern_of(row):
    """What the lines of a row of parts look like."""
    return re.compile("".join(".+" if part is None else re.escape(part) for part in row), re.DOTALL)


def error_texts():
    """The texts of the errors 1 to 10."""
    tables = [table for text in source_files()
              for table in re.findall(rf"(?:{_LITERAL},\s*){{9,}}{_LITERAL}", text) if "wrong ID !" in table]
    assert len(tables) == 1, tables
    return [literal[1:-1] for literal in re.findall(_LITERAL, tables[0]) if literal.endswith('!"')]
