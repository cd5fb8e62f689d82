#!/usr/bin/env bash
# The example of a shim: its client is bound, gets its change, hears of it and of states, and goes.
#
# usage: shim_loop_test.sh PROGRAM
set -euo pipefail

root=/qelshimloop.$$.
trap 'rm -f /dev/shm"$root"*' EXIT
output=$("$1" --root "$root")
echo "$output"
expect() { [ "$(grep -cE "$1" <<<"$output")" -ge "$2" ] || { echo "expected $2 or more of: $1" && exit 1; }; }
expect '^shim: client "watcher" is bound$' 1
expect '^client: the change is made: 9000$' 1
expect '^client: interface 2 has MTU 9000$' 1
expect '^client: loop[0-2] is (up|down)$' 4
expect '^shim: client "watcher" has gone$' 1
