#!/usr/bin/env bash
# A library of 10,000 songs syncs completely: 10,000 song documents on the server, one shadow row
# per song, every row confirmed; a second sync with nothing changed sends nothing.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
source "$PELIO_SOURCE_DIR/tests/support/media.sh"
e2e_setup
music=$HOME/Music
total=10000

# One small untagged song, linked under 10,000 names: each becomes a song named after its file.
make_song "$E2E_WORK/seed.mp3" "" "" "" ""
node -e '
    const fs = require("fs");
    const [seed, dir] = [process.argv[1], process.argv[2]];
    for (let d = 0; d < 100; ++d) {
        fs.mkdirSync(`${dir}/d${d}`, { recursive: true });
        for (let i = 0; i < 100; ++i) fs.linkSync(seed, `${dir}/d${d}/song-${d}-${i}.mp3`);
    }' "$E2E_WORK/seed.mp3" "$music"

e2e_configure
start=$(date +%s)
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 600
echo "# forced sync of $total songs took $(( $(date +%s) - start )) s"

db=$(e2e_device_db) || e2e_fail "no device database"
count=$(curl -s "$STACK_COUCH_URL/$db" | node -e 'console.log(JSON.parse(require("fs").readFileSync(0,"utf8")).doc_count)')
[ "$count" = "$total" ] || e2e_fail "server holds $count documents, not $total"
e2e_ok "$total song documents on the server"

shadow=$XDG_DATA_HOME/com.quorvin.plmsvc/shared/trusted/databases/.orvane.db
read -r rows distinct synced < <(sqlite3 -separator ' ' "$shadow" \
    "SELECT COUNT(*), COUNT(DISTINCT audio_id), SUM(dirty = 4) FROM audio WHERE type = 1")
[ "$rows" = "$total" ] && [ "$distinct" = "$total" ] && [ "$synced" = "$total" ] \
    || e2e_fail "shadow table: rows=$rows distinct=$distinct synced=$synced"
e2e_ok "one confirmed shadow row per song, no duplicates"

posts=$(grep -c "there is something to sync" "$BUS_LOG" || true)
start=$(date +%s)
"$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "differential trigger"
e2e_wait_service_end 600
echo "# differential sync with nothing changed took $(( $(date +%s) - start )) s"
[ "$(grep -c "there is something to sync" "$BUS_LOG" || true)" = "$posts" ] \
    || e2e_fail "a sync with nothing changed composed documents"
[ "$(e2e_master MEDIA_SYNC_STATUS_P)" = 2 ] || e2e_fail "media status: $(e2e_master MEDIA_SYNC_STATUS_P)"
e2e_ok "a second sync with nothing changed sends nothing"
