#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, address and undefined-
# behaviour sanitizers) in build-fuzz/ and runs each for SECONDS (default
# 60), one after the other, starting from the corpus in fuzz/corpus/.
#
#   scripts/fuzz.sh [SECONDS] [--merge-into-tree] [TARGET...]
#
# New inputs go to build-fuzz/corpus/TARGET, findings to
# build-fuzz/findings/; --merge-into-tree adds to fuzz/corpus/TARGET those
# new inputs that reach code the tree's corpus does not. Exits non-zero
# when a target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/lib.sh

seconds=60
merge=0
targets=()
for arg in "$@"; do
    case $arg in
    --merge-into-tree) merge=1 ;;
    [0-9]*) seconds=$arg ;;
    *) targets+=("$arg") ;;
    esac
done
if [ ${#targets[@]} -eq 0 ]; then
    targets=(request_path ska config bind_list ini_rewrite dypclient sim_devices)
fi

install_missing cmake make clang-14 libclang-rt-14-dev libgtest-dev libgmock-dev

dir=build-fuzz
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
CC=clang-14 CXX=clang++-14 cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDYPD_FUZZ=ON "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags" >/dev/null
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$dir/findings"
status=0
for target in "${targets[@]}"; do
    work="$dir/corpus/$target"
    log="$dir/$target.log"
    mkdir -p "$work"
    echo "=== $target: $seconds s"
    # The first directory receives what the run finds; the tree's corpus
    # is only read.
    if "$dir/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -max_len=4200 \
        -dict="fuzz/$target.dict" -artifact_prefix="$dir/findings/$target-" \
        -print_final_stats=1 "$work" "fuzz/corpus/$target" >"$log" 2>&1; then
        result=clean
    else
        result="FINDING (see $log and $dir/findings/)"
        status=1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1)
    echo "$target: ${runs:-?} executions, ${cov:-cov: ?} edges, $result"
    if [ $merge = 1 ] && [ "$result" = clean ]; then
        "$dir/fuzz/fuzz_$target" -merge=1 "fuzz/corpus/$target" "$work" >>"$log" 2>&1
        echo "$target: merged, $(ls "fuzz/corpus/$target" | wc -l) files in fuzz/corpus/$target"
    fi
done
exit $status
