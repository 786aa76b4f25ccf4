#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures what it costs to include a public header: the compiler's processor time for a source that holds the include
# and nothing else. Prints the fastest of several runs, since whatever else the machine does only ever adds to it.
#
#   scripts/measure-header.sh [HEADER [COMPILER [RUNS]]]
set -euo pipefail
cd "$(dirname "$0")/.."

header=${1:-security_privacy/security_privacy_client.h}
compiler=${2:-g++}
runs=${3:-10}

TIMEFORMAT='%3U %3S'
fastest=
for ((run = 0; run < runs; ++run)); do
    took=$({ time printf '#include "%s"\n' "$header" |
        "$compiler" -x c++ -std=c++17 -Iinclude -Iplatform/include -c -o /dev/null -; } 2>&1)
    fastest=$(printf '%s\n%s\n' "$fastest" "$(awk '{printf "%.3f", $1 + $2}' <<<"$took")" | grep . | sort -n | head -n 1)
done
echo "$header: $fastest s ($compiler, fastest of $runs)"
