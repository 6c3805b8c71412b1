#!/usr/bin/env bash
# Applications and the music library end to end: a forced sync of the desktop entries of the
# user's and a system data folder and of real tagged songs in three formats and two playlists;
# a differential sync of an installed, an edited and a removed entry and of a retagged, an added
# and a removed song, an edited and a removed playlist; a body that
# holds a single short deletion document; CLEAR_SERVER followed by a forced sync. The PLM-id
# requests and the voice app (told once, of applications only) around them.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
source "$PELIO_SOURCE_DIR/tests/support/media.sh"
e2e_setup
user=$XDG_DATA_HOME/applications system=$XDG_DATA_DIRS/applications music=$HOME/Music
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
make_song "$music/Alpha/one.mp3" "One" "Ann" "Alpha" "Rock"
make_song "$music/Alpha/two.flac" "Two" "Ann" "Alpha" "Jazz"
make_song "$music/Beta/three.ogg" "Three" "Bob" "Beta" "Pop"
printf '#EXTM3U\n#EXTINF:1,One\nAlpha/one.mp3\n%s/Beta/three.ogg\n' "$music" >"$music/mix.m3u8"
printf 'Alpha/two.flac\n' >"$music/old.m3u"

"$PELIOCTL" voice-app >"$E2E_WORK/voice.log" 2>&1 &
E2E_PIDS+=($!)
bus_wait_until 60 bus_has_owner com.quorvin.orvane-k12 || e2e_fail "voice app did not take its name"

"$PELIOCTL" launch SET_IP=127.0.0.1 "SET_PORT=$STACK_PDS_PORT" "SET_CERT_PATH=$STACK_CERT" \
    SET_LOCALE=de-DE >/dev/null || e2e_fail "configure launch not delivered"
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
e2e_wait_service_end 120

export E2E_DOC_TYPE=application
byPkg="const doc = p => docs.find(d => d._id === 'pkg_' + p); const meta = p => (doc(p) || {}).meta_data || {};"
e2e_check "$byPkg return docs.length === 5 && docs.every(d => d._id === 'pkg_' + d.meta_data.packagename) &&
    !doc('org.example.hidden') && !doc('org.example.broken');" \
    "forced sync puts one document per visible entry (and the two every device has) on the server"
e2e_check "$byPkg const n = meta('org.example.notes'), l = meta('com.quorvin.wlocate');
    return n.name === 'Notizen' && n.preinstalled === false && n.customid === '' &&
        l.name === 'Telefon finden' && l.preinstalled === true && l.customid === 'locatephone001';" \
    "names in the device locale, preinstalled flags and custom ids"

export E2E_DOC_TYPE="audio*"
ofType='const of = t => docs.filter(d => d.type === t);
    const song = n => of("audio").find(d => d.meta_data.title === n);
    const list = n => of("audio playlist").find(d => d.meta_data.displayname === n);'
e2e_check "$ofType
    return of('audio').length === 3 && of('audio album').length === 2 &&
        of('audio artist').length === 2 && of('audio playlist').length === 2 &&
        of('audio').every(d => /^aud_[0-9]{8}\$/.test(d._id) && d.meta_data.uri === '') &&
        of('audio album').every(d => /^aab_[0-9]{8}\$/.test(d._id)) &&
        of('audio artist').every(d => /^aat_[0-9]{8}\$/.test(d._id)) &&
        of('audio playlist').every(d => /^apl_[0-9]{8}\$/.test(d._id) && d.meta_data.uri === '');" \
    "forced sync: one document per song, album, artist and playlist, in the 12-wide id form"
e2e_check "$ofType
    const one = song('One').meta_data, two = song('Two').meta_data, three = song('Three').meta_data;
    return one.displayname === 'one.mp3' && one.album_title === 'Alpha' && one.artist_name === 'Ann' &&
        one.genre_name === 'Rock' && two.genre_name === 'Jazz' && three.album_title === 'Beta' &&
        one.album_id === two.album_id && of('audio artist').some(d => d.meta_data.name === 'Bob') &&
        list('mix').meta_data.songs_count === 2 && list('old').meta_data.songs_count === 1;" \
    "titles, albums, artists, genres and playlist counts as tagged"

for domain in APPLICATION MEDIA; do
    plmid=$("$PELIOCTL" launch EVENT_TYPE=CHECK_PLM_ID TYPE=$domain | sed -n "s/^$domain=//p")
    [ -n "$plmid" ] && [ "$plmid" != "-1" ] || e2e_fail "no $domain PLM id"
