#!/usr/bin/env bash
# Builds dypd, the simulator and every test for a target of
# cmake/toolchains/ and runs the tests under qemu-user:
#
#   scripts/cross.sh TRIPLE [cmake options...]
#
# e.g. scripts/cross.sh mipsel-linux-gnu, or -DDYPD_MIPS16=ON after it.
# Builds into build-TRIPLE/ (BUILD_DIR overrides it), MinSizeRel unless a
# build type is given. GoogleTest for the target is built from Debian's
# sources once and kept in the build folder. For mipsel-linux-musl only the
# daemon is built (there is no C++ runtime for musl to link tests with) and
# run once under qemu. A failed test, a missing hardening property or a
# daemon past its size budget fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

triple=${1:?usage: scripts/cross.sh TRIPLE [cmake options...]}
shift
toolchain=$PWD/cmake/toolchains/$triple.cmake
[ -f "$toolchain" ] || { echo "no toolchain file $toolchain" >&2; exit 2; }
build=${BUILD_DIR:-build-$triple}
jobs=${JOBS:-2}

# GoogleTest for the target, from /usr/src/googletest, installed under
# $build/googletest; built again only when that is missing.
build_googletest() {
    local prefix=$PWD/$build/googletest
    if [ ! -f "$prefix/lib/cmake/GTest/GTestConfig.cmake" ]; then
        echo "=== GoogleTest for $triple"
        cmake -S /usr/src/googletest -B "$build/googletest-build" \
            -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=MinSizeRel \
            -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_INSTALL_LIBDIR=lib >/dev/null
        cmake --build "$build/googletest-build" -j "$jobs" >/dev/null
        cmake --install "$build/googletest-build" >/dev/null
    fi
    gtest_dir=$prefix/lib/cmake/GTest
}

configure_options=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_BUILD_TYPE=MinSizeRel)
targets=()
case $triple in
    # Host tools use the whole C++ library, which exists for glibc only.
    *-musl) configure_options+=(-DDYPD_TESTS=OFF); targets=(--target dypd) ;;
    *) build_googletest; configure_options+=(-DGTest_DIR="$gtest_dir") ;;
esac

echo "=== build for $triple"
cmake -S . -B "$build" "${configure_options[@]}" "$@" >/dev/null
cmake --build "$build" -j "$jobs" "${targets[@]}"

status=0
case $triple in
    *-musl)
        scripts/check-hardening.sh "$build/dypd" || status=1
        # musl's loader is found under / on the build machine as on the box.
        echo "=== dypd -v under qemu"
        qemu-mipsel "$build/dypd" -v | grep -x 'dypd version .*' || status=1
        ;;
    *)
        # The hardening check and the size budget are tests of their own.
        echo "=== tests under qemu-user"
        (cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 600 ${CTEST_ARGS:-}) || status=1
        ;;
esac
exit $status
