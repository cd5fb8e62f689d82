#!/usr/bin/env bash
# The C programs of each document compile as they stand, run, print the text blocks behind them, and keep their shared
# memory below the root that they name. The one in the README stays short.
#
# usage: documents_test.sh SOURCE-FOLDER LIBRARY
set -euo pipefail
source=$1
library=$2
work=$(mktemp -d)
root=qeldocuments.$$.
trap 'rm -rf "$work" /dev/shm/"$root"*' EXIT

# block KIND NUMBER DOCUMENT: the lines of the document's block of that kind and number.
block() {
    awk -v start="^\`\`\`$1\$" -v number="$2" \
        '$0 ~ start { inside = ++seen == number; next } /^```$/ { inside = 0 } inside' "$3"
}

# runs NUMBER DOCUMENT: compiles and runs one program.
runs() {
    block c "$1" "$2" | sed "s|\"qel.shm.root\", \"/|&$root|" >"$work/program.c"
    grep -q "$root" "$work/program.c" || { echo "names no root of its own" && exit 1; }
    cc -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror -I"$source/shared/include" "$work/program.c" "$library" \
        -o "$work/program" -pthread -Wl,-rpath,"$(dirname "$library")"
    diff <("$work/program") <(block text "$1" "$2")
}

for document in "$source"/README.md "$source"/docs/guide/*.md; do
    programs=$(grep -c '^```c$' "$document" || true)
    echo "$document: $programs"
    for number in $(seq "$programs"); do runs "$number" "$document"; done
done

[ "$(block c 1 "$source/README.md" | wc -l)" -le 32 ] || { echo "the README's program has grown" && exit 1; }
