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
    cmake -S examples/porting_kit -B "$1" -DCMAKE_BUILD_TYPE=Debug -DSECURITY_PRIVACY_WARNINGS_AS_ERRORS=ON "${@:2}"
    cmake --build "$1" -j "$(nproc)"
    ctest --test-dir "$1" --output-on-failure -j "$(nproc)"
}
kit "$build" -DSECURITY_PRIVACY_PLATFORM=portable_platform -Dportable_platform_DIR="$PWD/examples/porting_kit/portable_platform"

# port: builds a copy of the smallest port and installs it where the kit looks for it.
port()
{
    cmake -S "$build-port/source" -B "$build-port" -DTREE="$PWD" -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_INSTALL_PREFIX="$PWD/$build-port/installed" \
        -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -Wno-unused-parameter"
    cmake --build "$build-port"
    cmake --install "$build-port"
}
mkdir -p "$build-port"
rm -rf "$build-port/source"
cp -r examples/port "$build-port/source"
port
kit "$build-port-kit" -DSECURITY_PRIVACY_PLATFORM=smallest_port -DCMAKE_PREFIX_PATH="$PWD/$build-port/installed" \
    -DPORT="$PWD/examples/port/kit.cpp"

# Whether the kit can fail: what is broken in the port, how, and the test that has to see it.
while IFS='|' read -r what edit test; do
    sed -e "$edit" examples/port/smallest_port.cpp >"$build-port/source/smallest_port.cpp"
    if cmp -s examples/port/smallest_port.cpp "$build-port/source/smallest_port.cpp"; then
        echo "check-portable: nothing to break with $edit" >&2
        exit 1
    fi
    port >"$build-port/log" 2>&1 || { cat "$build-port/log" >&2; exit 1; }
    report=$("$build-port-kit/conformance_test" --gtest_filter="TransportTest.$test*" 2>/dev/null || true)
    if ! grep -q "FAILED.*TransportTest.$test" <<<"$report"; then
        printf '%s\ncheck-portable: the kit does not notice a port that %s\n' "$report" "$what" >&2
        exit 1
    fi
    echo "check-portable: a port that $what fails the kit"
done <<'END'
finds nothing|s/return found ?/return false \&\& found ?/|LookupGivesUp
does not wait for a service|s/seconds(timeoutSeconds)/seconds(0)/|LookupGivesUp
loses statuses|s/status.get() :/0 :/|Statuses
ignores the wait time|s/seconds(option.GetWaitTime())/seconds(8)/|WaitTime
END
