#!/usr/bin/env bash
# Contacts end to end: a forced sync of three cards, then a differential sync of a changed, a new
# and a deleted card; the PLM-id requests before and after; the voice app told once.
# The device secret: created once (owner-only file), kept across restarts, only its hash on the
# server, and a new one binds after an operator's reset.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup
book=$XDG_DATA_HOME/contacts/default

e2e_card "$book/alice.vcf" alice-1 "Alice Archer" "Archer;Alice;Beth;;" \
    "X-PHONETIC-FIRST-NAME:Arisu" "X-PHONETIC-LAST-NAME:Achaa" "X-FAVORITE:TRUE" \
    "TEL;TYPE=CELL,PREF:+15550001" "TEL;TYPE=HOME,VOICE:+15550002"
e2e_card "$book/bob.vcf" bob-1 "Bob Baker" "Baker;Bob;;;" "TEL;TYPE=WORK,VOICE:+15550003"
e2e_card "$book/carol.vcf" carol-1 "Carol Clark" "Clark;Carol;;;" "TEL;TYPE=FAX,HOME:+15550004"

"$PELIOCTL" voice-app >"$E2E_WORK/voice.log" 2>&1 &
E2E_PIDS+=($!)
bus_wait_until 60 bus_has_owner com.quorvin.orvane-k12 || e2e_fail "voice app did not take its name"

# Before any sync: no PLM id for contacts.
out=$("$PELIOCTL" launch EVENT_TYPE=CHECK_PLM_ID TYPE=ALL) || e2e_fail "plm id launch"
[ "$out" = $'APPLICATION=-1\nCONTACT=-1\nMEDIA=-1\nPLM_ID_RESULT=ALL\nresult=0' ] \
    || e2e_fail "CHECK_PLM_ID before the first sync: $out"
e2e_ok "CHECK_PLM_ID before any sync answers -1 for every domain"

e2e_configure
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 120

mobile=$(e2e_label contact_mobile) home=$(e2e_label contact_home)
e2e_check "return docs.length === 3 && docs.every(d => d.type === 'contact' && /^con_[0-9]{8}\$/.test(d._id));" \
    "forced sync puts 3 contact documents on the server"
e2e_check "const a = byName('Alice Archer'); const m = a.meta_data;
    return m.firstname === 'Alice' && m.lastname === 'Archer' && m.middlename === 'Beth' &&
        m.phoneticname === 'Arisu Achaa' && m.starred === true && m.phone.length === 2 &&
        m.phone.some(p => p.phonetype === '$mobile' && p.default === true) &&
        m.phone.some(p => p.phonetype === '$home' && p.default === false);" \
    "names, phonetic name, favourite flag and phone labels of a card"

secret_file=$XDG_DATA_HOME/com.quorvin.plmsvc/data/.orvane-device-secret
[ "$(stat -c %a "$secret_file")" = 600 ] || e2e_fail "secret file mode $(stat -c %a "$secret_file")"
secret=$(cat "$secret_file")
device=$(curl -s --cacert "$STACK_CERT" "$STACK_PDS_URL/admin/calls" |
    node -e 'console.log(JSON.parse(require("fs").readFileSync(0,"utf8"))[0].body.device_id)')
stored=$(curl -s "$STACK_COUCH_URL/pds_devices/$(e2e_device_db)")
echo "$stored" | grep -q "$(printf %s "$secret" | sha256sum | cut -c1-64)" || e2e_fail "no hash: $stored"
echo "$stored" | grep -q "$secret" && e2e_fail "the server stored the secret itself"
e2e_ok "the secret is kept owner-only; the server keeps only its hash, bound to the device"
intrude() {  # OP SECRET-MEMBER -> HTTP status
    curl -s -o /dev/null -w '%{http_code}' --cacert "$STACK_CERT" -X POST --data-binary \
        "{\"device_id\":\"$device\"$2,\"locale\":\"en_US\",\"request\":{\"deleteall\":\"true\"}}" \
        "$STACK_PDS_URL/pds/$1"
}

plmid=$("$PELIOCTL" launch EVENT_TYPE=CHECK_PLM_ID TYPE=CONTACT | sed -n 's/^CONTACT=//p')
[ -n "$plmid" ] && [ "$plmid" != "-1" ] || e2e_fail "no contacts PLM id"
e2e_ok "CHECK_PLM_ID returns the contacts PLM id"
bus_wait_until 60 grep -q "SYNCED_TYPE=CONTACT" "$E2E_WORK/voice.log" || e2e_fail "the voice app heard nothing"
[ "$(grep -c 'SYNCED_TYPE=CONTACT' "$E2E_WORK/voice.log")" = 1 ] || e2e_fail "voice app: $(cat "$E2E_WORK/voice.log")"
grep -qE "SYNCED_PLM_ID=$plmid( |\$)" "$E2E_WORK/voice.log" \
    || e2e_fail "voice app got another PLM id: $(cat "$E2E_WORK/voice.log")"
e2e_ok "the voice app heard of the first contacts PLM id"

alice_rev=$(e2e_docs | node -e 'const d=JSON.parse(require("fs").readFileSync(0,"utf8")); console.log(d.find(x=>x.meta_data.displayname==="Alice Archer")._rev)')
e2e_card "$book/alice.vcf" alice-1 "Alice Adams" "Adams;Alice;Beth;;" "TEL;TYPE=CELL,PREF:+15550001"
rm "$book/carol.vcf"
e2e_card "$book/dave.vcf" dave-1 "Dave Dunn" "Dunn;Dave;;;" "TEL;TYPE=PAGER:+15550005"

"$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "differential trigger"
e2e_wait_service_end 120
grep -q "PLM service - trigger data sync for diff" "$BUS_LOG" || e2e_fail "no differential sync logged"
e2e_check "const a = byName('Alice Adams');
    return docs.length === 3 && a && a._rev !== '$alice_rev' && a.meta_data.lastname === 'Adams' &&
        !byName('Carol Clark') && byName('Dave Dunn') && byName('Bob Baker');" \
    "differential sync: changed card updated (new _rev), new card added, deleted card removed"
[ "$(grep -c 'SYNCED_TYPE=CONTACT' "$E2E_WORK/voice.log")" = 1 ] || e2e_fail "voice app told twice"
e2e_ok "the voice app was not told again"
[ "$(e2e_master CONTACTS_SYNC_STATUS_P)" = 2 ] || e2e_fail "contacts status after the syncs"
e2e_ok "contacts status is in step (2)"
[ "$(cat "$secret_file")" = "$secret" ] || e2e_fail "the secret changed"
e2e_ok "a restarted service syncs with its secret"

"$PELIO_BINARY_DIR/server/pds-server" reset-device --couch "$STACK_COUCH_URL" "$device" >/dev/null \
    || e2e_fail "reset-device"
[ "$(intrude open ',"device_secret":"a-new-secret"')" = 200 ] || e2e_fail "open after the reset"
[ "$(intrude close ',"device_secret":"a-new-secret"')" = 200 ] || e2e_fail "close after the reset"
e2e_ok "after the operator's reset a new secret binds"
