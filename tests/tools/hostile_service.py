#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The command-line client against a service that means it harm.

    hostile_service.py CLIENT [--no-memory]

Every request is answered many times: with noise, with records whose texts and numbers are chosen to do damage, with
counts at and past each limit, with broken frames. Whatever comes, the client ends by itself with one of its exit codes
and prints nothing that a terminal obeys; a table is at most a few times as long as what was received, and memory
follows that (not looked at with --no-memory, nor is the longest answer so long: a sanitizer takes its own, and time).
"""
import os
import pathlib
import random
import re
import resource
import socket
import struct
import subprocess
import sys
import tempfile
import threading

HEADER = struct.Struct("=4sHHIiI")
MAGIC = struct.pack("=I", 0x4E524156)
USAGE = ["usage", "timeline"]
COMMANDS = [["groups", "by-app", "b"], ["groups", "by-permission", "G"], ["groups", "set", "b", "G", "s"],
            ["usage", "summary"], USAGE, [*USAGE, "--chart"], ["ping"], ["gtoken", "get", "p", "b"],
            ["gtoken", "remove", "b"], ["gtoken", "add", "--bundle", "b", "--fingerprint", "f", "--policy", "p=1"]]
STATUSES = [1, 4, 5, 401, 1002, 77, -2, -3, -4, -5, -6, -7, -8, -2**31, 2**31 - 1]
TEXTS = [b"", b"com.example.a", b"\x1b[2J\x1b]0;x\x07", b"\x7f\r\n\t\0", b"\xc2\x9b31m",
         b"\xe2\x80\xae\xe2\x81\xa6\xd8\x9c", b"\xe2\x80\xa8\xe2\x80\xa9", b"\xff\xfe\xc3",
         b"\xed\xa0\x80\xf4\x90\x80\x80\xc0\xaf", "漢字e\u0301".encode(), b"x" * 5000, b"\x9b" * 300]
NUMBERS = [0, 1, -1, 2**31 - 1, -2**31]
LONGS = NUMBERS + [2**63 - 1, -2**63, 1795197600000, 253402300799999]
# What a terminal or a bidirectional text obeys; a newline is the client's own.
FORBIDDEN = re.compile("[\0-\x09\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u206f]")
TIMEOUT = 120
MIB = 1 << 20


def text(data):
    return struct.pack("=i", len(data)) + data.ljust((len(data) + 4) // 4 * 4, b"\0")


def record(chance, code):
    """One record of the answer to a request, with a presence word."""
    def any_text():
        return text(chance.choice(TEXTS) if chance.random() < 0.8 else chance.randbytes(chance.randrange(40)))

    def number(kind):
        return struct.pack("=" + kind, chance.choice(NUMBERS if kind == "i" else LONGS))

    def texts():
        count = chance.choice([0, 1, 3, 50, 51])
        return struct.pack("=i", count) + b"".join(any_text() for _ in range(count))
    if code in (1, 2):
        body = any_text() + number("i") + any_text() + any_text() + texts() + texts() + any_text() + number("q")
    elif code == 12:
        body = any_text() + any_text() + number("q") + number("q")
    else:
        body = any_text() + number("i") + any_text() + b"".join(map(number, "iiiiqq"))
    return struct.pack("=i", chance.choice([1, 1, 1, 0, -5])) + body


def answer(chance, code):
    """A frame, or what is meant to be taken for one."""
    status = 0
    if code in (3, 11, 13):
        body = struct.pack("=ii", chance.choice([0, 0, 1002, -9, 2**31 - 1]), chance.choice(NUMBERS))
    else:
        count = chance.choice([0, 1, 3, 20])
        body = struct.pack("=q" if code == 12 else "=i", chance.choice([0, 0, 0, 0, -1, 1007]))
        body += struct.pack("=i", chance.choice([count, count, count, -1, 10000, 10001, 2**31 - 1]))
        body += b"".join(record(chance, code) for _ in range(count))
    kind = chance.randrange(8)
    if kind == 0:
        body = chance.randbytes(chance.randrange(4000))
    elif kind == 1:
        status = chance.choice(STATUSES)
    elif kind == 2:
        body = body[:chance.randrange(len(body) + 1)]
    frame = bytearray(HEADER.pack(MAGIC, 1, 2, code, status, len(body)) + body)
    if kind == 3:
        frame[chance.randrange(HEADER.size)] ^= 1 << chance.randrange(8)
    return bytes(frame)


class Service:
    """Answers each request with what `answer(code)` gives, then hangs up."""

    def __init__(self, folder):
        self.answer = None
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(pathlib.Path(folder, "65993.sock")))
        self.listener.listen()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            with self.listener.accept()[0] as connection:
                try:
                    while len(head := connection.recv(HEADER.size, socket.MSG_WAITALL)) == HEADER.size:
                        connection.recv(HEADER.unpack(head)[5], socket.MSG_WAITALL)
                        frame = self.answer(HEADER.unpack(head)[3])
                        connection.sendall(frame)
                        if HEADER.unpack(frame[:HEADER.size])[5] != len(frame) - HEADER.size:
                            break
                except OSError:
                    pass


def run(client, folder, words, what, memory=resource.RLIM_INFINITY):
    """What it prints, when it may take so much memory."""
    done = subprocess.run([client, "--directory", folder, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, env={**os.environ, "COLUMNS": "300"}, timeout=TIMEOUT, check=False,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_DATA, (memory, memory)))
    printed = done.stdout
    assert 0 <= done.returncode <= 5, f"{what}: ends with {done.returncode}: {printed[-500:]}"
    bad = FORBIDDEN.search(printed.decode())
    assert not bad, f"{what}: prints {bad[0]!r} in {printed.decode()[max(bad.start() - 40, 0):bad.end() + 40]!r}"
    return printed


def reply(code, head, count, row):
    body = head + struct.pack("=i", count) + row * count
    return HEADER.pack(MAGIC, 1, 2, code, 0, len(body)) + body


def main():
    client = str(pathlib.Path(sys.argv[1]).resolve())
    with tempfile.TemporaryDirectory() as folder:
        service = Service(folder)
        for seed in range(6):
            for words in COMMANDS:
                for form in ([], ["--json"]):
                    if form and "--chart" in words:
                        continue
                    chance = random.Random(f"{seed} {words} {form}")
                    service.answer = lambda code, chance=chance: answer(chance, code)
                    run(client, folder, words + form, f"seed {seed}, {words + form}")

        looks_at_memory = "--no-memory" not in sys.argv
        longest = (34 if looks_at_memory else 1) * MIB
        status = struct.pack("=i", 0)
        empty_group = (struct.pack("=i", 1) + text(b"") + struct.pack("=i", 0) + text(b"") * 2 + bytes(8) + text(b"") +
                       bytes(8))
        empty_use = struct.pack("=i", 1) + text(b"") + struct.pack("=i", 0) + text(b"") + bytes(32)
        empty_row = struct.pack("=i", 1) + text(b"") * 2 + bytes(16)
        long_use = struct.pack("=i", 1) + text(b"n" * 100000) + struct.pack("=i", 0) + text(b"") + bytes(32)
        uneven = HEADER.pack(MAGIC, 1, 2, 5, 0, 8 + len(long_use) + 9999 * len(empty_use)) + status
        uneven += struct.pack("=i", 10000) + long_use + 9999 * empty_use
        cases = [(["groups", "by-app", "b"], lambda code: reply(code, status, 10000, empty_group)),
                 (USAGE, lambda code: reply(code, status, 10000, empty_use)),
                 ([*USAGE, "--chart"], lambda code: reply(code, status, 10000, empty_use)),
                 (USAGE, lambda code: uneven),
                 (["gtoken", "get", "p", "b"],
                  lambda code: reply(code, bytes(8), longest // len(empty_row), empty_row)),
                 (["groups", "by-app", "b", "--json"], lambda code: reply(code, status, 10001, empty_group)),
                 (["usage", "summary"], lambda code: reply(code, status, 10001, empty_use))]
        for words, make in cases:
            for form in ([], ["--compact"]):
                if form and ("--chart" in words or "--json" in words):
                    continue
                frame = make(4)
                service.answer = make
                what = f"{words + form} with {len(frame)} bytes received"
                memory = 16 * len(frame) + 4 * MIB if looks_at_memory else resource.RLIM_INFINITY
                printed = run(client, folder, words + form, what, memory)
                assert len(printed) <= 8 * len(frame), f"{what}: {len(printed)} printed"
                is_too_long = frame[24:28] == struct.pack("=i", 10001)
                assert (b"10000" in printed) == is_too_long, f"{what}: {printed[-300:]}"
                assert b"memory" not in printed, f"{what}: {printed[-300:]}"


if __name__ == "__main__":
    main()
