#!/usr/bin/env bash
# Without a session bus every command says so in one line and fails. With the loopback stack,
# `pelioctl sync --force --wait` follows a forced sync of 5,000 cards and 10,000 songs to the end:
# one server document and one confirmed shadow row each, no duplicates, `pelioctl status --json`
# agreeing with the shadow database; a second sync with nothing changed sends nothing.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
source "$PELIO_SOURCE_DIR/tests/support/media.sh"
e2e_setup
shadow=$XDG_DATA_HOME/$SVC/shared/trusted/databases/.orvane.db
cards=5000 songs=10000

# One line, a non-zero status, nothing from a library: CMD... run without a bus (no address, no
# per-user socket) and with an address nobody listens on.
expect_one_line_failure() {
    local address out
    for address in "" "unix:path=$E2E_WORK/no-such-bus"; do
        out=$(env DBUS_SESSION_BUS_ADDRESS="$address" XDG_RUNTIME_DIR="$E2E_WORK/no-runtime" \
            "$@" 2>&1 </dev/null) && e2e_fail "'$*' exited 0 without a bus: $out"
        [ "$(printf '%s\n' "$out" | wc -l)" = 1 ] || e2e_fail "'$*' printed more than one line: $out"
        ! grep -qiE 'copy & paste|backtrace|eldbus|eina' <<<"$out" || e2e_fail "'$*': library noise: $out"
    done
}
for cmd in "launch EVENT_TYPE=CHECK_STATUS" status "status --json" "sync --force --wait" \
    "event low-memory" voice-app; do
    expect_one_line_failure "$PELIOCTL" $cmd
done
expect_one_line_failure "$PELIO_BINARY_DIR/src/pelio-service"
out=$(env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR="$E2E_WORK/no-runtime" "$PELIOCTL" status 2>&1) || true
grep -q "DBUS_SESSION_BUS_ADDRESS is not set" <<<"$out" || e2e_fail "no-bus message: $out"
e2e_ok "without a session bus: one line and a non-zero status from every command"

rc=0
"$PELIOCTL" launch >/dev/null 2>&1 || rc=$?
[ "$rc" = 2 ] || e2e_fail "pelioctl launch without extras exited $rc, not 2"
e2e_ok "a usage error exits 2"

# 50 files of 100 cards each (a file may hold several cards); one small untagged song linked
# under 10,000 names, each a song named after its file.
make_song "$E2E_WORK/seed.mp3" "" "" "" ""
node -e '
    const fs = require("fs");
    const [book, seed, music] = process.argv.slice(1);
    for (let f = 0; f < 50; ++f) {
        let text = "";
        for (let i = f * 100; i < (f + 1) * 100; ++i) {
            text += `BEGIN:VCARD\r\nVERSION:3.0\r\nUID:bulk-${i}\r\nFN:Person ${i}\r\n` +
                `N:Number${i};Person;;;\r\nTEL;TYPE=CELL:+1555${String(i).padStart(6, "0")}\r\nEND:VCARD\r\n`;
        }
        fs.writeFileSync(`${book}/bulk-${f}.vcf`, text);
    }
    for (let d = 0; d < 100; ++d) {
        fs.mkdirSync(`${music}/d${d}`, { recursive: true });
        for (let i = 0; i < 100; ++i) fs.linkSync(seed, `${music}/d${d}/song-${d}-${i}.mp3`);
    }' "$XDG_DATA_HOME/contacts/default" "$E2E_WORK/seed.mp3" "$HOME/Music"

out=$E2E_WORK/sync.out
start=$(date +%s)
"$PELIOCTL" sync --force --server "127.0.0.1:$STACK_PDS_PORT" --cert "$STACK_CERT" --locale en-US \
    --wait >"$out" 2>&1 || { cat "$out" >&2; e2e_fail "sync --wait did not end in step"; }
echo "# forced sync of $cards cards and $songs songs took $(( $(date +%s) - start )) s"
[ "$(grep -c '^contacts: [0-9]* of [0-9]* rows confirmed' "$out")" -ge 2 ] \
    || { cat "$out" >&2; e2e_fail "no repeated progress"; }
