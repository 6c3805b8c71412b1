#!/usr/bin/env bash
# Faults on the road to the server: the service logs them, keeps its statuses, loses no local
# change, and the next sync recovers once the fault is gone. Uses the real retry pauses (10 s
# between open attempts, 15 s between close attempts).
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup
book=$XDG_DATA_HOME/contacts/default
e2e_card "$book/a.vcf" fa-1 "Ann Amber" "Amber;Ann;;;" "TEL;TYPE=CELL:+15550201"
e2e_card "$book/b.vcf" fb-1 "Ben Brown" "Brown;Ben;;;" "TEL;TYPE=HOME:+15550202"
e2e_configure

server_docs() { e2e_doc_count contact; }
diff_sync() { "$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"; }
expect_recovered() {  # WHAT
    [ "$(server_docs)" = "$expected" ] || e2e_fail "$1: server holds $(server_docs), not $expected"
    # The domain may still end this sync failed, by design: rows whose answers were lost go up
    # again with their old revision, and rows a failed upload left marked as inserted can go up
    # twice in one request (the shadow table has no unique key); both come back as conflicts that
    # teach the current revision, and the following syncs settle the domain.
    local round
    for round in 1 2 3; do
        [ "$(e2e_master CONTACTS_SYNC_STATUS_P)" = 1 ] || break
        grep -q "Doc update conflict for contact id" "$BUS_LOG" || e2e_fail "$1: failed without a conflict"
        diff_sync
        e2e_wait_service_end 120
    done
    [ "$(e2e_master CONTACTS_SYNC_STATUS_P)" = 2 ] || e2e_fail "$1: status $(e2e_master CONTACTS_SYNC_STATUS_P)"
    [ "$(e2e_unconfirmed)" = 0 ] || e2e_fail "$1: unconfirmed rows remain"
    [ "$(server_docs)" = "$expected" ] || e2e_fail "$1: server holds $(server_docs), not $expected"
    e2e_ok "$1"
}
expected=2

# 1. The server refuses forced opens for now (23): no pause, the domain fails, nothing is lost.
e2e_fault '{"op":"open","status":429,"message":"Force Sync Limit exceeded. Retry after 60"}'
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 120
grep -q "> Sync blocked" "$BUS_LOG" || e2e_fail "no 'Sync blocked' line"
[ "$(e2e_master CONTACTS_SYNC_STATUS_P)" = 1 ] || e2e_fail "status after a refused open"
[ "$(e2e_unconfirmed)" = 2 ] && [ "$(server_docs)" = 0 ] || e2e_fail "refused open: rows or server changed"
e2e_ok "a refused forced open (23) marks the domain failed and keeps the local changes"
recover_after() { e2e_fault_clear; diff_sync; e2e_wait_service_end 120; expect_recovered "$1"; }
recover_after "the next sync recovers after the refusal"

# 2. The server has no database for the device (13) on both attempts: the force flag is set, the
#    domain fails after the two 10-second pauses, and the next sync goes through.
e2e_card "$book/c.vcf" fc-1 "Cid Coral" "Coral;Cid;;;" "TEL;TYPE=WORK:+15550203"
expected=3
e2e_fault '{"op":"open","status":200,"reason":"failure","result":"13","count":2}'
diff_sync
e2e_wait_service_end 180
grep -q "> OrvanePDSNoDatabaseException trigger force" "$BUS_LOG" || e2e_fail "no no-database line"
# The domains that clearQueue queues again go up in the same run when another domain keeps the
# service running meanwhile; otherwise the contacts domain ends failed with the force flag set.
if [ "$(e2e_master CONTACTS_SYNC_STATUS_P)" = 1 ]; then
    "$PELIOCTL" prefs | grep -qx "is_force=true" || e2e_fail "force flag not set: $("$PELIOCTL" prefs)"
    [ "$(e2e_unconfirmed)" != 0 ] || e2e_fail "rows confirmed without an upload"
    e2e_ok "a missing server database (13) sets the force flag and fails the domain"
else
    grep -q "pendingQueue\|syncItem\[3\]" "$BUS_LOG" || e2e_fail "status after a missing database"
    e2e_ok "a missing server database (13): the queued-again domains went up in the same run"
fi
recover_after "the next sync recovers after the missing database"

# 3. The close is refused and the service is killed (-9) during the 15-second retry pause: the
#    posted documents are not confirmed locally, and the next sync confirms them.
e2e_card "$book/d.vcf" fd-1 "Dee Dune" "Dune;Dee;;;" "TEL;TYPE=CELL:+15550204"
expected=4
e2e_fault '{"op":"close","status":200,"reason":"failure","result":"1","count":2}'
diff_sync
bus_wait_log "pds close failed with retry time [1]" 120 || e2e_fail "close was not refused"
pid=$(e2e_service_pid)
[ -n "$pid" ] || e2e_fail "no service pid"
kill -9 "$pid"
bus_wait_gone "$SVC" 30 || e2e_fail "killed service still owns its name"
[ "$(e2e_unconfirmed)" != 0 ] || e2e_fail "rows confirmed without a close"
e2e_ok "kill -9 during the close retry leaves the rows unconfirmed"
recover_after "the next sync after kill -9 confirms everything"

# 4. The server is down: two failed opens with the 10-second pause, the domain fails; a server
#    started again on the same port lets the next sync through.
e2e_card "$book/e.vcf" fe-1 "Eve East" "East;Eve;;;" "TEL;TYPE=CELL:+15550205"
expected=5
kill "$STACK_PDS_PID" && wait "$STACK_PDS_PID" 2>/dev/null || true
diff_sync
e2e_wait_service_end 120
grep -q "pds open failed with retry time \[2\]" "$BUS_LOG" || e2e_fail "no second open attempt"
[ "$(e2e_master CONTACTS_SYNC_STATUS_P)" = 1 ] || e2e_fail "status with the server down"
e2e_ok "a server that is down marks the domain failed"
"$PELIO_BINARY_DIR/server/pds-server" --listen "127.0.0.1:$STACK_PDS_PORT" --tls-cert "$STACK_CERT" \
    --tls-key "$STACK_KEY" --db-listen "127.0.0.1:$STACK_DB_PORT" --couch "$STACK_COUCH_URL" \
    --admin >>"$STACK_DIR/pds.log" 2>&1 &
STACK_PDS_PID=$!
_stack_wait_http "$STACK_PDS_URL/" --cacert "$STACK_CERT" || e2e_fail "pds-server did not come back"
diff_sync
e2e_wait_service_end 120
expect_recovered "the next sync recovers once the server is back"
