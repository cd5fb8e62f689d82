#!/usr/bin/env bash
# Runs linkwatch, then traceread on what it left in shared memory; scripts/demo builds both first.
#
# Succeeds if the table has the machine's loopback link and its trace entry outlived the writer; with --churn, if the
# tallies and the number of trace entries agree with what was done.
#
# usage: demo.sh PROGRAM-FOLDER [--watch | --churn]
set -euo pipefail
programs=$1
mode=${2:-}

fail() {
    echo "demo: $1" >&2
    exit 1
}

# --churn runs this script once more, in a network namespace of its own.
if [ "$mode" = --churn ] && [ -z "${QEL_DEMO_INSIDE:-}" ]; then
    user=()
    [ "$(id -u)" -eq 0 ] || user=(--map-root-user)
    export QEL_DEMO_INSIDE=1
    exec unshare "${user[@]}" --net "$0" "$@"
fi

# Shared memory lies below a root of our own, and goes at the end.
root=/qeldemo.$$.
work=$(mktemp -d)
output=$work/output
writer=
cleanup() {
    [ -z "$writer" ] || kill "$writer" 2>/dev/null || true
    rm -rf "$work" /dev/shm"$root"*
}
trap cleanup EXIT

# Waits until linkwatch has printed a line that matches, 30 s at most.
await() {
    for _ in $(seq 300); do
        ! grep -qE "$1" "$output" || return 0
        sleep 0.1
    done
    fail "no line like '$1'; the last one is: $(tail -n 1 "$output")"
}

# ip_batch COUNT LINE...: runs each line, a command of ip, with @ as 1, 2 ... COUNT.
ip_batch() {
    local count=$1 i line
    shift
    for i in $(seq "$count"); do
        for line in "$@"; do echo "${line//@/$i}"; done
    done >"$work/batch"
    ip -batch "$work/batch" || fail "ip refused: $1"
}

# Makes 100 links come, change and go, each step when the one before has been counted. On a kernel without bridges they
# are pairs, two links each.
churn() {
    local count=100 found
    local add="link add t@ type bridge" change=("link set t@ mtu 1400")
    if ip link add probe type bridge 2>/dev/null; then
        ip link del probe
    else
        count=50 add="link add t@ type veth peer name u@" change+=("link set u@ mtu 1400")
    fi
    "$programs/linkwatch" --watch --root "$root" >"$output" &
    writer=$!
    await '^ +index'
    ip_batch $count "$add"
    await '^tick: .*, 100 added, 0 changed, 0 deleted'
    ip_batch $count "${change[@]}"
    await '^tick: .*, 100 added, 100 changed, 0 deleted'
    ip_batch $count "link del t@"
    await '^tick: .*, 100 added, 100 changed, 100 deleted'
    kill "$writer"
    wait "$writer" || fail "linkwatch failed"
    writer=
    cat "$output"
    found=$(sed -nE 's/^end: .* ([0-9]+) found, 100 added, 100 changed, 100 deleted$/\1/p' "$output")
    entries=$((found + 300))
}

entries=
case $mode in
"")
    "$programs/linkwatch" --root "$root" | tee "$output"
    grep -qE '^ +[0-9]+  lo +loopback ' "$output" || fail "the table lacks the loopback link"
    ;;
--watch)
    trap : INT
    "$programs/linkwatch" --watch --root "$root"
    ;;
--churn) churn ;;
*) fail "usage: demo.sh PROGRAM-FOLDER [--watch | --churn]" ;;
esac

echo
echo "linkwatch has ended. Another process opens the trace buffer that it left:"
"$programs/traceread" --root "$root" linkwatch 10 | tee "$work/trace"
grep -qE '  link [0-9]+ [a-z]+: [^ ]+, [^ ]+, ' "$work/trace" || fail "the trace has no entry"
[ -z "$entries" ] || grep -q " $entries entries " "$work/trace" || fail "the trace should have $entries entries"
[ "$mode" != --churn ] || echo "demo: the tallies agree with what was done"
