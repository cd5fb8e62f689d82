# Searching a model with spin. Sourced by the check.sh of each model, which names the model's file in $model.
#
# A rule is broken by a flag, and then an error has to be found; as it is, the model must have none. A search that ends
# before all states were seen fails.
model=$(realpath "$model")
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
