#!/usr/bin/env bash
# The program in the README compiles as it stands, runs, and prints what it says.
#
# usage: readme_test.sh SOURCE-FOLDER LIBRARY
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed -n '/^```c$/,/^```$/{/^```/d;p}' "$1/README.md" >"$work/readme.c"
lines=$(wc -l <"$work/readme.c")
[ "$lines" -gt 10 ] && [ "$lines" -le 32 ] || { echo "$lines lines of program" && exit 1; }
cc -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Werror -I"$1/shared/include" "$work/readme.c" "$2" -o "$work/readme" \
    -Wl,-rpath,"$(dirname "$2")"
diff <("$work/readme") <(printf 'job: 40, 2\ntick 1\ntick 2\ntick 3\n')
