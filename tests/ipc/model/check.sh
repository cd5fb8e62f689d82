#!/bin/sh
# Searches the model of the doorbell. First with each rule broken, where an error has to be found, then as it is, where
# none may be. Usage: check.sh MODEL
set -eu
model=$1
. "$(dirname "$0")/../../support/search_model.sh"

search 1 -DKEEP_MARK
search 1 -DTAKE_BLIND
search 1 -DADD_BLIND
search 1 -DCLEAR_LATE
search 1 -DNO_RETRY
search 1 -DSLEEP_DEAF
search 0
search 0 -DSENDERS=1 -DMESSAGES=3
search 0 -DSENDERS=1 -DMESSAGES=3 -DHANDLERS=2
