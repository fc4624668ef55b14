#!/usr/bin/env bash
# Prints the README's size table: the stripped MinSizeRel daemon for each
# cross target and build option, and the libraries it needs. Builds the
# daemon alone (no tests) into build-size/.
#
#   scripts/size-table.sh > /tmp/sizes.md
set -euo pipefail
cd "$(dirname "$0")/.."

variants=(
    "mipsel-linux-gnu|"
    "mipsel-linux-gnu|-DDYPD_MIPS16=ON"
    "mipsel-linux-gnu|-DDYPD_LTO=OFF"
    "mips-linux-gnu|"
    "mips-linux-gnu|-DDYPD_MIPS16=ON"
    "mipsel-linux-musl|"
    "mipsel-linux-musl|-DDYPD_MIPS16=ON"
    "arm-linux-gnueabihf|"
)

echo "| target | option | stripped \`dypd\` (bytes) | NEEDED |"
echo "|---|---|---:|---|"
for variant in "${variants[@]}"; do
    triple=${variant%%|*}
    option=${variant#*|}
    build=build-size/$triple${option:+-${option#-D}}
    cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/$triple.cmake" \
        -DCMAKE_BUILD_TYPE=MinSizeRel -DDYPD_TESTS=OFF ${option:+"$option"} >/dev/null
    cmake --build "$build" -j "${JOBS:-2}" --target dypd >/dev/null
    strip=$(sed -n 's/^CMAKE_STRIP:FILEPATH=//p' "$build/CMakeCache.txt")
    "$strip" -o "$build/dypd.stripped" "$build/dypd"
    size=$(stat -c %s "$build/dypd.stripped")
    needed=$(readelf -dW "$build/dypd" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | paste -sd ' ')
    echo "| $triple | ${option:--} | $size | $needed |"
done
