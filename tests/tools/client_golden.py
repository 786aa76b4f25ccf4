#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the command-line client prints and returns, against the files in golden/.

    client_golden.py SERVICE CLIENT DATA [--write]

Each file in golden/ holds commands ("$ ARGUMENTS", variables in front of them, redirections behind) with their output,
errors behind "! ", and exit code; with TERM in front, output goes to a terminal. They run one after the other against
one service with fixed data; --write writes the files anew.
"""
import contextlib
import datetime
import difflib
import os
import pathlib
import pty
import re
import shlex
import socket
import subprocess
import sys
import tempfile
import threading
import zoneinfo

GOLDEN = pathlib.Path(__file__).parent / "golden"
TIMEOUT = 60
NOT_WAITING = 3.5  # seconds, less than the client waits without "--wait 0"


def relative(text, zone):
    """The text with a moment as its distance from now, where it is about a week ago or the beginning of today."""
    def name(match):
        moment = datetime.datetime.fromisoformat(match[0]).replace(tzinfo=zone)
        now = datetime.datetime.now(zone)
        # The day may end while the client runs.
        days = [(now - datetime.timedelta(seconds=ago)).date() for ago in (0, TIMEOUT)]
        if moment.time() == datetime.time() and moment.date() in days:
            return "TODAY"
        return "A WEEK AGO" if abs((now - moment).total_seconds() - 7 * 86400) < TIMEOUT else match[0]
    return re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", name, text)


def run(client, folder, arguments):
    """What a golden file says about one command."""
    command, redirections = re.fullmatch(r"(.*?)((?: [<>]\S+)*)", arguments).groups()
    words = shlex.split(command)
    variables = {}
    while words and "=" in words[0] and not words[0].startswith("-"):
        name, value = words.pop(0).split("=", 1)
        variables[name] = value
    environment = {"PATH": os.environ["PATH"], "TZ": "UTC", "LC_ALL": "C", "VARN_ABILITY_DIR": folder,
                   "COLUMNS": "80", "TERM": "xterm",
                   **{key: os.environ[key] for key in os.environ if key.endswith("SAN_OPTIONS")}, **variables}
    words = [word.replace("FOLDER", folder).replace("\\e", "\x1b") for word in words]
    master, slave = pty.openpty() if "TERM" in variables else (None, subprocess.PIPE)
    done = subprocess.run(["sh", "-c", f'exec "$0" "$@" {redirections}', client, *words], env=environment, cwd=folder,
                          stdin=subprocess.DEVNULL, stdout=slave, stderr=subprocess.PIPE,
                          timeout=NOT_WAITING if "--wait 0" in arguments else TIMEOUT, check=False)
    shown = done.stdout
    if master is not None:
        os.close(slave)
        # To the end, which comes after all that was printed.
        shown = subprocess.run(["cat"], stdin=master, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                               timeout=TIMEOUT, check=False).stdout.replace(b"\r\n", b"\n").replace(b"\x1b", b"\\e")
        os.close(master)
    text = shown.decode() + "".join(f"! {line}\n" for line in done.stderr.decode().splitlines())
    if "--until" in words:
        text = relative(text, zoneinfo.ZoneInfo(environment["TZ"]))
    text = re.sub(r"^(security-privacy-cli) [0-9.]+$", r"\1 VERSION", text.replace(folder, "FOLDER"), flags=re.M)
    return f"$ {arguments}\n{text}" + (f"= {done.returncode}\n" if done.returncode else "")


def serve_status(folder, text):
    """A status socket that says the text, then ends; for each who connects."""
    folder.mkdir()
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(folder / "65993.status.sock"))
    listener.listen()

    def serve():
        while True:
            connection = listener.accept()[0]
            with connection, contextlib.suppress(ConnectionError):
                connection.sendall(text)
    threading.Thread(target=serve, daemon=True).start()


def main():
    service, client, data = (str(pathlib.Path(argument).resolve()) for argument in sys.argv[1:4])
    wrong = 0
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "bad\x1b[31m.json").write_text("{\"gTokens\": [{\"\\u001b[2J\": 1}]}")
        pathlib.Path(folder, "tokens.json").write_text(
            "{\"gTokens\": [{\"bundleName\": \"com.example.file\", \"fingerprint\": \"F\", \"versionCode\": 3,"
            " \"policies\": {\"p\": -4}}]}")
        pathlib.Path(folder, "fingerprint").write_text("4F \t\r\n")
        pathlib.Path(folder, "open").mkdir()
        pathlib.Path(folder, "open").chmod(0o777)
        with subprocess.Popen([service, "--data", data, "--directory", folder], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as process:
            try:
                assert process.stdout.readline().startswith(b"ready"), "the service does not start"
                for name, text in {"status": (GOLDEN / "status.jsonl").read_bytes(), "closed": b"", "cut": b"{}",
                                   "flat": b'{"a":' + b"[" * 8 + b"]" * 8 + b"}\n",
                                   "deep": b'{"a":' + b"[" * 9 + b"]" * 9 + b"}\n",
                                   "endless": b" " * (4 << 20)}.items():
                    serve_status(pathlib.Path(folder, name), text)
                for file in sorted(GOLDEN.glob("*.txt")):
                    old = file.read_text()
                    new = "\n".join(run(client, folder, line[2:]) for line in old.splitlines() if line[:2] == "$ ")
                    if "--write" in sys.argv:
                        file.write_text(new)
                    elif new != old:
                        wrong += 1
                        sys.stdout.writelines(difflib.unified_diff(old.splitlines(True), new.splitlines(True),
                                                                   str(file), "now"))
            finally:
                process.terminate()
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
