#!/usr/bin/env bash
# pds-server and its bulk-document gateway in front of PouchDB Server, all on loopback. First as
# the device uses them: sessions, the posting format, ownership semantics, cookies, bad bodies, the
# forced-open limit and wipes. Then against hostile clients: deep nesting, gzip bombs and big
# chunked bodies, slow clients, one id repeated hundreds of times, forced opens with the wrong type,
# devices that claim another device's id, a flood of new devices; afterwards the server must answer
# a normal open, post and close within a second, its memory under RSS_LIMIT_KB. Per-document
# verdicts and token checks are unit-tested in tests/server.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/../support/stack.sh"
. "$here/../support/checks.sh"

SECRET=e2e-shared-secret
RSS_LIMIT_KB=$((64 * 1024))
# Five new devices per address: the device-like part opens five from 127.0.0.1.
stack_start --secret "$SECRET" --force-limit 3 --force-window 600 --max-body 1048576 \
    --request-timeout 3 --workers 8 --max-per-client 4 --new-device-limit 5 || exit 1
W=$STACK_DIR/work
mkdir -p "$W"

# send URL FILE [curl args]: POST FILE, print the status; the answer in $W/reply, its headers in
# $W/h, the milliseconds curl took in $W/ms.
send() {
    curl -s -o "$W/reply" -D "$W/h" -w '%{http_code}%{stderr}%{time_total}' --data-binary @"$2" \
        "${@:3}" "$1" 2>"$W/time"
    awk '{printf "%d", $1 * 1000}' "$W/time" >"$W/ms"
}
post_docs() {  # COOKIE DBURL FILE: FILE gzip'd and posted the way the device does
    gzip -c "$3" >"$W/body.gz"
    send "$2/_bulk_docs" "$W/body.gz" -H 'Accept: application/json' -H 'charset: UTF-8' \
        -H 'Content-Type: application/json' -H "cookie: $1" -H 'Accept-Encoding: gzip' \
        -H 'Content-Encoding: gzip'
}
reply() { gzip -dc <"$W/reply"; }
gz_header() { grep -i '^content-encoding:' "$W/h" | tr -d '\r' | awk '{print tolower($2)}'; }

# --- open ---------------------------------------------------------------------------------
A=$(stack_open device-A false)
check "open answers success, every member a string" "success 0 true" \
    "$(echo "$A" | js 'j.reason+" "+j.result+" "+Object.values(j).every(v => typeof v === "string")')"
