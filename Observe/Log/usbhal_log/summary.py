# SPDX-License-Identifier: MIT
"""Sums up a log, run by run, in memory that does not grow with the log's length."""

import array
import collections
import dataclasses
import statistics

from . import reading

MOST_EVENTS = 5000  # of a run that are kept for pictures; counts go on behind it
MOST_BINS = 2000  # of the count of lines over time
CLOCK_STEP = 1.0  # seconds that the time may go back: threads write their lines in turn

_LOSS_PARTS = ("read_attempts", "write_attempts", "retries", "cable")
_HOST_FAULTS = ("not_valid", "wrong_size", "wrong_id", "unknown_port", "overflow")
_COUNTED = _HOST_FAULTS + (
    "node_refused", "open_failed", "write_full", "no_room", "flush_failed", "log_ended", "no_memory",
    "old_file_stays", "discarded", "write_failed", "partial_write", "still_running", "kill_failed",
    "killed", "node_opened", "node_selected", "max_read_size")


@dataclasses.dataclass
class Event:
    """Something for the time line: a stretch of time, or a moment when end is begin."""
    kind: str
    begin: float
    end: float
    text: str
    port: int = None


@dataclasses.dataclass
class Port:
    """What the log tells of one port."""
    opened: int = 0
    closed: int = 0
    lost: int = 0
    refused: int = 0
    received_bytes: int = 0
    read_bytes: int = 0
    removed_messages: int = 0
    open_since: float = None
    closing: bool = False  # a client closes it
    cut: bool = False  # it was open until the link or the peer went


