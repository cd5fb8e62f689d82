#!/bin/sh
# Searches the model of the reservation. First with each rule broken, where an error has to be found, then as it is,
# where none may be. Usage: check.sh MODEL [--full]; --full adds the searches that take a minute and 2 GB.
set -eu
model=$1
. "$(dirname "$0")/../../support/search_model.sh"

search 1 -DIGNORE_LOST_CURSOR
search 1 -DSKIP_FROM_CURSOR
search 0 -DPASSES=2
search 0 -DBLOCKS=3 -DPASSES=2 -DWRITERS=3 -DENTRIES=1
if [ "${2:-}" = --full ]; then
    optimize=-O2
    search 0 -DBLOCKS=3
    search 0
fi
