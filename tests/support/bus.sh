#!/usr/bin/env bash
# A private session bus (a unix socket in a temporary directory) for end-to-end tests and the demo.
# Source it after setting HOME and the XDG variables (activated services inherit the bus's
# environment) and PELIO_BINARY_DIR. bus_start sets DBUS_SESSION_BUS_ADDRESS, BUS_PID and BUS_LOG
# (standard error of the bus and every activated service); bus_stop ends what the bus activated,
# then the bus. The bus_wait_* helpers return 1 on time-out.

bus_start() {
    local conf=$PELIO_BINARY_DIR/share/dbus-1/session-private.conf
    [ -f "$conf" ] || { echo "bus: $conf missing (build first)" >&2; return 1; }
    BUS_DIR=$(mktemp -d "${TMPDIR:-/tmp}/pelio-bus.XXXXXX")
    BUS_LOG=$BUS_DIR/bus.log
    unset DBUS_SESSION_BUS_ADDRESS
    dbus-daemon --config-file="$conf" --nofork --print-address=3 3>"$BUS_DIR/address" \
        2>"$BUS_LOG" &
    BUS_PID=$!
    local _
    for _ in $(seq 200); do [ -s "$BUS_DIR/address" ] && break; sleep 0.05; done
    DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$BUS_DIR/address")
    [ -n "$DBUS_SESSION_BUS_ADDRESS" ] || { echo "bus: private bus did not start" >&2; return 1; }
    export DBUS_SESSION_BUS_ADDRESS BUS_PID BUS_LOG BUS_DIR
}

bus_stop() {
    [ -n "${BUS_PID:-}" ] || return 0
    local p _
    # End what the bus activated first (found by the bus address in their environment: activated
    # services need not stay children of the bus daemon), then the bus.
    for p in $(bus_activated_pids); do kill -TERM "$p" 2>/dev/null; done
    for _ in $(seq 50); do [ -z "$(bus_activated_pids)" ] && break; sleep 0.1; done
    for p in $(bus_activated_pids); do kill -KILL "$p" 2>/dev/null; done
    kill "$BUS_PID" 2>/dev/null
    wait "$BUS_PID" 2>/dev/null
    BUS_PID=
    [ -n "${BUS_KEEP_DIR:-}" ] || rm -rf "${BUS_DIR:-/nonexistent}"
}

bus_activated_pids() {
    local p
    for p in $(pgrep -P "$BUS_PID" 2>/dev/null) $(pgrep -x pelio-service 2>/dev/null); do
        [ "$p" = "$$" ] && continue
        { tr '\0' '\n' <"/proc/$p/environ"; } 2>/dev/null |
            grep -qxF "DBUS_SESSION_BUS_ADDRESS=$DBUS_SESSION_BUS_ADDRESS" && echo "$p"
    done | sort -u
}

bus_has_owner() {
    gdbus call --session -d org.freedesktop.DBus -o /org/freedesktop/DBus \
        -m org.freedesktop.DBus.NameHasOwner "$1" 2>/dev/null | grep -q true
}

bus_wait_until() {
    local limit=$(( $1 * 10 )) _
    shift
    for _ in $(seq "$limit"); do "$@" && return 0; sleep 0.1; done
    return 1
}

bus_has_no_owner() { ! bus_has_owner "$1"; }

bus_log_has() { grep -qF -- "$1" "$BUS_LOG" 2>/dev/null; }

bus_wait_gone() { bus_wait_until "${2:-60}" bus_has_no_owner "$1"; }

bus_wait_log() { bus_wait_until "${2:-30}" bus_log_has "$1"; }
