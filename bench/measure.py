# SPDX-License-Identifier: Apache-2.0
"""Runs the contenders in interleaved rounds."""
import contextlib
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import sys

import callgrind
import crowd
from processes import Pair, cpu_nanoseconds, status
import weight

PEERS = ["sd-bus", "capnp", "grpc"]
CONTENDERS = ["ours", "floor", "floor-codec", "floor-list", *PEERS]
# Records in the answer, and bytes of our request and reply as they travel, of which the floor sends as many.
WORKLOADS = {"small": (8, 368, 1276), "bulk": (10000, 352, 1560028), "least": (0, 268, 28),
             "usage": (10000, 316, 1000028), "token": (100, 2988, 12032), "none": (0, 188, 28)}
CASES = ["small", "bulk", "least", "usage", "token"]
CASES_WITHOUT_PEERS = ["usage", "token"]
PARTS = [*CASES, "many", "starts", "work", "turns", "users", "idle", "weight", "where"]
MANY_CLIENTS = 4
CONNECTIONS = 1000
USERS = range(60001, 60009)  # the last one is greedy
GREEDY_CONNECTIONS = 100
# glibc keeps what is freed: no page is given back and taken anew between two calls.
KEEPING = ([], {"MALLOC_TRIM_THRESHOLD_": str(1 << 30), "MALLOC_MMAP_THRESHOLD_": str(1 << 25)})


def say(text):
    print(text, file=sys.stderr, flush=True)


