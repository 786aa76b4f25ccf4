# SPDX-License-Identifier: Apache-2.0
"""What a service weighs: memory, threads, heap allocations and system calls."""
import collections
import os
import pathlib
import re
import shutil
import socket
import struct
import tempfile
import time

from processes import Process, status

CONNECTIONS = 1000
COUNTED_CALLS = 200
COUNTED_CASES = {"none": 0, "least": 0, "small": 8}
PATIENCE_SECONDS = 10
ABILITY_SOCKET = "65993.sock"
OUR_LIBRARIES = ("libsecurity_privacy", "libvarn_platform")


def memory(pid):
    """Resident KiB by what they belong to, and Private_Dirty, what no other process shares."""
    parts = collections.Counter()
    owner = None
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text().splitlines():
        mapping = re.match(r"[0-9a-f]+-[0-9a-f]+ \S+ \S+ \S+ (\d+)\s*(.*)", line)
        if mapping:
            path = mapping.group(2)
            if any(name in path for name in OUR_LIBRARIES):
                owner = "our libraries"
            elif ".so" in path:
                owner = "other libraries"
            elif path.startswith("/"):
                owner = "program"
            else:
                owner = "heap and stacks"
        elif line.startswith("Rss:"):
            parts[owner] += int(line.split()[1])
            parts["resident"] += int(line.split()[1])
        elif line.startswith("Private_Dirty:"):
            parts["private dirty"] += int(line.split()[1])
    return dict(parts)


def connect(folder, count):
    """Connections to our service that stay silent."""
    connections = []
    for _ in range(count):
        connection = socket.socket(socket.AF_UNIX)
        connection.connect(os.path.join(folder, ABILITY_SOCKET))
        connections.append(connection)
    return connections


def frame():
    """A by-app request with empty fields, as docs/wire-protocol.md has it."""
    descriptor = "varn.appsecurityprivacy.securityprivacyserver.SecurityPrivacyServiceIntf"
    token = struct.pack("<i", len(descriptor)) + (descriptor + "\0").encode("utf-16-le")
    body = token + bytes(-len(token) % 4) + struct.pack("<iiii", 0, 0, 0, 0)
    return struct.pack("<4sHHIiI", b"VARN", 1, 1, 1, 0, len(body)) + body


def wait_until(condition):
    end = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.01)


def per_connection(bench):
    """Bytes of the service's memory for one idle connection: never used, and after one request."""
    with bench.pair("ours", "none", 0, bench.all_cpus, clients=0) as pair:
        pid = pair.server.pid
        descriptors = len(os.listdir(f"/proc/{pid}/fd"))
        before = memory(pid)
        connections = connect(pair.folder, CONNECTIONS)
        wait_until(lambda: len(os.listdir(f"/proc/{pid}/fd")) >= descriptors + CONNECTIONS)
        silent = memory(pid)
        request, reply = frame(), int(bench.workload("floor", "none", 0)[3])
        for connection in connections:
            connection.sendall(request)
            if len(connection.recv(reply, socket.MSG_WAITALL)) != reply:
                raise RuntimeError("the service did not answer")
        used = memory(pid)
        for connection in connections:
            connection.close()
    return {state: {kind: (after[kind] - before[kind]) * 1024 / CONNECTIONS for kind in ("resident", "private dirty")}
            for state, after in (("silent", silent), ("used", used))}


def idle_memory(bench):
    bare = Process([bench.program("bare")], bench.all_cpus)
    result = {"bare": memory(bare.pid)}
    bare.end()
    for name in bench.contenders:
        with bench.pair(name, "none" if name != "floor" else "least", 0, bench.all_cpus, clients=0) as pair:
            time.sleep(0.2)  # for threads that start a little later
            result[name] = memory(pair.server.pid)
    return result


def client_threads(bench):
    result = {}
    for name in bench.contenders:
        with bench.pair(name, "small", 8, bench.all_cpus) as pair:
            result[name] = status(pair.clients[0].pid, "Threads")
    return result


def allocations(bench, name, case):
    """Heap allocations per request: client, server."""
    with tempfile.TemporaryDirectory() as folder:
        files = [pathlib.Path(folder, side) for side in ("client", "server")]
        for file in files:
            file.write_bytes(bytes(8))
        setups = [([], {"LD_PRELOAD": str(bench.programs / "libbench-allocation-counter.so"),
                        "BENCH_ALLOCATION_COUNTER": str(file)}) for file in files]
        with bench.pair(name, case, COUNTED_CASES[case], bench.all_cpus, client_setup=setups[0],
                        server_setup=setups[1]) as pair:
            counts = []
            for _ in range(2):
                counts.append([int.from_bytes(file.read_bytes(), "little") for file in files])
                pair.call(COUNTED_CALLS)
            counts.append([int.from_bytes(file.read_bytes(), "little") for file in files])
    return [(last - first) / COUNTED_CALLS for first, last in zip(counts[1], counts[2])]


def system_calls(bench, name, side):
    """System calls that one side makes for a set-checked-state request."""
    def seen():
        time.sleep(0.3)  # until strace has written what there is
        return sum("resumed" not in line for line in log.read_text().splitlines())

    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder, "log")
        strace = (["strace", "-D", "-f", "-qq", "-o", str(log)], {})
        with bench.pair(name, "least", 0, bench.all_cpus, **{f"{side}_setup": strace}) as pair:
            before = seen()
            pair.call(COUNTED_CALLS)
            return (seen() - before) // COUNTED_CALLS  # the commands of the driver make less than one


def measure(bench):
    return {"idle memory": idle_memory(bench), "per connection": per_connection(bench),
            "client threads": client_threads(bench),
            "allocations": {case: {name: allocations(bench, name, case) for name in bench.contenders
                                   if name != "floor"} for case in COUNTED_CASES},
            "system calls": {name: [system_calls(bench, name, side) for side in ("client", "server")]
                             for name in bench.contenders} if shutil.which("strace") and not bench.quick else {}}
