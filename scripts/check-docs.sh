#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Does what the documents say, in a fresh clone, and fails when it does not work.
#
#   scripts/check-docs.sh                  all documents
#   scripts/check-docs.sh DOCUMENT...      these (named as docs/limits.md is), after docs/guide-client.md, which installs
#                                          what the others use
#   scripts/check-docs.sh static           links, names and numbers alone
#
# First it checks links, names of files, and the numbers in docs/limits.md. Then it takes the blocks of each document in
# their order. A comment in front of a block says what is done with it:
#
#   <!-- run -->             the commands are run, all those of a document in one shell that starts in the clone
#   <!-- file: NAME -->      the block is written to that file; where the tree has such a file, it has to be the same
#   <!-- excerpt: NAME -->   the block has to be in that file of the tree
#   <!-- whole -->           the block is a C++ program; it is compiled and linked
#   <!-- part -->            the block is part of a C++ function; see PREAMBLE in check_docs.py
#   <!-- not run: WHY -->    nothing
#
# Needs what scripts/setup.sh installs, and Python.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

python3 scripts/check_docs.py static "$root"
if [[ ${1:-} == static ]]; then
    exit
fi

scratch=$(mktemp -d)
group=
finish()
{
    if [[ -n $group ]]; then
        kill -- "-$group" 2>/dev/null || true
    fi
    rm -rf "$scratch"
}
trap finish EXIT

export CLONE=$scratch/clone PATH=$scratch/clone/stage/bin:$scratch/clone/stage/sbin:$PATH
git clone -q --no-hardlinks "$root" "$CLONE"
# What is not committed yet counts as well.
{ git diff -z --name-only --diff-filter=d HEAD; git ls-files -z --others --exclude-standard; } |
    tar -c --null -T - | tar -x -C "$CLONE"

export CCACHE_BASEDIR=$scratch CCACHE_NOHASHDIR=1
export CMAKE_BUILD_PARALLEL_LEVEL
CMAKE_BUILD_PARALLEL_LEVEL=$(nproc)

# Compiles and links the program on standard input with the libraries that the guides install.
compile_block()
{
    local library
    library=$(dirname "$(find "$CLONE/stage" -name libsecurity_privacy.so)")
    "${CXX:-c++}" -std=c++17 -Wall -Wextra -Werror -I"$CLONE/stage/include" -x c++ - -o "$CLONE/block" \
        -L"$library" -Wl,-rpath-link="$library" -lsecurity_privacy -lvarn_platform -pthread
}
declare -f compile_block >"$scratch/functions"

documents=("$@")
if (($# == 0)); then
    documents=(README.md CONTRIBUTING.md tools/README.md docs/*.md)
fi
first=docs/guide-client.md
for document in "$first" "${documents[@]}"; do
    # It comes up again among the others.
    if [[ $document == "$first" && -e $scratch/script ]]; then
        continue
    fi
    {
        cat "$scratch/functions"
        python3 scripts/check_docs.py script "$root" "$document"
    } >"$scratch/script"
    SECONDS=0
    (cd "$CLONE" && exec setsid bash -x "$scratch/script") >"$scratch/log" 2>&1 </dev/null &
    group=$!
    status=0
    wait "$group" || status=$?
    # What it has started and not ended is in its process group.
    kill -- "-$group" 2>/dev/null || true
    group=
    if ((status != 0)); then
        tail -n 60 "$scratch/log" >&2
        echo "check-docs: $document: the last command above failed" >&2
        exit 1
    fi
    echo "check-docs: $document (${SECONDS} s)"
done
