#!/usr/bin/env bash
# Builds dypd and runs every test twice: a normal build and a build with
# the address and undefined-behaviour sanitizers. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

need=()
for pkg in cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iproute2 util-linux; do
    dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
    echo "installing: ${need[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
fi

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
