#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Turns the figures of the benchmarks into one table: table.py [options] FILE..."""

import argparse
import collections
import dataclasses
import datetime
import json
import pathlib
import re
import statistics
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "Tests" / "Support"))
from figures import first_line_of, machine, output_of, recorded  # pylint: disable=wrong-import-position


class Figures:
    """The medians of the figures that the programs have left behind."""

    def __init__(self, options):
        self._values = collections.defaultdict(list)
        for report in options.reports:
            self._take_timed(json.loads(report.read_text()))
        for name, value in recorded(options.figures):
            self._values[name].append(value)
        self._take_instructions(options.instructions.read_text())

    def _take_timed(self, report):
        """What Google Benchmark measured: ns for one operation, of which a run may do several."""
        for run in report["benchmarks"]:
            if run.get("error_occurred"):
                sys.exit(f"table.py: {run['name']} failed: {run['error_message']}")
            if run["run_type"] == "iteration":
                assert run["time_unit"] == "ns", run
                name = run["run_name"].partition("/")[0]
                self._values[name].append(run["real_time"] / run.get("operations", 1))

    def _take_instructions(self, text):
        # What comes before the operations falls out of the difference of two runs.
        counted = collections.defaultdict(dict)
        for name, operations, instructions in re.findall(
                r"^CALLGRIND (\w+) (\d+)$.*?Collected : (\d+)$", text, re.MULTILINE | re.DOTALL):
            counted[name][int(operations)] = int(instructions)
        for name, runs in counted.items():
            less, more = sorted(runs)
            self._values[f"instructions.{name}"].append((runs[more] - runs[less]) // (more - less))

    def median(self, figure):
        """The median of a figure given by its name, or what a function makes of the medians."""
        if callable(figure):
            return figure(self.median)
        if figure not in self._values:
            sys.exit(f"table.py: no program has printed the figure '{figure}'")
        return statistics.median(self._values[figure])

    def too_few(self, repetitions):
        """Names of the figures that were not measured so often; instructions do not vary."""
        return [name for name, values in self._values.items()
                if len(values) < repetitions and not name.startswith("instructions.")]


@dataclasses.dataclass
class Goal:
    """Ours is at most (or at least) factor times the other figure, plus a constant."""
    other: str  # "floor", or the name of a peer
    factor: float
    plus: float = 0
    at_least: bool = False
    strict: bool = False
    text: str = ""

    def is_reached(self, ours, other):
        bound = self.factor * other + self.plus
        if self.at_least:
            return ours >= bound
        return ours < bound if self.strict else ours <= bound

    def __str__(self):
        return self.text or f"{'≥' if self.at_least else '≤'} {self.factor:g} x {self.other}"


def faster_than(peer):
    return Goal(peer, 1, strict=True, text=f"faster than {peer}")


@dataclasses.dataclass
class Row:
    what: str
    unit: str
    ours: object
    floor: object = None
    peers: dict = dataclasses.field(default_factory=dict)
    goals: list = dataclasses.field(default_factory=list)

    def cells(self, figures, judged):
        ours = figures.median(self.ours)
        others = {name: figures.median(figure) for name, figure in self.peers.items()}
        peers = ", ".join(f"{name} {show(value, self.unit)}" for name, value in others.items())
        if self.floor is not None:
            others = {"floor": figures.median(self.floor), **others}
        ratios = ", ".join(f"{ours / value:.3g} x {name}" for name, value in others.items() if value)
        reached = [goal.is_reached(ours, others.get(goal.other, 0)) for goal in self.goals]
        return [self.what, show(ours, self.unit),
                show(others["floor"], self.unit) if "floor" in others else "", peers, ratios,
                "; ".join(map(str, self.goals)), verdict(reached) if judged else "not judged"]


def verdict(reached):
    if not reached:
        return ""
    return "yes" if all(reached) else "**no**"


def show(value, unit):
    """A value with its unit; times are given in ns."""
    if unit != "ns":
        return f"{value:.4g} {unit}".strip()
    for size, name in ((1e6, "ms"), (1e3, "µs")):
        if value >= size:
            return f"{value / size:.4g} {name}"
    return f"{value:.4g} ns"


def log_rows():
    for zone, zone_text in (("notz", "TZ unset"), ("tz", "TZ=:/etc/localtime")):
        for threads, threads_text in (("single", "1 thread"), ("threads", "4 threads")):
            name = f"{zone}.{threads}"
            yield Row(f"log line, {zone_text}, {threads_text}", "ns", f"log.ours.{name}",
                      f"log.bare.{name}", {"spdlog": f"log.spdlog.{name}"},
                      [Goal("floor", 1.5), Goal("spdlog", 1)])
    yield Row("log line, system calls", "", "counts.log.calls",
              goals=[Goal("", 0, plus=1, text="1")])
    yield Row("log line, allocations beyond its message's", "", "counts.log.allocations",
              goals=[Goal("", 0, text="0")])


def framing_rows():
    for size in (16, 500, 10000):
        yield Row(f"frame into the FIFO, {size} B", "ns", f"frame.ours.{size}",
                  f"frame.copy.{size}",
                  {peer: f"frame.{peer}.{size}" for peer in ("nghttp2", "wslay")},
                  [Goal("floor", 2, plus=30, text="≤ 2 x floor + 30 ns"), faster_than("nghttp2"),
                   Goal("wslay", 2)])
        yield Row(f"whole `write` of a client, {size} B; peer: copy into an own array in a list",
                  "ns", f"frame.client.{size}", f"frame.copy.{size}",
                  {"owned copy": f"frame.owned.{size}"})


def delivery_rows():
    for size in (16, 500, 10000):
        for messages, text in (("one", "alone in its buffer"), ("many", "16 in a buffer")):
            name = f"{size}.{messages}"
            yield Row(f"cut and deliver, {size} B, {text}", "ns", f"deliver.ours.{name}",
                      peers={peer: f"deliver.{peer}.{name}" for peer in ("nghttp2", "wslay")},
                      goals=[faster_than("nghttp2"), Goal("wslay", 2)])
    yield Row("copies of a payload, driver's buffer to client", "", "counts.copies",
              goals=[Goal("", 0, plus=1, text="1")])
    yield Row("one of 600 messages of 16 B in a buffer, log on; floor: one of 10", "ns",
              "buffer.600", "buffer.10", goals=[Goal("floor", 1.2)])
    yield Row("buffer of 10,000 B full of 16 B messages, log on; floor: the 10 ms pause; "
              "peer: the bytes as one message", "ns", lambda median: 625 * median("buffer.whole"),
              lambda median: 10e6, {"one message": "buffer.single"},
              [Goal("floor", 0.5)])


def rate_row(what, direction):
    side = direction.rsplit(".", maxsplit=1)[1]
    return Row(what, "B/s", f"link.rate.{direction}", "link.rate.ceiling",
               {"bare loop": f"link.rate.bare.{side}"}, [Goal("floor", 0.99, at_least=True)])


def link_rows():
    yield rate_row("payload rate to the device, five ports; floor: the ceiling", "alone.todevice")
    yield rate_row("payload rate to the host, five ports", "alone.tohost")
    yield rate_row("payload rate to the device, both directions at once", "both.todevice")
    yield rate_row("payload rate to the host, both directions at once", "both.tohost")
    for load, text in (("idle", "idle"), ("loaded", "beside 4 client threads (floor: beside 4 busy "
                                                    "threads; peer: alone)")):
        peers = {} if load == "idle" else {"bare alone": "link.idle.bare."}
        for figure, name, factor in (("mean", "mean", 1.01), ("p99", "99th percentile", 1.1)):
            yield Row(f"cycle, {name}, {text}", "ns", f"link.{load}.ours.{figure}",
                      f"link.{load}.bare.{figure}",
                      {peer: prefix + figure for peer, prefix in peers.items()},
                      [Goal("floor", factor)] + [Goal(peer, factor) for peer in peers])
    for who, text in (("process", "whole process"), ("thread", "without the main thread")):
        yield Row(f"processor time of an idle cycle, {text}", "ns", f"link.idle.ours.{who}.time",
                  f"link.idle.bare.{who}.time", goals=[Goal("floor", 1.25)])
        yield Row(f"context switches of an idle cycle, {text}", "",
                  f"link.idle.ours.{who}.switches", f"link.idle.bare.{who}.switches",
                  goals=[Goal("floor", 1, plus=0.05, text="no more (0.05 for the measuring)")])


def port_rows():
    for size, factor in ((9987, 1.5), (16, 3)):
        yield Row(f"`UsbHalPort`: processor time for {size} B written in such pieces"
                  f"{', and as many read' if size > 16 else ''}; floor: a client of the facade", "ns",
                  f"port.ours.{size}.time", f"port.facade.{size}.time", goals=[Goal("floor", factor)])
    for side, text in (("todevice", "to the device"), ("tohost", "to the host")):
        yield Row(f"`UsbHalPort`: payload rate {text}, five ports, both directions at once; floor: the "
                  "ceiling", "B/s", f"port.ours.9987.{side}", "link.rate.ceiling",
                  {"facade": f"port.facade.9987.{side}"},
                  [Goal("floor", 0.98, at_least=True), Goal("facade", 0.98, at_least=True)])
    yield Row("`UsbHalPort`: context switches of an idle cycle, five ports; floor: the facade's", "",
              "link.port.ours.process.switches", "link.port.facade.process.switches",
              goals=[Goal("floor", 1, plus=0.05, text="no more (0.05 for the measuring)")])
    yield Row("`UsbHalPort`: held for each byte of full write buffers", "B", "port.ours.held",
              goals=[Goal("", 0, plus=1.05, text="≤ 1.05 B")])
    yield Row("`UsbHalPort`: held more after these bytes than before them, five ports; peer: the facade's client",
              "B", "port.ours.grown", peers={"facade": "port.facade.grown"},
              goals=[Goal("", 0, plus=65536, text="≤ 64 KiB")])


def latency_rows():
    yield Row("`write` call alone, median; floor: uncontended mutex round trip", "ns",
              "latency.write.alone", "latency.mutex")
    yield Row("`write` call of 4 threads, 99th percentile; peer: the call alone", "ns",
              "latency.write.together", "latency.mutex", {"alone": "latency.write.alone"},
              [Goal("alone", 20)])
    yield Row("longest `write` call of 4 threads; floor: one driver call or pause", "ns",
              "latency.write.longest", lambda median: 10e6, goals=[Goal("floor", 1, strict=True,
                                                                        text="shorter than floor")])
    yield Row("from `write` to the wire, mean; floor: half a cycle", "ns", "link.way.ours",
              "link.way.halfcycle")


def memory_rows():
    yield Row("resident memory, idle with five ports; floor: bare Qt Core program", "kB",
              "memory.ours", "memory.bare",
              goals=[Goal("floor", 1, plus=1024, text="≤ floor + 1024 kB")])
    yield Row("of it written to, and so shared with no other process; floor: bare Qt Core program",
              "kB", "memory.private.ours", "memory.private.bare")
    for kind in ("unread", "unsent"):
        for size in (16, 500):
            yield Row(f"held for a queued {kind} message beyond its {size} B; "
                      "floor: a QByteArray's header", "B", f"counts.held.{kind}.{size}",
                      lambda median: 24, goals=[Goal("", 0, plus=64, text="≤ 64 B")])


def growth_rows():
    for operation in ("write", "deliver", "read", "clear"):
        names = [f"growth.{operation}.{queued}" for queued in (100, 10000, 100000)]
        what = "_clearWriteFifoForPort, FIFO full" if operation == "clear" else operation
        yield Row(f"{what}: worst of 100, 10,000 and 100,000 messages unread; floor: of 1", "ns",
                  lambda median, names=names: max(map(median, names)), f"growth.{operation}.1",
                  goals=[Goal("floor", 1.3)])
    yield Row("_clearWriteFifoForPort, for each of 100 messages in the FIFO; floor: of 10", "ns",
              lambda median: median("growth.clearfifo.100") / 100,
              lambda median: median("growth.clearfifo.10") / 10, goals=[Goal("floor", 1.3)])


def instruction_rows():
    for operation, text in (("log", "log line"), ("frame", "frame into the FIFO"), ("cut", "cut"),
                            ("deliver", "deliver"), ("write", "write"), ("read", "read")):
        yield Row(f"instructions: {text}, 100 B", "", f"instructions.{operation}")


def table(figures, judged):
    rows = [["what", "ours", "floor", "peer", "ratio", "goal", "reached"], ["---"] * 7]
    for group in (log_rows, framing_rows, delivery_rows, link_rows, port_rows, latency_rows, memory_rows,
                  growth_rows, instruction_rows):
        rows += [row.cells(figures, judged) for row in group()]
    return "".join(f"| {' | '.join(cells)} |\n" for cells in rows)


def document(figures, repetitions):
    compiler = first_line_of("c++", "--version")
    qt = output_of("pkg-config", "--modversion", "Qt5Core")
    commit = output_of("git", "-C", str(HERE), "describe", "--always", "--dirty")
    return "\n".join([
        "# Benchmarks", "",
        "Written by `Scripts/benchmark`; do not edit. Medians of at least "
        f"{repetitions} repetitions, release preset.", "",
        f"- Machine: {machine()}, {compiler}, Qt {qt}",
        f"- Date: {datetime.date.today().isoformat()}",
        f"- Commit: {commit}", "", table(figures, judged=True), (HERE / "notes.md").read_text()])


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--document", action="store_true",
                        help="the whole page, with the machine and the notes")
    parser.add_argument("--repetitions", type=int, default=1,
                        help="how often each figure must have been measured at least; "
                             "after one time no goal is judged")
    parser.add_argument("--figures", type=pathlib.Path, metavar="FILE", required=True,
                        help="what the programs have recorded")
    parser.add_argument("--instructions", type=pathlib.Path, metavar="FILE", required=True,
                        help="what callgrind has counted")
    parser.add_argument("reports", type=pathlib.Path, metavar="REPORT", nargs="+",
                        help="what Google Benchmark has measured, as JSON")
    options = parser.parse_args()
    figures = Figures(options)
    too_few = figures.too_few(options.repetitions)
    if too_few:
        sys.exit(f"table.py: measured less than {options.repetitions} times: {', '.join(too_few)}")
    judged = options.repetitions > 1
    print(document(figures, options.repetitions) if options.document else table(figures, judged),
          end="")


if __name__ == "__main__":
    main()
