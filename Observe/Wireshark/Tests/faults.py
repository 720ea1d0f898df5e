# SPDX-License-Identifier: MIT
"""Both ends of a simulated link in one process, with a fault each: every run has the same transfers.

Called by simnode, with the name of the fault.
"""

import fcntl
import os
import pathlib
import signal
import socket
import subprocess
import sys

from usbmon import NO_DATA, data, max_read_size

_NODE = "/dev/brn7200"
_SET_WRITE_TIMEOUT, _SET_READ_TIMEOUT = 0x5301, 0x5302
_TIMEOUT = 300  # ms, of the device's calls
_LONGEST = 65536
_PAUSE = 0.1  # seconds between two looks
_WAIT = 60  # seconds for a run
_QUESTION, _ANSWER = data(1, b"question"), data(1, b"answer, or more of it")


class _Link:
    """The device's descriptor and the host's socket."""

    def __init__(self):
        self._folder = pathlib.Path(os.environ["SIMNODE_DIR"])
        self._node = os.open(_NODE, os.O_RDWR)
        fcntl.ioctl(self._node, _SET_READ_TIMEOUT, _TIMEOUT)
        fcntl.ioctl(self._node, _SET_WRITE_TIMEOUT, _TIMEOUT)
        self.connect()

    def _socket(self, name):
        connected = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        connected.settimeout(_WAIT)
        connected.connect(str(self._folder / name))
        return connected

    def connect(self):
        """The host comes."""
        self._host = self._socket("host")

    def control(self, command):
        """Has the node do something; returns its answer."""
        with self._socket("control") as control:
            control.send(command.encode())
            answer = control.recv(_LONGEST)
        assert answer.startswith(b"ok"), answer
        return answer.decode()

    def send(self, transfer):
        """From the host."""
        self._host.send(transfer)

    def receive(self):
        """To the host."""
        return self._host.recv(_LONGEST)

    def read(self):
        """By the device."""
        return os.read(self._node, _LONGEST)

    def write(self, transfer):
        """By the device; returns the bytes that were taken."""
        return os.write(self._node, transfer)

    def turn(self, question=_QUESTION, answer=_ANSWER):
        """A transfer each way."""
        self.send(question)
        assert self.read() == question
        assert self.write(answer) == len(answer)
        assert self.receive() == answer


def _fails(call, *arguments):
    try:
        call(*arguments)
    except OSError:
        return
    raise AssertionError("the call should fail")


def _healthy(link):
    link.turn(NO_DATA, data(2, b"x" * 12) + data(3, b"y"))


def _write_fails(link):
    link.control("write fail EIO 1")
    link.send(_QUESTION)
    link.read()
    _fails(link.write, _ANSWER)
    link.write(_ANSWER)
    assert link.receive() == _ANSWER


def _write_short(link):
    link.control("write short 20 1")
    link.send(_QUESTION)
    link.read()
    assert link.write(_ANSWER) == 20
    assert link.receive() == _ANSWER[:20]
    link.write(_ANSWER)
    assert link.receive() == _ANSWER


def _write_zero(link):
    link.control("write zero 1")
    link.send(_QUESTION)
    link.read()
    assert link.write(_ANSWER) == 0
    link.write(_ANSWER)
    assert link.receive() == _ANSWER


def _write_stuck(link):
    link.control("write stuck 1")

    def end_the_write(*_):
        if "writes=2" in link.control("status"):
            signal.setitimer(signal.ITIMER_REAL, 0)
            raise InterruptedError

    signal.signal(signal.SIGALRM, end_the_write)
    signal.setitimer(signal.ITIMER_REAL, _PAUSE, _PAUSE)
    _fails(link.write, _ANSWER)


def _read_silent(link):
    link.control("read silent 1")
    link.send(_QUESTION)
    assert link.read() == b""
    assert link.read() == _QUESTION


def _read_fails(link):
    link.control("read fail EIO 1")
    link.send(_QUESTION)
    _fails(link.read)
    assert link.read() == _QUESTION


def _split(link):
    link.control("split 9")
    link.send(_QUESTION)
    assert b"".join(link.read() for _ in range(3)) == _QUESTION
    link.control("split 0")


def _merge(link):
    link.control("merge 2")
    link.send(NO_DATA)
    link.send(_QUESTION)
    assert link.read() == NO_DATA + _QUESTION


def _inject(link):
    link.control("inject " + b"nonsense".hex())
    assert link.read() == b"nonsense"


def _cable_out(link):
    link.send(_QUESTION)
    link.control("on write 1 cable out")
    _fails(link.write, _ANSWER)
    link.control("reset")
    link.connect()


FAULTS = {"healthy": _healthy, "write-fails": _write_fails, "write-short": _write_short, "write-zero": _write_zero,
          "write-stuck": _write_stuck, "read-silent": _read_silent, "read-fails": _read_fails, "split": _split,
          "merge": _merge, "inject": _inject, "cable-out": _cable_out}


def capture(build, folder, fault):
    """The path of a capture that simnode has written of this fault, between a turn before and one after it."""
    path = folder / f"{fault}.pcap"
    subprocess.run([pathlib.Path(build) / "SimNode" / "simnode", "run", "--pcap", path, "--", sys.executable, __file__,
                    fault], check=True, timeout=_WAIT)
    return path


def _play(fault):
    link = _Link()
    link.turn(NO_DATA, max_read_size(10000))
    FAULTS[fault](link)
    link.turn(data(2, b"behind it"), NO_DATA)


if __name__ == "__main__":
    _play(sys.argv[1])
