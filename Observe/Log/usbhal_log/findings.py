# SPDX-License-Identifier: MIT
"""What of a run needs attention, each with the place in the documentation that tells more."""

import dataclasses

PAGE = "troubleshooting.md"
LONG_DELAY = 10.0  # seconds; by then a client has stopped to read


@dataclasses.dataclass
class Finding:
    """One thing that needs attention."""
    text: str
    anchor: str

    @property
    def link(self):
        """The page and the heading that tell more."""
        return f"{PAGE}#{self.anchor}"


def findings_of(data):
    """The findings of a run that was made plain data."""
    return [Finding(text, anchor) for check in _CHECKS for text, anchor in check(data)]


def _link(data):
    link = data["link"]
    if not link["gained"]:
        yield "The link never came up in this log.", "the-link-does-not-come-up"
    for cause, count in link["causes"].items():
        if cause != "stop":
            yield f"The link was lost {_times(count)}: {cause}.", "the-link-comes-and-goes"
    if link["down_at_end"]:
        yield "The link is down at the end of the log.", "the-link-does-not-come-up"


def _node(data):
    counts = data["counts"]
    if refused := counts.get("node_refused"):
        yield f"The device node could not be opened, {_times(refused)}.", "the-link-does-not-come-up"
    if failed := counts.get("write_failed", 0) + counts.get("partial_write", 0):
        yield f"Writes to the node failed {_times(failed)}.", "the-link-comes-and-goes"
    if counts.get("no_memory"):
        yield "There was no memory for maxReadSize bytes.", "the-link-does-not-come-up"


def _threads(data):
    if count := data["watchdog_restarts"]:
        yield f"The watchdog restarted the thread {_times(count)}.", "the-watchdog-restarts-the-thread"
    if count := data["counts"].get("still_running"):
        yield f"A stop found the thread still running {_times(count)}.", "stop-takes-long-or-ends-in-a-kill"
    elif data["kills"] > data["watchdog_restarts"]:
        yield f"The thread was killed {_times(data['kills'])}.", "stop-takes-long-or-ends-in-a-kill"
    if count := data["counts"].get("kill_failed"):
        yield f"The thread could not be killed {_times(count)}.", "stop-takes-long-or-ends-in-a-kill"


def _delays(data):
    delays = data["delays"]
    anchor = "the-host-gets-device_wtsend-and-nothing-else"
    if delays["open_at_end"]:
        yield "The host is still delayed at the end of the log: a client does not read.", anchor
    elif delays["count"] and delays["longest"] >= LONG_DELAY:
        yield f"The host was delayed for up to {delays['longest']} s: a client reads too slowly.", anchor
    if count := data["counts"].get("overflow"):
        yield f"A port's queue overflowed {_times(count)}: its client does not read.", anchor


def _messages(data):
    counts = data["counts"]
    if bad := sum(counts.get(kind, 0) for kind in ("not_valid", "wrong_size", "wrong_id")):
        yield f"The host sent {_count(bad, 'transfer')} that broke the protocol.", "readyread-never-comes"
    if count := counts.get("unknown_port"):
        yield f"The host sent {_count(count, 'message')} for ports that are not open.", "readyread-never-comes"
    if removed := sum(port["removed_messages"] for port in data["ports"].values()):
        yield f"{_count(removed, 'message')} of the clients never reached the host.", "nothing-arrives-at-the-host"
    full = counts.get("write_full", 0) + counts.get("no_room", 0)
    if full:
        yield f"A write took less than it was given {_times(full)}.", "write-returns-0-or-less-than-it-was-given"


def _errors(data):
    refused = {code: count for code, count in data["errors"].items() if code in ("4", "5", "7")}
    for code, count in refused.items():
        yield f"openConnection failed with error {code}, {_times(count)}.", "openconnection-returns-false"


def _log(data):
    log = data["log"]
    if data["counts"].get("log_ended"):
        yield "The log stopped: its next file could not be made.", "the-log-stops"
    if log["missing_files"]:
        yield f"{_count(log['missing_files'], 'file')} of the log are missing in between.", "the-log-stops"
    if log["clock_steps_back"]:
        yield f"The clock was set back {_times(log['clock_steps_back'])}.", "still-not-clear"
    if log["unknown_lines"]:
        yield (f"{_count(log['unknown_lines'], 'line')} have a text that this program does not know.",
               "still-not-clear")


_CHECKS = (_link, _node, _threads, _delays, _messages, _errors, _log)


def _times(count):
    return "once" if count == 1 else f"{count} times"


def _count(count, noun):
    return f"{count} {noun}" if count == 1 else f"{count} {noun}s"
