# SPDX-License-Identifier: MIT
"""`usbhal forward` with a real program of the device on a simulated node."""

import os
import shlex
import subprocess
import threading
import unittest

from device import WAIT
from forwarding import ForwardTest

SIMNODE = shlex.split(os.environ["SIMNODE"])
MANAGER = shlex.split(os.environ["SAMPLE_MANAGER"])
PORTS = range(1, 6)
ANSWER_TIME = 20  # seconds, after which what was sent counts as lost with the link
BLOCK = bytes(range(256)) * 300


class Node(ForwardTest):
    """Five ports that echo."""

    def setUp(self):
        super().setUp()
        echoes = [word for port in PORTS for word in ("--port", f"{port}=echo")]
        self.node = subprocess.Popen([*SIMNODE, "run", "--dir", self.folder, "--", *MANAGER, *echoes,
                                      "--log-dir", self.path("log")],
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        self.addCleanup(self.end_node)
        self.program, self.places = self.forward(*[f"0:{port}" for port in PORTS])

    def end_node(self):
        """Makes sure that nothing of it stays."""
        self.node.terminate()
        try:
            self.node.wait(WAIT)
        finally:
            self.node.kill()

    def control(self, *command):
        """Tells the node what to do."""
        subprocess.run([*SIMNODE, "control", "--dir", self.folder, *command], check=True, capture_output=True)

    def clients(self):
        """A client for each port, which the device has answered."""
        return {port: self.patient_client(port) for port in PORTS}

    def patient_client(self, port):
        """A client of a port, as soon as clients are let in."""
        while True:
            client = self.connect(self.places[port])
            client.settimeout(ANSWER_TIME)
            try:
                client.sendall(b"hello")
                if self.receive(client, 5) == b"hello":
                    client.settimeout(WAIT)
                    return client
            except (ConnectionError, TimeoutError):
                pass
            client.close()

    def exchange(self, clients):
        """Sends a block through each tunnel at once; what comes back."""
        senders = [threading.Thread(target=client.sendall, args=(BLOCK,)) for client in clients.values()]
        for sender in senders:
            sender.start()
        received = {port: self.receive(client, len(BLOCK)) for port, client in clients.items()}
        for sender in senders:
            sender.join()
        return received

    def test_five_tunnels_at_once(self):
        """Each gets its own bytes."""
        self.assertEqual(self.exchange(self.clients()), {port: BLOCK for port in PORTS})

    def test_the_cable_out_and_in(self):
        """Clients see the end, and those that come later are served."""
        for _ in range(3):
            clients = self.clients()
            self.control("cable", "out")
            for client in clients.values():
                self.assert_ended(client)
            self.control("cable", "in")
        self.assertEqual(self.exchange(self.clients()), {port: BLOCK for port in PORTS})


if __name__ == "__main__":
    unittest.main()
