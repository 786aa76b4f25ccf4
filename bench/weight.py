# SPDX-License-Identifier: Apache-2.0
"""What a service weighs: memory, heap allocations and system calls."""
import pathlib
import re
import shutil
import tempfile
import time

import callgrind
from crowd import Crowd
from processes import status

CONNECTIONS = 1000
COUNTED_CALLS = 200
COUNTED_CASES = ["none", "least", "small"]
QUIET_SECONDS = 5


def memory(pid):
    """What is resident, and what no other process shares, in KiB."""
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return {what: int(re.search(rf"^{field}: *(\d+)", text, re.MULTILINE).group(1))
            for what, field in (("resident", "Rss"), ("private dirty", "Private_Dirty"))}


def per_connection(bench):
    """Bytes of the service's memory for one idle connection that has had one request."""
    with bench.pair("ours", "none", bench.all_cpus, clients=0) as pair:
        before = memory(pair.server.pid)
        crowd = Crowd("ours", pair.folder).connect(CONNECTIONS)
        for connection in crowd.connections:
            crowd.ask(connection)
        after = memory(pair.server.pid)
        crowd.close()
    return {kind: (after[kind] - before[kind]) * 1024 / CONNECTIONS for kind in ("resident", "private dirty")}


def idle_memory(bench, name):
    with bench.pair(name, "none", bench.all_cpus, clients=0) as pair:
        time.sleep(0.2)  # for threads that start a little later
        return memory(pair.server.pid)


def after_bulk(bench, name):
    """A server's KiB before its first bulk request, at its peak, and once it has been quiet for a while."""
    with bench.pair(name, "bulk", bench.all_cpus, clients=0) as pair:
        before = status(pair.server.pid, "VmRSS")
    with bench.pair(name, "bulk", bench.all_cpus) as pair:
        pair.run(5 * bench.milliseconds)
        peak = status(pair.server.pid, "VmHWM")
        time.sleep(QUIET_SECONDS)
        return {"before": before, "peak": peak, "quiet": status(pair.server.pid, "VmRSS")}


def allocations(bench, name, case):
    """Heap allocations for one request: client, server."""
    counted = callgrind.count(bench, name, case, callgrind.allocations)
    return [round(side["heap"]) for side in counted.values()]


def system_calls(bench, name, case, side):
    """System calls that one side makes for one request."""
    def seen():
        time.sleep(0.3)  # until strace has written what there is
        return sum("resumed" not in line for line in log.read_text().splitlines())

    with tempfile.TemporaryDirectory() as folder:
        log = pathlib.Path(folder, "log")
        strace = (["strace", "-D", "-f", "-qq", "-o", str(log)], {})
        with bench.pair(name, case, bench.all_cpus, **{f"{side}_setup": strace}) as pair:
            before = seen()
            pair.call(COUNTED_CALLS)
            return (seen() - before) // COUNTED_CALLS  # the commands of the driver make less than one


def measure(bench):
    result = {"idle memory": {name: idle_memory(bench, name) for name in bench.contenders},
              "per connection": per_connection(bench),
              "after bulk": {name: after_bulk(bench, name) for name in ("ours", "floor-list")}}
    if callgrind.is_available() and not bench.quick:
        result["allocations"] = {case: {name: allocations(bench, name, case) for name in bench.contenders
                                        if name != "floor"} for case in COUNTED_CASES}
    if shutil.which("strace") and not bench.quick:
        result["system calls"] = {name: [system_calls(bench, name, "least", side) for side in ("client", "server")]
                                  for name in bench.contenders}
    return result
