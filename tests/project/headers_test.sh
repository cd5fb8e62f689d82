#!/usr/bin/env bash
# Each public header compiles alone as C99 and as C++, without a warning.
#
# usage: headers_test.sh INCLUDE-FOLDER
set -uo pipefail
status=0
for header in "$1"/qel/*.h; do
    unit="#include <qel/$(basename "$header")>"
    echo "$unit" | cc -std=c99 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$1" -xc - ||
        { echo "not C99 alone: $header" && status=1; }
    echo "$unit" | c++ -std=c++11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$1" -xc++ - ||
        { echo "not C++ alone: $header" && status=1; }
done
exit $status
