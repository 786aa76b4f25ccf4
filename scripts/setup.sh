#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that the project needs and this machine lacks.
#
#   scripts/setup.sh        what building, testing and the demo need
#   scripts/setup.sh all    also what CI needs: Clang and its tools, shellcheck, abigail, Doxygen, the benchmarks'
#                           contenders
#
# Runs as root or with sudo. Says nothing when nothing is missing.
set -euo pipefail

packages=(cmake g++ libcli11-dev libgmock-dev libgtest-dev libsqlitecpp-dev libsystemd-dev ninja-build nlohmann-json3-dev pkg-config python3)
case "${1:-}" in
    "") ;;
    all)
        packages+=(abigail-tools capnproto ccache clang clang-format clang-tidy doxygen dpkg-dev file git jq
            libcapnp-dev libclang-rt-dev libgrpc++-dev libprotobuf-dev llvm make lintian
            man-db protobuf-compiler protobuf-compiler-grpc shellcheck strace systemd valgrind xz-utils zsh)
        ;;
    *)
        echo "usage: scripts/setup.sh [all]" >&2
        exit 2
        ;;
esac

if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
    echo "setup: this is not a Debian system; install by hand what stands for: ${packages[*]}" >&2
    exit 1
fi

missing=()
for package in "${packages[@]}"; do
    if [[ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null)" != "install ok installed" ]]; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "setup: run this as root, or install sudo; missing: ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
log=$(mktemp)
trap 'rm -f "$log"' EXIT
quietly()
{
    if ! "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive "$@" >"$log" 2>&1 </dev/null; then
        echo "setup: '$*' failed:" >&2
        tail -n 20 "$log" >&2
        exit 1
    fi
}
quietly apt-get -q update
quietly apt-get -q install -y --no-install-recommends "${missing[@]}"
