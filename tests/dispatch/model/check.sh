#!/bin/sh
# Searches the model of the wake-up. First with each rule broken, where an error has to be found, then as it is, where
# none may be. Usage: check.sh MODEL
set -eu
model=$1
. "$(dirname "$0")/../../support/search_model.sh"

search 1 -DPOSTERS=1 -DJOBS=2 -DKEEP_BATCH
search 1 -DPOSTERS=1 -DJOBS=1 -DENTER_BLIND
search 1 -DPOSTERS=1 -DJOBS=1 -DEND_ALONE
search 1 -DPOSTERS=1 -DJOBS=3 -DTRUST_MORE=true
search 0 -DPOSTERS=1 -DJOBS=3
search 0 -DPOSTERS=2
