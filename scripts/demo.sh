#!/usr/bin/env bash
# The walkthrough: installs what is missing, builds the library and the
# kolvvessa tool, starts a private PostgreSQL cluster and a repository in a
# temporary folder, and runs a short session of two users with the tool.
# Everything it started is stopped and removed at the end (KEEP=1 keeps the
# folder for a look around).
set -euo pipefail
cd "$(dirname "$0")/.."

. scripts/deps.sh
need_packages jq

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B build-demo -DKOLV_BUILD_TESTS=OFF -DKOLV_BUILD_BENCH=OFF "${launcher[@]}" >/dev/null
cmake --build build-demo -j "$(nproc)" --target kolvvessa_tool >/dev/null
tool=$PWD/build-demo/tools/kolvvessa

demo=$(mktemp -d /tmp/kolvdemo.XXXXXX)
pg_dir=""
cleanup() {
    [ -n "$pg_dir" ] && scripts/pg_cluster.sh stop "$pg_dir"
    if [ "${KEEP:-0}" = 1 ]; then echo "kept $demo"; else rm -rf "$demo"; fi
}
trap cleanup EXIT INT TERM
eval "$(scripts/pg_cluster.sh start)"
pg_dir=$KOLV_PG_DIR

# The appliance, relocated: a "homes" share on /volume1 and two users.
export KOLV_SYSROOT=$demo/sysroot
mkdir -p "$KOLV_SYSROOT/usr/kolv/etc" "$KOLV_SYSROOT/volume1/homes" "$KOLV_SYSROOT/tmp"
cat >"$KOLV_SYSROOT/usr/kolv/etc/platform.conf" <<'CONF'
{
  "shares": {"homes": "/volume1/homes"},
  "user_home": {"local": true, "domain": false, "directory": false},
  "users": [
    {"uid": 1101, "name": "alice", "gid": 100, "mail": "alice@example.com", "expired": false, "groups": [100]},
    {"uid": 1102, "name": "bob", "gid": 100, "mail": "bob@example.com", "expired": false, "groups": [100]}
  ]
}
CONF
# alice's file: the store opens a source as the requester would.
head -c 2048 /dev/urandom >"$demo/cover.bin"
chmod 0755 "$demo"
chmod 0644 "$demo/cover.bin"

step() { printf '\n== %s\n' "$*"; }
# Runs the tool, echoing the command; the JSON result goes to stdout.
kv() {
    local arg line="$ kolvvessa $1"
    for arg in "${@:2}"; do
        case $arg in --*) line+=" $arg" ;; *) line+=" '$arg'" ;; esac
    done
    printf '%s\n' "$line" >&2
    "$tool" "$@"
}
brief='{id: (.id[0:10] + "..."), category, owner: .owner.display_name, perm, version: (.version[0:8]), text}'

step "Switch the store and the namespace \"note\" on"
kv access-set '{"enable":1}' | jq -c .
kv access-set '{"ns":"note","enable":1}' | jq -c .

step "alice creates a notebook, shared read-write with bob"
book=$(kv create '{"ns":"note","category":"notebook","requester":1101,"text":{"title":"Recipes"},
  "acl":{"enabled":true,"hmx_user":{"1102":{"perm":"rw"}}}}')
echo "$book" | jq -c "$brief"
book_id=$(echo "$book" | jq -r .id)

step "alice adds a note with text and a binary file under it (it inherits the notebook's ACL)"
note=$(kv create "{\"ns\":\"note\",\"category\":\"note\",\"requester\":1101,\"parent_id\":\"$book_id\",
  \"text\":{\"title\":\"Bread\",\"body\":\"flour, water, salt\"},\"commit_msg\":{\"listable\":true,\"note\":\"first\"},
  \"binary_files\":[{\"name\":\"cover.bin\",\"format\":\"bin\",\"path\":\"$demo/cover.bin\"}]}")
echo "$note" | jq "{id: .id, parent_id: (.parent_id[0:10] + \"...\"), version, text, binary_info, acl}"
note_id=$(echo "$note" | jq -r .id)
v1=$(echo "$note" | jq -r .version)

step "alice changes the body: a new version"
note2=$(kv set "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1101,\"version\":\"$v1\",
  \"text\":{\"body\":\"flour, water, salt, yeast\"},\"commit_msg\":{\"listable\":true,\"note\":\"add yeast\"}}")
echo "$note2" | jq -c "{version, text}"

step "the older version is still there"
kv get "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1101,\"version\":\"$v1\"}" | jq -c "{version, text}"

step "bob creates a note of his own, then lists: his own first, then what alice shares"
kv create '{"ns":"note","category":"note","requester":1102,"text":{"title":"Shopping"}}' | jq -c "$brief"
kv list '{"ns":"note","requester":1102,"field":{"text":true}}' | jq -c ".count, (.objects[] | $brief)"

