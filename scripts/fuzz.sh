#!/usr/bin/env bash
# Bounded fuzzing of name decoding and id parsing with libFuzzer (clang).
#
#   scripts/fuzz.sh [SECONDS]    run each target for SECONDS (default 60)
#
# Builds only the fuzz targets in build-fuzz. Exits non-zero when the build
# fails or a target finds a crash (the input is kept in
# build-fuzz/artifacts/); running out of time is success.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
build=build-fuzz
targets=(fuzz_decode fuzz_id)

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
CC=clang CXX=clang++ cmake -S . -B "$build" -DKOLV_BUILD_FUZZ=ON -DKOLV_BUILD_TESTS=ON -DKOLV_BUILD_BENCH=OFF \
    "${launcher[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]}"

mkdir -p "$build/artifacts"
for target in "${targets[@]}"; do
    corpus=$build/corpus/$target
    mkdir -p "$corpus"
    echo "fuzzing $target for ${seconds}s"
    "$build/tests/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$target-" "$corpus" "tests/fuzz/seeds/${target#fuzz_}"
done
