#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures how many lines of the sources that read a peer's bytes the tests and the replayed fuzz seeds run. Fails below
# 95 % in all.
#
#   scripts/coverage.sh [CTEST OPTION...]
set -euo pipefail
cd "$(dirname "$0")/.."

least=95
build=$PWD/build/coverage
readers=(
    platform/include/varn/parcel.h platform/src/parcel.cpp platform/src/host/wire/frame.h platform/src/host/wire/frame.cpp
    platform/src/host/server/connection.cpp platform/src/host/client/link.cpp ipc/message_lists.h
    ipc/security_privacy_service_stub.cpp ipc/security_privacy_service_proxy.cpp records/*.cpp)

scripts/setup.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=g++ \
    -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic" -DSECURITY_PRIVACY_BUILD_FUZZ=ON -DSECURITY_PRIVACY_INSTALL=OFF
cmake --build "$build"
find "$build" -name '*.gcda' -delete
(cd "$build" && ctest --output-on-failure --parallel "$(nproc)" "$@")

# A line counts as run when any of the programs ran it.
find "$build" -name '*.gcda' -print0 | (cd "$build" && xargs -0 gcov --json-format --stdout) |
    python3 -c '
import json, os, sys
least, readers = float(sys.argv[1]), sys.argv[2:]
lines = {reader: {} for reader in readers}
for document in sys.stdin:
    for file in json.loads(document)["files"]:
        counts = lines.get(os.path.relpath(os.path.realpath(file["file"])))
        for line in file["lines"] if counts is not None else []:
            number = line["line_number"]
            counts[number] = counts.get(number, 0) + line["count"]
ran = {reader: sum(count > 0 for count in counts.values()) for reader, counts in lines.items()}
for reader, counts in lines.items():
    missed = [str(number) for number, count in sorted(counts.items()) if count == 0]
    print("%6.1f %%  %s%s" % (100 * ran[reader] / max(len(counts), 1), reader,
                              "  not run: " + " ".join(missed) if missed else ""))
total = 100 * sum(ran.values()) / sum(map(len, lines.values()))
print("%6.1f %%  in all; at least %g %% are wanted" % (total, least))
sys.exit(total < least)
' "$least" "${readers[@]}"