step "bob may change alice's note (shared rw)"
kv set "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1102,\"version\":\"$(echo "$note2" | jq -r .version)\",
  \"text\":{\"title\":\"Bread (bob)\"}}" | jq -c "{version, text}"

step "alice makes a folder \"Travel\" with two notes in it, shared with nobody yet"
folder=$(kv create '{"ns":"note","category":"folder","requester":1101,"text":{"title":"Travel"},"acl":{"enabled":true}}')
echo "$folder" | jq -c "$brief"
folder_id=$(echo "$folder" | jq -r .id)
for title in Lisbon Porto; do
    kv create "{\"ns\":\"note\",\"category\":\"note\",\"requester\":1101,\"parent_id\":\"$folder_id\",
  \"text\":{\"title\":\"$title\"}}" | jq -c "$brief"
done

step "alice shares the folder with bob (by name, read-only): the grant goes down to every note in it"
kv share "{\"ns\":\"note\",\"id\":\"$folder_id\",\"requester\":1101,\"type\":\"user\",\"op\":\"set\",\"uid\":\"bob\",
  \"perm\":\"ro\"}" | jq -c '{id: (.id[0:10] + "..."), acl}'
kv list "{\"ns\":\"note\",\"requester\":1101,\"filter\":{\"parent_id\":\"$folder_id\"}}" |
    jq -c '.objects[] | {id: (.id[0:10] + "..."), acl}'

step "bob lists the folder's notes and reads one; he may not change it"
travel=$(kv list "{\"ns\":\"note\",\"requester\":1102,\"filter\":{\"parent_id\":\"$folder_id\"},\"field\":{\"text\":true}}")
echo "$travel" | jq -c ".count, (.objects[] | $brief)"
lisbon=$(echo "$travel" | jq -r '.objects[] | select(.text.title == "Lisbon") | .id')
kv get "{\"ns\":\"note\",\"id\":\"$lisbon\",\"requester\":1102}" | jq -c "$brief"
kv set "{\"ns\":\"note\",\"id\":\"$lisbon\",\"requester\":1102,\"metatext\":{\"seen\":true}}" 2>&1 |
    grep -E '^\$ |ErrNo=' || true

step "alice lists her objects"
kv list '{"ns":"note","requester":1101,"field":{"text":true}}' | jq -c ".count, (.objects[] | $brief)"

step "the note's history: three versions, by alice and bob; what changed since the first"
history=$(kv versions "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1101}")
echo "$history" | jq -c '{total, listable_total}, (.versions[] | {version: .version[0:8], author, commit_msg})'
kv diff "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1101,\"old_version\":\"$v1\"}" | jq -c .

step "alice renames the field \"body\" to \"recipe\": a new version; the older ones keep \"body\""
v3=$(echo "$history" | jq -r '.versions[0].version')
kv rename "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1101,\"segment\":\"text\",
  \"old_field\":\"body\",\"new_field\":\"recipe\",\"version\":\"$v3\"}" | jq -c "{version: .version[0:8], text}"
kv version "{\"ns\":\"note\",\"id\":\"$note_id\",\"requester\":1101,\"version\":\"$v1\"}" |
    jq -c '{version: .record.version[0:8], author: .record.author, text: .object.text}'

step "alice withdraws sharing in \"note\": bob now sees only his own"
kv sharing-set '{"ns":"note","owner":1101,"enable":0}' | jq -c .
kv list '{"ns":"note","requester":1102}' | jq -c ".count, (.objects[] | $brief)"
kv sharing-set '{"ns":"note","owner":1101,"enable":1}' | jq -c .

step "rebuild the index from the repository and list again"
kv reindex '{"ns":"note"}' | jq -c .
kv list '{"ns":"note","requester":1101}' | jq -c ".count"

step "check the repository against the index: nothing to find, exit status 0"
kv check | jq -c '{checked, by_kind, remaining}'

step "alice deletes the notebook with everything below it; bob's note stays"
kv delete --recursive "{\"ns\":\"note\",\"id\":\"$book_id\",\"requester\":1101}" | jq -c '{deleted: (.deleted[0:10] + "..."), recursive}'
kv list '{"ns":"note","requester":0}' | jq -c ".count, (.objects[] | $brief)"

step "alice deletes the folder and its notes in one call, the ids on standard input"
kv list "{\"ns\":\"note\",\"requester\":1101,\"filter\":{\"parent_id\":\"$folder_id\"}}" |
    jq -r '.objects[].id' | { cat; echo "$folder_id"; } |
    kv batch-delete '{"ns":"note","requester":1101}' | jq -c '{done, failed}'
kv list '{"ns":"note","requester":0}' | jq -c ".count"

step "the objects on disk"
(cd "$KOLV_SYSROOT/volume1/@KolvVessa" && find note -maxdepth 2 -name '*.json' | sed 's/_[0-9A-F]\{86\}/_.../' | sort | head -8)
echo
echo "walkthrough finished"
