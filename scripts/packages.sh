# The Debian packages that this project's scripts need, by purpose. Sourced by the scripts beside it.
#
# need <group>...  installs what is missing of the named groups: build, test, lint, bench, docs, demo.

packages_build="g++ cmake ninja-build pkg-config"
packages_test="libgtest-dev libgmock-dev binutils python3 iproute2 spin"
packages_lint="clang clang-format"
packages_bench="libbenchmark-dev libboost-dev libqb-dev libuv1-dev libevent-dev liblttng-ust-dev lttng-tools python3"
packages_docs="doxygen graphviz"
packages_demo="iproute2"

need() {
    local group list missing=()
    for group in "$@"; do
        list="packages_$group"
        for package in ${!list}; do
            dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
        done
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
