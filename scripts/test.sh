#!/usr/bin/env bash
# Builds dypd and runs every test twice: a normal build and a build with
# the address and undefined-behaviour sanitizers. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib.sh
install_missing cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iproute2 util-linux
# dypctl: command line and JSON libraries (header-only)
install_missing libcli11-dev nlohmann-json3-dev

jobs=$(nproc)
status=0
run() {
    local dir=$1; shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
    (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300) || status=1
}

echo "=== normal build"
run build
echo "=== sanitizer build (address, undefined)"
run build-asan -DDYPD_SANITIZE=ON
exit $status
