# SPDX-License-Identifier: Apache-2.0
"""Results as Markdown tables and as a chart."""
import statistics
from html import escape

TITLES = {"small": "small: by app, 8 records", "bulk": "bulk: by permission, 10000 records",
          "least": "least: set checked state", "usage": "usage: timeline, 10000 records",
          "token": "token: get, 100 bundles"}


def duration(nanoseconds):
    return f"{nanoseconds / 1e6:.2f} ms" if nanoseconds >= 1e6 else f"{nanoseconds / 1e3:.1f} µs"


def mib(kib):
    return f"{kib / 1024:.1f}"


def times(one, other):
    """How often one is as slow as the other: the median over the rounds, in each of which both had the same machine."""
    return statistics.median(ours / theirs for ours, theirs in zip(one["rounds"], other["rounds"]))


def table(title, header, body):
    lines = [f"### {title}", "", "| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return lines + ["| " + " | ".join(map(str, row)) + " |" for row in body] + [""]


TIME = "Time of a call, {}: median (99th percentile)"


def call_tables(calls, label, titles=None):
    floors = ("floor", "floor-codec", "floor-list")
    cells = {
        TIME: lambda row, one: f"{duration(one['median'])} ({duration(one['p99'])})",
        "The same, {}: times floor / times floor-codec / times floor-list":
            lambda row, one: " / ".join(f"{times(one, row[floor]):.2f}" for floor in floors),
        "CPU time of a call, {}: client + server":
            lambda row, one: f"{duration(one['client cpu'])} + {duration(one['server cpu'])}",
        "Peak memory in MiB, {}: client + server":
            lambda row, one: f"{mib(one['client peak KiB'])} + {mib(one['server peak KiB'])}"}
    contenders = max(calls.values(), key=len)
    for title, cell in cells.items():
        if titles and title not in titles:
            continue
        yield from table(title.format(label), ["", *contenders],
                         [[TITLES[case], *(cell(row, row[name]) if name in row else "–" for name in contenders)]
                          for case, row in calls.items()])


def many_table(many):
    return table("many: four clients at once, small, unpinned", ["", *many], [
        ["calls a second", *(f"{row['calls per second']:.0f}" for row in many.values())],
        ["times floor", *(f"{row['calls per second'] / many['floor']['calls per second']:.2f}"
                          for row in many.values())],
        ["CPU time of a call", *(duration(row["client cpu"] + row["server cpu"]) for row in many.values())]])


def starts_table(starts):
    return table("starts: small, one client, unpinned, mean time of each start", ["", "mean", "fastest", "slowest"], [
        [name, *map(duration, (statistics.mean(means), min(means), max(means)))] for name, means in starts.items()])


def work_table(work):
    return table("work: the client's CPU time for a call, disposal not counted, freed memory kept",
                 ["", *next(iter(work.values()))],
                 [[TITLES[case], *(duration(statistics.median(values)) for values in row.values())]
                  for case, row in work.items()])


def turns_table(turns):
    return table("turns: 1000 connections that each ask once a second", ["", "CPU time a request", "MiB resident"], [
        [name, duration(row["CPU time"]), mib(row["resident KiB"])] for name, row in turns.items()])


def users_table(users):
    return table("users: seven users' small calls, unpinned, 99th percentile",
                 ["alone", "an eighth keeps 100 connections busy", "ratio"],
                 [[duration(users["alone"]), duration(users["crowded"]), f"{users['ratio']:.2f}"]])


def idle_table(idle):
    (none, few), (count, crowded) = idle.items()
    return table("idle: small with idle connections, one CPU", [f"{none} idle", f"{count} idle", "ratio"],
                 [[duration(few["median"]), duration(crowded["median"]), f"{times(crowded, few):.2f}"]])


def weight_table(weight):
    lines = table("weight: an idle service, KiB", ["", *weight["per connection"]],
                  [[name, *row.values()] for name, row in weight["idle memory"].items()])
    lines += table("Our service's memory for one idle connection, bytes", weight["per connection"],
                   [[f"{value:.0f}" for value in weight["per connection"].values()]])
    lines += table("A service's memory around bulk, MiB", ["", "before", "peak", "after five seconds of quiet"],
                   [[name, *map(mib, row.values())] for name, row in weight["after bulk"].items()])
    contenders, body = list(weight["idle memory"]), []
    for case, row in weight.get("allocations", {}).items():
        body.append([f"heap allocations, {case}: client + server",
                     *("{:.0f} + {:.0f}".format(*row[name]) if name in row else "" for name in contenders)])
    if "system calls" in weight:
        body.append(["system calls, least: client + server",
                     *("{} + {}".format(*weight["system calls"][name]) for name in contenders)])
    return lines + (table("For one request", ["", *contenders], body) if body else [])


def where_table(where):
    names = ("ours", "floor-list", "floor")
    body = [[f"instructions, {side}: codec + lists + checks",
             *(" + ".join(f"{where[name]['instructions'][side][part]:.0f}" for part in ("codec", "lists", "checks"))
               for name in names)] for side in ("client", "server")]
    body.append(["system calls: client + server", *("{} + {}".format(*where[name]["system calls"]) for name in names)])
    body += [[f"time, {part}", *(duration(where[name]["parts"][part]) for name in names)]
             for part in where["ours"]["parts"]]
    body.append(["time", *(duration(where[name]["time"]) for name in names)])
    return table(f"where: one small call, one CPU, {where['nanoseconds per instruction']:.3f} ns an instruction",
                 ["", *names], body)


def goals(results):
    """What we want to reach, as (what, relation, goal, measured)."""
    calls = results["calls"].get("one CPU", {})
    for case, name, goal in (("small", "floor-list", 1.05), ("least", "floor-list", 1.05),
                             ("token", "floor-list", 1.15), ("usage", "floor-list", 1.15),
                             ("bulk", "floor-list", 0.7), ("bulk", "capnp", 0.85)):
        if name in calls.get(case, {}):
            yield f"{case}, times {name}", "<=", goal, times(calls[case]["ours"], calls[case][name])
    if "work" in results:
        ours, floor = (statistics.median(results["work"]["bulk"][name]) for name in ("ours", "floor-list"))
        yield "bulk, client's CPU time with freed memory kept, times floor-list", "<=", 1.15, ours / floor
    if "many" in results:
        many = results["many"]
        yield "many, times floor", ">=", 0.7, many["ours"]["calls per second"] / many["floor"]["calls per second"]
    if "starts" in results:
        ours, floor = (statistics.mean(results["starts"][name]) for name in ("ours", "floor-list"))
        yield "small, one client, unpinned: mean of all starts, times floor-list", "<=", 1.3, ours / floor
    if "weight" in results:
        weight = results["weight"]
        yield "service after bulk: MiB at its peak", "<=", 24, weight["after bulk"]["ours"]["peak"] / 1024
        yield "service after bulk: MiB after five seconds", "<=", 8, weight["after bulk"]["ours"]["quiet"] / 1024
        yield "idle service, MiB resident", "<=", 4, weight["idle memory"]["ours"]["resident"] / 1024
        yield "idle connection, bytes", "<=", 2048, weight["per connection"]["resident"]
        for side, count in zip(("client", "server"), weight.get("allocations", {"none": {}})["none"].get("ours", [])):
            yield f"heap allocations for a field-free request, {side}", "<=", 2, count
    if "turns" in results:
        ours, floor = (results["turns"][name] for name in ("ours", "floor"))
        for what, key, goal in (("CPU time a request", "CPU time", 1.5), ("memory", "resident KiB", 0.1)):
            yield f"1000 connections in turn: {what}, times floor", "<=", goal, ours[key] / floor[key]
    if results.get("users"):
        yield "seven users beside a greedy one: p99, times alone", "<=", 3, results["users"]["ratio"]
    if "idle" in results:
        few, crowded = results["idle"].values()
        yield "small with 1000 idle connections, times none", "<=", 1.1, times(crowded, few)


def summary(results):
    """Machine and goals."""
    machine, settings = results["machine"], results["settings"]
    lines = [f"{machine['cpu']}, {machine['cpus']} CPUs, Linux {machine['kernel']}, {machine['libc']}, "
             f"{machine['compiler']}, libsystemd {machine['libsystemd']}, Cap'n Proto {machine['capnp']}, "
             f"gRPC {machine['grpc']}; commit {machine['commit']}; load {results['load before'][0]:.1f} before and "
             f"{results['load after'][0]:.1f} after. Medians of {settings['starts']} starts with "
             f"{settings['rounds']} rounds of {settings['milliseconds']} ms each.", ""]
    if settings["left out"]:
        lines += [f"Left out, for want of a package: {', '.join(settings['left out'])}.", ""]
    body = []
    for what, relation, goal, measured in goals(results):
        shown = round(measured, 2)
        met = shown <= goal if relation == "<=" else shown >= goal
        body.append([what, f"{relation} {goal}", f"{shown:.2f}", "yes" if met else "**no**"])
    lines += table("Goals", ["", "goal", "measured", "met"], body)
    if results["calls"].get("one CPU"):
        lines += call_tables(results["calls"]["one CPU"], "one CPU", [TIME])
    if results.get("where"):
        lines += where_table(results["where"])
    return "\n".join(lines)


def details(results):
    lines = []
    for label, calls in results["calls"].items():
        if calls:
            lines += call_tables(calls, label)
    for part in ("many", "starts", "work", "turns", "users", "idle", "weight"):
        if results.get(part):
            lines += globals()[f"{part}_table"](results[part])
    return "\n".join(lines)


COLOURS = {"ours": "#c2410c", "floor": "#6b7280", "floor-codec": "#9ca3af", "floor-list": "#9ca3af"}
PEER_COLOUR = "#93b4d4"
PART_COLOURS = {"kernel": "#6b7280", "codec": "#c2410c", "lists": "#f59e0b", "checks": "#15803d"}
WIDTH, LABEL, BAR, ROW, GAP = 760, 100, 520, 18, 34


class Chart:
    def __init__(self):
        self.lines, self.top = [], 10

    def panel(self, title, rows):
        """Bars for {name: ([(colour, value)], text)}, the longest as long as there is room."""
        longest = max(sum(value for _, value in parts) for parts, _ in rows.values())
        self.text(10, self.top + 14, title, 'font-weight="bold"')
        for index, (name, (parts, text)) in enumerate(rows.items()):
            y, x = self.top + 22 + index * ROW, LABEL + 8
            self.text(LABEL, y + 12, name, 'text-anchor="end"')
            for colour, value in parts:
                width = max(1, value / longest * BAR)
                self.lines.append(f'<rect x="{x:.1f}" y="{y + 1}" width="{width:.1f}" height="{ROW - 4}" '
                                  f'fill="{colour}"/>')
                x += width
            self.text(x + 6, y + 12, text)
        self.top += GAP + len(rows) * ROW

    def text(self, x, y, text, attributes=""):
        self.lines.append(f'<text x="{x:.1f}" y="{y}" {attributes}>{escape(text)}</text>')

    def svg(self):
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {self.top}" font-family="sans-serif" '
                f'font-size="12">\n<rect width="{WIDTH}" height="{self.top}" fill="white"/>\n' +
                "\n".join(self.lines) + "\n</svg>\n")


def chart(results):
    result = Chart()

    def bars(values, text):
        return {name: ([(COLOURS.get(name, PEER_COLOUR), value)], text(value)) for name, value in values.items()}

    if results.get("where"):
        where = results["where"]
        result.panel("Where one small call's time goes (one CPU)", {
            name: ([(PART_COLOURS[part], max(0, value)) for part, value in where[name]["parts"].items()],
                   duration(where[name]["time"])) for name in ("ours", "floor")})
        for index, (part, colour) in enumerate(PART_COLOURS.items()):
            result.text(LABEL + 8 + index * 80, result.top - 6, part, f'fill="{colour}" font-weight="bold"')
        result.top += ROW
    for case, row in results["calls"].get("one CPU", {}).items():
        result.panel(f"{TITLES[case]} (one CPU, median)",
                     bars({name: contender["median"] for name, contender in row.items()}, duration))
    if "many" in results:
        result.panel("many: four clients at once (unpinned, thousand calls a second)",
                     bars({name: row["calls per second"] / 1e3 for name, row in results["many"].items()},
                          lambda value: f"{value:.0f} k"))
    return result.svg()
