#!/usr/bin/env bash
# Shared set-up of the end-to-end scenarios: a throw-away home, the loopback server stack
# (stack.sh), a private session bus (bus.sh), and helpers to steer and inspect the service.
# Source it, then call e2e_setup. Everything started is stopped by the EXIT trap.
set -euo pipefail
: "${PELIO_SOURCE_DIR:?}" "${PELIO_BINARY_DIR:?}"
source "$PELIO_SOURCE_DIR/tests/support/stack.sh"
source "$PELIO_SOURCE_DIR/tests/support/bus.sh"

PELIOCTL=$PELIO_BINARY_DIR/tools/pelioctl
SVC=com.quorvin.plmsvc
E2E_PIDS=()

e2e_cleanup() {
    set +e
    local p
    for p in "${E2E_PIDS[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done
    bus_stop
    stack_stop
    [ -n "${E2E_KEEP:-}" ] || rm -rf "${E2E_WORK:-/nonexistent}"
}

e2e_fail() {
    echo "FAIL: $*" >&2
    echo "--- service log (last 80 lines):" >&2
    tail -n 80 "$BUS_LOG" >&2 2>/dev/null
    echo "--- pds-server log (last 20 lines):" >&2
    tail -n 20 "$STACK_DIR/pds.log" >&2 2>/dev/null
    exit 1
}

e2e_ok() { echo "ok - $*"; }

# A throw-away home with a contacts folder, the stack and the bus; the network is marked up.
e2e_setup() {
    E2E_WORK=$(mktemp -d "${TMPDIR:-/tmp}/pelio-e2e.XXXXXX")
    export HOME=$E2E_WORK/home XDG_DATA_HOME=$E2E_WORK/home/.local/share
    export XDG_CONFIG_HOME=$E2E_WORK/home/.config XDG_CACHE_HOME=$E2E_WORK/home/.cache
    export XDG_RUNTIME_DIR=$E2E_WORK/run ECORE_NO_SYSTEM_MODULES=1
    # The system's data folders of the throw-away home: the machine's applications stay out.
    export XDG_DATA_DIRS=$E2E_WORK/system/share
    unset https_proxy http_proxy HTTPS_PROXY HTTP_PROXY all_proxy ALL_PROXY
    mkdir -p "$HOME" "$XDG_DATA_HOME/contacts/default" "$XDG_RUNTIME_DIR" "$XDG_DATA_DIRS"
    chmod 700 "$XDG_RUNTIME_DIR"
    STACK_NO_TRAP=1
    trap e2e_cleanup EXIT
    trap 'e2e_cleanup; exit 130' INT TERM
    stack_start "$@" || e2e_fail "server stack did not start"
    bus_start || e2e_fail "private bus did not start"
    "$PELIOCTL" setting set memory/dnet/status 3 >/dev/null || e2e_fail "pelioctl setting"
}

# The server address, port, certificate and locale for the service (no operation).
e2e_configure() {
    "$PELIOCTL" launch SET_IP=127.0.0.1 "SET_PORT=$STACK_PDS_PORT" "SET_CERT_PATH=$STACK_CERT" \
        SET_LOCALE=en-US >/dev/null || e2e_fail "configure launch not delivered"
}

# Waits until the service has ended itself (it does after a sync); fails after SECONDS (120).
e2e_wait_service_end() {
    sleep 0.5
    bus_wait_gone "$SVC" "${1:-120}" || e2e_fail "service did not end itself"
    # The name goes first; the process ends once it has shut down.
    local _
    for _ in $(seq 300); do [ -z "$(bus_activated_pids)" ] && return 0; sleep 0.1; done
    e2e_fail "service process did not end after giving up its name"
}

# The device's database name on the server (the one plm_ database).
e2e_device_db() {
    curl -s "$STACK_COUCH_URL/_all_dbs" | node -e '
        const dbs = JSON.parse(require("fs").readFileSync(0, "utf8")).filter(d => d.startsWith("plm_"));
        if (dbs.length !== 1) { console.error("device databases: " + JSON.stringify(dbs)); process.exit(1); }
        console.log(dbs[0]);'
}

# All live documents of the device as one JSON array.
e2e_docs() {
    local db
    db=$(e2e_device_db) || return 1
    curl -s "$STACK_COUCH_URL/$db/_all_docs?include_docs=true" | node -e '
        const r = JSON.parse(require("fs").readFileSync(0, "utf8"));
        console.log(JSON.stringify(r.rows.map(x => x.doc)));'
}

# The number of live documents of one type ("contact", "application" ...) on the server.
e2e_doc_count() {
    e2e_device_db >/dev/null 2>&1 || { echo 0; return; }
    e2e_docs | node -e 'console.log(JSON.parse(require("fs").readFileSync(0)).filter(d => d.type === process.argv[1]).length)' "$1"
}

# e2e_check 'JS function body over docs' 'what': a check of the documents of type E2E_DOC_TYPE
# (default "contact"; "audio*" for every type that starts with "audio").
e2e_check() {
    local docs
    docs=$(e2e_docs) || e2e_fail "no device database: $2"
    DOCS=$docs DOC_TYPE=${E2E_DOC_TYPE:-contact} node -e '
        const t = process.env.DOC_TYPE;
        const docs = JSON.parse(process.env.DOCS).filter(d => d.type === t ||
            (t.endsWith("*") && String(d.type).startsWith(t.slice(0, -1))));
        const byName = n => docs.find(d => d.meta_data && d.meta_data.displayname === n);
        const ok = (() => { '"$1"' })();
        if (!ok) { console.error(JSON.stringify(docs, null, 1)); process.exit(1); }' \
        || e2e_fail "$2"
    e2e_ok "$2"
}

