#!/usr/bin/env bash
# Runs the key-value service under load: one server and three clients, each of them killed and started again in turn.
#
# Succeeds if everybody goes on after each kill, and if at the end each client reads back what it put and has its
# credits, and the server has taken each put once. A kill may land inside one of the channel's locks, which stays held
# then: the tool finds it, and the channel is made anew. Values and numbers lie beside it and stay; messages are counted
# from there on.
#
# usage: ipc_demo.sh PROGRAM-FOLDER TOOL [SECONDS-BETWEEN-KILLS]
set -euo pipefail
programs=$1
tool=$2
pause=${3:-0.7}
"$tool" --version >/dev/null # fails at once if it isn't there

# Shared memory lies below a root of our own, and goes at the end.
root=/qelkv.$$.
work=$(mktemp -d)
everyone=(server 1 2 3)
declare -A pid
cleanup() {
    for one in "${!pid[@]}"; do kill -KILL "${pid[$one]}" 2>/dev/null || true; done
    rm -rf "$work" /dev/shm"$root"*
}
trap cleanup EXIT

fail() {
    echo "demo: $1" >&2
    "$tool" --root "$root" ipc show kv >&2 || true
    tail -n 5 "$work"/* >&2
    exit 1
}

start() {
    local command=("$programs/ipc_client" "$1" "$root")
    [ "$1" != server ] || command=("$programs/ipc_server" "$root")
    : >"$work/$1"
    "${command[@]}" >"$work/$1" 2>&1 &
    pid[$1]=$!
}

# Waits until those named have said that they are at work, 20 s at most.
await() {
    local one
    for one in "$@"; do
        for _ in $(seq 400); do
            ! grep -q . "$work/$one" || continue 2
            sleep 0.05
        done
        fail "$one doesn't get to work"
    done
}

end() {
    kill -KILL "${pid[$1]}" || fail "$1 has ended by itself"
    wait "${pid[$1]}" 2>/dev/null || true
}

# Which of the channel's locks are held by the dead: the tool's findings on locks; fails if there are none.
held_by_the_dead() {
    local found
    found=$("$tool" --root "$root" ipc show kv || true) # exits with 1 when it finds something
    grep '^FINDING: lock' <<<"$found"
}

make_anew() {
    local one
    for one in "$@"; do end "$one"; done
    rm -f /dev/shm"$root"kv /dev/shm"$root"kv.[0-9]* /dev/shm"$root"kv.heap
    for one in "${everyone[@]}"; do start "$one"; done
    await "${everyone[@]}"
}

kill_and_start() {
    local one others=()
    echo "demo: killing $1, process ${pid[$1]}"
    end "$1"
    if held_by_the_dead; then
        echo "demo: it died inside a lock, so the channel is made anew"
        for one in "${everyone[@]}"; do [ "$one" = "$1" ] || others+=("$one"); done
        make_anew "${others[@]}"
        return
    fi
    [ "$1" != server ] || "$tool" --root "$root" ipc ls
    start "$1"
    await "$1"
    echo "demo: back as process ${pid[$1]}: $(head -n 1 "$work/$1")"
}

echo "A server and three clients exchange messages; each is killed at work, and started again:"
for one in "${everyone[@]}"; do start "$one"; done
await "${everyone[@]}"
for one in 1 server 2 server 3; do
    sleep "$pause"
    kill_and_start "$one"
done
sleep "$pause"

# The clients end first, and all at once.
kill -TERM "${pid[1]}" "${pid[2]}" "${pid[3]}"
for one in 1 2 3 server; do
    [ "$one" != server ] || kill -TERM "${pid[server]}"
    timeout 30 tail --pid="${pid[$one]}" -f /dev/null || fail "$one doesn't come to its end"
    wait "${pid[$one]}" || fail "$one failed"
    unset "pid[$one]"
    tail -n +2 "$work/$one"
done
for one in 1 2 3; do
    grep -qE "^ipc_client $one: .* 0 lost; .* credits: ([0-9]+) of \1\$" "$work/$one" || fail "client $one ended otherwise"
    taken=$(sed -nE "s/^ipc_client $one: ([0-9]+) puts taken.*/\1/p" "$work/$one")
    grep -q "^ipc_server: client $one: $taken puts taken" "$work/server" || fail "the server took another number of client $one"
done
awk '/^ipc_client [0-9]:/ { sent += $9; received += $11; replayed += $13 }
     END { print "demo:", sent, "messages sent,", received, "received,", replayed, "replayed" }' "$work"/[123]
echo "demo: nothing lost, nothing doubled, all credits back at quota"
