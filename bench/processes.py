# SPDX-License-Identifier: Apache-2.0
"""A contender's server and client as processes, and what the kernel says about them."""
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

# The same for every process: glibc's allocator as it comes, nothing preloaded, the default log level.
ENVIRONMENT = {"PATH": os.environ["PATH"]}


def cpu_nanoseconds(pid):
    """The CPU time of all threads of a process, dead ones as well: clock_getcpuclockid(3), spelled out."""
    return time.clock_gettime_ns(~pid << 3 | 2)


def status(pid, field):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1])
    raise KeyError(field)


class Process:
    """One process that says "ready" when it is."""

    def __init__(self, command, cpus, environment=None, user=None):
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, user=user,
            env={**ENVIRONMENT, **(environment or {})}, preexec_fn=lambda: os.sched_setaffinity(0, cpus))
        self.pid = self.process.pid
        if self.process.stdout.readline() != "ready\n":
            self.end()
            raise RuntimeError(f"{' '.join(map(str, command))} failed with {self.process.returncode}")

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def answer(self):
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError("a process ended before its time")
        return line.split()

    def end(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


class Pair:
    """A server and some clients of one contender, in a folder of their own."""

    def __init__(self, program, workload, cpus, clients=1, client_setup=None, server_setup=None, users=None):
        """A setup is what stands before the command, and more environment; `users` are the clients' uids."""
        self.folder = tempfile.mkdtemp(prefix="bench-")
        os.chmod(self.folder, 0o755)
        self.processes = []
        arguments = [self.folder, *map(str, workload)]
        try:
            self.server = self._start(program, "serve", arguments, cpus, server_setup)
            self.clients = [self._start(program, "call", arguments, cpus, client_setup, user)
                            for user in users or [None] * clients]
        except BaseException:
            self.end()
            raise

    def _start(self, program, role, arguments, cpus, setup, user=None):
        prefix, environment = setup or ([], {})
        process = Process([*prefix, program, role, *arguments], cpus, environment, user)
        self.processes.append(process)
        return process

    def run(self, milliseconds):
        """All clients at once for that long; a list of (calls, elapsed, median, p99), times in nanoseconds."""
        for client in self.clients:
            client.send(f"run {milliseconds}")
        return [tuple(map(int, client.answer())) for client in self.clients]

    def call(self, calls):
        for client in self.clients:
            client.send(f"times {calls}")
        for client in self.clients:
            client.answer()

    def work(self, calls):
        """The median CPU time of a call in the client, in nanoseconds, the disposal of answers not counted."""
        self.clients[0].send(f"work {calls}")
        return int(self.clients[0].answer()[2])

    def end(self):
        for process in reversed(self.processes):
            process.end()
        shutil.rmtree(self.folder)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
