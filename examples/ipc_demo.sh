#!/usr/bin/env bash
# Runs the key-value service under load: one server, three clients, each of them killed and started again in turn.
#
# Succeeds if each client, at the end, has all puts acknowledged, reads back what it put, and has its credits back; the
# server then has taken each put once. A kill may land inside one of the channel's locks, which the dead then hold: that
# is found by the tool, told, and cured by making the channel anew; values and numbers lie beside it and stay.
#
# usage: ipc_demo.sh PROGRAM-FOLDER TOOL [PUTS]
set -euo pipefail
programs=$1
tool=$2
puts=${3:-200000}

root=/qelkv.$$.
work=$(mktemp -d)
declare -A pid

cleanup() {
    for one in "${pid[@]}"; do kill -KILL "$one" 2>/dev/null || true; done
    rm -rf "$work" /dev/shm"$root"*
}
trap cleanup EXIT

fail() {
    echo "demo: $1" >&2
    cat "$work"/* >&2
    exit 1
}

start() {
    if [ "$1" = server ]; then
        "$programs/ipc_server" "$root" >>"$work/server" &
    else
        "$programs/ipc_client" "$1" "$puts" "$root" >>"$work/client$1" &
    fi
    pid[$1]=$!
}

end() {
    kill -KILL "${pid[$1]}" 2>/dev/null || return 0
    wait "${pid[$1]}" 2>/dev/null || true
}

# Whether a process that is dead holds one of the channel's locks.
blocked() { "$tool" --root "$root" ipc show kv 2>/dev/null | grep -q 'held by .* dead'; }

kill_and_start() {
    echo "demo: killing $1 (process ${pid[$1]})"
    end "$1"
    if blocked; then
        echo "demo: it died inside a lock: the channel is made anew"
        for one in server 1 2 3; do end "$one"; done
        rm -f /dev/shm"$root"kv /dev/shm"$root"kv.[0-9]* /dev/shm"$root"kv.heap
        for one in server 1 2 3; do start "$one"; done
    else
        start "$1"
    fi
}

for one in server 1 2 3; do start "$one"; done
for one in 1 2 server 3 server; do
    sleep 0.7
    kill_and_start "$one"
done
for one in 1 2 3; do
    timeout 60 tail --pid="${pid[$one]}" -f /dev/null || fail "client $one doesn't come to its end"
    wait "${pid[$one]}" || fail "client $one has lost values"
done
kill -TERM "${pid[server]}"
wait "${pid[server]}" || fail "the server failed"
cat "$work"/client? "$work/server"
for one in 1 2 3; do
    grep -qE "^ipc_client $one: $puts puts taken, .* 0 lost, credits ([0-9]+) of \1\$" "$work/client$one" ||
        fail "client $one ended otherwise"
    grep -qE "^ipc_server: client $one: $puts puts taken" "$work/server" || fail "the server took another number of client $one"
done
echo "demo: nothing lost, nothing doubled, all credits back"
