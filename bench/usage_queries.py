#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How long the service takes for usage queries over many events: 30 days of them.

  usage_queries.py BUILD [EVENTS]

BUILD holds the programs of a release build; 1000000 events unless said. Prints the median time of each query inside the
service, as it tells on its status socket, next to a full scan of the same table, and the most memory that the service
has used.
"""
import contextlib
import json
import os
import signal
import socket
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

build = sys.argv[1]
events = int(sys.argv[2]) if len(sys.argv) > 2 else 1000000
SERVICE, CLIENT = build + "/tools/security-privacy-service", build + "/tools/security-privacy-cli"
DATA = os.path.join(os.path.dirname(__file__), "../examples/data/device.json")
DAYS = 30
NOW = 1795197600000
BEGIN = NOW - DAYS * 86400000
RUNS = 9

with tempfile.TemporaryDirectory() as folder:
    database = folder + "/device.db"
    subprocess.run([SERVICE, "import", "--database", database, DATA], check=True)
    # Through `record` it would take minutes; this gives the same rows in seconds.
    with contextlib.closing(sqlite3.connect(database)) as connection, connection:
        connection.execute(
            "WITH RECURSIVE n (i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < :events - 1), held (app, grp, place) "
            "AS (SELECT app, permission_group, row_number() OVER () - 1 FROM app_group) "
            "INSERT INTO usage (began, ended, app, permission_group, mode, app_state, screen_state, times) "
            "SELECT :begin + i * :span / :events, :begin + i * :span / :events + 5000, app, grp, i * 7919 % 2, "
            "i * 104729 % 3 % 2, i * 1299709 % 3, 1 + i % 8 FROM n JOIN held ON place = i * 15485863 % :held",
            {"events": events, "begin": BEGIN, "span": NOW - BEGIN,
             "held": connection.execute("SELECT count(*) FROM app_group").fetchone()[0]})
    print(f"{events} events in {DAYS} days, {os.path.getsize(database) / 2**20:.0f} MiB")
    with subprocess.Popen([SERVICE, "--database", database, "--directory", folder], stdout=subprocess.PIPE,
                          env={**os.environ, "VARN_LOG_LEVEL": "5"}) as service:
        service.stdout.readline()
        watcher = socket.socket(socket.AF_UNIX)
        watcher.connect(folder + "/65993.status.sock")
        lines = watcher.makefile("r")
        lines.readline()
        hour, day = ["--since", "2026-11-10T10:00", "--until", "2026-11-10T11:00"], ["--since", "2026-11-10", "--until",
                                                                                   "2026-11-11"]
        for name, query in [("timeline of an hour", ["timeline", *hour]), ("summary of a day", ["summary", *day]),
                            ("timeline of an app's day", ["timeline", *day, "--bundle", "com.example.bank", "--user", "100"]),
                            ("newest 100", ["timeline", "--newest-first", "--limit", "100"]),
                            ("timeline of all, too long", ["timeline"]), ("summary of all", ["summary"])]:
            times = []
            for _ in range(RUNS):
                subprocess.run([CLIENT, "--directory", folder, "--json", "usage", *query], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, env={**os.environ, "TZ": "UTC"})
                times.append(json.loads(lines.readline())["durationUs"] / 1000)
            print(f"{name:28} {statistics.median(times):8.1f} ms")
        with open(f"/proc/{service.pid}/status", encoding="ascii") as status:
            peak = next(line for line in status if line.startswith("VmHWM"))
        print(f"{'most memory':28} {int(peak.split()[1]) / 1024:8.1f} MiB")
        service.send_signal(signal.SIGTERM)
    scans = []
    with contextlib.closing(sqlite3.connect(database)) as connection:
        for _ in range(RUNS):
            began = time.monotonic()
            connection.execute("SELECT count(*) FROM usage NOT INDEXED WHERE ended - began < 0 AND times > 0").fetchone()
            scans.append((time.monotonic() - began) * 1000)
    print(f"{'full scan of the table':28} {statistics.median(scans):8.1f} ms")
