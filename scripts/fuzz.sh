#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fuzzes everything that reads a peer's bytes, with the address and undefined-behaviour sanitizers.
#
#   scripts/fuzz.sh [SECONDS]    for each target; 30 when none are named
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
build=build/fuzz
targets=(parcel stub proxy connection)

scripts/setup.sh
# The code under test has to count its branches for the fuzzer as well.
cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" -DBUILD_SHARED_LIBS=OFF -DCMAKE_UNITY_BUILD=ON \
    -DSECURITY_PRIVACY_SANITIZE=address,undefined,fuzzer-no-link \
    -DSECURITY_PRIVACY_BUILD_FUZZ=ON -DSECURITY_PRIVACY_BUILD_TESTS=ON -DSECURITY_PRIVACY_BUILD_TOOLS=OFF \
    -DSECURITY_PRIVACY_INSTALL=OFF
cmake --build "$build" --target fuzz fuzz_replay

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LSAN_OPTIONS=suppressions=$PWD/tests/support/lsan.supp:print_suppressions=0

# Two at a time. What a target finds is shown, and kept where it says. Leaks are looked for once, at the end: after each
# run that leaks on purpose it would take nearly all the time.
run() {
    local -x FUZZ_TARGET=$1
    "$build/fuzz/fuzz_replay" "$work/seeds/$1" >/dev/null
    if ! "$build/fuzz/fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
        -detect_leaks=0 -artifact_prefix="$build/finding-$1-" "$work/seeds/$1" >"$work/$1.log" 2>&1; then
        tail -n 60 "$work/$1.log"
        return 1
    fi
    echo "$1: $(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$1.log") runs in $seconds s, no finding"
}
failed=0
for ((index = 0; index < ${#targets[@]}; index += 2)); do
    pids=()
    for target in "${targets[@]:index:2}"; do
        run "$target" &
        pids+=($!)
    done
    for pid in "${pids[@]}"; do
        wait "$pid" || failed=1
    done
done
exit "$failed"
