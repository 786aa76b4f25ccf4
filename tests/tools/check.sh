#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The two example programs as processes of their own: every exit code of the client, clients that change the same things
# at once, and a search through everything that both print, by default and at the most talkative level, for a
# fingerprint.
#
#   check.sh SERVICE CLIENT DATA
set -euo pipefail

service=$1 client=$2 data=$3
secret=5EC4E7-AB-CD-42
folder=$(mktemp -d)
server=
clean_up() {
    if [[ -n $server ]]; then
        kill -KILL "$server" 2>/dev/null || true
    fi
    rm -rf "$folder"
}
trap clean_up EXIT

fail() {
    echo "check: $*" >&2
    tail -n 40 "$folder/printed" >&2
    exit 1
}

# Runs the client and keeps what it prints; any exit code but the expected one is a failure.
expect() {
    local expected=$1 code=0
    shift
    "$client" --directory "$folder" "$@" >"$folder/answer" 2>&1 || code=$?
    cat "$folder/answer" >>"$folder/printed"
    ((code == expected)) || fail "'$*' ended with $code instead of $expected"
}

# Starts a program with its output in a pipe and waits for its first line.
start() {
    mkfifo "$folder/out"
    "$@" >"$folder/out" 2>>"$folder/printed" &
    server=$!
    exec {out}<"$folder/out"
    rm "$folder/out"
    read -r -t 60 <&"$out" || fail "$1 did not say that it is ready"
}

finish() {
    kill -TERM "$server"
    cat <&"$out" >>"$folder/printed"
    exec {out}<&-
    wait "$server" || fail "the service ended with $?"
    server=
}

every_request() {
    expect 0 groups by-app com.example.camera
    expect 0 groups by-permission LOCATION
    expect 0 usage summary --limit 3
    expect 0 usage timeline --limit 3
    expect 0 ping
    expect 0 gtoken add --bundle com.example.secret --fingerprint "$secret" --policy p=1 --policy q=-2
    expect 0 gtoken get p com.example.secret
    expect 0 --json gtoken get p com.example.secret
    expect 1 gtoken add --bundle com.example.secret --fingerprint "$secret-other" --policy p=1
    expect 0 --verbose gtoken get p com.example.secret
    grep -q ' succeed' "$folder/answer" || fail "--verbose shows no line of the library"
    expect 0 gtoken remove com.example.secret
    expect 1 gtoken remove com.example.secret
}

touch "$folder/printed"
expect 3 --wait 0 groups by-app com.example.camera
expect 2 groups by-app
expect 2 gtoken add --bundle b --fingerprint "$secret" --policy p
mapfile -t bundles < <(printf -- '--bundle\nb%d\n' {1..100})
expect 2 usage timeline "${bundles[@]}"
grep -q -- '--bundle: 100 values, a request carries at most 99' "$folder/answer" || fail "too long a list is not explained"
expect 3 --wait 0 usage timeline "${bundles[@]:2}"

for level in '' 3; do
    export VARN_LOG_LEVEL=$level
    start "$service" --data "$data" --directory "$folder" --database "$folder/device.db"
    every_request
    kill -USR1 "$server"
    finish
done
unset VARN_LOG_LEVEL
# The answer to a get is meant for its reader, in the client's memory; what is printed is for everybody.
! grep -q -F "$secret" "$folder/printed" || fail "a fingerprint was printed"
grep -q com.example.secret "$folder/printed" || fail "nothing was captured"

# Clients that change things at the same time lose nothing.
start "$service" --data "$data" --directory "$folder"
clients=()
for worker in 1 2 3 4; do
    for round in 1 2 3 4 5; do
        "$client" --directory "$folder" gtoken add --bundle "com.example.w$worker" --fingerprint f \
            --policy "p$round=$worker$round" || exit 1
        "$client" --directory "$folder" gtoken add --bundle com.example.shared --fingerprint f \
            --policy "w$worker-$round=$round" || exit 1
        "$client" --directory "$folder" gtoken add --bundle "com.example.gone$worker" --fingerprint f --policy p=1 &&
            "$client" --directory "$folder" gtoken remove "com.example.gone$worker" || exit 1
    done >/dev/null 2>>"$folder/printed" &
    clients+=($!)
done
for pid in "${clients[@]}"; do
    wait "$pid" || fail "a client failed among others"
done
for worker in 1 2 3 4; do
    for round in 1 2 3 4 5; do
        expect 0 --json gtoken get "p$round" "com.example.w$worker"
        grep -q "$worker$round" "$folder/answer" || fail "policy p$round of worker $worker is lost"
        expect 0 --json gtoken get "w$worker-$round" com.example.shared
        grep -q '"policyValue"' "$folder/answer" || fail "a policy of the shared bundle is lost"
    done
done
finish

start "$service" --data "$data" --directory "$folder" --read-only
expect 4 gtoken remove com.example.secret
expect 0 groups by-app com.example.camera
finish

# Somebody who takes connections and hangs up.
start python3 -c '
import os, socket, sys
server = socket.socket(socket.AF_UNIX)
server.bind(sys.argv[1])
server.listen()
print("ready", flush=True)
while True:
    server.accept()[0].close()
' "$folder/65993.sock"
expect 5 groups by-app com.example.camera
kill -KILL "$server"
wait "$server" 2>/dev/null || true
server=
echo "the examples keep their exit codes and secrets"
