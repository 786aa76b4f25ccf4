#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks what neither compiler nor linter knows: which room of the host may include which, and that the whole stays small
# enough to read. Lines are those of C++ that are not blank; a file's length counts them all.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C
broken=0

complain()
{
    echo "check-house: $*" >&2
    broken=1
}

# What each room of platform/src/host may include besides itself. Client and server are two processes' code, so neither
# includes the other; nothing below knows what stands above it.
rooms='
base
wire   base
log    base
client base wire log
server base wire log
'
while read -r room below; do
    [[ -n $room ]] || continue
    allowed="host/(${below:+${below// /|}|}$room)/|varn/|platform_|parcel_buffer\.h"
    while IFS= read -r line; do
        complain "$line: ${room} may include ${below:-nothing else}"
    done < <(git grep -nE '^ *# *include "' -- "platform/src/host/$room" | grep -vE "include \"($allowed)" || true)
done <<<"$rooms"
while IFS= read -r line; do
    complain "$line: the host knows nothing of the library above it"
done < <(git grep -nE '^ *# *include "(security_privacy|ipc|records|util)/' -- platform || true)

# The linter sees this only in a source that is read by itself.
while IFS=: read -r file line declaration; do
    name=$(grep -oE '\w+;' <<<"$declaration")
    grep -v "$declaration" "$file" | grep -w "${name%;}" >/dev/null || complain "$file:$line: ${name%;} is not used"
done < <(git grep -nE '^ *using [A-Za-z0-9_:]+;' -- '*.cpp')

while read -r lines file; do
    most=600
    [[ $file != platform/src/host/* ]] || most=350
    ((lines <= most)) || complain "$file has $lines lines; at most $most"
done < <(git ls-files -z -- '*.h' '*.cpp' | xargs -0 wc -l | grep -v ' total$')

count()
{
    git ls-files -z -- "${@/%//*.h}" "${@/%//*.cpp}" | xargs -0 cat | grep -cv '^[[:space:]]*$'
}
tests=$(count tests fuzz)
others=$(count include ipc records util platform tools examples bench)
echo "check-house: $((tests + others)) lines; tests and fuzz targets are $((1000 * tests / others)) to 1000 of the others"
((tests + others <= 17600)) || complain "more than 17600 lines in all: what is added has to be paid for"
((1000 * tests <= 350 * others)) || complain "tests and fuzz targets are more than 35 % of the other C++"
exit "$broken"
