#!/bin/sh
# Searches the model of the wake-up. First with each rule broken, where an error has to be found, then as it is, where
# none may be. Usage: check.sh MODEL
set -eu
model=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# search EXPECTED-ERRORS FLAGS...
search() {
    expected=$1
    shift
    spin -a "$@" "$model" > spin.out
    ${CC:-cc} -O0 -w -DSAFETY -DCOLLAPSE -DMEMLIM=1500 -o pan pan.c
    ./pan -m200000 -n -w22 > pan.out
    found=$(sed -n 's/.*errors: *\([0-9]*\).*/\1/p' pan.out)
    echo "$*: $(grep 'states, stored' pan.out || true) errors: $found"
    if grep -q 'max search depth too small\|out of memory\|memory limit' pan.out; then
        echo "the search is not complete"
        exit 1
    fi
    [ "$found" = "$expected" ] || exit 1
}

search 1 -DPOSTERS=1 -DJOBS=2 -DKEEP_BATCH
search 1 -DPOSTERS=1 -DJOBS=1 -DENTER_BLIND
search 1 -DPOSTERS=1 -DJOBS=1 -DEND_ALONE
search 1 -DPOSTERS=1 -DJOBS=3 -DTRUST_MORE=true
search 0 -DPOSTERS=1 -DJOBS=3
search 0 -DPOSTERS=2
