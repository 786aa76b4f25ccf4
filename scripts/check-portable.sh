#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Proves the seam: the library and the portable half of the platform include the standard library and varn/*.h alone, and
# together, with no source of the host, they pass the conformance suite.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/portable}

# A header of the operating system or of C ends in .h or stands in a folder; one of the C++ library does neither.
foreign=$(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*<[^>]*[./]' \
    include/security_privacy/*.h include/security_privacy/testing/*.h ipc/* records/* util/* \
    platform/include/varn/*.h platform/src/*.h platform/src/*.cpp || true)
# Nor may they reach into the host's folder.
foreign+=$(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"(varn/)?host/' \
    include/security_privacy/*.h include/security_privacy/testing/*.h ipc/* records/* util/* \
    platform/include/varn/*.h platform/src/*.h platform/src/*.cpp || true)
if [ -n "$foreign" ]; then
    printf 'The portable code includes what only a host has:\n%s\n' "$foreign" >&2
    exit 1
fi

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S tests/porting -B "$build" "${generator[@]}" "${launcher[@]}" -DCMAKE_BUILD_TYPE=Debug \
    -DSECURITY_PRIVACY_PLATFORM=portable_platform \
    -Dportable_platform_DIR="$PWD/tests/porting/portable_platform" -DSECURITY_PRIVACY_WARNINGS_AS_ERRORS=ON
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure
