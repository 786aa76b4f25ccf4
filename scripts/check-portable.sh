#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Proves the seam: the library and the portable half of the platform include the standard library and varn/*.h alone, and
# together, with no source of the host, they pass the porting kit; so they do on the smallest port (examples/port), and
# the kit fails with broken ones.
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

export CMAKE_GENERATOR=Ninja

# kit BUILD OPTION...: the kit and the library on the platform that the options name.
kit()
{
    cmake -S tests/porting -B "$1" -DCMAKE_BUILD_TYPE=Debug -DSECURITY_PRIVACY_WARNINGS_AS_ERRORS=ON "${@:2}"
    cmake --build "$1" -j "$(nproc)"
    ctest --test-dir "$1" --output-on-failure -j "$(nproc)"
}
kit "$build" -DSECURITY_PRIVACY_PLATFORM=portable_platform -Dportable_platform_DIR="$PWD/tests/porting/portable_platform"

rm -rf "$build-port/installed"
cmake -S examples/port -B "$build-port" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_INSTALL_PREFIX="$PWD/$build-port/installed" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror"
cmake --build "$build-port"
cmake --install "$build-port"
kit "$build-port/kit" -DSECURITY_PRIVACY_PLATFORM=smallest_port -DCMAKE_PREFIX_PATH="$PWD/$build-port/installed" \
    -DPORT="$PWD/examples/port/kit.cpp"
