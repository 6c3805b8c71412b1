#!/usr/bin/env bash
# pds-server against hostile clients on loopback: deep nesting on both listeners, gzip bombs and
# big chunked bodies, slow clients holding connections, one id repeated hundreds of times, bad
# documents mixed with good ones, forced opens with the wrong type, devices that claim another
# device's id, and a flood of new devices. Afterwards the server must still answer a normal open,
# post and close within a second, with its resident memory under RSS_LIMIT_KB.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/../support/stack.sh"

RSS_LIMIT_KB=$((64 * 1024))
. "$here/../support/checks.sh"

stack_start --max-body 1048576 --request-timeout 3 --workers 8 --max-per-client 4 \
    --new-device-limit 3 || exit 1
W=$STACK_DIR/work
mkdir -p "$W"
PID=$STACK_PDS_PID
alive() { kill -0 "$PID" 2>/dev/null && echo yes; }
pds_raw() {  # OP FILE [curl args] -> status
    local op=$1 file=$2
    shift 2
    curl -s -o "$W/reply" -w '%{http_code}' --cacert "$STACK_CERT" --data-binary @"$file" "$@" \
        "$STACK_PDS_URL/pds/$op"
}
post() {  # FILE [curl args] -> status; reply in $W/reply (inflated), milliseconds in $W/ms
    local file=$1
    shift
    curl -s -o "$W/reply.gz" -w '%{http_code}%{stderr}%{time_total}' -H "cookie: $COOKIE" \
        --data-binary @"$file" "$@" "$DBURL/_bulk_docs" 2>"$W/time"
    awk '{printf "%d", $1 * 1000}' "$W/time" >"$W/ms"
    gzip -dc <"$W/reply.gz" >"$W/reply" 2>/dev/null
}
A=$(stack_open device-A)
COOKIE=$(echo "$A" | js j.cookie)
DBURL=$(echo "$A" | js j.dburl)
DB=${DBURL##*/}

# --- nesting --------------------------------------------------------------------------------
node -e 'process.stdout.write("[".repeat(100000)+"]".repeat(100000))' >"$W/deep"
check "depth 100,000 to /pds/open: 400" "400" "$(pds_raw open "$W/deep")"
node -e 'process.stdout.write("{\"docs\":[{\"_id\":\"n\",\"v\":"+"[".repeat(100000)+"]".repeat(100000)+"}]}")' >"$W/deepdoc"
check "depth 100,000 in a document: 400" "400" "$(post "$W/deepdoc")"
check "the server survived the nesting" "yes" "$(alive)"

# --- sizes ----------------------------------------------------------------------------------
head -c 60000000 /dev/zero | gzip -c >"$W/bomb.gz"
check "gzip bomb to /pds/open: 413" "413" "$(pds_raw open "$W/bomb.gz" -H 'Content-Encoding: gzip')"
check "gzip bomb to the gateway: 413" "413" "$(post "$W/bomb.gz" -H 'Content-Encoding: gzip')"
head -c 10000000 /dev/zero | tr '\0' ' ' >"$W/big"
check "10 MB chunked to /pds/open: 413" "413" \
    "$(pds_raw open "$W/big" -H 'Transfer-Encoding: chunked')"
check "10 MB chunked to the gateway: 413" "413" "$(post "$W/big" -H 'Transfer-Encoding: chunked')"

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
check "a normal open meanwhile" "0" "$(stack_open device-A | js j.result)"
wait "$SLOW"

# --- one id many times ----------------------------------------------------------------------
node -e 'const d=[];for(let i=0;i<400;i++)d.push({_id:"same",n:i});process.stdout.write(JSON.stringify({docs:d}))' >"$W/same.json"
check "400 copies of one id: 201" "201" "$(post "$W/same.json")"
check "  ... within a second ($(cat "$W/ms") ms)" "yes" "$([ "$(cat "$W/ms")" -lt 1000 ] && echo yes)"
check "  ... every copy answered, the last one stored" "400 true 399" \
    "$(js 'j.length+" "+j.every(r=>r.ok===true)' <"$W/reply") $(stack_couch "/$DB/same" | js j.n)"

# --- mixed batch ----------------------------------------------------------------------------
cat >"$W/mixed.json" <<'JSON'
{"docs":[{"_id":"good1","v":1},{"_id":"bad1","_deleted":"true"},{"_id":"_foo","v":1},
 {"_id":"good2","v":2},{"_id":"bad2","_rev":5},{"_id":"_design/lock","validate_doc_update":"function(){throw({forbidden:'no'})}"},
 {"_id":"bad3","_rev":"not-a-rev"},{"_id":"good3","v":3},{"_id":"bad4","_conflicts":[]}]}
JSON
check "mixed batch: 201" "201" "$(post "$W/mixed.json")"
check "mixed batch: valid documents stored, the others carry errors" \
    "true,bad_request,forbidden,true,bad_request,forbidden,bad_request,true,doc_validation" \
    "$(js 'j.map(r=>r.ok===true?"true":r.error).join()' <"$W/reply")"
check "mixed batch: stored documents readable" "1 2 3" \
    "$(for d in good1 good2 good3; do stack_couch "/$DB/$d" | js j.v; done | tr '\n' ' ' | sed 's/ $//')"
check "no design document was stored" "not_found" "$(stack_couch "/$DB/_design/lock" | js j.error)"
R=$(stack_pds open '{"device_id":"device-A","device_secret":"secret-of-device-A","locale":"en_US","force":"true","request":{}}')
check "\"force\": \"true\" on open: 400" "400" "${R%% *}"

# --- credentials ----------------------------------------------------------------------------
for op in open close wipe; do
    R=$(stack_pds $op '{"device_id":"device-A","locale":"en_US","request":{"deleteall":"true"}}')
    check "$op with A's id and no secret: 401" "401" "${R%% *}"
    R=$(stack_pds $op '{"device_id":"device-A","device_secret":"guess","locale":"en_US","request":{"deleteall":"true"}}')
    check "$op with A's id and a wrong secret: 403" "403" "${R%% *}"
done
check "A's documents are still there" "1" "$(stack_couch "/$DB/good1" | js j.v)"
new_device() {  # N -> status, from 127.0.0.3
    curl -s -o /dev/null -w '%{http_code}' --cacert "$STACK_CERT" --interface 127.0.0.3 \
        --data-binary "{\"device_id\":\"flood-$1\",\"device_secret\":\"s\",\"locale\":\"en_US\",\"request\":{}}" \
        "$STACK_PDS_URL/pds/open"
}
check "new devices from one address: three allowed, then 429" "200 200 200 429" \
    "$(for i in 1 2 3 4; do new_device $i; done | sed 's/\(...\)/\1 /g; s/ $//')"
check "the refused device got no database" "0" \
    "$(curl -s "$STACK_COUCH_URL/_all_dbs" | js "j.filter(d => d === 'plm_' + '$(printf %s flood-4 | sha256sum | cut -c1-32)').length")"

# --- afterwards -----------------------------------------------------------------------------
check "the server is alive" "yes" "$(alive)"
# Timed inside one process, so that only the server's answers count.
R=$(node -e '
const https = require("https"), http = require("http"), fs = require("fs"), zlib = require("zlib");
const [ca, pds, cert] = [fs.readFileSync(process.argv[1]), process.argv[2], process.argv[3]];
const call = (mod, url, body, headers) => new Promise((ok, fail) => {
  const req = mod.request(url, {method: "POST", ca, headers}, res => {
    const parts = []; res.on("data", d => parts.push(d));
    res.on("end", () => ok([res.statusCode, Buffer.concat(parts)]));
  });
  req.on("error", fail); req.end(body);
});
const dev = {device_id: "device-A", device_secret: "secret-of-device-A", locale: "en_US", request: {}};
(async () => {
  const t0 = process.hrtime.bigint();
  const [s1, b1] = await call(https, pds + "/pds/open", JSON.stringify({...dev, force: false}), {});
  const a = JSON.parse(b1);
  const [s2, b2] = await call(http, a.dburl + "/_bulk_docs",
      JSON.stringify({docs: [{_id: "after", v: 1}]}), {cookie: a.cookie});
  const [s3] = await call(https, pds + "/pds/close", JSON.stringify(dev), {});
  const ms = Number(process.hrtime.bigint() - t0) / 1e6;
  const stored = JSON.parse(zlib.gunzipSync(b2))[0].ok;
  console.log(s1 + " " + s2 + " " + stored + " " + s3 + " " + Math.round(ms));
})().catch(e => console.log("error " + e.message));' "$STACK_CERT" "$STACK_PDS_URL")
ms=${R##* }
check "open, post and close afterwards" "200 201 true 200" "${R% *}"
check "  ... within a second (${ms} ms)" "yes" "$([ "$ms" -lt 1000 ] 2>/dev/null && echo yes)"
rss=$(awk '/^VmRSS/ {print $2}' "/proc/$PID/status")
hwm=$(awk '/^VmHWM/ {print $2}' "/proc/$PID/status")
echo "     pds-server RSS ${rss} kB, peak ${hwm} kB"
check "resident memory under $((RSS_LIMIT_KB / 1024)) MB" "yes" "$([ "$rss" -lt "$RSS_LIMIT_KB" ] && echo yes)"

echo "$failures failure(s)"
[ "$failures" -eq 0 ]
