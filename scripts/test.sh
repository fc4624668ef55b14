#!/usr/bin/env bash
# Builds dypd and runs every test twice: a normal build and a build with
# the address and undefined-behaviour sanitizers; then checks what gets
# shipped. Installs what is missing. Runs as root.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib.sh
require_root
install_missing cmake g++ make libgtest-dev libgmock-dev iproute2 util-linux
# dypctl: command line and JSON libraries (header-only)
install_missing libcli11-dev nlohmann-json3-dev
# The Wireshark dissector's test: tcpdump records a live session, tshark
# reads it, nlohmann's JSON parser reads tshark's and dypctl's output.
install_missing tshark tcpdump

jobs=$(build_jobs)
status=0
run() {
    local dir=$1; shift
    mkdir -p "$dir"
    quietly "$dir/configure.log" cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" &&
        quietly "$dir/build.log" cmake --build "$dir" -j "$jobs" || { status=1; return; }
    (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300) || status=1
}

echo "=== normal build"
run build -DCMAKE_INSTALL_PREFIX=/usr
echo "=== sanitizer build (address, undefined)"
run build-asan -DDYPD_SANITIZE=ON

# --- What gets shipped: the install into a scratch folder, the service
# files (systemd-analyze, the init script run against the daemon), the two
# Debian packages (lintian, installed into a scratch root) and the man
# pages (mandoc), from the normal build. About two minutes.
echo "=== install, service files, packages, man pages"
install_missing lintian mandoc systemd dpkg-dev man-db
scripts/package-test.sh build || status=1

# Both builds above replay the fuzz corpora as tests; here every target is
# also fuzzed for a short while (clang and its runtime are installed for it).
echo "=== fuzz targets, 20 s each"
install_missing clang-14 libclang-rt-14-dev
scripts/fuzz.sh 20 || status=1

# --- cross builds: the daemon for the box with musl, and every test (unit,
# end-to-end, soak, corpus replays, dissector) built for MIPS in both byte
# orders and run under qemu-user (scripts/cross.sh TRIPLE).
echo "=== cross builds under qemu-user"
if ! dpkg --print-foreign-architectures | grep -qx mipsel; then
    dpkg --add-architecture mipsel
    apt-get update -qq
fi
install_missing g++-mipsel-linux-gnu g++-mips-linux-gnu qemu-user googletest binutils musl-dev:mipsel
for triple in mipsel-linux-musl mipsel-linux-gnu mips-linux-gnu; do
    started=$SECONDS
    mkdir -p "build-$triple"
    quietly "build-$triple/cross.log" env JOBS="$jobs" scripts/cross.sh "$triple" ||
        status=1
    echo "=== $triple: $((SECONDS - started)) s"
done
# --- end of cross builds

exit $status
