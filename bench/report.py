# SPDX-License-Identifier: Apache-2.0
"""Results as Markdown tables and as a chart."""
import statistics
from html import escape

TITLES = {"small": "small: by app, 8 records", "bulk": "bulk: by permission, 10000 records",
          "least": "least: set checked state", "usage": "usage: timeline, 10000 records",
          "token": "token: get, 100 bundles"}
PEERS = ("sd-bus", "capnp", "grpc")


def duration(nanoseconds):
    if nanoseconds >= 1e6:
        return f"{nanoseconds / 1e6:.2f} ms"
    return f"{nanoseconds / 1e3:.1f} µs"


def times(one, other):
    """How often one is as slow as the other: the median over the rounds, in each of which both had the same machine."""
    return statistics.median(ours / theirs for ours, theirs in zip(one["rounds"], other["rounds"]))


def rows(header, body):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return lines + ["| " + " | ".join(map(str, row)) + " |" for row in body] + [""]


def names(table):
    return list(next(iter(table.values())))


def call_tables(calls, label):
    contenders = names(calls)
    lines = [f"### Time of a call, {label}: median (99th percentile)", ""]
    lines += rows(["", *contenders], [
        [TITLES[case], *(f"{duration(row[name]['median'])} ({duration(row[name]['p99'])})" for name in contenders)]
        for case, row in calls.items()])
    lines += [f"### The same against the two floors, {label}: times floor / times floor-codec", ""]
    lines += rows(["", *contenders], [
        [TITLES[case], *(f"{times(row[name], row['floor']):.2f} / {times(row[name], row['floor-codec']):.2f}"
                         for name in contenders)]
        for case, row in calls.items()])
    lines += [f"### CPU time of a call, {label}: client + server", ""]
    lines += rows(["", *contenders], [
        [TITLES[case], *(f"{duration(row[name]['client cpu'])} + {duration(row[name]['server cpu'])}"
                         for name in contenders)] for case, row in calls.items()])
    lines += [f"### Peak memory in MiB, {label}: client + server", ""]
    lines += rows(["", *contenders], [
        [TITLES[case], *(f"{row[name]['client peak KiB'] / 1024:.1f} + {row[name]['server peak KiB'] / 1024:.1f}"
                         for name in contenders)] for case, row in calls.items()])
    return lines


def many_table(many):
    lines = ["### many: four clients at once, small, unpinned", ""]
    return lines + rows(["", *many], [
        ["calls a second", *(f"{row['calls per second']:.0f}" for row in many.values())],
        ["times floor", *(f"{row['calls per second'] / many['floor']['calls per second']:.2f}"
                          for row in many.values())],
        ["CPU time of a call", *(duration(row["client cpu"] + row["server cpu"]) for row in many.values())]])


def growth_table(growth):
    body = []
    for case, contenders in growth.items():
        for name, kinds in contenders.items():
            for kind, row in kinds.items():
                body.append([f"{case}, {name}, {kind}", *(f"{value:.0f} ns" for value in row.values()),
                             f"{max(row.values()) / min(row.values()):.2f}"])
    lengths = list(next(iter(growth.values()))["ours"]["time"])
    return ["### growth: for each record, one CPU", ""] + rows(["", *lengths, "largest / smallest"], body)


def idle_table(idle):
    (none, few), (count, crowded) = idle.items()
    return ["### Small with idle connections, one CPU", ""] + rows(
        [f"{none} idle", f"{count} idle", "ratio"],
        [[duration(few["median"]), duration(crowded["median"]), f"{times(crowded, few):.2f}"]])


def weight_tables(weight):
    parts = ["resident", "program", "our libraries", "other libraries", "heap and stacks", "private dirty"]
    lines = ["### weight: an idle service, KiB", ""]
    lines += rows(["", *parts], [[name, *(row.get(part, 0) for part in parts)]
                                 for name, row in weight["idle memory"].items()])
    lines += ["### Our service's memory for one idle connection, bytes", ""]
    lines += rows(["", "resident", "private dirty"], [
        [state, *(f"{value:.0f}" for value in row.values())] for state, row in weight["per connection"].items()])
    contenders = list(weight["client threads"])
    body = [["threads of a client", *weight["client threads"].values()]]
    for case, row in weight["allocations"].items():
        body.append([f"heap allocations, {case}: client + server",
                     *(f"{row[name][0]:.0f} + {row[name][1]:.0f}" if name in row else "" for name in contenders)])
    if weight["system calls"]:
        body.append(["system calls, least: client + server",
                     *("{} + {}".format(*weight["system calls"][name]) for name in contenders)])
    return lines + ["### For one request", ""] + rows(["", *contenders], body)


def micro_table(micro):
    return ["### Steps by themselves: CPU time", ""] + rows(
        ["", "time"], [[name, f"{nanoseconds:.1f} ns"] for name, nanoseconds in micro.items()])


