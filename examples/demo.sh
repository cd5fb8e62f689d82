#!/usr/bin/env bash
# Shows the links of this machine; scripts/demo builds the programs first. iflist lists the interfaces through the service and
# follows them; with --descriptors, linkwatch does it over a netlink socket of its own. Then traceread shows what the
# library or linkwatch logged, in shared memory that outlived the program.
#
# Succeeds if the table has the machine's loopback link and a trace entry outlived its writer; with --churn, if both
# programs, side by side, tell of every link that comes and goes, and linkwatch's trace has an entry for each change.
#
# usage: demo.sh PROGRAM-FOLDER [--watch | --churn | --descriptors]
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
interfaces=$work/interfaces
writers=()
cleanup() {
    [ ${#writers[@]} -eq 0 ] || kill "${writers[@]}" 2>/dev/null || true
    rm -rf "$work" /dev/shm"$root"*
}
trap cleanup EXIT

# await FILE PATTERN [COUNT]: waits until so many lines match, one unless told, 30 s at most.
await() {
    for _ in $(seq 300); do
        [ "$(grep -cE "$2" "$1")" -lt "${3:-1}" ] || return 0
        sleep 0.1
    done
    fail "no ${3:-1} lines like '$2'; the last one is: $(tail -n 1 "$1")"
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
    "$programs/iflist" --watch --root "$root" >"$interfaces" &
    writers=($!)
    "$programs/linkwatch" --watch --root "$root" >"$output" &
    writers+=($!)
    await "$interfaces" ' interfaces$'
    await "$output" '^ +index'
    ip_batch $count "$add"
    await "$output" '^tick: .*, 100 added, 0 changed, 0 deleted'
    await "$interfaces" '^created' 100
    ip_batch $count "${change[@]}"
    await "$output" '^tick: .*, 100 added, 100 changed, 0 deleted'
    ip_batch $count "link del t@"
    await "$output" '^tick: .*, 100 added, 100 changed, 100 deleted'
    await "$interfaces" '^deleted' 100
    kill "${writers[@]}"
    for writer in "${writers[@]}"; do wait "$writer" || fail "iflist or linkwatch failed"; done
    writers=()
    [ "$(sed -nE 's/^(created|deleted) +[0-9]+  //p' "$interfaces" | sort | uniq -c | grep -c '^ *2 ')" -eq 100 ] ||
        fail "iflist should have told of each link twice"
    cat "$interfaces" "$output"
    found=$(sed -nE 's/^end: .* ([0-9]+) found, 100 added, 100 changed, 100 deleted$/\1/p' "$output")
    entries=$((found + 300))
}

entries= buffer=linkwatch
case $mode in
"" | --watch)
    buffer=qel.if.buffer.events
    trap : INT
    "$programs/iflist" $mode --root "$root" | tee "$output"
    grep -qE '^ +[0-9]+  lo +LOOPBACK ' "$output" || fail "the table lacks the loopback link"
    ;;
--descriptors)
    "$programs/linkwatch" --root "$root" | tee "$output"
    grep -qE '^ +[0-9]+  lo +loopback ' "$output" || fail "the table lacks the loopback link"
    ;;
--churn) churn ;;
*) fail "usage: demo.sh PROGRAM-FOLDER [--watch | --churn | --descriptors]" ;;
esac

echo
echo "The program has ended. Another process opens the trace buffer that it left:"
"$programs/traceread" --root "$root" "$buffer" 10 | tee "$work/trace"
grep -qE ' (link [0-9]+ [a-z]+: [^ ]+, [^ ]+, |IFEVENT[0-9]+: )' "$work/trace" || fail "the trace has no entry"
[ -z "$entries" ] || grep -q " $entries entries " "$work/trace" || fail "the trace should have $entries entries"
[ "$mode" != --churn ] || echo "demo: the tallies agree with what was done"
