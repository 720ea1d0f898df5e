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
        if function is None:  # a declaration, a call that passes others on, or one that says it for others
            continue
        braced = next((argument for argument in arguments[1:] if argument.startswith("{")), None)
        assert braced, f"a text that is no list: {arguments}"
        for row in _texts_of(_arguments(braced, 0), constants):
            yield function, row


def _functions_that_log_for_others(text):
    """Those that are given the name of the function and the texts."""
    for found in re.finditer(r"(?<![\w:])logLine(?=\()", text):
        if re.fullmatch(r"\w+", _arguments(text, found.end())[0]):
            yield re.findall(r"\n\w[^\n;{]*?(\w+)\(", text[:found.start()])[-1]


def _calls_of(name, text):
    for found in re.finditer(rf"(?<![\w:]){name}(?=\()", text):
        arguments = [_literals(argument) for argument in _arguments(text, found.end())]
        if arguments[0] is not None:
            yield from ((arguments[0], [said]) for said in arguments[1:] if said is not None)


def logged_texts():
    """(function, row of parts) of each text in the sources; a part that is None may be anything."""
    found = []
    texts = source_files()
    for text in texts:
        constants = dict(re.findall(r'(?<!\w)([a-z]\w*) = (?:\w+\()?"([^"]*)"\)?;', text))
        found += _calls(text, constants)
    for name in {name for text in texts for name in _functions_that_log_for_others(text)}:
        said = [call for text in texts for call in _calls_of(name, text)]
        assert said, f"{name} logs for others, but nobody calls it"
        found += said
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
    tables = [text[text.index('"Peer received message with wrong size !"'):] for text in source_files()
              if '"Peer received message with wrong size !"' in text]
    assert len(tables) == 1, len(tables)
    table = tables[0][:tables[0].index("};")]
    texts = [literal[1:-1] for literal in re.findall(_LITERAL, table) if literal.endswith('!"')]
    assert len(texts) == 10, texts
    return texts
