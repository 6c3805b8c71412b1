#!/usr/bin/env bash
# pelioctl and pelio-service speak plainly: without a session bus every command says so in one
# line and fails; with the loopback stack `pelioctl sync --force --wait` follows a sync of 2,000
# cards to the end, and `pelioctl status --json` agrees with the shadow database.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup
SERVICE=$PELIO_BINARY_DIR/src/pelio-service
shadow=$XDG_DATA_HOME/$SVC/shared/trusted/databases/.orvane.db

# One line, a non-zero status, nothing from a library: CMD... run without a bus (no address, no
# per-user socket) and with an address nobody listens on.
expect_one_line_failure() {
    local address out rc
    for address in "" "unix:path=$E2E_WORK/no-such-bus"; do
        rc=0
        out=$(env DBUS_SESSION_BUS_ADDRESS="$address" XDG_RUNTIME_DIR="$E2E_WORK/no-runtime" \
            "$@" 2>&1 </dev/null) || rc=$?
        [ "$rc" -ne 0 ] || e2e_fail "'$*' exited 0 without a bus: $out"
        [ "$(printf '%s\n' "$out" | wc -l)" = 1 ] || e2e_fail "'$*' printed more than one line: $out"
        ! grep -qiE 'copy & paste|backtrace|eldbus|eina' <<<"$out" || e2e_fail "'$*': library noise: $out"
    done
}
expect_one_line_failure "$PELIOCTL" launch EVENT_TYPE=CHECK_STATUS
expect_one_line_failure "$PELIOCTL" status
expect_one_line_failure "$PELIOCTL" status --json
expect_one_line_failure "$PELIOCTL" sync --force --wait
expect_one_line_failure "$PELIOCTL" event low-memory
expect_one_line_failure "$PELIOCTL" voice-app
expect_one_line_failure "$SERVICE"
out=$(env -u DBUS_SESSION_BUS_ADDRESS XDG_RUNTIME_DIR="$E2E_WORK/no-runtime" "$PELIOCTL" status 2>&1) || true
grep -q "DBUS_SESSION_BUS_ADDRESS is not set" <<<"$out" || e2e_fail "no-bus message: $out"
e2e_ok "without a session bus: one line and a non-zero status from every command"

rc=0
"$PELIOCTL" launch >/dev/null 2>&1 || rc=$?
[ "$rc" = 2 ] || e2e_fail "pelioctl launch without extras exited $rc, not 2"
e2e_ok "a usage error exits 2"

# 2,000 cards in 20 files.
node -e '
    const fs = require("fs");
    const [dir, total] = [process.argv[1], +process.argv[2]];
    for (let f = 0; f < total / 100; ++f) {
        let text = "";
        for (let i = f * 100; i < (f + 1) * 100; ++i)
            text += `BEGIN:VCARD\r\nVERSION:3.0\r\nUID:plain-${i}\r\nFN:Person ${i}\r\nN:P${i};Person;;;\r\nEND:VCARD\r\n`;
        fs.writeFileSync(`${dir}/plain-${f}.vcf`, text);
    }' "$XDG_DATA_HOME/contacts/default" 2000

out=$E2E_WORK/sync.out
"$PELIOCTL" sync --force --server "127.0.0.1:$STACK_PDS_PORT" --cert "$STACK_CERT" --locale en-US \
    --wait >"$out" 2>&1 || { cat "$out" >&2; e2e_fail "sync --wait did not end in step"; }
[ "$(grep -c '^contacts: [0-9]* of [0-9]* rows confirmed' "$out")" -ge 2 ] \
    || { cat "$out" >&2; e2e_fail "no repeated progress"; }
# Every domain the service syncs (it has written its status) ends in step, contacts among them.
grep -q "^contacts: *in step; 2000 rows, nothing waiting" "$out" || { cat "$out" >&2; e2e_fail "contacts not in step"; }
for domain in applications media; do
    grep -qE "^$domain: *(in step|never synced);" "$out" || { cat "$out" >&2; e2e_fail "$domain not in step"; }
done
e2e_ok "sync --force --wait: progress more than once, every synced domain in step"

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
    const ok = s.domains.contacts.rows === 2000 && s.domains.contacts.state === "in_step" &&
        s.server.host === "127.0.0.1" && s.server.port === +process.argv[1] &&
        s.certificate === undefined && s.server.certificate === process.argv[2];
    if (!ok) { console.error(JSON.stringify(s)); process.exit(1); }' "$STACK_PDS_PORT" "$STACK_CERT" \
    || e2e_fail "status --json server or contacts"
e2e_ok "status --json agrees with the shadow database"