COOKIE_A=$(echo "$A" | js j.cookie)
URL_A=$(echo "$A" | js j.dburl)
DB_A=${URL_A##*/}
check "dburl lies under the gateway's base" "$STACK_DB_URL_BASE/$DB_A" "$URL_A"
check "policy carries the eight factors" "D,E,F,G,H,M,R,T" \
    "$(echo "$A" | js 'Object.keys(JSON.parse(j.policy).syncpolicy.parameters).sort().join()')"
check "open created the device database" "0" "$(stack_couch "/$DB_A" | js j.doc_count)"
A2=$(stack_open device-A false)
check "each open hands out a fresh plmid" "true" \
    "$(echo "$A2" | js "j.plmid.length > 0 && j.plmid !== '$(echo "$A" | js j.plmid)'")"
B=$(stack_open device-B false)
COOKIE_B=$(echo "$B" | js j.cookie)
URL_B=$(echo "$B" | js j.dburl)
check "devices get their own databases" "true" "$([ "$URL_A" != "$URL_B" ] && echo true)"

# --- 250 documents, gzip both ways ------------------------------------------------------------
node -e 'const d=[];for(let i=0;i<250;i++)d.push({_id:"c"+i,name:"Person "+i,n:i});console.log(JSON.stringify({docs:d}))' >"$W/250.json"
check "250 documents: status, reply gzip-encoded" "201 gzip" \
    "$(post_docs "$COOKIE_A" "$URL_A" "$W/250.json") $(gz_header)"
check "250 documents: one ok per document, in order" "250 true" \
    "$(reply | js 'j.length+" "+j.every((r,i)=>r.ok===true && r.id==="c"+i && /^1-/.test(r.rev))')"
check "250 documents are in the database" "250" "$(stack_couch "/$DB_A" | js j.doc_count)"

# A tiny reply to a client that does not ask for gzip is still gzip, and compressed only once.
echo '{"docs":[{"_id":"tiny","v":1}]}' >"$W/tiny.json"
gzip -c "$W/tiny.json" >"$W/tiny.gz"
send "$URL_A/_bulk_docs" "$W/tiny.gz" -H "cookie: $COOKIE_A" -H 'Content-Encoding: gzip' >/dev/null
check "small reply without Accept-Encoding: gzip, decompresses once to JSON" "gzip tiny" \
    "$(gz_header) $(reply | js 'j[0].id')"
send "$URL_A/_bulk_docs" "$W/tiny.json" -H "cookie: $COOKIE_A" >/dev/null
check "plain (not gzip'd) request body is accepted" "2" "$(reply | js 'j[0].rev.split("-")[0]')"

# --- ownership semantics ----------------------------------------------------------------------
REV1=$(stack_couch "/$DB_A/c1" | js j._rev)
echo '{"docs":[{"_id":"c1","name":"Renamed"}]}' >"$W/f.json"
post_docs "$COOKIE_A" "$URL_A" "$W/f.json" >/dev/null
check "a document without _rev replaces the stored one" "Renamed 2" \
    "$(stack_couch "/$DB_A/c1" | js 'j.name+" "+j._rev.split("-")[0]')"
CUR=$(stack_couch "/$DB_A/c1" | js j._rev)
echo "{\"docs\":[{\"_id\":\"c1\",\"_rev\":\"$REV1\",\"name\":\"Stale\"},{\"_id\":\"c2\",\"_rev\":\"1-0000\",\"x\":1}]}" >"$W/f.json"
post_docs "$COOKIE_A" "$URL_A" "$W/f.json" >/dev/null
check "stale _rev: conflict with the current revision" \
    "c1|conflict|Document update conflict.|$CUR" \
    "$(reply | js 'j[0].id+"|"+j[0].error+"|"+j[0].reason+"|"+j[0].rev')"
check "unknown _rev: conflict too" "conflict true" \
    "$(reply | js 'j[1].error+" "+(j[1].rev!==undefined && j[1].rev.startsWith("1-"))')"
check "the stale write changed nothing" "Renamed" "$(stack_couch "/$DB_A/c1" | js j.name)"
BEFORE=$(stack_couch "/$DB_A" | js j.doc_count)
echo '{"docs":[{"_id":"c3","_rev":"7-bogus","_deleted":true},{"_id":"never-was","_deleted":true},{"_id":"c4","_deleted":true}]}' >"$W/f.json"
post_docs "$COOKIE_A" "$URL_A" "$W/f.json" >/dev/null
check "deletion with any revision is accepted" "true true true" \
    "$(reply | js 'j.map(r=>r.ok===true && typeof r.rev==="string" && r.rev.length>0).join(" ")')"
check "deleted document is gone" "not_found" "$(stack_couch "/$DB_A/c3" | js j.error)"
check "deleted documents leave the count" "$((BEFORE - 2))" "$(stack_couch "/$DB_A" | js j.doc_count)"
echo '{"docs":[{"_id":"c3","again":true}]}' >"$W/f.json"
post_docs "$COOKIE_A" "$URL_A" "$W/f.json" >/dev/null
check "a deleted document can be created again without _rev" "true" "$(reply | js 'j[0].ok')"

# --- cookies ----------------------------------------------------------------------------------
COUNT_A=$(stack_couch "/$DB_A" | js j.doc_count)
echo '{"docs":[{"_id":"intruder","v":1}]}' >"$W/i.json"
check "no cookie: 401, answered in gzip'd JSON" "401 unauthorized" \
    "$(post_docs "" "$URL_A" "$W/i.json") $(reply | js j.error)"
check "another device's cookie: 401" "401" "$(post_docs "$COOKIE_B" "$URL_A" "$W/i.json")"
b64url() { openssl base64 -A | tr '+/' '-_' | tr -d '='; }
make_token() {  # DEVICE DB EXPIRY SECRET
    local signed
    signed="$(printf %s "$1" | b64url).$2.$3"
    echo "$signed.$(printf %s "$signed" | openssl dgst -sha256 -hmac "$4" -binary | b64url)"
}
NOW=$(date +%s)
check "a token signed elsewhere with the shared secret is accepted" "201" \
    "$(post_docs "$(make_token device-A "$DB_A" $((NOW + 60)) "$SECRET")" "$URL_A" "$W/tiny.json")"
check "expired cookie: 401" "401" \
    "$(post_docs "$(make_token device-A "$DB_A" $((NOW - 1)) "$SECRET")" "$URL_A" "$W/i.json")"
check "refused posts touched nothing" "$COUNT_A not_found" \
    "$(stack_couch "/$DB_A" | js j.doc_count) $(stack_couch "/$DB_A/intruder" | js j.error)"

# --- bad bodies -------------------------------------------------------------------------------
printf 'this is not json' >"$W/bad"
check "non-JSON body: 400 with a clear reason" "400 Request body is not valid JSON." \
    "$(post_docs "$COOKIE_A" "$URL_A" "$W/bad") $(reply | js j.reason)"
echo '{"docs":[{"_id":"trunc1","v":1},{"_id":"trunc2","v":2}]}' | gzip -c | head -c 30 >"$W/trunc.gz"
check "truncated gzip body: 400, answered in gzip'd JSON" "400 bad_request" \
    "$(send "$URL_A/_bulk_docs" "$W/trunc.gz" -H "cookie: $COOKIE_A" -H 'Content-Encoding: gzip') $(reply | js j.error)"
head -c 2000000 /dev/zero | tr '\0' 'x' >"$W/huge"
check "body over --max-body: 413" "413" "$(send "$URL_A/_bulk_docs" "$W/huge" -H "cookie: $COOKIE_A")"
check "gateway still serves after bad bodies" "201" "$(post_docs "$COOKIE_A" "$URL_A" "$W/tiny.json")"
check "nothing of the bad bodies was stored" "not_found" "$(stack_couch "/$DB_A/trunc1" | js j.error)"

# --- forced-open limit ------------------------------------------------------------------------
for i in 1 2 3; do
    check "forced open $i within the limit" "0" "$(stack_open device-F true | js j.result)"
done
R=$(stack_pds open '{"device_id":"device-F","device_secret":"secret-of-device-F","locale":"en_US","force":true,"companion":false,"standalone":true,"request":{}}')
check "fourth forced open: 429 with the retry message" "429 true" \
    "${R%% *} $(echo "${R#* }" | js '/^Force Sync Limit exceeded\. Retry after [1-9][0-9]*$/.test(j.message)')"
check "unforced open of the same device still works" "0" "$(stack_open device-F false | js j.result)"

# --- close and wipe ---------------------------------------------------------------------------
R=$(stack_pds close '{"device_id":"device-A","device_secret":"secret-of-device-A","locale":"en_US","companion":false,"standalone":true,"request":{"rampcode":"dash"}}')
check "close answers success" "200 success 0" "${R%% *} $(echo "${R#* }" | js 'j.reason+" "+j.result')"
R=$(stack_pds wipe '{"device_id":"device-A","device_secret":"secret-of-device-A","locale":"en_US","request":{"resetplm":"true"}}')
check "wipe resetplm answers success" "200 0" "${R%% *} $(echo "${R#* }" | js j.result)"
check "wipe resetplm empties the database" "0" "$(stack_couch "/$DB_A" | js j.doc_count)"
check "the other device keeps its database" "true" \
    "$(stack_couch "/${URL_B##*/}" | js 'j.db_name !== undefined')"
R=$(stack_pds wipe '{"device_id":"device-A","device_secret":"secret-of-device-A","locale":"en_US","request":{"deleteall":"true"}}')
check "wipe deleteall answers success" "200" "${R%% *}"
check "wipe deleteall removes the database" "not_found" "$(stack_couch "/$DB_A" | js j.error)"
check "posting after deleteall: 404" "404" "$(post_docs "$COOKIE_A" "$URL_A" "$W/tiny.json")"
R=$(stack_pds wipe '{"device_id":"device-A","device_secret":"secret-of-device-A","locale":"en_US","request":{}}')
check "wipe without a request: 400" "400" "${R%% *}"
R=$(stack_pds open 'nonsense')
check "open with a non-JSON body: 400 with message" "400 true" \
    "${R%% *} $(echo "${R#* }" | js 'j.message.length > 0')"

# --- hostile clients ---------------------------------------------------------------------------
PID=$STACK_PDS_PID
alive() { kill -0 "$PID" 2>/dev/null && echo yes; }
pds_raw() { send "$STACK_PDS_URL/pds/$1" "$2" --cacert "$STACK_CERT" "${@:3}"; }  # OP FILE [curl args]
post() {  # FILE [curl args] -> status; the answer inflated in $W/reply
    send "$DBURL/_bulk_docs" "$1" -H "cookie: $COOKIE" "${@:2}"
    gzip -dc <"$W/reply" >"$W/reply.json" 2>/dev/null && mv "$W/reply.json" "$W/reply"
}
A=$(stack_open device-H)
COOKIE=$(echo "$A" | js j.cookie)
DBURL=$(echo "$A" | js j.dburl)
DB=${DBURL##*/}

# --- nesting --------------------------------------------------------------------------------
node -e 'process.stdout.write("[".repeat(100000)+"]".repeat(100000))' >"$W/deep"
check "depth 100,000 to /pds/open: 400" "400" "$(pds_raw open "$W/deep")"
check "the server survived the nesting" "yes" "$(alive)"

# --- sizes ----------------------------------------------------------------------------------
head -c 60000000 /dev/zero | gzip -c >"$W/bomb.gz"
head -c 10000000 /dev/zero | tr '\0' ' ' >"$W/big"
check "gzip bomb and 10 MB chunked, to /pds/open and to the gateway: 413" "413 413 413 413" \
    "$(pds_raw open "$W/bomb.gz" -H 'Content-Encoding: gzip') $(post "$W/bomb.gz" -H 'Content-Encoding: gzip') $(pds_raw open "$W/big" -H 'Transfer-Encoding: chunked') $(post "$W/big" -H 'Transfer-Encoding: chunked')"

# --- slow clients ---------------------------------------------------------------------------
# Ten clients from 127.0.0.2 send one header line every 2 s to each listener.
node -e '
const net = require("net");
for (const port of process.argv.slice(1)) for (let i = 0; i < 10; i++) {
  const s = net.connect({host: "127.0.0.1", port: +port, localAddress: "127.0.0.2"});
  s.on("error", () => {});
  s.write("POST /x/_bulk_docs HTTP/1.1\r\n");
  const t = setInterval(() => s.write("X-Slow-" + i + ": 1\r\n"), 2000);
  s.on("close", () => clearInterval(t));
}
setTimeout(() => process.exit(0), 12000);' "$STACK_DB_PORT" "$STACK_PDS_PORT" &
SLOW=$!
sleep 1
echo '{"docs":[{"_id":"during","v":1}]}' >"$W/one.json"
check "a normal post while slow clients hold connections" "201" "$(post "$W/one.json" --max-time 5)"
check "  ... answered within a second" "yes" "$([ "$(cat "$W/ms")" -lt 1000 ] && echo yes)"
check "a normal open meanwhile" "0" "$(stack_open device-H | js j.result)"
wait "$SLOW"

# --- one id many times ----------------------------------------------------------------------
node -e 'const d=[];for(let i=0;i<400;i++)d.push({_id:"same",n:i});process.stdout.write(JSON.stringify({docs:d}))' >"$W/same.json"
check "400 copies of one id: 201, every copy answered, the last one stored" "201 400 true 399" \
    "$(post "$W/same.json") $(js 'j.length+" "+j.every(r=>r.ok===true)' <"$W/reply") $(stack_couch "/$DB/same" | js j.n)"
check "  ... within a second ($(cat "$W/ms") ms)" "yes" "$([ "$(cat "$W/ms")" -lt 1000 ] && echo yes)"

R=$(stack_pds open '{"device_id":"device-H","device_secret":"secret-of-device-H","locale":"en_US","force":"true","request":{}}')
check "\"force\": \"true\" on open: 400" "400" "${R%% *}"

# --- credentials ----------------------------------------------------------------------------
for op in open close wipe; do
    R=$(stack_pds $op '{"device_id":"device-H","locale":"en_US","request":{"deleteall":"true"}}')
    check "$op with H's id and no secret: 401" "401" "${R%% *}"
    R=$(stack_pds $op '{"device_id":"device-H","device_secret":"guess","locale":"en_US","request":{"deleteall":"true"}}')
    check "$op with H's id and a wrong secret: 403" "403" "${R%% *}"
done
check "H's documents are still there" "399" "$(stack_couch "/$DB/same" | js j.n)"
new_device() {  # N -> status, from 127.0.0.3
    curl -s -o /dev/null -w '%{http_code}' --cacert "$STACK_CERT" --interface 127.0.0.3 \
        --data-binary "{\"device_id\":\"flood-$1\",\"device_secret\":\"s\",\"locale\":\"en_US\",\"request\":{}}" \
        "$STACK_PDS_URL/pds/open"
}
check "new devices from one address: five allowed, then 429" "200 200 200 200 200 429" \
    "$(for i in 1 2 3 4 5 6; do new_device $i; done | sed 's/\(...\)/\1 /g; s/ $//')"
check "the refused device got no database" "0" \
    "$(curl -s "$STACK_COUCH_URL/_all_dbs" | js "j.filter(d => d === 'plm_' + '$(printf %s flood-6 | sha256sum | cut -c1-32)').length")"

# --- afterwards -----------------------------------------------------------------------------
check "the server is alive" "yes" "$(alive)"
# Timed by curl, so that only the server's answers count.
dev='"device_id":"device-H","device_secret":"secret-of-device-H","locale":"en_US","request":{}'
echo "{$dev,\"force\":false}" >"$W/open.json"
echo "{$dev}" >"$W/close.json"
echo '{"docs":[{"_id":"after","v":1}]}' >"$W/after.json"
s1=$(pds_raw open "$W/open.json") ms=$(cat "$W/ms")
COOKIE=$(js j.cookie <"$W/reply") DBURL=$(js j.dburl <"$W/reply")
s2=$(post "$W/after.json") ms=$((ms + $(cat "$W/ms"))) stored=$(js 'j[0].ok' <"$W/reply")
s3=$(pds_raw close "$W/close.json") ms=$((ms + $(cat "$W/ms")))
check "open, post and close afterwards" "200 201 true 200" "$s1 $s2 $stored $s3"
check "  ... within a second (${ms} ms)" "yes" "$([ "$ms" -lt 1000 ] && echo yes)"
rss=$(awk '/^VmRSS/ {print $2}' "/proc/$PID/status")
hwm=$(awk '/^VmHWM/ {print $2}' "/proc/$PID/status")
echo "     pds-server RSS ${rss} kB, peak ${hwm} kB"
check "resident memory under $((RSS_LIMIT_KB / 1024)) MB" "yes" "$([ "$rss" -lt "$RSS_LIMIT_KB" ] && echo yes)"

echo "$failures failure(s)"
[ "$failures" -eq 0 ]
