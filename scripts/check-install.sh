#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the shared and the static build below a temporary folder and builds and runs the programs of
# tests/consumers against them, as somebody else's project would. Checks that they inherit nothing but include folders.
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
consumers=$source/tests/consumers
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unset PKG_CONFIG_PATH CMAKE_PREFIX_PATH

fail()
{
    echo "check-install: $*" >&2
    exit 1
}

# quietly COMMAND...: its output is shown only when it fails.
quietly()
{
    "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; fail "failed: $*"; }
}

# only_includes WHAT FLAGS FOLDER...: fails unless the flags are include folders of this list.
only_includes()
{
    local what=$1 flags=$2 flag known
    shift 2
    for flag in $flags; do
        known=no
        for folder in "$@"; do
            [[ $flag == "-I$folder" || $flag == "$folder" ]] && known=yes
        done
        [[ $known == yes || $flag == -isystem ]] || fail "$what inherits $flag"
    done
}

# What the command line of main.cpp says beyond the compiler, the language level, and what goes in and out.
flags_of_main()
{
    jq -r '.[] | select(.file | endswith("main.cpp")) | select(.command | contains("consumer.dir")) | .command' \
        "$1/compile_commands.json" |
        sed -E 's/^[^ ]+ //; s/ -o [^ ]+//; s/ -c [^ ]+//; s/-std=(gnu|c)\+\+17//'
}

# with_cmake NAME PROJECT INCLUDE_FOLDERS OPTION...
with_cmake()
{
    local name=$1 project=$2 folders=$3 build=$scratch/build/$1
    shift 3
    quietly cmake -S "$consumers/$project" -B "$build" -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON "$@"
    quietly cmake --build "$build"
    quietly "$build/consumer"
    # shellcheck disable=SC2086
    only_includes "$name" "$(flags_of_main "$build")" $folders
    echo "check-install: $name: built, run, inherits only $folders"
}

# with_pkg_config NAME PREFIX PKG_CONFIG_FLAGS
with_pkg_config()
{
    local name=$1 prefix=$2 build=$scratch/build/$1
    mkdir -p "$build"
    export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
    quietly make -C "$consumers/pkg_config" OUT="$build" PKG_CONFIG_FLAGS="$3"
    LD_LIBRARY_PATH=$prefix/lib quietly "$build/consumer"
    # A path with a .. in it is the same folder.
    only_includes "$name" "$(pkg-config --cflags security_privacy | sed -E 's|/lib/pkgconfig/\.\./\.\.||g')" "$prefix/include"
    unset PKG_CONFIG_PATH
    echo "check-install: $name: built, run, inherits only $prefix/include"
}

for preset in dev static; do
    quietly cmake --preset "$preset"
    quietly cmake --build --preset "$preset"
    quietly cmake --install "build/$preset" --prefix "$scratch/$preset"
done

with_cmake find_package-shared find_package "$scratch/dev/include" -DCMAKE_PREFIX_PATH="$scratch/dev"
with_cmake find_package-static find_package "$scratch/static/include" -DCMAKE_PREFIX_PATH="$scratch/static"

mv "$scratch/dev" "$scratch/moved"
if grep -rlI -e "$scratch/dev" -e "$source" "$scratch/moved" "$scratch/static"; then
    fail "the files above know where they were built or installed"
fi
with_cmake find_package-moved find_package "$scratch/moved/include" -DCMAKE_PREFIX_PATH="$scratch/moved"
with_pkg_config pkg-config-shared "$scratch/moved" ""
with_pkg_config pkg-config-static "$scratch/static" --static

with_cmake add_subdirectory add_subdirectory \
    "$source/include $source/platform/include $scratch/build/add_subdirectory/security_privacy/generated" \
    -DSECURITY_PRIVACY_SOURCE_DIR="$source"
quietly cmake --install "$scratch/build/add_subdirectory" --prefix "$scratch/guest"
[[ "$(cd "$scratch/guest" && find . -type f)" == ./bin/consumer ]] || fail "as a guest the library installed something"

# A platform from elsewhere: the library takes the package by that name and brings none of its own.
quietly cmake -S . -B "$scratch/build/ported" -G Ninja -DSECURITY_PRIVACY_PLATFORM=varn \
    -DCMAKE_PREFIX_PATH="$scratch/moved" -DSECURITY_PRIVACY_BUILD_TESTS=OFF -DSECURITY_PRIVACY_BUILD_TOOLS=OFF
quietly cmake --build "$scratch/build/ported"
quietly cmake --install "$scratch/build/ported" --prefix "$scratch/ported"
if find "$scratch/ported" -name '*varn*' | grep .; then
    fail "the library installed a platform that it was told to find"
fi
with_cmake other-platform find_package "$scratch/moved/include $scratch/ported/include" \
    -DCMAKE_PREFIX_PATH="$scratch/ported;$scratch/moved"
echo "check-install: all consumers are content"
