#!/bin/sh
# Runs a command while an LTTng snapshot session of its own records the events "qel_bench:*", but for "disabled".
# The session daemon is this script's, with a home of its own; it ends with the script.
# Usage: lttng_session.sh COMMAND...
set -u
home=$(mktemp -d)
export LTTNG_HOME="$home" LTTNG_RUNDIR="$home/run" LTTNG_UST_REGISTER_TIMEOUT=5000
lttng-sessiond --no-kernel --verbose > "$home/sessiond.log" 2>&1 &
daemon=$!
stop() {
    lttng --no-sessiond destroy qel_bench > /dev/null 2>&1
    kill "$daemon" 2> /dev/null
    wait "$daemon" 2> /dev/null
    rm -rf "$home"
}
trap stop EXIT
trap 'exit 1' INT TERM
tries=0
until lttng --no-sessiond list > /dev/null 2>&1 || [ "$tries" -ge 50 ]; do
    tries=$((tries + 1))
    sleep 0.1
done
quiet() { lttng --no-sessiond "$@" > "$home/lttng.log" 2>&1 || { cat "$home/lttng.log" >&2; tail -5 "$home/sessiond.log" >&2; }; }
quiet create qel_bench --snapshot --output="$home/snapshot"
quiet enable-channel --userspace --subbuf-size=256k --num-subbuf=4 bench
quiet enable-event --userspace --channel=bench 'qel_bench:three_integers'
quiet enable-event --userspace --channel=bench 'qel_bench:integers_and_text'
quiet start
"$@"
