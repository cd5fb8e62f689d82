#!/usr/bin/env bash
# The program in the README compiles as it stands, runs, prints what it says, and keeps its shared memory below the root
# that it names.
#
# usage: readme_test.sh SOURCE-FOLDER LIBRARY
set -euo pipefail
work=$(mktemp -d)
root=qelreadme.$$.
trap 'rm -rf "$work" /dev/shm/"$root"*' EXIT
awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$1/README.md" >"$work/readme.c"
lines=$(wc -l <"$work/readme.c")
if [ "$lines" -le 10 ] || [ "$lines" -gt 32 ]; then
    echo "$lines lines of program" && exit 1
fi
sed -i "s|\"/hello\\.\"|\"/$root\"|" "$work/readme.c"
cc -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror -I"$1/shared/include" "$work/readme.c" "$2" -o "$work/readme" \
    -Wl,-rpath,"$(dirname "$2")"
diff <("$work/readme") <(printf 'job: 40, 2\ntick 1\ntick 2\ntick 3\n')
ls /dev/shm/"$root"* >/dev/null
