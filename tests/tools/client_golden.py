#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the command-line client prints and returns, against the files in golden/.

    client_golden.py SERVICE CLIENT DATA [--write]

Each file in golden/ holds commands ("$ ARGUMENTS", variables in front of them) with their output, errors behind "! ",
and exit code. They run one after the other against one service with fixed data; --write writes the files anew.
"""
import difflib
import os
import pathlib
import re
import shlex
import socket
import subprocess
import sys
import tempfile
import threading

GOLDEN = pathlib.Path(__file__).parent / "golden"
TIMEOUT = 60
NOT_WAITING = 3.5  # seconds, less than the client waits without "--wait 0"


def run(client, folder, arguments):
    """What a golden file says about one command."""
    words = shlex.split(arguments)
    variables = {}
    while words and "=" in words[0] and not words[0].startswith("-"):
        name, value = words.pop(0).split("=", 1)
        variables[name] = value
    environment = {"PATH": os.environ["PATH"], "TZ": "UTC", "LC_ALL": "C", "VARN_ABILITY_DIR": folder,
                   "COLUMNS": "80", **{key: os.environ[key] for key in os.environ if key.endswith("SAN_OPTIONS")},
                   **variables}
    words = [word.replace("FOLDER", folder).replace("\\e", "\x1b") for word in words]
    done = subprocess.run([client, *words], env=environment, cwd=folder, stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=NOT_WAITING if "--wait 0" in arguments else TIMEOUT, check=False)
    text = done.stdout.decode() + "".join(f"! {line}\n" for line in done.stderr.decode().splitlines())
    text = re.sub(r"^(security-privacy-cli) [0-9.]+$", r"\1 VERSION", text.replace(folder, "FOLDER"), flags=re.M)
    return f"$ {arguments}\n{text}" + (f"= {done.returncode}\n" if done.returncode else "")


def serve_status(path):
    """A status socket that tells what a service's would, then ends; for each who connects."""
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(path))
    listener.listen()
    text = (GOLDEN / "status.jsonl").read_bytes()

    def serve():
        while True:
            connection = listener.accept()[0]
            connection.sendall(text)
            connection.close()
    threading.Thread(target=serve, daemon=True).start()


def main():
    service, client, data = (str(pathlib.Path(argument).resolve()) for argument in sys.argv[1:4])
    wrong = 0
    with tempfile.TemporaryDirectory() as folder:
        pathlib.Path(folder, "bad\x1b[31m.json").write_text("{\"gTokens\": [{\"\\u001b[2J\": 1}]}")
        pathlib.Path(folder, "tokens.json").write_text(
            "{\"gTokens\": [{\"bundleName\": \"com.example.file\", \"fingerprint\": \"F\", \"versionCode\": 3,"
            " \"policies\": {\"p\": -4}}]}")
        pathlib.Path(folder, "open").mkdir()
        pathlib.Path(folder, "open").chmod(0o777)
        with subprocess.Popen([service, "--data", data, "--directory", folder], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as process:
            try:
                assert process.stdout.readline().startswith(b"ready"), "the service does not start"
                pathlib.Path(folder, "status").mkdir()
                serve_status(pathlib.Path(folder, "status", "65993.status.sock"))
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
