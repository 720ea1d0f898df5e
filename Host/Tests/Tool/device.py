# SPDX-License-Identifier: MIT
"""A device that answers every transfer, behind the socket of a node."""

import collections
import os
import socket
import threading
import time

WAIT = 60  # seconds that something may take to happen
READ_SIZE = 10000
PACE = 0.002  # seconds that the device takes for a turn


def message(port, payload):
    """One data message."""
    return b"FADA%05d%04d" % (len(payload) + 4, port) + payload


def payloads(transfer):
    """The ports and payloads of a transfer of data messages."""
    while transfer.startswith(b"FADA"):
        end = int(transfer[4:9]) + 9
        yield int(transfer[9:13]), transfer[13:end]
        transfer = transfer[end:]


class Device:
    """Keeps what each port receives, and sends what it is told to."""

    def __init__(self, folder):
        self._path = os.path.join(folder, "host")
        self._change = threading.Condition()
        self._received = collections.defaultdict(bytes)
        self._waiting = collections.deque()
        self._swallows = False
        self._echoing = set()
        self._sent = 0
        self._listening = None
        self._connection = None
        self.plug()

    def plug(self):
        """The cable is in."""
        self._listening = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._listening.bind(self._path)
        self._listening.listen(1)
        threading.Thread(target=self._serve, args=(self._listening,), daemon=True).start()

    def unplug(self):
        """The cable is out, and what waits to be sent is lost with it."""
        os.remove(self._path)
        with self._change:
            for end in (self._listening, self._connection):
                if end is not None:
                    end.shutdown(socket.SHUT_RDWR)
                    end.close()
            self._connection = None
            self._waiting.clear()

    def swallow(self, swallows):
        """Whether transfers with bytes of a port stay without an answer, now and later."""
        with self._change:
            self._swallows = swallows

    def echo(self, port):
        """Sends back what the port receives from now on."""
        with self._change:
            self._echoing.add(port)

    def send(self, port, payload):
        """Sends bytes of a port, a message in each turn."""
        with self._change:
            for begin in range(0, len(payload), READ_SIZE - 13):
                self._waiting.append(message(port, payload[begin:begin + READ_SIZE - 13]))

    def sent(self, size=0):
        """How many bytes of payload have been sent, as soon as that are so many."""
        with self._change:
            self._change.wait_for(lambda: self._sent >= size, WAIT)
            return self._sent

    def received(self, port, size):
        """What the port has received, as soon as that are so many bytes."""
        with self._change:
            self._change.wait_for(lambda: len(self._received[port]) >= size, WAIT)
            return self._received[port]

    def forget(self):
        """Forgets what was received."""
        with self._change:
            self._received.clear()

    def _serve(self, listening):
        while True:
            try:
                connection = listening.accept()[0]
            except OSError:
                return
            with self._change:
                self._connection = connection
            with connection:
                self._exchange(connection)

    def _exchange(self, connection):
        try:
            while transfer := connection.recv(65536):
                time.sleep(PACE)
                answer = self._take(transfer)
                if answer:
                    connection.send(answer)
        except OSError:
            pass

    def _take(self, transfer):
        with self._change:
            for port, payload in payloads(transfer):
                self._received[port] += payload
                if port in self._echoing:
                    self._waiting.append(message(port, payload))
            self._change.notify_all()
            if self._swallows and transfer.startswith(b"FADA"):
                return None
            if not self._waiting:
                return b"DEVICE_NODATA%05d" % READ_SIZE
            answer = self._waiting.popleft()
            self._sent += len(answer) - 13
            return answer
