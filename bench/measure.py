# SPDX-License-Identifier: Apache-2.0
"""Runs the contenders in interleaved rounds."""
import contextlib
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import time

from processes import Pair, cpu_nanoseconds, status
import weight

CONTENDERS = ["ours", "floor", "floor-codec", "floor-list", "sd-bus", "capnp", "grpc"]
CASES = {"small": 8, "bulk": 10000, "least": 0, "usage": 10000, "token": 100}
MANY_CLIENTS = 4
GROWTH = [100, 1000, 10000]
IDLE_CONNECTIONS = 1000


def say(text):
    print(text, file=sys.stderr, flush=True)


class Bench:
    def __init__(self, programs, root, quick):
        self.programs = programs
        self.root = root
        self.quick = quick
        # What a process costs depends on where its memory happens to lie: so everybody starts several times.
        self.starts, self.rounds, self.milliseconds = (1, 3, 20) if quick else (5, 3, 200)
        self.all_cpus = os.sched_getaffinity(0)
        self.one_cpu = {max(self.all_cpus)}
        self.contenders = [name for name in CONTENDERS if self.program(name).exists()]
        self.left_out = [name for name in CONTENDERS if name not in self.contenders]
        for name in self.left_out:
            say(f"{name} is left out: its package was missing when the benchmarks were built")

    def program(self, name):
        return self.programs / f"bench-{name}"

    def measure(self, parts):
        results = {"settings": {"starts": self.starts, "rounds": self.rounds, "milliseconds": self.milliseconds, "left out": self.left_out},
                   "machine": self.machine(), "load before": os.getloadavg(), "calls": {}}
        for cpus, label in ((self.one_cpu, "one CPU"), (self.all_cpus, "unpinned")):
            results["calls"][label] = {}
            for case in CASES:
                if case in parts:
                    say(f"{case}, {label}")
                    results["calls"][label][case] = self.case(case, cpus)
        for part in ("many", "growth", "idle"):
            if part in parts:
                say(part)
                results[part] = getattr(self, part)()
        if "micro" in parts and self.program("micro").exists():
            say("micro")
            results["micro"] = self.micro()
        if "weight" in parts:
            say("weight")
            results["weight"] = weight.measure(self)
        results["load after"] = os.getloadavg()
        return results

    def workload(self, name, case, records):
        """What a contender is told; the floor learns how long our messages are."""
        sizes = []
        if name == "floor":
            sizes = subprocess.run([self.programs / "bench-sizes", case, str(records)], check=True, text=True,
                                   capture_output=True).stdout.split()
        return [case, records, *sizes]

    def pair(self, name, case, records, cpus, **options):
        return Pair(self.program(name), self.workload(name, case, records), cpus, **options)

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
        start = time.monotonic_ns()
        answers = pair.run(self.milliseconds)
        elapsed = time.monotonic_ns() - start
        calls = sum(answer[0] for answer in answers)
        return {"calls": calls, "elapsed": elapsed, "calls per second": sum(a[0] * 1e9 / a[1] for a in answers),
                "median": statistics.median(a[2] for a in answers), "p99": statistics.median(a[3] for a in answers),
                "server cpu": (cpu_nanoseconds(server) - before[0]) / calls,
                "client cpu": (sum(map(cpu_nanoseconds, clients)) - before[1]) / calls}

    @staticmethod
    def summary(rounds):
        """Medians of the rounds."""
        return {key: statistics.median(one[key] for one in rounds)
                for key in ("median", "p99", "server cpu", "client cpu", "calls per second")}

    def together(self, make_pairs):
        """Starts the pairs (a function for each key), measures them against each other, ends them; several times."""
        rounds, server_peaks, client_peaks = ({key: [] for key in make_pairs} for _ in range(3))
        for _ in range(self.starts):
            with contextlib.ExitStack() as stack:
                pairs = {key: stack.enter_context(make()) for key, make in make_pairs.items()}
                for key, its_rounds in self.interleave(pairs).items():
                    rounds[key] += its_rounds
                for key, pair in pairs.items():
                    server_peaks[key].append(status(pair.server.pid, "VmHWM"))
                    client_peaks[key].append(status(pair.clients[0].pid, "VmHWM"))
        return {key: {**self.summary(rounds[key]), "rounds": [one["median"] for one in rounds[key]],
                      "server peak KiB": max(server_peaks[key]), "client peak KiB": max(client_peaks[key])}
                for key in make_pairs}

    def case(self, case, cpus):
        return self.together({name: lambda name=name: self.pair(name, case, CASES[case], cpus)
                              for name in self.contenders})

    def many(self):
        return self.together({name: lambda name=name: self.pair(name, "small", CASES["small"], self.all_cpus,
                                                                clients=MANY_CLIENTS) for name in self.contenders})

    def growth(self):
        """Nanoseconds per record, for lists of several lengths: of the call, and of the processor on both sides."""
        results = {}
        for case in ("bulk", "usage"):
            keys = [(name, records) for name in ("ours", "floor-codec", "floor-list") for records in GROWTH]
            measured = self.together({key: lambda key=key: self.pair(key[0], case, key[1], self.one_cpu)
                                      for key in keys})
            for (name, records), row in measured.items():
                lengths = results.setdefault(case, {}).setdefault(name, {"time": {}, "CPU time": {}})
                lengths["time"][str(records)] = row["median"] / records
                lengths["CPU time"][str(records)] = (row["client cpu"] + row["server cpu"]) / records
        return results

    def idle(self):
        """Small, against servers that hold no idle connections and many."""
        def crowded():
            pair = self.pair("ours", "small", CASES["small"], self.one_cpu)
            pair.idle = weight.connect(pair.folder, IDLE_CONNECTIONS)
            return pair
        return self.together({"0": lambda: self.pair("ours", "small", CASES["small"], self.one_cpu),
                              str(IDLE_CONNECTIONS): crowded})

    def micro(self):
        """CPU nanoseconds of the steps in bench-micro."""
        seconds = 0.01 if self.quick else 0.2
        text = subprocess.run([self.program("micro"), f"--benchmark_min_time={seconds}", "--benchmark_format=json"],
                              check=True, text=True, capture_output=True).stdout
        return {row["name"]: row["cpu_time"] for row in json.loads(text)["benchmarks"]}

    def machine(self):
        cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
        cache = (self.programs.parent / "CMakeCache.txt").read_text()
        compiler = re.search(r"CMAKE_CXX_COMPILER:\w+=(.*)", cache).group(1)
        return {"cpu": cpu.group(1) if cpu else platform.machine(), "cpus": len(self.all_cpus),
                "kernel": platform.release(), "libc": " ".join(platform.libc_ver()),
                "compiler": self.output(compiler, "--version").splitlines()[0],
                "libsystemd": self.output("pkg-config", "--modversion", "libsystemd"),
                "capnp": self.output("pkg-config", "--modversion", "capnp-rpc"),
                "grpc": self.output("pkg-config", "--modversion", "grpc++"),
                "commit": self.output("git", "-C", str(self.root), "describe", "--always", "--dirty")}

    @staticmethod
    def output(*command):
        try:
            return subprocess.run(command, check=True, text=True, capture_output=True).stdout.strip()
        except (OSError, subprocess.CalledProcessError):
            return "unknown"
