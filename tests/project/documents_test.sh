#!/usr/bin/env bash
# The C program of each document compiles as it stands, runs, prints the text block behind it, and keeps its shared
# memory below the root that it names. The one in the README stays short.
#
# usage: documents_test.sh SOURCE-FOLDER LIBRARY
set -euo pipefail
source=$1
library=$2
work=$(mktemp -d)
root=qeldocuments.$$.
trap 'rm -rf "$work" /dev/shm/"$root"*' EXIT

# block KIND DOCUMENT: the lines of the document's block of that kind.
block() {
    awk -v start="^\`\`\`$1\$" '$0 ~ start { inside = 1; next } /^```$/ { inside = 0 } inside' "$2"
}

for document in "$source"/README.md "$source"/docs/guide/*.md; do
    echo "$document"
    block c "$document" | sed "s|\"qel.shm.root\", \"/|&$root|" >"$work/program.c"
    grep -q "$root" "$work/program.c" || { echo "names no root of its own" && exit 1; }
    cc -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror -I"$source/shared/include" "$work/program.c" "$library" \
        -o "$work/program" -pthread -Wl,-rpath,"$(dirname "$library")"
    diff <("$work/program") <(block text "$document")
done

[ "$(block c "$source/README.md" | wc -l)" -le 32 ] || { echo "the README's program has grown" && exit 1; }
