#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the shared and the static build below a temporary folder and builds and runs the programs of
# tests/consumers against them, as somebody else's project would: with all warnings as errors, in each of the ways that
# docs/guide-client.md lists. Checks that they inherit nothing but include folders.
#
#   CMAKE=/opt/cmake-3.16/bin/cmake scripts/check-install.sh    with another CMake than the one in the path
set -euo pipefail
cd "$(dirname "$0")/.."
source=$PWD
consumers=$source/tests/consumers
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unset PKG_CONFIG_PATH CMAKE_PREFIX_PATH
cmake=${CMAKE:-cmake}
warnings='-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror'
ways=()

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
        [[ $known == yes || $flag == -isystem || " $warnings " == *" $flag "* ]] || fail "$what inherits $flag"
    done
}

# What the command line of main.cpp says beyond the compiler, the language level, and what goes in and out.
flags_of_main()
{
    jq -r '.[] | select(.file | endswith("main.cpp")) | select(.command | contains("consumer.dir")) | .command' \
        "$1/compile_commands.json" |
        sed -E 's/^[^ ]+ //; s/ -o [^ ]+//; s/ -c [^ ]+//; s/-std=(gnu|c)\+\+[0-9a-z]+//'
}

passed()
{
    ways+=("$1")
    echo "check-install: $1: built, run, inherits include folders alone"
}

# with_cmake NAME PROJECT INCLUDE_FOLDERS OPTION...
with_cmake()
{
    local name=$1 project=$2 folders=$3 build=$scratch/build/$1
    shift 3
    # What is installed is not a system's own to a consumer who looks at warnings.
    quietly "$cmake" -Werror=dev -S "$consumers/$project" -B "$build" -G Ninja -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
        -DCMAKE_CXX_FLAGS="$warnings" -DCMAKE_NO_SYSTEM_FROM_IMPORTED=ON "$@"
    quietly "$cmake" --build "$build"
    quietly "$build/consumer"
    # shellcheck disable=SC2086
    only_includes "$name" "$(flags_of_main "$build")" $folders
    passed "$name"
}

# with_pkg_config NAME PKG_CONFIG_FLAGS PREFIX...
with_pkg_config()
{
    local name=$1 flags=$2 build=$scratch/build/$1
    shift 2
    local paths=("${@/%//lib}")
    mkdir -p "$build"
    PKG_CONFIG_PATH=$(IFS=:; echo "${paths[*]/%//pkgconfig}")
    export PKG_CONFIG_PATH
    quietly make -C "$consumers/pkg_config" OUT="$build" PKG_CONFIG_FLAGS="$flags" CXXFLAGS="-std=c++17 $warnings"
    LD_LIBRARY_PATH=$(IFS=:; echo "${paths[*]}") quietly "$build/consumer"
    # A path with a .. in it is the same folder.
    only_includes "$name" "$(pkg-config --cflags security_privacy | sed -E 's|/lib/pkgconfig/\.\./\.\.||g')" "${@/%//include}"
    unset PKG_CONFIG_PATH
    passed "$name"
}

for preset in dev static; do
    quietly cmake --preset "$preset"
    quietly cmake --build --preset "$preset" --target security_privacy varn_platform
    for component in runtime development; do
        quietly cmake --install "build/$preset" --prefix "$scratch/$preset" --component "$component"
    done
done

with_cmake find_package-shared find_package "$scratch/dev/include" -DCMAKE_PREFIX_PATH="$scratch/dev"
with_cmake find_package-static find_package "$scratch/static/include" -DCMAKE_PREFIX_PATH="$scratch/static"

mv "$scratch/dev" "$scratch/moved"
if grep -rlI -e "$scratch/dev" -e "$source" "$scratch/moved" "$scratch/static"; then
    fail "the files above know where they were built or installed"
fi
with_cmake find_package-moved find_package "$scratch/moved/include" -DCMAKE_PREFIX_PATH="$scratch/moved"
with_pkg_config pkg-config-shared "" "$scratch/moved"
with_pkg_config pkg-config-static --static "$scratch/static"
for level in 20 23; do
    with_cmake "c++$level" find_package "$scratch/moved/include" -DCMAKE_PREFIX_PATH="$scratch/moved" \
        -DCMAKE_CXX_STANDARD="$level"
done

with_cmake fetch_content fetch_content "$(printf "$scratch/build/fetch_content/_deps/security_privacy-%s " \
    src/include src/platform/include build/generated)" -DREPOSITORY="file://$source" -DTAG="$(git rev-parse HEAD)"
with_cmake add_subdirectory add_subdirectory \
    "$source/include $source/platform/include $scratch/build/add_subdirectory/security_privacy/generated" \
    -DSECURITY_PRIVACY_SOURCE_DIR="$source"
quietly cmake --install "$scratch/build/add_subdirectory" --prefix "$scratch/guest"
[[ "$(cd "$scratch/guest" && find . -type f)" == ./bin/consumer ]] || fail "as a guest the library installed something"

# A platform from elsewhere: the library takes the package by that name and brings none of its own.
quietly cmake -S . -B "$scratch/build/ported" -G Ninja -DSECURITY_PRIVACY_PLATFORM=varn \
    -DSECURITY_PRIVACY_PLATFORM_PKGCONFIG=varn-platform \
    -DCMAKE_PREFIX_PATH="$scratch/moved" -DSECURITY_PRIVACY_BUILD_TESTS=OFF -DSECURITY_PRIVACY_BUILD_TOOLS=OFF
quietly cmake --build "$scratch/build/ported"
quietly cmake --install "$scratch/build/ported" --prefix "$scratch/ported"
if find "$scratch/ported" -name '*varn*' | grep .; then
    fail "the library installed a platform that it was told to find"
fi
with_cmake other-platform find_package "$scratch/moved/include $scratch/ported/include" \
    -DCMAKE_PREFIX_PATH="$scratch/ported;$scratch/moved"
with_pkg_config other-platform-pkg-config "" "$scratch/ported" "$scratch/moved"

# The guide lists these ways and no others.
# shellcheck disable=SC2016
listed=$(sed -n '/^## Ways to build/,/^## /s/^| `\([^`]*\)` .*/\1/p' docs/guide-client.md | sort)
[[ $listed == "$(printf '%s\n' "${ways[@]}" | sort)" ]] || fail "docs/guide-client.md lists other ways than these: ${ways[*]}"
echo "check-install: all consumers are content"
