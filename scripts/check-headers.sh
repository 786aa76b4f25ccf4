#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compiles each public header by itself, twice over, and at the higher language levels that are here all together, with
# both compilers: it includes what it needs, guards itself, and is free of warnings that its users may have switched on.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t headers < <(cd include && find . -name '*.h' | sort; cd ../platform/include && find . -name '*.h' | sort)

# compiles COMPILER LEVEL HEADER...
compiles()
{
    local compiler=$1 level=$2
    shift 2
    printf '#include "%s"\n' "$@" "$@" |
        "$compiler" -x c++ "-std=$level" -Wall -Wextra -Wconversion -Werror -fsyntax-only \
            -Iinclude -Iplatform/include - || { echo "check-headers: $compiler, $level: $*: do not compile" >&2; exit 1; }
}
export -f compiles

for compiler in g++ clang++; do
    command -v "$compiler" >/dev/null || { echo "check-headers: $compiler is not here" >&2; exit 1; }
    # shellcheck disable=SC2016
    printf '%s\n' "${headers[@]#./}" | xargs -P "$(nproc)" -I '{}' bash -c 'compiles "$@"' _ "$compiler" c++17 '{}'
    echo "check-headers: $compiler, c++17: ${#headers[@]} headers compile alone"
    for level in c++20 c++2b; do
        if ! "$compiler" -x c++ "-std=$level" -fsyntax-only /dev/null 2>/dev/null; then
            [[ $level == c++2b ]] || { echo "check-headers: $compiler has no $level" >&2; exit 1; }
            echo "check-headers: $compiler has no $level, left out"
            continue
        fi
        compiles "$compiler" "$level" "${headers[@]#./}"
        echo "check-headers: $compiler, $level: they compile together"
    done
done
