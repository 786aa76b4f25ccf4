#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Keeps the documents true. Called by check-docs.sh, which says what the marks in a document mean.

    check_docs.py static ROOT             links, file names, shown files and limits; prints what is wrong
    check_docs.py links FOLDER            the links between the documents that are installed there
    check_docs.py script ROOT DOCUMENT    the shell script that does what the document says
"""
import math
import pathlib
import re
import shlex
import subprocess
import sys

DOCUMENTS = ("README.md", "CHANGELOG.md", "CONTRIBUTING.md", "tools/README.md")  # and all of docs/
FENCE = re.compile(r"^```(\S*)[^\n]*\n(.*?)^```$", re.M | re.S)
MARK = re.compile(r"<!-- (run|file|excerpt|whole|part|not run)(?:: (.+?))? -->\n\Z")
# What is taken for the name of a file or folder: it has a known ending, ends in a slash, or begins with a folder of ours.
FILE_NAME = re.compile(r"[\w.-]+(/[\w.-]+)*(\.(h|cpp|py|sh|md|svg|txt|json|cmake|in|map|socket|service)|/)"
                       r"|(\.ci|bench|cmake|docs|examples|fuzz|include|ipc|platform|records|scripts|tests|tools|util)/[\w./-]+")
# A limit is a constant with such a name in the library or the platform.
LIMIT = re.compile(r"^ +size_t (max[A-Z][A-Za-z]+) =|^ +std::chrono::\w+ (\w+Timeout) ="
                   r"|^\s*(?:static |inline )?constexpr [\w:]+ (MAX_\w+|kDefault\w+|\w+_TIMEOUT|WAIT_TIME|BACKLOG|\w*PAUSE\w*)\b",
                   re.M)
# What a unit multiplies by, and how a source says that it means it.
UNITS = {"": (1, ""), "MiB": (1 << 20, "1024 \\* 1024"), "s": (1, "(?<!milli)(?<!nano)seconds"),
         "ms": (1, "milliseconds"), "ns": (1, "nanoseconds")}
# What a part of a program may rely on, see check-docs.sh.
PREAMBLE = """
#include <cstdio>
#include <string>
#include <vector>
#include "security_privacy/connect.h"
#include "security_privacy/security_privacy_client.h"
#include "security_privacy/security_privacy_service_stub.h"
#include "security_privacy/testing/fake_service.h"
#include "varn/host/ability_manager.h"
#include "varn/host/ability_server.h"
#include "varn/host/caller.h"
#include "varn/host/log_sink.h"
using namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer;
"""


def blocks(text):
    """Each fenced block as (language, mark, argument of the mark, content, line)."""
    for found in FENCE.finditer(text):
        mark = MARK.search(text, 0, found.start())
        kind, argument = mark.groups() if mark else (None, None)
        yield found[1], kind, argument, found[2], text.count("\n", 0, found.start()) + 1


def slug(heading):
    return re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")


def tracked(root):
    names = subprocess.run(["git", "-C", root, "ls-files", "--cached", "--others", "--exclude-standard"],
                           check=True, capture_output=True, text=True).stdout.split("\n")
    return {name for name in names if name and (root / name).exists()}


def check_links(root, path, prose):
    for target in re.findall(r"\]\(([^)\s]+)\)", prose):
        if "://" in target:
            continue
        name, _, anchor = target.partition("#")
        file = (path.parent / name).resolve() if name else path
        if not file.exists():
            yield f"the link {target} leads nowhere"
        elif anchor and anchor not in map(slug, re.findall(r"^#+ (.+)$", file.read_text(), re.M)):
            yield f"the link {target} names no heading"


def check_names(files, made, prose):
    for name in re.findall(r"`([^`\s]+)[^`\n]*`", prose):
        name = name.removeprefix("../")
        if FILE_NAME.fullmatch(name) and name not in made:
            if not any(f"/{file}".endswith((f"/{name}", f"/{name}.in")) or f"/{name.rstrip('/')}/" in f"/{file}" for file in files):
                yield f"there is no file {name}"


def check_marks(text):
    for language, kind, _, _, line in blocks(text):
        if language in ("cpp", "sh", "cmake", "python") and kind is None:
            yield f"line {line}: a block of {language} without a mark"


def check_shown(root, files, text):
    """What a document shows as a file of the tree has to be that file."""
    for _, kind, argument, content, line in blocks(text):
        if kind == "file" and argument in files and content != (root / argument).read_text():
            yield f"line {line}: {argument} is not what is shown here"
        if kind == "excerpt" and content not in (root / argument).read_text():
            yield f"line {line}: this is not in {argument}"


def check_quoted(root):
    """The version and the times that the README quotes are those of the project and of the measurements."""
    readme, measured = (root / "README.md").read_text(), (root / "docs/performance.md").read_text()
    version = re.search(r"^project\(.* VERSION (\S+)", (root / "CMakeLists.txt").read_text(), re.M)[1]
    if not readme.startswith(f"# security_privacy {version}\n"):
        yield f"the first line does not name version {version}"
    if f"\n## [{version}] - " not in (root / "CHANGELOG.md").read_text():
        yield f"CHANGELOG.md has no section for version {version}"
    for time in re.findall(r"[\d.]+ [µm]s\b", readme):
        if time not in measured:
            yield f"{time} is not in docs/performance.md"


def stated(cell):
    """The number and the unit at the beginning of a cell; what stands behind "at least" goes before."""
    found = re.match(r"(?:.*at least )?(\d+)(?: (\w+)\b)?", cell)
    unit = found[2] if found[2] in UNITS else ""
    return int(found[1]) * UNITS[unit][0], unit


def real(source, name):
    """The number that a source gives to a constant, with the line: the product of the numbers in its initialiser."""
    found = re.search(rf"^(.*\b{name}\b *(?:=|(?={{))\s*([^;]+);.*)$", source, re.M)
    if not found:
        return None, "it is not there"
    line, value = found.groups()
    return math.prod(map(int, re.findall(r"\b\d+\b", value.replace("'", "")))), line


def check_limits(root, files):
    table = (root / "docs/limits.md").read_text()
    listed = set()
    for row in re.findall(r"^\|.*$", table, re.M):
        found = re.search(r"`(\w+)` in `([\w/.]+)`", row)
        if found:
            name, file = found.groups()
            listed.add((name, file))
            (told, unit), (value, line) = stated(row.split("|")[2].strip()), real((root / file).read_text(), name)
            if told != value or not re.search(UNITS[unit][1], line, re.I):
                yield f"{name} in {file} is {value}, not {told} {unit}: {line.strip()}"
    for file in sorted(files):
        if re.match(r"(include|ipc|records|util|platform)/.*\.(h|cpp)$", file):
            for names in LIMIT.findall((root / file).read_text()):
                name = next(filter(None, names))
                if (name, file) not in listed:
                    yield f"{name} in {file} is missing"


def check_static(root):
    files = tracked(root)
    problems = []
    for path in [*map(root.joinpath, DOCUMENTS), *sorted((root / "docs").glob("*.md"))]:
        text = path.read_text()
        prose = FENCE.sub("", text)
        made = {argument for _, kind, argument, _, _ in blocks(text) if kind == "file"}
        for problem in (*check_links(root, path, prose), *check_names(files, made, prose), *check_marks(text),
                        *check_shown(root, files, text)):
            problems.append(f"{path.relative_to(root)}: {problem}")
    problems += [f"docs/limits.md: {problem}" for problem in check_limits(root, files)]
    problems += [f"README.md: {problem}" for problem in check_quoted(root)]
    print("\n".join(problems), end="\n" if problems else "")
    return 1 if problems else 0


def make_script(path):
    """A document as the commands of a reader who types what it says, in one shell."""
    lines = ["set -euo pipefail"]
    for language, kind, argument, content, line in blocks(path.read_text()):
        lines.append(f"# {path.name}:{line}")
        if kind == "run":
            lines.append(content)
        elif kind == "file":
            name = shlex.quote(argument)
            lines.append(f"mkdir -p \"$(dirname {name})\"\ncat >{name} <<'END OF FILE'\n{content}END OF FILE")
        elif language == "cpp" and kind in ("whole", "part"):
            source = content if kind == "whole" else f"{PREAMBLE}\nvoid Part()\n{{\n{content}}}\nint main() {{}}\n"
            lines.append(f"compile_block <<'END OF FILE'\n{source}END OF FILE")
    return "\n".join(lines)


def check_installed(root):
    """The links of installed documents; sources are not installed beside them."""
    problems = [f"{path.relative_to(root)}: {problem}" for path in sorted(root.rglob("*.md"))
                for problem in check_links(root, path, FENCE.sub("", path.read_text()))
                if not re.search(r"the link (\.\./)*(include|platform|scripts|tests|tools)/\S* leads", problem)]
    print("\n".join(problems), end="\n" if problems else "")
    return 1 if problems else 0


if __name__ == "__main__":
    ROOT = pathlib.Path(sys.argv[2]).resolve()
    if sys.argv[1] == "links":
        sys.exit(check_installed(ROOT))
    if sys.argv[1] == "static":
        sys.exit(check_static(ROOT))
    print(make_script(ROOT / sys.argv[3]))
