#!/usr/bin/env bash
# The benchmarks, in one run: builds them, starts a private PostgreSQL
# cluster, runs each against its floor (subject and floor alternate within
# each program) and stops the cluster. Each program prints
# "name subject_ms floor_ms ratio" lines:
#   bench_index    create, set (text, meta text, binary), get (latest, older)
#   bench_list     listing pages (own and shared, text filter, OFFSET 5000,
#                  cursor, search) at 100,000 and at 1,000,000 rows
#   bench_reindex  reindex of 100,000 objects
#   bench_batch    multi-object set and delete of 1,000 objects
#   bench_check    the check, per object
#   bench_versions, bench_history   the version store and the history verbs
#   scripts/bench.sh [--quick]     # --quick: a tenth of the sizes
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
need_packages

scale=1
[ "${1:-}" = "--quick" ] && scale=10

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKOLV_BUILD_TESTS=ON -DKOLV_BUILD_BENCH=ON "${launcher[@]}" >/dev/null
cmake --build build-bench -j "$(nproc)" --target bench_versions bench_history bench_index bench_list bench_reindex \
    bench_batch bench_check >/dev/null

pg_dir=""
cleanup() { [ -n "$pg_dir" ] && scripts/pg_cluster.sh stop "$pg_dir"; }
trap cleanup EXIT INT TERM
eval "$(scripts/pg_cluster.sh start)"
pg_dir=$KOLV_PG_DIR

b=build-bench/bench
$b/bench_index $((200 / scale))
$b/bench_list $((100000 / scale))
$b/bench_list $((1000000 / scale))
$b/bench_reindex $((100000 / scale))
$b/bench_batch 3 $((1000 / scale))
$b/bench_check $((10000 / scale))
$b/bench_versions 20 10
$b/bench_history 20
