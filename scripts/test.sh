#!/usr/bin/env bash
# Builds dypd and runs every test twice: a normal build and a build with
# the address and undefined-behaviour sanitizers. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib.sh
install_missing cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev iproute2 util-linux

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

# --- cross builds: the box's ISA in both byte orders, every test under
# qemu-user, and the daemon with musl (scripts/cross.sh).
echo "=== cross builds under qemu-user"
if ! dpkg --print-foreign-architectures | grep -qx mipsel; then
    dpkg --add-architecture mipsel
    apt-get update -qq
fi
install_missing g++-mipsel-linux-gnu g++-mips-linux-gnu qemu-user googletest binutils musl-dev:mipsel
for triple in mipsel-linux-gnu mips-linux-gnu mipsel-linux-musl; do
    started=$SECONDS
    JOBS=$jobs scripts/cross.sh "$triple" || status=1
    echo "=== $triple: $((SECONDS - started)) s"
done
# --- end of cross builds

exit $status
