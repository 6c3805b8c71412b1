#!/usr/bin/env bash
# Test stack on loopback: PouchDB Server and pds-server (with --admin and --journal 200, see
# server/README.md) behind a throw-away certificate (CN and SAN localhost, 127.0.0.1, ::1).
# Source this file, then: stack_start [PDS-SERVER-ARGS...]; stack_stop; stack_open DEVICE_ID [FORCE]
# (its secret is "secret-of-DEVICE_ID"); stack_pds OP JSON (prints "STATUS BODY"); stack_couch PATH.
# stack_start sets the STACK_* variables exported at its end, and traps EXIT/INT/TERM to call
# stack_stop unless STACK_NO_TRAP=1.

_stack_here=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
: "${PELIO_SOURCE_DIR:=$_stack_here}"
: "${PELIO_BINARY_DIR:=$PELIO_SOURCE_DIR/build/dev}"

_stack_wait_http() {  # URL [curl args...]: wait up to 30 s for any HTTP answer
    local url=$1
    shift
    for _ in $(seq 1 150); do
        curl -s -o /dev/null --max-time 2 "$@" "$url" && return 0
        sleep 0.2
    done
    return 1
}

stack_stop() {
    local pid
    for pid in ${STACK_PDS_PID:-} ${STACK_COUCH_PID:-}; do
        kill -0 "$pid" 2>/dev/null || continue
        kill "$pid" 2>/dev/null
        for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    STACK_PDS_PID=
    STACK_COUCH_PID=
    if [ -n "${STACK_DIR:-}" ] && [ -d "$STACK_DIR" ] && [ -z "${STACK_KEEP_DIR:-}" ]; then
        rm -rf "$STACK_DIR"
    fi
    STACK_DIR=
}

stack_start() {
    local pds_bin=$PELIO_BINARY_DIR/server/pds-server
    local pouch_bin=$PELIO_SOURCE_DIR/server/node_modules/.bin/pouchdb-server
    [ -x "$pds_bin" ] || { echo "stack: $pds_bin not built" >&2; return 1; }
    [ -x "$pouch_bin" ] || { echo "stack: $pouch_bin missing (run scripts/install-deps)" >&2; return 1; }
    command -v openssl >/dev/null || { echo "stack: openssl missing" >&2; return 1; }

    STACK_DIR=$(mktemp -d "${TMPDIR:-/tmp}/pelio-stack.XXXXXX")
    if [ -z "${STACK_NO_TRAP:-}" ]; then
        trap 'stack_stop' EXIT
        trap 'stack_stop; exit 130' INT TERM
    fi
    STACK_CERT=$STACK_DIR/cert.pem
    STACK_KEY=$STACK_DIR/key.pem
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$STACK_KEY" -out "$STACK_CERT" -days 2 \
        -subj /CN=localhost -addext "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1" \
        >/dev/null 2>&1 || { echo "stack: openssl failed" >&2; return 1; }

    # PouchDB Server writes config.json and log.txt into its working directory.
    mkdir -p "$STACK_DIR/couch/data"
    local port tries
    for tries in 1 2 3; do
        port=$(node -e 'const s=require("net").createServer();s.listen(0,"127.0.0.1",()=>{console.log(s.address().port);s.close()})')
        (cd "$STACK_DIR/couch" && exec "$pouch_bin" --host 127.0.0.1 --port "$port" \
            --dir "$STACK_DIR/couch/data" >"$STACK_DIR/couch.log" 2>&1) &
        STACK_COUCH_PID=$!
        STACK_COUCH_URL=http://127.0.0.1:$port
        _stack_wait_http "$STACK_COUCH_URL/" && kill -0 "$STACK_COUCH_PID" 2>/dev/null && break
        kill "$STACK_COUCH_PID" 2>/dev/null; wait "$STACK_COUCH_PID" 2>/dev/null
        STACK_COUCH_PID=
    done
    [ -n "$STACK_COUCH_PID" ] || { echo "stack: PouchDB Server did not start" >&2; cat "$STACK_DIR/couch.log" >&2; return 1; }

    "$pds_bin" --listen 127.0.0.1:0 --tls-cert "$STACK_CERT" --tls-key "$STACK_KEY" \
        --db-listen 127.0.0.1:0 --couch "$STACK_COUCH_URL" --ports-file "$STACK_DIR/ports" \
        --admin --journal 200 "$@" >"$STACK_DIR/pds.log" 2>&1 &
    STACK_PDS_PID=$!
    for _ in $(seq 1 100); do
        [ -f "$STACK_DIR/ports" ] && break
        kill -0 "$STACK_PDS_PID" 2>/dev/null || break
        sleep 0.1
    done
    [ -f "$STACK_DIR/ports" ] || { echo "stack: pds-server did not start" >&2; cat "$STACK_DIR/pds.log" >&2; return 1; }
    STACK_PDS_PORT=$(sed -n 's/^pds=//p' "$STACK_DIR/ports")
    STACK_DB_PORT=$(sed -n 's/^db=//p' "$STACK_DIR/ports")
    STACK_PDS_URL=https://127.0.0.1:$STACK_PDS_PORT
    STACK_DB_URL_BASE=http://127.0.0.1:$STACK_DB_PORT
    export STACK_DIR STACK_CERT STACK_KEY STACK_COUCH_URL STACK_PDS_PORT STACK_PDS_URL \
        STACK_DB_PORT STACK_DB_URL_BASE
}

stack_pds() {  # OP JSON -> "STATUS BODY"
    local out status
    out=$(curl -s --cacert "$STACK_CERT" -X POST -H 'Content-Type: application/json' \
        --data-binary "$2" -w '\n%{http_code}' "$STACK_PDS_URL/pds/$1")
    status=${out##*$'\n'}
    echo "$status ${out%$'\n'*}"
}

stack_open() {  # DEVICE_ID [FORCE]
    curl -s --cacert "$STACK_CERT" -X POST -H 'Content-Type: application/json' --data-binary \
        "{\"device_id\":\"$1\",\"device_secret\":\"secret-of-$1\",\"locale\":\"en_US\",\"force\":${2:-false},\"companion\":false,\"standalone\":true,\"request\":{\"rampcode\":\"dash\"}}" \
        "$STACK_PDS_URL/pds/open"
}

stack_couch() {  # PATH
    curl -s "$STACK_COUCH_URL$1"
}
