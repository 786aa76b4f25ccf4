# SPDX-License-Identifier: Apache-2.0
"""What callgrind counts of one call on both sides: instructions in user space by what they are for, allocations."""
import collections
import pathlib
import re
import shutil
import subprocess
import tempfile

# First to warm up, then counted; callgrind makes a long call fifty times as long.
CALLS = {"bulk": (3, 5), "usage": (3, 5)}
USUAL_CALLS = (20, 200)
SIDES = ("client", "server")
ALLOCATORS = {"malloc", "calloc", "realloc"}
# Code that works for its caller: what it costs is its caller's.
SHARED = re.compile(r"/(libc|libm|libstdc\+\+|libgcc_s|ld-linux-x86-64)\.so|^\?*$")
# By the plain names of functions; the rest is the call itself: finding the service, checks, limits, turns, log lines.
PURPOSES = (("codec", re.compile(r"Parcel::[A-Z]|MessageParcel|arshalling|ReadFields|(Read|Write)(String|List)|"
                                 r"ServiceProxy::[GS]et|Stub::Handle|Writer|Reader|(Put|Get)Many")),
            ("lists", re.compile(r"~|std::vector|_Hashtable|uninit_copy|::operator=|(\w+)::\1$|LibraryService|"
                                 r"RunClient|_Function_handler|bench::(Service|Peer)|(Read|Write)Records")))


def purpose(name):
    """What a function of ours is for, by its name without arguments and template arguments."""
    name = name.replace("(anonymous namespace)::", "").partition("(")[0]
    while "<" in name:
        name, templates = re.subn(r"<[^<>]*>", "", name)
        if not templates:
            break
    return next((purpose for purpose, names in PURPOSES if names.search(name)), "checks")


def is_available():
    return all(map(shutil.which, ("valgrind", "callgrind_control")))


def read(path):
    """Cost of each function by itself, of each call of one by another with all that it leads to; allocations."""
    names, own, edges, allocations = {}, collections.Counter(), collections.Counter(), 0

    def name(kind, text):
        number, _, its_name = text.partition(" ")
        return names.setdefault((kind, number), its_name)

    is_call, caller, callee, library, callee_library = False, None, None, None, None
    for line in path.read_text().splitlines():
        key, separator, text = line.partition("=")
        if separator and key == "ob":
            library = name("ob", text)
        elif separator and key == "fn":
            caller = library, name("fn", text)
        elif separator and key == "cob":
            callee_library = name("ob", text)
        elif separator and key == "cfn":
            callee, callee_library = (callee_library or library, name("fn", text)), None
        elif separator and key == "calls":
            is_call = True
            allocations += int(text.split()[0]) * (callee[1] in ALLOCATORS)
        elif re.match(r"[0-9+*-]\S* \d+$", line):
            cost = int(line.split()[1])
            if is_call:
                edges[caller, callee] += cost
            else:
                own[caller] += cost
            is_call = False
    return own, edges, allocations


def purposes(path):
    """Instructions by purpose; shared code counts for the function of ours that called it."""
    own, edges, _ = read(path)

    def is_ours(function):
        return not SHARED.search(function[0] or "") and function[1] != "(below main)"

    result = collections.Counter(codec=0, lists=0, checks=0)
    for function, cost in own.items():
        if is_ours(function):
            result[purpose(function[1])] += cost
    for (caller, callee), cost in edges.items():
        if is_ours(caller) and not is_ours(callee):
            result[purpose(caller[1])] += cost
    result["checks"] += sum(own.values()) - sum(result.values())  # what nobody of ours called
    return dict(result)


def allocations(path):
    return {"heap": read(path)[2]}


def count(bench, name, case, what=purposes):
    """What one call takes on each side, once the first calls have warmed it up."""
    def control(order):
        for pid in pids:
            subprocess.run(["callgrind_control", order, str(pid)], check=True, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)

    warm_up, counted = CALLS.get(case, USUAL_CALLS)
    with tempfile.TemporaryDirectory(prefix="bench-") as folder:
        setups = {f"{side}_setup": (["valgrind", "--tool=callgrind", f"--callgrind-out-file={folder}/{side}"], {})
                  for side in SIDES}
        with bench.pair(name, case, bench.all_cpus, **setups) as pair:
            pids = pair.clients[0].pid, pair.server.pid
            pair.call(warm_up)
            control("--zero")
            pair.call(counted)
            control("--dump")
        return {side: {key: number / counted for key, number in
                       what(pathlib.Path(folder, side + ".1")).items()} for side in SIDES}
