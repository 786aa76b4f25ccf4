# SPDX-License-Identifier: Apache-2.0
"""Many connections to one server, as bare sockets: they cost the driver little and can be of any user."""
import contextlib
import os
import select
import signal
import socket
import struct
import time

from processes import cpu_nanoseconds, status

REPLY_BYTES = 28  # without records
SOCKETS = {"ours": "65993.sock", "floor": "bench.sock"}


class Crowd:
    """Connections of one contender whose requests have empty fields."""

    def __init__(self, name, folder):
        self.reply = REPLY_BYTES
        self.path = os.path.join(folder, SOCKETS[name])
        self.request = frame() if name == "ours" else struct.pack("<I", len(frame())) + bytes(len(frame()) - 4)
        self.connections = []

    def connect(self, count):
        for _ in range(count):
            connection = socket.socket(socket.AF_UNIX)
            connection.connect(self.path)
            self.connections.append(connection)
        return self

    def ask(self, connection):
        connection.sendall(self.request)
        if len(connection.recv(self.reply, socket.MSG_WAITALL)) != self.reply:
            raise RuntimeError("the server did not answer")

    def ask_in_turn(self, seconds):
        """Each connection once a second, evenly spread; how often in all."""
        start, asked = time.monotonic(), 0
        while asked < seconds * len(self.connections):
            time.sleep(max(0, start + asked / len(self.connections) - time.monotonic()))
            self.ask(self.connections[asked % len(self.connections)])
            asked += 1
        return asked

    def ask_for_ever(self):
        """Each connection again as soon as it has its reply."""
        waiting = select.epoll()
        left = {connection.fileno(): (connection, 0) for connection in self.connections}
        for number, (connection, _) in left.items():
            waiting.register(number, select.EPOLLIN)
            connection.sendall(self.request)
        while True:
            for number, _ in waiting.poll():
                connection, received = left[number]
                received += len(connection.recv(self.reply))
                if received == self.reply:
                    connection.sendall(self.request)
                    received = 0
                left[number] = connection, received

    def close(self):
        for connection in self.connections:
            connection.close()


def frame():
    """A by-app request with empty fields, as docs/wire-protocol.md has it."""
    descriptor = "varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf"
    token = struct.pack("<i", len(descriptor)) + (descriptor + "\0").encode("utf-16-le")
    body = token + bytes(-len(token) % 4) + struct.pack("<iiii", 0, 0, 0, 0)
    return struct.pack("<4sHHIiI", b"VARN", 1, 1, 1, 0, len(body)) + body


def in_turn(bench, name, connections, seconds):
    """What a server takes for connections that each ask once a second."""
    with bench.pair(name, "none", bench.one_cpu, clients=0) as pair:
        crowd = Crowd(name, pair.folder).connect(connections)
        for connection in crowd.connections:
            crowd.ask(connection)
        before = cpu_nanoseconds(pair.server.pid)
        asked = crowd.ask_in_turn(seconds)
        result = {"CPU time": (cpu_nanoseconds(pair.server.pid) - before) / asked,
                  "resident KiB": status(pair.server.pid, "VmRSS")}
        crowd.close()
    return result


@contextlib.contextmanager
def greedy(name, folder, connections, user):
    """A process of `user` that keeps that many connections busy."""
    crowd = Crowd(name, folder)  # while this process may still read all of Python
    pid = os.fork()
    if pid == 0:
        try:
            os.setgid(user)
            os.setuid(user)
            crowd.connect(connections).ask_for_ever()
        finally:
            os._exit(1)
    try:
        yield
        if os.waitpid(pid, os.WNOHANG) != (0, 0):
            raise RuntimeError("the greedy user was thrown out")
    finally:
        with contextlib.suppress(ProcessLookupError, ChildProcessError):
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
