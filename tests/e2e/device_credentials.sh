#!/usr/bin/env bash
# Device credentials end to end: the service creates its secret once (owner-only file in its data
# directory) and keeps syncing with it across restarts; another client that knows the device id
# but not the secret cannot open, close or wipe; the server keeps only a hash; an operator reset
# lets a new secret bind.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup
book=$XDG_DATA_HOME/contacts/default
e2e_card "$book/alice.vcf" alice-1 "Alice Archer" "Archer;Alice;;;" "TEL;TYPE=CELL:+15550001"

e2e_configure
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 120
e2e_check "return docs.length === 1" "first sync stores the card"

secret_file=$XDG_DATA_HOME/com.quorvin.plmsvc/data/.orvane-device-secret
[ "$(stat -c %a "$secret_file")" = 600 ] || e2e_fail "secret file mode $(stat -c %a "$secret_file")"
secret=$(cat "$secret_file")
e2e_ok "the secret is kept owner-only in the service's data directory"
device=$(curl -s --cacert "$STACK_CERT" "$STACK_PDS_URL/admin/calls" |
    node -e 'console.log(JSON.parse(require("fs").readFileSync(0,"utf8"))[0].body.device_id)')
db=$(e2e_device_db)
stored=$(curl -s "$STACK_COUCH_URL/pds_devices/$db")
echo "$stored" | grep -q "$(printf %s "$secret" | sha256sum | cut -c1-64)" || e2e_fail "no hash: $stored"
echo "$stored" | grep -q "$secret" && e2e_fail "the server stored the secret itself"
e2e_ok "the server keeps only the secret's hash, bound to the device"

intrude() {  # OP SECRET-MEMBER -> HTTP status
    curl -s -o /dev/null -w '%{http_code}' --cacert "$STACK_CERT" -X POST --data-binary \
        "{\"device_id\":\"$device\"$2,\"locale\":\"en_US\",\"request\":{\"deleteall\":\"true\"}}" \
        "$STACK_PDS_URL/pds/$1"
}
for op in open close wipe; do
    [ "$(intrude $op '')" = 401 ] || e2e_fail "$op without a secret was not refused"
    [ "$(intrude $op ',"device_secret":"guess"')" = 403 ] || e2e_fail "$op with a wrong secret"
done
e2e_check "return docs.length === 1" "refused calls left the device's data alone"
e2e_ok "open, close and wipe with the id but without the secret are refused"

# The next sync runs in a new service process with the stored secret.
e2e_card "$book/bob.vcf" bob-1 "Bob Baker" "Baker;Bob;;;" "TEL;TYPE=WORK:+15550003"
"$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "second trigger"
e2e_wait_service_end 120
e2e_check "return docs.length === 2 && byName('Bob Baker')" "a restarted service syncs with its secret"
[ "$(cat "$secret_file")" = "$secret" ] || e2e_fail "the secret changed"

"$PELIO_BINARY_DIR/server/pds-server" reset-device --couch "$STACK_COUCH_URL" "$device" >/dev/null \
    || e2e_fail "reset-device"
[ "$(intrude open ',"device_secret":"a-new-secret"')" = 200 ] || e2e_fail "open after the reset"
[ "$(intrude close ',"device_secret":"a-new-secret"')" = 200 ] || e2e_fail "close after the reset"
e2e_ok "after the operator's reset a new secret binds"
