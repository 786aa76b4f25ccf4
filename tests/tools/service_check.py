#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The service program from outside: what it refuses at its start, import and record while it runs, its second socket, and
what it tells the init system.

  service_check.py SERVICE CLIENT DATA [--no-memory]

With --no-memory the service's memory is not looked at: a sanitizer takes its own.
"""
import contextlib
import json
import os
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time

SERVICE, CLIENT, DATA = sys.argv[1:4]
WAIT = 60
folder = tempfile.TemporaryDirectory()
os.chmod(folder.name, 0o755)


def path(name):
    return os.path.join(folder.name, name)


def check(expected, actual, what):
    if expected != actual:
        sys.exit(f"service_check: {what}: expected {expected!r}, got {actual!r}")


def has(part, text, what):
    if part not in text:
        sys.exit(f"service_check: {what}: no {part!r} in {text!r}")


def run(expected, *arguments, **options):
    done = subprocess.run(arguments, capture_output=True, text=True, timeout=WAIT, **options)
    check(expected, done.returncode, " ".join(arguments) + ": " + done.stderr)
    return done.stdout + done.stderr


def ask(expected, *arguments):
    return run(expected, CLIENT, "--directory", folder.name, *arguments)


class Service:
    """Runs while the block does; `output` is what it printed at its end."""

    def __init__(self, *options, **popen):
        self.command = [SERVICE, "--data", DATA, "--directory", folder.name, *options]
        self.popen = popen

    def __enter__(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        **self.popen)
        if not self.process.stdout.readline().startswith("ready"):
            sys.exit("service_check: it did not start: " + self.process.stderr.read())
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.output, self.errors = self.process.communicate(timeout=WAIT)
        check(0, self.process.returncode, "its end: " + self.errors)


def watch(reads=True):
    watcher = socket.socket(socket.AF_UNIX)
    watcher.settimeout(WAIT)
    watcher.connect(path("65993.status.sock"))
    lines = watcher.makefile("r")
    return (watcher, lines, json.loads(lines.readline())) if reads else watcher


def await_status(expected, take, what):
    """Watches from the first status on of which `take` gives what is expected: a request is counted, and its connection
    ends, only after its answer is out."""
    end = time.monotonic() + WAIT
    while True:
        watcher = watch()
        if take(watcher[2]) == expected or time.monotonic() > end:
            check(expected, take(watcher[2]), what)
            return watcher
        watcher[0].close()


def of_requests(status):
    return [(request["name"], request["count"], request["errors"]) for request in status["requests"]]


EVENT = {"bundleName": "com.example.camera", "userId": 100, "operationGroup": "CAMERA", "times": 1, "mode": "allowed",
         "app": "foreground", "screen": "on", "begin": 4000000000000, "end": 4000000000001}
database = path("device.db")


def write(name, text):
    with open(path(name), "w", encoding="utf-8") as file:
        file.write(text)
    return path(name)


def sql(name, statement):
    with contextlib.closing(sqlite3.connect(name, isolation_level=None)) as connection:
        return connection.execute(statement).fetchone()


def count():
    return sql(database, "SELECT count(*) FROM usage")[0]


def await_count(expected, what):
    end = time.monotonic() + WAIT
    while count() != expected and time.monotonic() < end:
        pass
    check(expected, count(), what)


def peak_memory(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return int(next(line.split()[1] for line in status if line.startswith("VmHWM:")))


def content(name):
    if not os.path.isfile(name):
        return None
    with open(name, "rb") as file:
        return hash(file.read()), os.stat(name).st_mode


def starts_that_fail():
    other = path("other.db")
    sql(other, "CREATE TABLE t (a)")
    run(0, SERVICE, "import", "--database", path("newer.db"), DATA)
    sql(path("newer.db"), "PRAGMA user_version = 99")
    with open(path("newer.db"), "rb") as file:
        torn = file.read()[:20000]
    with open(path("torn.db"), "wb") as file:
        file.write(torn)
    for name, complaint in [(write("text", "not a database, but long enough to be one\n" * 200), "not a database"),
                            (other, "another program"), (path("newer.db"), "newer version"),
                            (path("torn.db"), "malformed"), (folder.name, "not a file"),
                            (path("none/x.db"), "No such file")]:
        before = content(name)
        has(complaint, run(1, SERVICE, "--directory", folder.name, "--database", name), name)
        check(before, content(name), name + " is left as it is")
    for complaint, edit in [("apps[0].installations[0].uid: another app has", lambda d: d["apps"][0]["installations"][0].
                             update(uid=d["apps"][1]["installations"][0]["uid"])),
                            ("users[2]: the user is listed twice", lambda d: d["users"].append(100)),
                            ("permissionGroups[1]: the group is listed", lambda d: d["permissionGroups"].insert(0, "SMS")
                             or d["permissionGroups"].insert(1, "SMS")),
                            ("the app holds the group already", lambda d: d["apps"][0]["installations"][0]["groups"].append(
                                d["apps"][0]["installations"][0]["groups"][0])),
                            ("the app is installed for the user already", lambda d: d["apps"][0]["installations"].append(
                                dict(d["apps"][0]["installations"][0], uid=7))),
                            ("is longer than 255 bytes", lambda d: d["apps"][0].update(bundleName="b" * 256)),
                            ("gTokens[1]: a bundle is stored with another", lambda d: d["gTokens"].insert(
                                1, dict(d["gTokens"][0], fingerprint="X"))),
                            ("usageEvents[0].screen: expected one of", lambda d: d["usageEvents"][0].update(screen="off?")),
                            ("is not among the shownStates", lambda d: d["apps"][0]["installations"][0]["groups"][0].update(
                                checkedState="never"))]:
        device = json.load(open(DATA, encoding="utf-8"))
        edit(device)
        said = run(1, SERVICE, "import", "--database", path("broken.db"), write("broken.json", json.dumps(device)))
        if complaint.startswith("apps[0]"):
            complaint = "another app has the uid"
        has(complaint, said, "import")
        check((0,), sql(path("broken.db"), "SELECT count(*) FROM user"), "what a bad import leaves behind")


def feeding():
    os.umask(0)
    with Service("--database", database):
        check(0o600, os.stat(database).st_mode & 0o777, "mode of the database")
        check(0o600, os.stat(database + "-wal").st_mode & 0o777, "mode of its log")
        has("another service uses", run(1, SERVICE, "--directory", folder.name, "--database", database), "a second one")
        before = count()
        line = json.dumps(EVENT)
        text = "\n".join([line] * 1500 + [line.replace("allowed", "maybe"), line])
        has("line 1501: mode: expected one of: allowed, denied; the first 1000 lines are stored",
            run(1, SERVICE, "record", "--database", database, write("events", text)), "a bad line")
        check(before + 1000, count(), "what came before its batch")
        has("is longer than 65536", run(1, SERVICE, "record", "--database", database, "-", input="x" * 200000), "a long line")
        has("line 2: is not JSON", run(1, SERVICE, "record", "--database", database, "-", input=line + "\n{,"), "not JSON")
        # What is fed in is there at once, without an end of the input.
        recorder = subprocess.Popen([SERVICE, "record", "--database", database, "-"], stdin=subprocess.PIPE, text=True)
        recorder.stdin.write(line.replace("4000000000000", "4000000000001") + "\n")
        recorder.stdin.flush()
        await_count(before + 1001, "the recorder waits for more")
        newest = json.loads(ask(0, "--json", "usage", "timeline", "--newest-first", "--limit", "1"))
        has("4000000000001", json.dumps(newest), "a recorded event")
        recorder.communicate(line, timeout=WAIT)
        check(before + 1002, count(), "the last line needs no end")
        ask(0, "groups", "set", "com.example.camera", "LOCATION", "deny")
        has("dropped 0 choices", run(0, SERVICE, "import", "--database", database, DATA), "import beside the service")
        check(before + 1002, count(), "an import of what is there already")
        # Somebody else holds the database: a change is refused, reading goes on.
        holder = sqlite3.connect(database, isolation_level=None)
        holder.execute("BEGIN IMMEDIATE")
        has("NOT_SAVED", ask(1, "groups", "set", "com.example.camera", "LOCATION", "ask"), "a locked database")
        has("deny", ask(0, "groups", "by-app", "com.example.camera", "--group", "LOCATION"), "reading meanwhile")
        holder.execute("ROLLBACK")
        holder.close()
    os.chmod(database, 0o644)
    with Service("--database", database, "--keep-usage", "1m"):
        check(0o600, os.stat(database).st_mode & 0o777, "mode of a database that others could read")
        has("deny", ask(0, "groups", "by-app", "com.example.camera", "--group", "LOCATION"), "a restart")
        await_count(1002, "what is older is dropped")


def watching():
    with Service() as service:
        ask(0, "groups", "by-app", "com.example.camera")
        lines = await_status([("GET_APP_PERMISSION_GROUP_INFOS_BY_APP", 1, 0)], of_requests, "status")[1]
        client = socket.socket(socket.AF_UNIX)
        client.connect(path("65993.sock"))
        client.send(b"\x30")
        # Its connection is accepted before one that comes later is served.
        ask(0, "groups", "by-app", "com.example.camera")
        await_status((1, [(os.geteuid(), 1)]),
                     lambda status: (status["server"]["connections"],
                                     [(user["uid"], user["connections"]) for user in status["server"]["users"]]),
                     "what the server holds")
        client.close()
        slow = watch()[1]
        client = subprocess.Popen([CLIENT, "--directory", folder.name, "groups", "by-app", "com.example.secret"],
                                  stderr=subprocess.DEVNULL)
        request = next(line for line in map(json.loads, lines) if line.get("pid") == client.pid)
        client.wait(WAIT)
        check((os.geteuid(), client.pid, "GET_APP_PERMISSION_GROUP_INFOS_BY_APP", 1, 1002),
              tuple(request[key] for key in ("uid", "pid", "name", "code", "status")), "a line")
        check({"time", "uid", "pid", "name", "code", "bytesIn", "bytesOut", "status", "durationUs"}, set(request), "keys")
        # A watcher that does not read loses lines and is told; the requests go on.
        for _ in range(8):
            ask(0, "ping", "--count", "1000")
        lost = seen = 0
        while lost + seen < 8001:
            line = json.loads(slow.readline())
            lost += line.get("lost", 0)
            seen += 0 if "lost" in line else 1
        if lost == 0:
            sys.exit("service_check: nothing was lost")
        check(8001, lost + seen, "lines seen and lost")
        if os.geteuid() == 0:
            child = os.fork()
            if child == 0:
                os.setuid(65534)
                try:
                    watch(reads=False)
                    os._exit(1)
                except PermissionError:
                    os._exit(0)
            check(0, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), "another user is kept out")
        service.process.send_signal(signal.SIGUSR1)
        has("GET_PERMISSION_USAGE_RECORD_TIMELINE", service.process.stdout.readline(), "USR1")
    lines.read()
    check(False, os.path.exists(path("65993.status.sock")), "the socket is taken away")


def long_answers():
    """One request may name one bundle again and again, and each row repeats its fingerprint. Unbounded, an answer takes
    a gigabyte; each worker that makes a bounded one may keep some MiB."""
    with Service() as service:
        ask(0, "gtoken", "add", "--bundle", "b" * 100, "--fingerprint", "f" * 1024, "--policy", "p=1")
        memory = peak_memory(service.process.pid)
        for _ in range(20):
            has("ANSWER_TOO_LONG", ask(1, "gtoken", "get", "p", *["b" * 100] * 10000), "ten thousand times the same")
        rows = json.loads(ask(0, "--json", "gtoken", "get", "p", *["b" * 100] * 3000))
        check(3000, len(rows), "rows within the bound")
        if "--no-memory" not in sys.argv and peak_memory(service.process.pid) > memory + 128 * 1024:
            sys.exit(f"service_check: it took {peak_memory(service.process.pid) - memory} KiB")


def many_watchers():
    with Service():
        watchers = [watch(reads=False) for _ in range(17)]
        check([True] * 16 + [False], [watcher.recv(1) != b"" for watcher in watchers], "who is let in")
        for watcher in watchers:
            watcher.close()
        watch()[0].close()


def under_the_init_system():
    notified = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    notified.bind(path("notify"))
    notified.settimeout(WAIT)
    sockets = []
    for name in ("65993.sock", "65993.status.sock"):
        sockets.append(socket.socket(socket.AF_UNIX))
        sockets[-1].bind(path(name))
        sockets[-1].listen()

    def hand_over():
        # Beyond the numbers first, so that neither takes the other's place.
        for place, number in enumerate([os.dup2(one.fileno(), 100 + index) for index, one in enumerate(sockets)]):
            os.dup2(number, 3 + place)
        os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="2", LISTEN_FDNAMES="requests:status",
                          NOTIFY_SOCKET=path("notify"), WATCHDOG_USEC="3000000", WATCHDOG_PID=str(os.getpid()))
        os.execv(SERVICE, [SERVICE, "--data", DATA, "--directory", folder.name, "--database", path("watched.db")])

    out = os.pipe()
    child = os.fork()
    if child == 0:
        os.dup2(out[1], 1)
        hand_over()
    os.close(out[1])
    try:
        check(b"READY=1", notified.recv(100), "ready")
        check(b"WATCHDOG=1", notified.recv(100), "its own request gets through")
        await_status(["GET_PERMISSION_USAGE_RECORD_TIMELINE"],
                     lambda status: [request["name"] for request in status["requests"]], "the status on a handed socket")

        # While it cannot answer, the watchdog is not told that all is well. A printed status shows that it has looked.
        printed = os.fdopen(out[0])
        printed.readline()

        def look():
            os.kill(child, signal.SIGUSR1)
            printed.readline()

        def told():
            notified.settimeout(0)
            messages = []
            with contextlib.suppress(BlockingIOError):
                while True:
                    messages.append(notified.recv(100))
            notified.settimeout(WAIT)
            return messages

        sql(path("watched.db"), "ALTER TABLE usage RENAME TO gone")
        look()
        told()
        look()
        look()
        check([], told(), "the watchdog of a service that cannot answer")
        sql(path("watched.db"), "ALTER TABLE gone RENAME TO usage")
        check(b"WATCHDOG=1", notified.recv(100), "it answers again")
        os.kill(child, signal.SIGTERM)
        while notified.recv(100) != b"STOPPING=1":
            pass
    except BaseException:
        os.kill(child, signal.SIGKILL)
        raise
    check(0, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), "its end")
    check(True, os.path.exists(path("65993.status.sock")), "a handed socket stays")


starts_that_fail()
feeding()
watching()
long_answers()
many_watchers()
under_the_init_system()
print("the service keeps its word")
