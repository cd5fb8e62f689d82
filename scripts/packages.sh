#!/usr/bin/env bash
# The Debian packages that the scripts need, by purpose. The scripts beside it source this file.
#
# need GROUP...  installs what is missing of the named groups: build, demo, tool, test, fuzz, lint, docs, bench. Asks nothing.
# shellcheck disable=SC2034 # need() reads the lists through their names

packages_build="g++ cmake ninja-build"
packages_tool="libcli11-dev libfmt-dev nlohmann-json3-dev"
packages_demo="libpcap-dev iproute2 gnuplot-nox libuv1-dev libevent-dev pkg-config"
packages_test="libgtest-dev libgmock-dev libpcap-dev pkg-config python3 iproute2 spin"
packages_lint="clang clang-format git python3"
packages_fuzz="clang libclang-rt-dev"
packages_docs="doxygen"
packages_bench="libbenchmark-dev libboost-dev libqb-dev libuv1-dev libevent-dev libev-dev liblttng-ust-dev lttng-tools libnng-dev libzmq3-dev libfmt-dev libdpdk-dev libjudy-dev uthash-dev libnl-route-3-dev iproute2 pkg-config"

need() {
    local group list package missing=()
    for group in "$@"; do
        list="packages_$group"
        for package in ${!list}; do
            dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
        done
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    echo "installing: ${missing[*]}"
    local as_root=(env DEBIAN_FRONTEND=noninteractive)
    [ "$(id -u)" -eq 0 ] || as_root=(sudo "${as_root[@]}")
    "${as_root[@]}" apt-get update -qq </dev/null
    "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null >/dev/null
}
