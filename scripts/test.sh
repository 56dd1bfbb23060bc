#!/usr/bin/env bash
# The test command: installs what is missing, builds, starts a private
# PostgreSQL cluster, runs the whole suite with ctest, stops the cluster.
#
#   scripts/test.sh           plain build (+ a bounded fuzzing run when clang is there)
#   scripts/test.sh --asan    AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh --tsan    ThreadSanitizer
# Extra arguments after the mode go to ctest (e.g. -R Settings).
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

mode=plain
case "${1:-}" in
    --asan) mode=asan; shift ;;
    --tsan) mode=tsan; shift ;;
    --plain) shift ;;
esac

. scripts/deps.sh
need_packages

build=build
sanitize=""
case $mode in
    asan) build=build-asan; sanitize=address ;;
    tsan) build=build-tsan; sanitize=thread ;;
esac

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -DKOLV_SANITIZE="$sanitize" -DKOLV_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"

pg_dir=""
cleanup() { [ -n "$pg_dir" ] && scripts/pg_cluster.sh stop "$pg_dir"; }
trap cleanup EXIT INT TERM
eval "$(scripts/pg_cluster.sh start)"
pg_dir=$KOLV_PG_DIR

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
(cd "$build" && ctest --output-on-failure -j "$(nproc)" "$@")

if [ "$mode" = plain ] && [ $# -eq 0 ]; then
    scripts/check_install.sh "$build"
fi

if [ "$mode" = plain ] && [ $# -eq 0 ] && command -v clang++ >/dev/null && [ -d tests/fuzz ]; then
    scripts/fuzz.sh 20
fi
