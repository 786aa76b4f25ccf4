#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compiles each public header by itself, twice over, with every compiler and language level that is here: it includes
# what it needs, guards itself, and is free of warnings that its users may have switched on.
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t headers < <(cd include && find . -name '*.h' | sort; cd ../platform/include && find . -name '*.h' | sort)

compiles()
{
    local compiler=$1 level=$2 header=$3
    printf '#include "%s"\n#include "%s"\n' "$header" "$header" |
        "$compiler" -x c++ "-std=$level" -Wall -Wextra -Wconversion -Werror -fsyntax-only \
            -Iinclude -Iplatform/include -
}
export -f compiles

for compiler in g++ clang++; do
    command -v "$compiler" >/dev/null || { echo "check-headers: $compiler is not here" >&2; exit 1; }
    for level in c++17 c++20 c++2b; do
        if ! "$compiler" -x c++ "-std=$level" -fsyntax-only /dev/null 2>/dev/null; then
            [[ $level == c++2b ]] || { echo "check-headers: $compiler has no $level" >&2; exit 1; }
            echo "check-headers: $compiler has no $level, left out"
            continue
        fi
        # shellcheck disable=SC2016
        printf '%s\n' "${headers[@]#./}" |
            xargs -P "$(nproc)" -I '{}' bash -c 'compiles "$@" || { echo "check-headers: $*: does not compile alone" >&2; exit 1; }' _ \
                "$compiler" "$level" '{}'
        echo "check-headers: $compiler, $level: ${#headers[@]} headers compile alone"
    done
done
