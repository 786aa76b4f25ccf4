# SPDX-License-Identifier: Apache-2.0
"""What a service weighs: memory, threads, heap allocations and system calls."""
import collections
import pathlib
import re
import shutil
import tempfile
import time

from crowd import Crowd
from processes import Process, status

CONNECTIONS = 1000
COUNTED_CALLS = 200
COUNTED_CASES = {"none": 0, "least": 0, "small": 8}
QUIET_SECONDS = 5
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
            else:
                owner = "program" if path.startswith("/") else "heap and stacks"
        elif line.startswith("Rss:"):
            parts[owner] += int(line.split()[1])
            parts["resident"] += int(line.split()[1])
        elif line.startswith("Private_Dirty:"):
            parts["private dirty"] += int(line.split()[1])
    return dict(parts)


def per_connection(bench):
    """Bytes of the service's memory for one idle connection that has had one request."""
    with bench.pair("ours", "none", 0, bench.all_cpus, clients=0) as pair:
        before = memory(pair.server.pid)
        crowd = Crowd(bench, "ours", pair.folder).connect(CONNECTIONS)
        for connection in crowd.connections:
            crowd.ask(connection)
        after = memory(pair.server.pid)
        crowd.close()
    return {kind: (after[kind] - before[kind]) * 1024 / CONNECTIONS for kind in ("resident", "private dirty")}


def idle_memory(bench):
    bare = Process([bench.program("bare")], bench.all_cpus)
    result = {"bare": memory(bare.pid)}
    bare.end()
    for name in bench.contenders:
        with bench.pair(name, "none", 0, bench.all_cpus, clients=0) as pair:
            time.sleep(0.2)  # for threads that start a little later
            result[name] = memory(pair.server.pid)
    return result


def client_threads(bench):
    result = {}
    for name in bench.contenders:
        with bench.pair(name, "small", 8, bench.all_cpus) as pair:
            result[name] = status(pair.clients[0].pid, "Threads")
    return result


def after_bulk(bench, name):
    """A server's KiB at its peak while it answers bulk requests, and once it has been quiet for a while."""
    with bench.pair(name, "bulk", 10000, bench.all_cpus) as pair:
        pair.run(5 * bench.milliseconds)
        peak = status(pair.server.pid, "VmHWM")
        time.sleep(QUIET_SECONDS)
        return {"peak": peak, "quiet": status(pair.server.pid, "VmRSS")}


def allocations(bench, name, case):
    """Heap allocations per request: client, server."""
    with tempfile.TemporaryDirectory() as folder:
        files = [pathlib.Path(folder, side) for side in ("client", "server")]
        for file in files:
            file.write_bytes(bytes(8))
        setups = [([], {"LD_PRELOAD": str(bench.program("allocation-counter.so", "libbench")),
                        "BENCH_ALLOCATION_COUNTER": str(file)}) for file in files]
        with bench.pair(name, case, COUNTED_CASES[case], bench.all_cpus, client_setup=setups[0],
                        server_setup=setups[1]) as pair:
            counts = []
            for _ in range(3):
                counts.append([int.from_bytes(file.read_bytes(), "little") for file in files])
                pair.call(COUNTED_CALLS)
    return [(last - first) / COUNTED_CALLS for first, last in zip(*counts[1:])]


def system_calls(bench, name, case, side):
    """System calls that one side makes for one request."""
    def seen():
        time.sleep(0.3)  # until strace has written what there is
        return sum("resumed" not in line for line in log.read_text().splitlines())

    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder, "log")
        strace = (["strace", "-D", "-f", "-qq", "-o", str(log)], {})
        with bench.pair(name, case, COUNTED_CASES[case], bench.all_cpus, **{f"{side}_setup": strace}) as pair:
            before = seen()
            pair.call(COUNTED_CALLS)
            return (seen() - before) // COUNTED_CALLS  # the commands of the driver make less than one


def measure(bench):
    result = {"idle memory": idle_memory(bench), "per connection": per_connection(bench),
              "client threads": client_threads(bench),
              "after bulk": {name: after_bulk(bench, name) for name in ("ours", "floor-list")},
              "allocations": {case: {name: allocations(bench, name, case) for name in bench.contenders
                                     if name != "floor"} for case in COUNTED_CASES}}
    if shutil.which("strace") and not bench.quick:
        result["system calls"] = {name: [system_calls(bench, name, "least", side) for side in ("client", "server")]
                                  for name in bench.contenders}
    return result
