#!/usr/bin/env bash
# Applications end to end: a forced sync of the desktop entries of the user's and a system data
# folder, then a differential sync of an installed, an edited and a removed entry; the PLM-id
# request; the voice app told once; a body that holds a single short deletion document;
# CLEAR_SERVER followed by a forced sync.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup
E2E_DOC_TYPE=application
user=$XDG_DATA_HOME/applications system=$XDG_DATA_DIRS/applications
mkdir -p "$user" "$system"
entry() {  # FILE NAME-LINES...
    local file=$1
    shift
    { printf '[Desktop Entry]\nType=Application\nExec=true\n'; printf '%s\n' "$@"; } >"$file"
}
entry "$user/org.example.notes.desktop" "Name=Notes" "Name[de]=Notizen"
entry "$system/com.quorvin.wlocate.desktop" "Name=Find my phone" "Name[de]=Telefon finden"
entry "$system/org.example.viewer.desktop" "Name=Viewer"
entry "$system/org.example.hidden.desktop" "Name=Hidden" "NoDisplay=true"
entry "$system/org.example.broken.desktop" "Comment=an entry without a name"

"$PELIOCTL" voice-app >"$E2E_WORK/voice.log" 2>&1 &
E2E_PIDS+=($!)
for _ in $(seq 100); do bus_has_owner com.quorvin.orvane-k12 && break; sleep 0.05; done

out=$("$PELIOCTL" launch EVENT_TYPE=CHECK_STATUS EVENT_DATA=APPLICATION) || e2e_fail "status launch"
[ "$out" = $'STATUS_RESULT=1\nresult=0' ] || e2e_fail "status before the first sync: $out"
e2e_ok "CHECK_STATUS APPLICATION before any sync answers 1"

"$PELIOCTL" launch SET_IP=127.0.0.1 "SET_PORT=$STACK_PDS_PORT" "SET_CERT_PATH=$STACK_CERT" \
    SET_LOCALE=de-DE >/dev/null || e2e_fail "configure launch not delivered"
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 120

byPkg="const doc = p => docs.find(d => d._id === 'pkg_' + p); const meta = p => (doc(p) || {}).meta_data || {};"
e2e_check "$byPkg return docs.length === 5 && docs.every(d => d._id === 'pkg_' + d.meta_data.packagename) &&
    !doc('org.example.hidden') && !doc('org.example.broken');" \
    "forced sync puts one document per visible entry (and the two every device has) on the server"
e2e_check "$byPkg const n = meta('org.example.notes'), l = meta('com.quorvin.wlocate'), c = meta('com.quorvin.w-contacts2');
    return n.name === 'Notizen' && n.preinstalled === false && n.customid === '' &&
        l.name === 'Telefon finden' && l.preinstalled === true && l.customid === 'locatephone001' &&
        meta('org.example.viewer').customid === '' && c.customid === 'contacts001' &&
        meta('com.quorvin.w-taskmanager').preinstalled === true;" \
    "names in the device locale, preinstalled flags and custom ids"
grep -q "has no name" "$BUS_LOG" || e2e_fail "the entry without a name was not logged"
e2e_ok "an entry without a name is logged and left out"

plmid=$("$PELIOCTL" launch EVENT_TYPE=CHECK_PLM_ID TYPE=APPLICATION | sed -n 's/^APPLICATION=//p')
[ -n "$plmid" ] && [ "$plmid" != "-1" ] || e2e_fail "no applications PLM id"
e2e_ok "CHECK_PLM_ID returns the applications PLM id"
for _ in $(seq 50); do grep -q "SYNCED_TYPE=APPLICATION" "$E2E_WORK/voice.log" && break; sleep 0.1; done
[ "$(grep -c 'SYNCED_TYPE=APPLICATION' "$E2E_WORK/voice.log")" = 1 ] || e2e_fail "voice app: $(cat "$E2E_WORK/voice.log")"
e2e_ok "the voice app heard of the first applications PLM id"

notes_rev=$(e2e_docs | node -e 'const d=JSON.parse(require("fs").readFileSync(0,"utf8")); console.log(d.find(x=>x._id==="pkg_org.example.notes")._rev)')
entry "$user/org.example.notes.desktop" "Name=Notes" "Name[de]=Notizbuch"
entry "$user/org.example.maps.desktop" "Name=Maps" "Name[de]=Karten"
rm "$system/org.example.viewer.desktop"
"$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "differential trigger"
e2e_wait_service_end 120
e2e_check "$byPkg return docs.length === 5 && doc('org.example.notes')._rev !== '$notes_rev' &&
    meta('org.example.notes').name === 'Notizbuch' && meta('org.example.maps').name === 'Karten' &&
    !doc('org.example.viewer');" \
    "differential sync: edited entry updated (new _rev), installed entry added, removed entry gone"
[ "$(grep -c 'SYNCED_TYPE=APPLICATION' "$E2E_WORK/voice.log")" = 1 ] || e2e_fail "voice app told twice"
e2e_ok "the voice app was not told again"
[ "$(e2e_master APP_SYNC_STATUS_P)" = 2 ] || e2e_fail "APP_SYNC_STATUS_P = $(e2e_master APP_SYNC_STATUS_P)"
"$PELIOCTL" db | grep -q "application: rows=5 dirty\[4\]=5" || e2e_fail "pelioctl db: $("$PELIOCTL" db)"
e2e_ok "applications in step (2), every row confirmed, the removed one gone"

# A body holding one short deletion document ("pkg_vlc") posts and is answered.
entry "$user/vlc.desktop" "Name=VLC"
"$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger for vlc"
e2e_wait_service_end 120
e2e_check "return docs.some(d => d._id === 'pkg_vlc');" "pkg_vlc on the server"
rm "$user/vlc.desktop"
"$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger for the vlc removal"
e2e_wait_service_end 120
e2e_check "return !docs.some(d => d._id === 'pkg_vlc');" "a body of the single deletion of pkg_vlc is posted and answered"
[ "$(e2e_master APP_SYNC_STATUS_P)" = 2 ] || e2e_fail "APP_SYNC_STATUS_P after the vlc removal = $(e2e_master APP_SYNC_STATUS_P)"
e2e_ok "applications in step after the removal"

# CLEAR_SERVER, then one forced sync: the service ends itself once every domain has settled
# (the media domain is needed for that; without it its status stays waiting).
"$PELIOCTL" launch CLEAR_SERVER=true >/dev/null || e2e_fail "clear launch"
e2e_wait_service_end 60
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger after clear"
if [ -f "$PELIO_SOURCE_DIR/src/SyncHandlers/MediaSyncHandler.cpp" ]; then
    e2e_wait_service_end 120
    e2e_ok "after CLEAR_SERVER one forced sync of all three domains ends the service"
else
    for _ in $(seq 600); do [ "$(e2e_master APP_SYNC_STATUS_P)" != 0 ] && break; sleep 0.1; done
    [ "$(e2e_master APP_SYNC_STATUS_P)" != 0 ] || e2e_fail "applications did not settle after CLEAR_SERVER"
    e2e_ok "after CLEAR_SERVER the forced sync settles the applications (no media domain in this build)"
    "$PELIOCTL" launch EVENT_TYPE=APPLICATION_TERMINATING >/dev/null || true
    e2e_wait_service_end 60
    e2e_ok "APPLICATION_TERMINATING ends the service"
fi

