#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the service program and the command-line client and shows every request between the two processes: what is asked,
# what is answered, a change that takes effect, one that is refused, and what stays after a restart.
#
#   scripts/demo.sh
#
# Needs what scripts/setup.sh installs, and calls it. Builds in build/dev, as scripts/test.sh does; the socket and the
# state live in a private folder that is removed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
export LC_ALL=C TZ=UTC

heading() { printf '\n== %s\n' "$*"; }

# Runs the client, showing the command; any exit code but the expected one ends the demo.
ask() {
    local expected=$1 code=0
    shift
    printf '\n$ security-privacy-cli %s\n' "$*"
    "$client" "$@" 2>&1 || code=$?
    if ((code != expected)); then
        echo "demo: exit code $code, expected $expected" >&2
        exit 1
    fi
    if ((code != 0)); then
        echo "(exit code $code)"
    fi
}

# Starts the service and waits until it says that it is ready.
start_service() {
    mkfifo "$folder/out"
    "$service" --data examples/data/device.json --directory "$folder" "$@" >"$folder/out" 2>>"$folder/service.log" &
    service_id=$!
    exec {out}<"$folder/out"
    rm "$folder/out"
    local line=
    if ! read -r -t 60 line <&"$out" || [[ $line != ready* ]]; then
        echo "demo: the service did not start:" >&2
        cat "$folder/service.log" >&2
        exit 1
    fi
    echo "service: $line"
}

# Ends the service by its id and shows what it says at its end.
stop_service() {
    kill -TERM "$service_id"
    cat <&"$out"
    exec {out}<&-
    wait "$service_id"
    service_id=
}

service_id=
folder=$(mktemp -d)
clean_up() {
    if [[ -n $service_id ]]; then
        kill -TERM "$service_id" 2>/dev/null || true
        wait "$service_id" 2>/dev/null || true
    fi
    rm -rf "$folder"
}
trap clean_up EXIT

heading "Building"
if [[ -x scripts/setup.sh ]]; then
    scripts/setup.sh
fi
if ! { cmake --preset dev && cmake --build --preset dev --target security-privacy-service security-privacy-cli; } \
    >"$folder/build.log" 2>&1; then
    cat "$folder/build.log" >&2
    exit 1
fi
service=build/dev/tools/security-privacy-service
client=build/dev/tools/security-privacy-cli
echo "built $service and $client"

export VARN_ABILITY_DIR=$folder
heading "A database is made from device data"
"$service" import --database "$folder/device.db" examples/data/device.json

heading "The service starts, with a socket in a private folder"
start_service --database "$folder/device.db"

heading "Somebody watches what the service is asked, and what it has done"
mkfifo "$folder/watch"
"$client" monitor --count 2 >"$folder/watch" &
watcher_id=$!
exec {watch}<"$folder/watch"
rm "$folder/watch"
IFS= read -r -t 60 header <&"$watch"
ask 0 ping --count 2
printf '\n$ security-privacy-cli monitor --count 2\n%s\n' "$header"
cat <&"$watch"
exec {watch}<&-
wait "$watcher_id"
ask 0 status

heading "Permission groups: of one app, and who holds one"
ask 0 groups by-app com.example.camera
ask 0 groups by-permission MICROPHONE --user 101
ask 0 groups by-app com.example.weather --json

heading "A change takes effect"
ask 0 groups set com.example.camera LOCATION deny --flags-mask 0x1 --flags-value 0x1
ask 0 groups by-app com.example.camera --group LOCATION

heading "The service says no: a disabled state, an app that is not there"
ask 1 groups set com.example.bank SMS allow
ask 1 groups by-app com.example.nobody

heading "What was used: added up, one by one, and as a picture"
ask 0 usage summary --since 2026-11-20 --user 100 --app-state foreground
ask 0 usage timeline --mode denied --newest-first --limit 5
ask 0 usage timeline --chart
ask 0 usage timeline --chart --since 2026-11-20T06:00 --user 100

heading "A recorder feeds in what is used while the service runs"
printf '%s\n' '{"bundleName": "com.example.camera", "userId": 100, "operationGroup": "CAMERA", "times": 2, "mode":
"denied", "app": "background", "screen": "locked", "begin": 1795197700000, "end": 1795197701000}' | tr -d '\n' |
    "$service" record --database "$folder/device.db" -
ask 0 usage timeline --newest-first --limit 1

heading "GToken policies: set, read, refused for another fingerprint, removed"
printf 'B1946AC92492D2347C6235B4D2611184' >"$folder/notes.fingerprint"
ask 0 gtoken add --bundle com.example.notes --version-code 7 --fingerprint-file "$folder/notes.fingerprint" \
    --policy attestation=1 --policy screen_capture=0
ask 0 gtoken get screen_capture com.example.notes com.example.messenger com.example.mail
printf '591785B794601E212B260E25925636FD' >"$folder/other.fingerprint"
ask 1 gtoken add --bundle com.example.notes --version-code 8 --fingerprint-file "$folder/other.fingerprint" \
    --policy screen_capture=1
ask 0 gtoken remove com.example.notes
ask 0 gtoken get screen_capture com.example.notes

heading "The service ends and says what it did"
stop_service

heading "Nobody is there"
ask 3 --wait 0 ping

heading "It starts again, read-only: the change and the recorded use are still there, another one is refused"
start_service --database "$folder/device.db" --read-only
ask 0 groups by-app com.example.camera --group LOCATION
ask 4 groups set com.example.camera LOCATION allow_in_use
ask 0 usage timeline --newest-first --limit 1
stop_service >/dev/null

heading "Done"