# The English label of a message id, from the catalogue.
e2e_label() {
    grep -A1 "^msgid \"$1\"" "$PELIO_SOURCE_DIR/po/en_US.po" | sed -n 's/^msgstr "\(.*\)"$/\1/p'
}

# A vCard file: e2e_card FILE UID FN N [extra lines...]
e2e_card() {
    local file=$1 uid=$2 fn=$3 n=$4
    shift 4
    {
        printf 'BEGIN:VCARD\r\nVERSION:3.0\r\nUID:%s\r\nFN:%s\r\nN:%s\r\n' "$uid" "$fn" "$n"
        local line
        for line in "$@"; do printf '%s\r\n' "$line"; done
        printf 'END:VCARD\r\n'
    } >"$file"
}

# Injects a fault into pds-server (its /admin/fault test knob): e2e_fault '{"op":"open",...}'.
e2e_fault() {
    curl -s --cacert "$STACK_CERT" -H 'Content-Type: application/json' --data-binary "$1" \
        "$STACK_PDS_URL/admin/fault${2:-}" >/dev/null || e2e_fail "fault injection"
}
e2e_fault_clear() { e2e_fault '{}' /clear; }

# The process id of the running service (empty when it does not run).
e2e_service_pid() {
    gdbus call --session -d org.freedesktop.DBus -o /org/freedesktop/DBus \
        -m org.freedesktop.DBus.GetConnectionUnixProcessID "$SVC" 2>/dev/null |
        sed -nE 's/^\(uint32 ([0-9]+),\)$/\1/p'
}

# A query of the service's shadow database; a status key of its master table; how many rows of
# the contacts table the server has not yet confirmed.
e2e_sql() { sqlite3 -cmd ".timeout 10000" "$XDG_DATA_HOME/$SVC/shared/trusted/databases/.orvane.db" "$1"; }
e2e_master() { e2e_sql "SELECT value FROM master WHERE key = '$1'"; }
e2e_unconfirmed() { e2e_sql "SELECT COUNT(*) FROM contacts WHERE dirty != 4"; }

# The names of the live documents of TYPE on the server (meta_data.FIELD), one per line, sorted;
# fails when a document has an empty name: e2e_server_names [TYPE [FIELD]] (contact displayname).
e2e_server_names() {
    e2e_docs | TYPE=${1:-contact} FIELD=${2:-displayname} node -e '
        const docs = JSON.parse(require("fs").readFileSync(0, "utf8"))
            .filter(d => d.type === process.env.TYPE);
        const name = d => (d.meta_data || {})[process.env.FIELD];
        const bad = docs.filter(d => !name(d));
        if (bad.length) { console.error("empty documents: " + JSON.stringify(bad)); process.exit(1); }
        for (const d of docs) console.log(name(d));' | LC_ALL=C sort
}

# What the device holds, one name per line, sorted: e2e_device_names contact|audio|application.
# Songs are named after their files: the scenarios keep them untagged, and such a song is titled
# after its file. Applications: every visible desktop entry, and the two every device has.
e2e_device_names() {
    case $1 in
    contact)
        cat "$XDG_DATA_HOME"/contacts/default/*.vcf 2>/dev/null | tr -d '\r' | sed -n 's/^FN://p' ;;
    audio)
        find "$HOME/Music" -maxdepth 1 -type f \( -name '*.mp3' -o -name '*.flac' -o -name '*.ogg' \) \
            -printf '%f\n' 2>/dev/null | sed 's/\.[^.]*$//' ;;
    application)
        local dir f
        for dir in "$XDG_DATA_HOME/applications" $(tr ':' ' ' <<<"${XDG_DATA_DIRS:-}" | sed 's#\([^ ]*\)#\1/applications#g'); do
            for f in "$dir"/*.desktop; do
                [ -f "$f" ] || continue
                grep -qE '^(NoDisplay|Hidden)=true' "$f" && continue
                sed -n 's/^Name=//p' "$f" | head -n 1
            done
        done
        printf '%s\n' "Contacts" "Task manager" ;;
    esac | LC_ALL=C sort
}

# A visible desktop entry in the user's applications folder: e2e_app ID NAME.
e2e_app() {
    mkdir -p "$XDG_DATA_HOME/applications"
    printf '[Desktop Entry]\nType=Application\nExec=true\nName=%s\n' "$2" \
        >"$XDG_DATA_HOME/applications/$1.desktop"
}

# An untagged song NAME.mp3 in the music folder (a copy of one small file made once).
e2e_song() {
    local template=$E2E_WORK/untagged.mp3
    if [ ! -s "$template" ]; then
        source "$PELIO_SOURCE_DIR/tests/support/media.sh"
        make_song "$template" "" "" "" "" || e2e_fail "cannot make a song"
    fi
    mkdir -p "$HOME/Music"
    cp "$template" "$HOME/Music/$1.mp3"
}

# e2e_expect_converged WHAT: fails unless the server holds exactly what the device holds.
e2e_expect_converged() {
    local type field server device
    for type in contact:displayname audio:title application:name; do
        field=${type#*:} type=${type%%:*}
        server=$(e2e_server_names "$type" "$field") || e2e_fail "$1: unreadable $type documents"
        device=$(e2e_device_names "$type")
        [ "$server" = "$device" ] ||
            e2e_fail "$1: $type on the server [$(echo $server)], on the device [$(echo $device)]"
    done
    e2e_ok "$1"
}

# A differential sync request, then waits for the service to end itself.
e2e_diff_sync() {
    "$PELIOCTL" launch EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "differential trigger"
    e2e_wait_service_end "${1:-120}"
}