def goals(results):
    """What we want to reach, as (what, relation, goal, measured)."""
    calls = results["calls"].get("one CPU", {})

    def ratio(case, name):
        if case in calls and name in calls[case]:
            yield times(calls[case]["ours"], calls[case][name])

    wanted = [("small", "floor-codec", 1.25), ("small", "sd-bus", 0.4), ("small", "capnp", 0.3),
              ("small", "grpc", 0.12), ("least", "floor", 1.4), ("bulk", "floor-codec", 0.9), ("bulk", "capnp", 0.6)]
    for case, name, goal in wanted:
        for measured in ratio(case, name):
            yield f"{case}, times {name}", "<=", goal, measured
    if "many" in results:
        speeds = {name: row["calls per second"] for name, row in results["many"].items()}
        yield "many, times floor", ">=", 0.65, speeds["ours"] / speeds["floor"]
        best = max((speeds[name] for name in PEERS if name in speeds), default=None)
        if best:
            yield "many, times the best peer", ">=", 2.5, speeds["ours"] / best
    for case, contenders in results.get("growth", {}).items():
        values = contenders["ours"]["time"].values()
        yield f"growth, {case}: largest / smallest time per record", "<=", 1.2, max(values) / min(values)
    if "idle" in results:
        few, crowded = results["idle"].values()
        yield "small with 1000 idle connections, times none", "<=", 1.1, times(crowded, few)
    if "weight" in results:
        weight = results["weight"]
        yield "idle service, MiB resident", "<=", 4, weight["idle memory"]["ours"]["resident"] / 1024
        yield "idle connection, bytes", "<=", 2048, max(row["resident"] for row in weight["per connection"].values())
        yield "threads of a client", "<=", 1, weight["client threads"]["ours"]
        for side, count in zip(("client", "server"), weight["allocations"]["none"]["ours"]):
            yield f"heap allocations for a field-free request, {side}", "<=", 2, count


def goal_table(results):
    body = []
    for what, relation, goal, measured in goals(results):
        met = measured <= goal if relation == "<=" else measured >= goal
        body.append([what, f"{relation} {goal}", f"{measured:.2f}", "yes" if met else "**no**"])
    return ["### Goals", ""] + rows(["", "goal", "measured", "met"], body)


def markdown(results):
    machine, settings = results["machine"], results["settings"]
    lines = [f"{machine['cpu']}, {machine['cpus']} CPUs, Linux {machine['kernel']}, {machine['libc']}, "
             f"{machine['compiler']}, libsystemd {machine['libsystemd']}, Cap'n Proto {machine['capnp']}, "
             f"gRPC {machine['grpc']}; commit {machine['commit']}; load {results['load before'][0]:.1f} before and "
             f"{results['load after'][0]:.1f} after. Medians of {settings['starts']} starts with "
             f"{settings['rounds']} rounds of {settings['milliseconds']} ms each.", ""]
    if settings["left out"]:
        lines += [f"Left out, for want of a package: {', '.join(settings['left out'])}.", ""]
    lines += goal_table(results)
    for label, calls in results["calls"].items():
        if calls:
            lines += call_tables(calls, label)
    for part, table in (("many", many_table), ("growth", growth_table), ("idle", idle_table), ("weight", weight_tables),
                        ("micro", micro_table)):
        if part in results:
            lines += table(results[part])
    return "\n".join(lines)


COLOURS = {"ours": "#c2410c", "floor": "#6b7280", "floor-codec": "#9ca3af", "floor-list": "#9ca3af"}
PEER_COLOUR = "#93b4d4"
WIDTH, LABEL, BAR, ROW, GAP = 760, 100, 520, 18, 34


def panel(title, values, text, top):
    """Bars for {contender: value}, the longest as long as there is room."""
    longest = max(values.values())
    lines = [f'<text x="10" y="{top + 14}" font-weight="bold">{escape(title)}</text>']
    for index, (name, value) in enumerate(values.items()):
        y = top + 22 + index * ROW
        width = max(1, value / longest * BAR)
        lines += [f'<text x="{LABEL}" y="{y + 12}" text-anchor="end">{escape(name)}</text>',
                  f'<rect x="{LABEL + 8}" y="{y + 1}" width="{width:.1f}" height="{ROW - 4}" '
                  f'fill="{COLOURS.get(name, PEER_COLOUR)}"/>',
                  f'<text x="{LABEL + 14 + width:.1f}" y="{y + 12}">{escape(text(value))}</text>']
    return lines, top + GAP + len(values) * ROW


def chart(results):
    lines, top = [], 10
    for case, row in results["calls"].get("one CPU", {}).items():
        medians = {name: contender["median"] for name, contender in row.items()}
        part, top = panel(f"{TITLES[case]} (one CPU, median)", medians, duration, top)
        lines += part
    if "many" in results:
        speeds = {name: row["calls per second"] / 1e3 for name, row in results["many"].items()}
        part, top = panel("many: four clients at once (unpinned, thousand calls a second)", speeds,
                          lambda value: f"{value:.0f} k", top)
        lines += part
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {top}" font-family="sans-serif" '
            f'font-size="12">\n<rect width="{WIDTH}" height="{top}" fill="white"/>\n' + "\n".join(lines) + "\n</svg>\n")