class Bench:
    def __init__(self, build, quick):
        self.build = build
        self.quick = quick
        # What a process costs depends on where its memory happens to lie: so everybody starts several times.
        self.repeats, self.rounds, self.milliseconds = (1, 3, 20) if quick else (5, 3, 200)
        self.all_cpus = os.sched_getaffinity(0)
        self.one_cpu = {max(self.all_cpus)}
        self.contenders = [name for name in CONTENDERS if self.program(name).exists()]
        self.left_out = [name for name in CONTENDERS if name not in self.contenders]

    def program(self, name, prefix="bench"):
        return self.build / "bench" / f"{prefix}-{name}"

    def measure(self, parts):
        for name in self.left_out:
            say(f"{name} is left out: its package was missing when the benchmarks were built")
        settings = {"starts": self.repeats, "rounds": self.rounds, "milliseconds": self.milliseconds,
                    "left out": self.left_out}
        results = {"settings": settings, "machine": self.machine(), "load before": os.getloadavg(), "calls": {}}
        for cpus, label in ((self.one_cpu, "one CPU"), (self.all_cpus, "unpinned")):
            results["calls"][label] = {}
            for case in CASES:
                if case in parts:
                    say(f"{case}, {label}")
                    results["calls"][label][case] = self.together({
                        name: lambda name=name: self.pair(name, case, cpus) for name in self.contenders
                        if name not in PEERS or case not in CASES_WITHOUT_PEERS})
        for part in PARTS[len(CASES):]:
            if part in parts:
                say(part)
                results[part] = weight.measure(self) if part == "weight" else getattr(self, part)()
        results["load after"] = os.getloadavg()
        return results

    def pair(self, name, case, cpus, **options):
        return Pair(self.program(name), [case, *WORKLOADS[case]], cpus, **options)

    def interleave(self, pairs):
        """Rounds in turn, each time beginning with another pair. For each pair a list of rounds."""
        rounds = {key: [] for key in pairs}
        keys = list(pairs)
        for number in range(self.rounds):
            for offset in range(len(keys)):
                key = keys[(number + offset) % len(keys)]
                rounds[key].append(self.round(pairs[key]))
        return rounds

    def round(self, pair):
        """Sums over the clients, and the median of their medians."""
        server, clients = pair.server.pid, [client.pid for client in pair.clients]
        before = cpu_nanoseconds(server), sum(map(cpu_nanoseconds, clients))
        answers = pair.run(self.milliseconds)
        calls = sum(answer[0] for answer in answers)
        return {"calls per second": sum(a[0] * 1e9 / a[1] for a in answers),
                "mean": statistics.mean(a[1] / a[0] for a in answers),
                "median": statistics.median(a[2] for a in answers), "p99": statistics.median(a[3] for a in answers),
                "server cpu": (cpu_nanoseconds(server) - before[0]) / calls,
                "client cpu": (sum(map(cpu_nanoseconds, clients)) - before[1]) / calls}

    def together(self, make_pairs):
        """Starts the pairs (a function for each key), measures them against each other, ends them; several times."""
        rounds, server_peaks, client_peaks = ({key: [] for key in make_pairs} for _ in range(3))
        for _ in range(self.repeats):
            with contextlib.ExitStack() as stack:
                pairs = {key: stack.enter_context(make()) for key, make in make_pairs.items()}
                for key, its_rounds in self.interleave(pairs).items():
                    rounds[key] += its_rounds
                for key, pair in pairs.items():
                    server_peaks[key].append(status(pair.server.pid, "VmHWM"))
                    client_peaks[key].append(status(pair.clients[0].pid, "VmHWM"))
        return {key: {**{what: statistics.median(one[what] for one in its_rounds) for what in its_rounds[0]},
                      "rounds": [one["median"] for one in its_rounds],
                      "server peak KiB": max(server_peaks[key]), "client peak KiB": max(client_peaks[key])}
                for key, its_rounds in rounds.items()}

    def many(self):
        return self.together({name: lambda name=name: self.pair(name, "small", self.all_cpus,
                                                                clients=MANY_CLIENTS) for name in self.contenders})

    def apart(self, repeats, measure, names=("ours", "floor-list")):
        """What `measure` makes of each contender, for so many starts of their own, in turn."""
        values = {name: [] for name in names}
        for _ in range(1 if self.quick else repeats):
            for name in names:
                values[name].append(measure(name))
        return values

    def starts(self):
        """Mean time of a small call for each start: one client, unpinned."""
        def mean(name):
            with self.pair(name, "small", self.all_cpus) as pair:
                return self.round(pair)["mean"]
        return self.apart(30, mean)

    def work(self):
        """The client's CPU time for a call, disposal not counted, with an allocator that keeps what is freed."""
        def of_case(case):
            def work(name):
                with self.pair(name, case, self.one_cpu, client_setup=KEEPING, server_setup=KEEPING) as pair:
                    return pair.work(5 if self.quick else 50)
            return self.apart(self.repeats, work)
        return {case: of_case(case) for case in ("small", "bulk", "usage", "token")}

    def turns(self):
        """Many connections that each ask once a second, in turn."""
        connections, seconds = (100, 0.2) if self.quick else (CONNECTIONS, 3)
        rows = self.apart(3, lambda name: crowd.in_turn(self, name, connections, seconds), ("ours", "floor"))
        return {name: {what: statistics.median(row[what] for row in its_rows) for what in its_rows[0]}
                for name, its_rows in rows.items()}

    def users(self):
        """Small calls of some users, alone and while another one keeps many connections busy."""
        if os.geteuid() != 0:
            say("users is skipped: it takes root to be several users")
            return None
        *others, greedy = USERS
        try:
            subprocess.run([self.program("ours")], user=greedy, stderr=subprocess.DEVNULL, check=False)
        except PermissionError:
            say("users is skipped: other users cannot reach the build folder")
            return None
        p99 = {"alone": [], "crowded": []}
        for _ in range(self.repeats):
            with self.pair("ours", "small", self.all_cpus, users=others) as pair:
                for _ in range(self.rounds):
                    p99["alone"].append(self.round(pair)["p99"])
                    with crowd.greedy("ours", pair.folder, GREEDY_CONNECTIONS, greedy):
                        p99["crowded"].append(self.round(pair)["p99"])
        return {"alone": statistics.median(p99["alone"]), "crowded": statistics.median(p99["crowded"]),
                "ratio": statistics.median(crowded / alone for alone, crowded in zip(p99["alone"], p99["crowded"]))}

    def idle(self):
        """Small, against servers that hold no idle connections and many."""
        def pair(idle_connections):
            pair = self.pair("ours", "small", self.one_cpu)
            pair.crowd = crowd.Crowd("ours", pair.folder).connect(idle_connections)
            return pair
        return self.together({str(count): lambda count=count: pair(count) for count in (0, CONNECTIONS)})

    def where(self):
        """Where the time of a small call goes: instructions by purpose, system calls, and the time on one CPU."""
        if self.quick or not callgrind.is_available() or not shutil.which("strace"):
            return None
        names = ("ours", "floor", "floor-list")
        timed = self.together({name: lambda name=name: self.pair(name, "small", self.one_cpu)
                               for name in names})
        result = {name: {"instructions": callgrind.count(self, name, "small"),
                         "system calls": [weight.system_calls(self, name, "small", side) for side in callgrind.SIDES],
                         "time": timed[name]["median"]} for name in names}
        # The two floors ask the same of the kernel: what one takes longer than the other is its instructions' time.
        instructions = {name: sum(sum(side.values()) for side in row["instructions"].values())
                        for name, row in result.items()}
        slower = statistics.median(a - b for a, b in zip(timed["floor-list"]["rounds"], timed["floor"]["rounds"]))
        per_instruction = slower / (instructions["floor-list"] - instructions["floor"])
        for name, row in result.items():
            parts = {purpose: sum(side[purpose] for side in row["instructions"].values()) * per_instruction
                     for purpose in ("codec", "lists", "checks")}
            row["parts"] = {"kernel": row["time"] - sum(parts.values()), **parts}
        return {"nanoseconds per instruction": per_instruction, **result}

    def machine(self):
        cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
        compiler = re.search(r"CMAKE_CXX_COMPILER:\w+=(.*)", (self.build / "CMakeCache.txt").read_text()).group(1)
        return {"cpu": cpu.group(1) if cpu else platform.machine(), "cpus": len(self.all_cpus),
                "kernel": platform.release(), "libc": " ".join(platform.libc_ver()),
                "compiler": output(compiler, "--version").splitlines()[0],
                "libsystemd": output("pkg-config", "--modversion", "libsystemd"),
                "capnp": output("pkg-config", "--modversion", "capnp-rpc"),
                "grpc": output("pkg-config", "--modversion", "grpc++"),
                "commit": output("git", "-C", str(pathlib.Path(__file__).parent), "describe", "--always", "--dirty")}


def output(*command):
    try:
        return subprocess.run(command, check=True, text=True, capture_output=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"