done
e2e_ok "CHECK_PLM_ID returns the applications and media PLM ids"
e2e_wait_service_end 60
voice_told() { [ "$(grep -c "SYNCED_TYPE=$1" "$E2E_WORK/voice.log")" = "$2" ]; }
bus_wait_until 5 voice_told APPLICATION 1 || e2e_fail "voice app: $(cat "$E2E_WORK/voice.log")"
voice_told MEDIA 0 || e2e_fail "voice app told of media"
e2e_ok "the voice app heard of the first applications PLM id, and nothing for media"

rev_of() {  # JS-PREDICATE over a document x -> its _rev
    e2e_docs | node -e 'const d=JSON.parse(require("fs").readFileSync(0,"utf8")); console.log(d.find(x=>'"$1"')._rev)'
}
notes_rev=$(rev_of 'x._id==="pkg_org.example.notes"')
one_rev=$(rev_of 'x.type==="audio"&&x.meta_data.title==="One"')
entry "$user/org.example.notes.desktop" "Name=Notes" "Name[de]=Notizbuch"
entry "$user/org.example.maps.desktop" "Name=Maps" "Name[de]=Karten"
rm "$system/org.example.viewer.desktop"
make_song "$music/Alpha/one.mp3" "One (remastered)" "Ann" "Alpha" "Rock"
make_song "$music/Beta/four.ogg" "Four" "Bob" "Beta" "Pop"
rm "$music/Alpha/two.flac" "$music/old.m3u"
printf 'Beta/four.ogg\n' >>"$music/mix.m3u8"
e2e_diff_sync
e2e_check "$ofType
    const one = song('One (remastered)');
    return of('audio').length === 3 && one && one._rev !== '$one_rev' && song('Four') && !song('Two') &&
        !song('One') && list('mix').meta_data.songs_count === 3 && !list('old') &&
        of('audio playlist').length === 1;" \
    "differential sync: retagged song updated (new _rev), added song added, removed song and playlist gone, edited playlist recounted"
export E2E_DOC_TYPE=application
e2e_check "$byPkg return docs.length === 5 && doc('org.example.notes')._rev !== '$notes_rev' &&
    meta('org.example.notes').name === 'Notizbuch' && meta('org.example.maps').name === 'Karten' &&
    !doc('org.example.viewer');" \
    "differential sync: edited entry updated (new _rev), installed entry added, removed entry gone"
voice_told APPLICATION 1 || e2e_fail "voice app told twice"
e2e_ok "the voice app was not told again"
[ "$(e2e_master APP_SYNC_STATUS_P)" = 2 ] || e2e_fail "APP_SYNC_STATUS_P = $(e2e_master APP_SYNC_STATUS_P)"
"$PELIOCTL" db | grep -q "application: rows=5 dirty\[4\]=5" || e2e_fail "pelioctl db: $("$PELIOCTL" db)"
e2e_ok "applications in step (2), every row confirmed, the removed one gone"

[ "$(e2e_master MEDIA_SYNC_STATUS_P)" = 2 ] || e2e_fail "media status: $(e2e_master MEDIA_SYNC_STATUS_P)"
rows=$(e2e_sql "SELECT (SELECT COUNT(*) FROM audio WHERE dirty != 4) + (SELECT COUNT(*) FROM audio_playlist WHERE dirty != 4)")
[ "$rows" = 0 ] || e2e_fail "$rows media rows not confirmed"
e2e_ok "media status is in step (2) and every row confirmed"

# A body holding one short deletion document ("pkg_vlc") posts and is answered.
entry "$user/vlc.desktop" "Name=VLC"
e2e_diff_sync
e2e_check "return docs.some(d => d._id === 'pkg_vlc');" "pkg_vlc on the server"
rm "$user/vlc.desktop"
e2e_diff_sync
e2e_check "return !docs.some(d => d._id === 'pkg_vlc');" "a body of the single deletion of pkg_vlc is posted and answered"
[ "$(e2e_master APP_SYNC_STATUS_P)" = 2 ] || e2e_fail "APP_SYNC_STATUS_P after the vlc removal = $(e2e_master APP_SYNC_STATUS_P)"
e2e_ok "applications in step after the removal"

# CLEAR_SERVER sets every domain waiting; one forced sync settles them all and the service ends.
"$PELIOCTL" launch CLEAR_SERVER=true >/dev/null || e2e_fail "clear launch"
e2e_wait_service_end 60
[ "$(e2e_master MEDIA_SYNC_STATUS_P)" = 0 ] || e2e_fail "media status after clearing: $(e2e_master MEDIA_SYNC_STATUS_P)"
"$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger after clear"
e2e_wait_service_end 120
[ "$(e2e_master MEDIA_SYNC_STATUS_P)" = 2 ] || e2e_fail "media status after the sync: $(e2e_master MEDIA_SYNC_STATUS_P)"
e2e_ok "after CLEAR_SERVER one forced sync of all three domains settles them and ends the service"
