#!/usr/bin/env bash
# The benchmarks: builds them, starts a private PostgreSQL cluster, runs the
# versions benchmark (file store against bare libgit2), the history
# benchmark (delete, version list and field rename against rm -rf, a bare
# revision walk and a set), and the index benchmark (create, set, get, list
# and reindex against their floors), the batch benchmark (multi-object set
# and delete of 1,000 objects against the same done one by one), and stops
# the cluster. Subject and baseline alternate within each run.
#   scripts/bench.sh [OBJECTS]      # objects for the index benchmark (10000)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
need_packages

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DKOLV_BUILD_TESTS=ON -DKOLV_BUILD_BENCH=ON "${launcher[@]}" >/dev/null
cmake --build build-bench -j "$(nproc)" --target bench_versions bench_history bench_index bench_batch >/dev/null

pg_dir=""
cleanup() { [ -n "$pg_dir" ] && scripts/pg_cluster.sh stop "$pg_dir"; }
trap cleanup EXIT INT TERM
eval "$(scripts/pg_cluster.sh start)"
pg_dir=$KOLV_PG_DIR

build-bench/bench/bench_versions 20 10
build-bench/bench/bench_history 20
build-bench/bench/bench_index "${1:-10000}"
build-bench/bench/bench_batch 3 1000
