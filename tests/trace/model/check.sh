#!/bin/sh
# Searches the model of the reservation. First with each rule broken, where an error has to be found, then as it is,
# where none may be. Usage: check.sh MODEL [--full]; --full adds the searches that take a minute and 2 GB.
set -eu
model=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The small searches take less time than the optimizer would.
optimize=-O0

# search EXPECTED-ERRORS FLAGS...
search() {
    expected=$1
    shift
    spin -a "$@" "$model" > spin.out
    ${CC:-cc} $optimize -w -DSAFETY -DCOLLAPSE -DMEMLIM=4000 -o pan pan.c
    ./pan -m200000 -n -w24 > pan.out
    found=$(sed -n 's/.*errors: *\([0-9]*\).*/\1/p' pan.out)
    echo "$*: $(grep 'states, stored' pan.out || true) errors: $found"
    if grep -q 'max search depth too small\|out of memory\|memory limit' pan.out; then
        echo "the search is not complete"
        exit 1
    fi
    [ "$found" = "$expected" ] || exit 1
}

search 1 -DIGNORE_LOST_CURSOR
search 1 -DSKIP_FROM_CURSOR
search 0 -DPASSES=2
search 0 -DBLOCKS=3 -DPASSES=2 -DWRITERS=3 -DENTRIES=1
if [ "${2:-}" = --full ]; then
    optimize=-O2
    search 0 -DBLOCKS=3
    search 0
fi
