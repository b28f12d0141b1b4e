#!/usr/bin/env bash
# Runs the front-end client against an engine of its own, in a temporary directory and on a free port:
# run_front_end_client.sh CLIENT KP_CONFIGURE KP_CAPTURE CAPTURE_FILE
set -euo pipefail
client=$1 configure=$2 capture=$3 traffic=$4

site=$(mktemp -d)
engine=
trap '[ -z "$engine" ] || kill "$engine" 2>/dev/null || true; rm -rf "$site"' EXIT
export KP_INSTALLDIR="$site"
echo secret >"$site/password"

fail() {
    echo "$1"
    for said in configure engine client; do
        echo "-- $said:"
        cat "$site/$said.out" 2>/dev/null || true
    done
    exit 1
}

# Polls until the client gets its answer; fails when the engine has ended, as it does when somebody
# else has the port.
ask() {
    for ((tries = 0; tries < 1200; ++tries)); do
        "$client" 127.0.0.1 "$port" secret >"$site/client.out" 2>&1 && return
        kill -0 "$engine" 2>/dev/null || return 1
        sleep 0.1
    done
    fail "the engine does not answer"
}

start() {
    port=$((20000 + RANDOM % 10000))
    "$configure" --force --password-file "$site/password" --range 10.20.0.0/24 --port "$port" \
        >"$site/configure.out" 2>&1 || fail "there is no installation"
    "$capture" --replay "$traffic" --serve >"$site/engine.out" 2>&1 &
    engine=$!
}

for ((starts = 0; starts < 20; ++starts)); do
    start
    ask && break
    engine=
done
[ -n "$engine" ] || fail "the engine does not start"

cat "$site/client.out"
grep -q '^state=' "$site/client.out" || fail "no state in the status"
! grep -qv '^[a-z][a-z0-9_]*=' "$site/client.out" || fail "a line that is no status"

status=0
"$client" 127.0.0.1 "$port" wrong >"$site/client.out" 2>&1 || status=$?
[ "$status $(cat "$site/client.out")" = "1 front_end_client: the engine refuses the password" ] ||
    fail "a wrong password ended with $status"

kill "$engine"
wait "$engine" || fail "the engine ended with an error"
engine=