class Bins:
    """How many lines there are over time; bins become wider as the time becomes longer."""

    def __init__(self):
        self.width = 1.0
        self.counts = collections.Counter()

    def add(self, seconds):
        """Counts one line."""
        self.counts[int(seconds // self.width)] += 1
        while len(self.counts) > MOST_BINS:
            self._widen()

    def _widen(self):
        self.width *= 2
        wider = collections.Counter()
        for place, count in self.counts.items():
            wider[place // 2] += count
        self.counts = wider

    def points(self):
        """(seconds, lines a second), in order, with a 0 where no line follows."""
        told = []
        for place, count in sorted(self.counts.items()):
            told.append((place * self.width, count / self.width))
            if place + 1 not in self.counts:
                told.append(((place + 1) * self.width, 0.0))
        return told


class Run:
    """One run of the library: from a configuration to the next."""

    def __init__(self, record):
        self.kept = bool(record.file and record.file.kept)
        self.begin = self.end = record.time
        self.lines = 0
        self.further_lines = 0
        self.counts = collections.Counter()
        self.errors = collections.Counter()
        self.unknown = collections.Counter()
        self.unknown_lines = 0
        self.torn_lines = 0
        self.ports = collections.defaultdict(Port)
        self.written_messages = 0
        self.written_bytes = 0
        self.gained = 0
        self.causes = collections.Counter()
        self.recoveries = array.array("d")
        self.delays = array.array("d")
        self.watchdog_restarts = 0
        self.kills = 0
        self.link_seconds = 0.0
        self.clock_steps = 0
        self.missing_files = 0
        self.ended_cleanly = False
        self.events = []
        self.left_out_events = 0
        self.bins = Bins()
        self.connected_since = None
        self.lost_at = None
        self.delay_since = None
        self.stopping = False
        self.watchdog = False
        self.loss = {}
        self.write_error = ""

    def event(self, kind, begin, end, text, port=None):
        """Keeps something for the time line."""
        if len(self.events) < MOST_EVENTS:
            self.events.append(Event(kind, begin, end, text, port))
        else:
            self.left_out_events += 1

    @property
    def lost(self):
        """How often the link was lost, other than by a stop."""
        return sum(count for cause, count in self.causes.items() if cause != "stop")


class Summary:
    """Takes the records of a log one by one; `runs` holds what they tell."""

    def __init__(self):
        self.runs = []
        self._run = None
        self._file = None

    def add(self, record):
        """Takes the next record."""
        self._choose_run(record)
        run = self._run
        run.lines += 1
        run.further_lines += record.further
        if not record.whole:
            run.torn_lines += 1
        if not record.head:
            return
        if record.time < run.end - CLOCK_STEP:
            run.clock_steps += 1
        run.end = record.time
        run.begin = run.begin or record.time
        run.bins.add(record.time)
        self._take(run, record)

    def finish(self):
        """Ends what is still going on at the end of the log. Returns the summary."""
        if self._run:
            _close_run(self._run)
            self._run = None
        return self

    def _choose_run(self, record):
        before, self._file = self._file, record.file
        changed = before is not None and record.file is not before
        if self._run is None or record.kind == "configured" and self._run.lines or (
                changed and before.kept != record.file.kept):
            if self._run:
                _close_run(self._run)
            self._run = Run(record)
            self.runs.append(self._run)
        elif changed:
            self._run.missing_files += reading.missing_between(before, record.file)

    def _take(self, run, record):
        if record.kind is None:
            if record.whole:
                _take_unknown(run, record)
            return
        if record.kind in _COUNTED:
            run.counts[record.kind] += 1
        if record.kind.startswith("error_"):
            _take_error(run, record)
        handler = _HANDLERS.get(record.kind)
        if handler:
            handler(run, record)


def summarise(records):
    """The summary of all records."""
    summary = Summary()
    for record in records:
        summary.add(record)
    return summary.finish()


# ---- one function for each kind of line that changes something ----


def _take_unknown(run, record):
    run.unknown_lines += 1
    if len(run.unknown) < 20 or record.function in run.unknown:
        run.unknown[record.function] += 1


def _take_error(run, record):
    code = int(record.kind[len("error_"):])
    run.errors[code] += 1
    port = record.port
    if code in (4, 5) and port is not None:
        run.ports[port].refused += 1
        run.event("refused", record.time, record.time, f"port {port} refused, error {code}", port)


def _take_link(run, record):
    if record.fields["state"] == "CONNECTED":
        _gain_link(run, record)
    else:
        _lose_link(run, record)


def _gain_link(run, record):
    run.gained += 1
    run.connected_since = record.time
    if run.lost_at is not None:
        run.recoveries.append(max(0.0, record.time - run.lost_at))
        run.event("down", run.lost_at, record.time, "the link is lost")
    run.lost_at = None
    run.stopping = run.watchdog = False


def _lose_link(run, record):
    cause = _cause(run)
    run.causes[cause] += 1
    if run.connected_since is not None:
        run.link_seconds += max(0.0, record.time - run.connected_since)
        run.event("link", run.connected_since, record.time, f"the link is up, until {cause}")
    run.connected_since = None
    run.lost_at = None if cause == "stop" else record.time
    if cause != "stop":
        run.event("loss", record.time, record.time, f"link lost: {cause}")
    run.loss = {}


def _cause(run):
    loss = run.loss
    if run.watchdog:
        return "the watchdog restarted the thread"
    if loss.get("cable") == "true":
        return "a forced disconnection"
    if "retries" in loss:
        retries = int(loss["retries"])
        if int(loss.get("write_attempts", 0)) > retries:
            return f"{loss['write_attempts']} writes failed ({run.write_error or 'no error told'})"
        return f"{loss.get('read_attempts', '?')} reads without a valid message"
    return "stop" if run.stopping else "a cause that the log does not give"


def _take_loss_part(run, record):
    run.loss[record.kind] = record.fields.get("count") or record.fields.get("bool")


def _take_stop(run, _):
    run.stopping = True


def _take_closed_node(run, _):
    run.stopping = True
    run.ended_cleanly = True


def _take_watchdog(run, record):
    run.watchdog = True
    run.watchdog_restarts += 1
    run.event("watchdog", record.time, record.time, "the watchdog restarts the thread")


def _take_kill(run, record):
    run.kills += record.kind == "killed"
    text = "the thread was killed" if record.kind == "killed" else "the thread could not be killed"
    run.event("kill", record.time, record.time, text)


def _take_delay(run, record):
    run.delay_since = record.time


def _take_delay_end(run, record):
    if run.delay_since is not None:
        _end_delay(run, record.time, "the host is delayed")
    run.delay_since = None


def _end_delay(run, end, text):
    run.delays.append(max(0.0, end - run.delay_since))
    run.event("delay", run.delay_since, end, text)


def _take_write_error(run, record):
    run.write_error = record.fields["error"]


def _take_port_up(run, record):
    port = run.ports[record.port]
    if not port.cut:
        port.opened += 1
    port.cut = port.closing = False
    port.open_since = record.time


def _take_closing(run, record):
    run.ports[record.port].closing = True


def _take_port_down(run, record):
    number = record.port
    port = run.ports[number]
    if port.open_since is not None:
        run.event("port", port.open_since, record.time, f"port {number} is open", number)
    port.open_since = None
    if not port.closing:
        port.lost += 1
        port.cut = True


def _take_port_closed(run, record):
    port = run.ports[record.port]
    port.closed += 1
    port.cut = port.closing = False


def _take_removed(run, record):
    run.ports[record.port].removed_messages += int(record.fields["count"])


def _take_received(run, record):
    run.ports[record.port].received_bytes += int(record.fields["bytes"])


def _take_read(run, record):
    run.ports[record.port].read_bytes += int(record.fields["bytes"])


def _take_queued(run, record):
    run.written_messages += 1
    run.written_bytes += int(record.fields["bytes"])


def _take_host_fault(run, record):
    run.event("host_fault", record.time, record.time, reading.printable(record.text[:60]))


_HANDLERS = {
    "link": _take_link, "stopping": _take_stop, "node_closed": _take_closed_node,
    "watchdog": _take_watchdog, "killed": _take_kill, "kill_failed": _take_kill,
    "delay": _take_delay, "delay_end": _take_delay_end, "write_error": _take_write_error,
    "port_up": _take_port_up, "port_down": _take_port_down, "port_closed": _take_port_closed,
    "closing_port": _take_closing, "disconnecting": _take_closing,
    "removed": _take_removed, "received": _take_received, "read": _take_read, "queued": _take_queued,
}
_HANDLERS.update({kind: _take_loss_part for kind in _LOSS_PARTS})
_HANDLERS.update({kind: _take_host_fault for kind in _HOST_FAULTS})


def _close_run(run):
    if run.connected_since is not None:
        run.link_seconds += max(0.0, run.end - run.connected_since)
        run.event("link", run.connected_since, run.end, "the link is up, to the end of the log")
    if run.lost_at is not None:
        run.event("down", run.lost_at, run.end, "the link is lost, to the end of the log")
    if run.delay_since is not None:
        _end_delay(run, run.end, "the host is delayed, to the end of the log")
    for number, port in run.ports.items():
        if port.open_since is not None:
            run.event("port", port.open_since, run.end, f"port {number} is open", number)


# ---- what is told of it ----


def as_data(run):
    """A run as plain data, for JSON; times in seconds."""
    seconds = max(0.0, run.end - run.begin)
    rates = [rate for _, rate in run.bins.points()]
    return {
        "kept": run.kept,
        "begin": reading.date_text(run.begin),
        "end": reading.date_text(run.end),
        "seconds": round(seconds, 3),
        "ended_cleanly": run.ended_cleanly,
        "link": {
            "gained": run.gained,
            "lost": run.lost,
            "causes": dict(run.causes),
            "up_seconds": round(run.link_seconds, 3),
            "recovery_median": _rounded(statistics.median(run.recoveries)) if run.recoveries else None,
            "recovery_worst": _rounded(max(run.recoveries)) if run.recoveries else None,
            "down_at_end": run.lost_at is not None,
        },
        "watchdog_restarts": run.watchdog_restarts,
        "kills": run.kills,
        "delays": {
            "count": len(run.delays),
            "total": _rounded(sum(run.delays)),
            "longest": _rounded(max(run.delays)) if run.delays else None,
            "open_at_end": run.delay_since is not None,
        },
        "ports": {str(number): _port_data(port) for number, port in sorted(run.ports.items())},
        "written": {"messages": run.written_messages, "bytes_with_headers": run.written_bytes},
        "errors": {str(code): count for code, count in sorted(run.errors.items())},
        "counts": {kind: run.counts[kind] for kind in _COUNTED if run.counts[kind]},
        "log": {
            "lines": run.lines,
            "further_lines": run.further_lines,
            "lines_per_second": _rounded(run.lines / seconds) if seconds else None,
            "most_lines_per_second": _rounded(max(rates)) if rates else None,
            "missing_files": run.missing_files,
            "clock_steps_back": run.clock_steps,
            "torn_lines": run.torn_lines,
            "unknown_lines": run.unknown_lines,
            "unknown_by_function": dict(run.unknown),
        },
    }


def _rounded(seconds):
    return round(seconds, 3)


def _port_data(port):
    return {
        "opened": port.opened, "closed": port.closed, "cut_off": port.lost, "refused": port.refused,
        "received_bytes_told": port.received_bytes, "read_bytes_told": port.read_bytes,
        "removed_messages": port.removed_messages,
    }


def as_text(data):
    """A run for people."""
    link, delays, log = data["link"], data["delays"], data["log"]
    lines = [
        f"Run from {data['begin']} to {data['end']}" + (", the one before" if data["kept"] else ""),
        f"  time          {data['seconds']} s, link up for {link['up_seconds']} s; "
        + ("ended cleanly" if data["ended_cleanly"] else "no clean end in the log"),
        f"  link          gained {link['gained']}, lost {link['lost']}",
    ]
    lines += [f"                  {count} x {cause}" for cause, count in link["causes"].items()]
    if link["recovery_worst"] is not None:
        lines.append(f"  recovery      median {link['recovery_median']} s, worst {link['recovery_worst']} s")
    lines.append(f"  watchdog      {data['watchdog_restarts']} restarts, {data['kills']} kills")
    if delays["count"]:
        lines.append(f"  delays        {delays['count']}, longest {delays['longest']} s, in all {delays['total']} s")
    lines += [_port_text(number, port) for number, port in data["ports"].items()]
    written = data["written"]
    lines.append(f"  written       {written['messages']} messages, {written['bytes_with_headers']} bytes with headers")
    lines += [f"  error {code:<8}{count}" for code, count in data["errors"].items()]
    lines.append(f"  log           {log['lines']} lines, {log['lines_per_second']} a second, "
                 f"at most {log['most_lines_per_second']}; {log['missing_files']} files missing")
    return "\n".join(lines)


def _port_text(number, port):
    return (f"  port {number:<9}opened {port['opened']}, closed {port['closed']}, cut off {port['cut_off']}, "
            f"refused {port['refused']}; bytes told: {port['received_bytes_told']} received, "
            f"{port['read_bytes_told']} read")
