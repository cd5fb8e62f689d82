#!/usr/bin/env bash
# The sessions run for a moment with either kind of timers, and hold what they promise; the comparison with other
# libraries comes to its end.
#
# usage: sessions_test.sh PROGRAM
set -euo pipefail
root=/qelsessions.$$.
trap 'rm -rf /dev/shm"$root"*' EXIT

small=(--root "$root" --sessions 2000 --seconds 1)
for timers in tree wheel; do "$1" "${small[@]}" --timers $timers; done
"$1" "${small[@]}" --compare
