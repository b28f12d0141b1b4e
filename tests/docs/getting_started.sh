#!/usr/bin/env bash
# Runs the programs of docs/getting-started.md: getting_started.sh FOLDER_WITH_THEM FOLDER_OF_THE_PROGRAMS
set -euo pipefail
cd "$1"
programs=$2

expect() { # expect TEXT FILE
    grep -qF -- "$1" "$2" || { echo "not found: $1"; cat "$2"; exit 1; }
}

echo 'open sesame' >password
export KP_INSTALLDIR="$PWD/site"
port=$((20000 + RANDOM % 10000))
"$programs/configure/kp-configure" --dir site --password-file password --range 10.20.0.0/24 \
    --port "$port" --days 7 >configure.out
./getting-started-1 >1.out
expect "port $port, 7 days, 1 ranges" 1.out
expect "10.20.0.7 is watched" 1.out
expect "the host has seen its configuration" site/logs/host.log
./getting-started-2 >2.out
expect "256 of 1024 addresses are watched" 2.out

for command in show status; do
    ./getting-started-3 >3.out 2>&1 &
    host=$!
    for ((tries = 0; tries < 1200; ++tries)); do
        "$programs/admin/kp-admin" --port "$port" --password-file password "$command" >admin.out 2>&1 && break
        kill -0 "$host" 2>/dev/null || break
        sleep 0.1
    done
    wait "$host" || { echo "the host ended with an error"; cat 3.out; exit 1; }
    [ "$command" = show ] && expect "days=7" admin.out || expect "state=waiting" admin.out
done
KP_INSTALLDIR=$PWD/nowhere ./getting-started-1 2>none.out && exit 1
expect "KP_INSTALLDIR must name an installation" none.out
