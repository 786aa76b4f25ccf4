#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks format, C++ and shell sources, and the rules of scripts/check-house.sh; changes nothing.
#
#   scripts/lint.sh [FILE...]    clang-tidy looks at these sources alone; at all, and at the rules, when none is named
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C

mapfile -t cpp < <(git ls-files --cached --others --exclude-standard -- '*.h' '*.cpp')
mapfile -t shell < <(git grep --cached -lE '^#!.*\b(ba)?sh\b' -- . ; git ls-files --others --exclude-standard -- '*.sh')

echo "lint: clang-format on ${#cpp[@]} files"
clang-format --dry-run -Werror "${cpp[@]}"

echo "lint: shellcheck on ${#shell[@]} scripts"
shellcheck --external-sources "${shell[@]}"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
# configure UNITY: writes down how each source is compiled, or each program's sources as one.
configure()
{
    cmake --preset lint -DCMAKE_UNITY_BUILD="$1" >"$log" 2>&1 || { cat "$log"; exit 1; }
}
configure OFF
if (($# > 0)); then
    sources=("$@")
else
    scripts/check-house.sh

    # Where others are read before it, nobody misses what a source does not include, nor sees what is not used in it.
    mapfile -t alone < <(jq -r 'map(select(.file | test("/build/lint/") | not)) |
        group_by(.command | capture(" -o (?<program>.*[.]dir)/").program) | map(select(length > 1)) | flatten |
        unique_by(.file) | .[] | select(.file | test("/(bench|examples|fuzz|platform|tests|tools)/")) |
        .command | sub(" -o [^ ]+"; " -fsyntax-only")' build/lint/compile_commands.json)
    ((${#alone[@]} > 0)) || { echo "lint: no source to compile alone" >&2; exit 1; }
    echo "lint: ${#alone[@]} sources that are read with others compile alone"
    printf '%s\0' "${alone[@]}" | (cd build/lint && xargs -0 -n 1 -P "$(nproc)" bash -c)

    configure ON
    # The sources of one program are read as one, so that what they include is read once. Not ours: what a package brings
    # or a generator writes, and what includes such a generator's headers. One stands in for functions of the C library,
    # whose declarations would then have to be like ours.
    mapfile -t sources < <(jq -r '.[].file' build/lint/compile_commands.json | sort -u | sed "s|^$PWD/||" |
        grep -E '^[^/].*\.cpp$|/Unity/' | grep -vE '_wire\.dir/|/bench-(capnp|grpc)\.dir/|/interposer\.cpp$')
fi
echo "lint: clang-tidy on ${#sources[@]} sources"
# Each prints nothing when it is content; what it counts and suppresses in system headers concerns nobody, nor does what
# it finds in the file that includes a program's sources, whose name ends in .cxx.
# shellcheck disable=SC2016
printf '%s\0' "${sources[@]}" | xargs -0 -n 1 -P "$(nproc)" bash -c '
    if ! found=$(clang-tidy --quiet -p build/lint --line-filter="[{\"name\": \".cpp\"}, {\"name\": \".h\"}]" "$1" 2>&1); then
        printf "%s\n" "$found" | grep -vE "^[0-9]+ warnings? (generated|treated)|^Suppressed|^Use -header-filter" >&2
        exit 1
    fi' clang-tidy
echo "lint: clean"
