#!/usr/bin/env bash
# A private PostgreSQL cluster for tests, benchmarks and the demo: initdb
# into a temporary folder, a Unix socket in that folder, no TCP. Run as the
# "postgres" OS user when we are root.
#
#   eval "$(scripts/pg_cluster.sh start)"   # sets PGHOST, PGPORT, KOLV_PG_DIR
#   scripts/pg_cluster.sh stop "$KOLV_PG_DIR"
set -euo pipefail

pg_bin() {
    local dir
    for dir in /usr/lib/postgresql/*/bin; do
        [ -x "$dir/initdb" ] && { echo "$dir"; return; }
    done
    echo "pg_cluster: no PostgreSQL server binaries (apt-get install postgresql)" >&2
    exit 1
}

as_owner() {
    if [ "$(id -u)" = 0 ]; then
        runuser -u postgres -- "$@"
    else
        "$@"
    fi
}

start() {
    local bin dir port
    bin=$(pg_bin)
    dir=$(mktemp -d /tmp/kolvpg.XXXXXX)
    chmod 755 "$dir"
    [ "$(id -u)" = 0 ] && chown postgres: "$dir"
    port=$((20000 + RANDOM % 20000))
    as_owner "$bin/initdb" -D "$dir/data" -U postgres -A trust -E UTF8 --locale=C.UTF-8 >"$dir/initdb.log" 2>&1 \
        || { cat "$dir/initdb.log" >&2; exit 1; }
    as_owner "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w \
        -o "-k $dir -c listen_addresses='' -p $port -c fsync=off -c full_page_writes=off" start >/dev/null \
        || { cat "$dir/server.log" >&2; exit 1; }
    echo "export PGHOST='$dir' PGPORT='$port' PGUSER=postgres KOLV_PG_DIR='$dir'"
}

stop() {
    local dir=${1:-${KOLV_PG_DIR:-}}
    [ -n "$dir" ] && [ -d "$dir/data" ] || return 0
    as_owner "$(pg_bin)/pg_ctl" -D "$dir/data" -m fast -w stop >/dev/null 2>&1 || true
    rm -rf "$dir"
}

case "${1:-}" in
    start) start ;;
    stop) stop "${2:-}" ;;
    *) echo "usage: $0 start | stop DIR" >&2; exit 2 ;;
esac