# Every domain the service syncs (it has written its status) ends in step.
grep -q "^contacts: *in step; $cards rows, nothing waiting" "$out" || { cat "$out" >&2; e2e_fail "contacts not in step"; }
for domain in applications media; do
    grep -qE "^$domain: *(in step|never synced);" "$out" || { cat "$out" >&2; e2e_fail "$domain not in step"; }
done
e2e_ok "sync --force --wait: progress more than once, every synced domain in step"
e2e_wait_service_end 120

# TYPE TOTAL TABLE ID-COLUMN [WHERE]: documents on the server, shadow rows, distinct ids, confirmed.
expect_complete() {
    local count rows distinct synced
    count=$(e2e_doc_count "$1")
    [ "$count" = "$2" ] || e2e_fail "server holds $count $1 documents, not $2"
    read -r rows distinct synced < <(sqlite3 -separator ' ' "$shadow" \
        "SELECT COUNT(*), COUNT(DISTINCT $4), SUM(dirty = 4) FROM $3 ${5:-}")
    [ "$rows" = "$2" ] && [ "$distinct" = "$2" ] && [ "$synced" = "$2" ] \
        || e2e_fail "$3 shadow table: rows=$rows distinct=$distinct synced=$synced"
    e2e_ok "$2 $1 documents on the server, one confirmed shadow row each, no duplicates"
}
expect_complete contact "$cards" contacts _id
expect_complete audio "$songs" audio audio_id "WHERE type = 1"

json=$("$PELIOCTL" status --json) || e2e_fail "status --json"
db_counts() {  # TABLES... -> "rows confirmed to_add to_change to_delete"
    local t sql=""
    for t in "$@"; do sql+="${sql:+ UNION ALL }SELECT dirty FROM $t"; done
    sqlite3 -separator ' ' -cmd ".timeout 10000" "$shadow" \
        "SELECT COUNT(*), COUNT(*) FILTER (WHERE dirty = 4), COUNT(*) FILTER (WHERE dirty = 1),
                COUNT(*) FILTER (WHERE dirty = 3), COUNT(*) FILTER (WHERE dirty = 2) FROM ($sql)"
}
check_domain() {  # NAME STATUS_KEY TABLES...
    local name=$1 key=$2 got want
    shift 2
    got=$(JSON=$json node -e '
        const d = JSON.parse(process.env.JSON).domains[process.argv[1]];
        console.log([d.rows, d.confirmed, d.to_add, d.to_change, d.to_delete, d.status_value].join(" "))' "$name")
    want="$(db_counts "$@") $(e2e_master "$key")"
    [ "$got" = "$want" ] || e2e_fail "status --json $name: $got, database: $want"
}
check_domain contacts CONTACTS_SYNC_STATUS_P contacts
check_domain applications APP_SYNC_STATUS_P application
check_domain media MEDIA_SYNC_STATUS_P audio audio_playlist
JSON=$json node -e '
    const s = JSON.parse(process.env.JSON);
    const ok = s.domains.contacts.rows === +process.argv[3] && s.domains.contacts.state === "in_step" &&
        s.server.host === "127.0.0.1" && s.server.port === +process.argv[1] &&
        s.certificate === undefined && s.server.certificate === process.argv[2];
    if (!ok) { console.error(JSON.stringify(s)); process.exit(1); }' "$STACK_PDS_PORT" "$STACK_CERT" "$cards" \
    || e2e_fail "status --json server or contacts"
e2e_ok "status --json agrees with the shadow database"

posts=$(grep -c "there is something to sync" "$BUS_LOG" || true)
start=$(date +%s)
e2e_diff_sync 600
echo "# differential sync with nothing changed took $(( $(date +%s) - start )) s"
[ "$(grep -c "there is something to sync" "$BUS_LOG" || true)" = "$posts" ] \
    || e2e_fail "a sync with nothing changed composed documents"
[ "$(e2e_master MEDIA_SYNC_STATUS_P)" = 2 ] || e2e_fail "media status: $(e2e_master MEDIA_SYNC_STATUS_P)"
e2e_ok "a second sync with nothing changed sends nothing"
