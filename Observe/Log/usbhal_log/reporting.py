# SPDX-License-Identifier: MIT
"""Draws a log as one page that needs nothing but itself."""

import collections
import html
import json
import pathlib
import re

from . import findings, reading, summary, texts

MOST_LINES = 20000  # of the log that a page holds; of a longer log those around events
_LINES_AROUND = 25  # of an event
_MOST_RECOVERIES = 5000
_HERE = pathlib.Path(__file__).resolve().parent
# Beside the program when it is installed, in the tree otherwise.
_PAGE_PLACES = (_HERE.parent / findings.PAGE, _HERE.parents[2] / "Docs" / findings.PAGE)


class Lines:
    """The lines that go into the page."""

    def __init__(self):
        self._all = collections.deque()
        self._near = collections.deque(maxlen=MOST_LINES)
        self._before = collections.deque(maxlen=_LINES_AROUND)
        self._after = 0
        self.total = 0

    def add(self, record):
        """Takes the next line."""
        self.total += 1
        severity = texts.severity(record.kind)
        line = [round(record.time * 1000), severity, reading.printable(record.head + record.text)[:500]]
        if self.total <= MOST_LINES:
            self._all.append(line)
        self._keep_near(line, severity != "plain" or record.kind == "link")

    def _keep_near(self, line, is_event):
        if is_event:
            self._near.extend(self._before)
            self._before.clear()
            self._after = _LINES_AROUND
        elif self._after == 0:
            self._before.append(line)
            return
        else:
            self._after -= 1
        self._near.append(line)

    def kept(self):
        """All lines, or the last of those near an event."""
        return list(self._all if self.total <= MOST_LINES else self._near)


def report(records, title):
    """The page's text. Raises LogError when the libraries for it are not installed."""
    plotly, markdown = _libraries()
    lines = Lines()
    total = summary.Summary()
    for record in records:
        total.add(record)
        if record.head:
            lines.add(record)
    runs = [_run_data(run) for run in total.finish().runs]
    data = {"runs": runs, "lines": lines.kept(), "allLines": lines.total}
    return _page(title, data, plotly, markdown)


def _libraries():
    try:
        import markdown  # pylint: disable=import-outside-toplevel
        import plotly.offline  # pylint: disable=import-outside-toplevel
    except ImportError as error:
        raise reading.LogError(
            f"A report needs {error.name}; install the packages python3-plotly and python3-markdown.") from error
    return plotly.offline.get_plotlyjs(), markdown


def _run_data(run):
    data = summary.as_data(run)
    data["findings"] = [{"text": f.text, "anchor": f.anchor} for f in findings.findings_of(data)]
    data["events"] = [
        {"kind": e.kind, "begin": round(e.begin * 1000), "end": round(e.end * 1000), "text": e.text, "port": e.port}
        for e in run.events]
    data["leftOutEvents"] = run.left_out_events
    data["rate"] = [[round(seconds * 1000), rate] for seconds, rate in run.bins.points()]
    data["recoveries"] = list(run.recoveries[:_MOST_RECOVERIES])
    data["text"] = summary.as_text(data)
    return data


def _troubleshooting(markdown):
    place = next((place for place in _PAGE_PLACES if place.exists()), None)
    if place is None:
        raise reading.LogError(f"{findings.PAGE} is missing beside the program; install the package anew.")
    text = place.read_text(encoding="utf-8")
    made = markdown.markdown(text, extensions=["tables", "fenced_code", "toc"],
                             extension_configs={"toc": {"slugify": heading_anchor}})
    made = re.sub(r'<a href="[^"#]*\.md[^"]*">(.*?)</a>', r"\1", made)  # pages that are not at hand here
    return made.replace("<table>", '<div class="wide"><table>').replace("</table>", "</table></div>")


def heading_anchor(heading, separator):
    """The anchor that a heading has where the documentation is usually read."""
    kept = "".join(c for c in heading.lower() if c.isalnum() or c in " -_")
    return kept.replace(" ", separator)


def _page(title, data, plotly, markdown):
    # "</" would end the script that it stands in.
    inside = json.dumps(data, separators=(",", ":")).replace("<", "\\u003c")
    parts = {
        "TITLE": html.escape(title),
        "STYLE": (_HERE / "report.css").read_text(encoding="utf-8"),
        "PLOTLY": plotly.replace("</script", "<\\/script"),
        "DATA": inside,
        "SCRIPT": (_HERE / "report.js").read_text(encoding="utf-8"),
        "TROUBLESHOOTING": _troubleshooting(markdown),
    }
    page = (_HERE / "report.html").read_text(encoding="utf-8")
    pieces = page.split("@@")
    return "".join(parts[piece] if at % 2 else piece for at, piece in enumerate(pieces))
