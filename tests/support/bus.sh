#!/usr/bin/env bash
# A private session bus for end-to-end tests and the demo. Source this file, set HOME and the XDG
# variables first (services the bus activates inherit the bus's environment), then:
#
#   bus_start            start dbus-daemon with the build tree's private configuration; sets
#                        DBUS_SESSION_BUS_ADDRESS, BUS_PID and BUS_LOG (the bus's and every
#                        activated service's standard error)
#   bus_stop             end what the bus activated, then the bus
#   bus_has_owner NAME   whether NAME has an owner on the bus
#   bus_wait_gone NAME [SECONDS]   wait until NAME has no owner (default 60 s); 1 on time-out
#   bus_wait_log TEXT [SECONDS]    wait until BUS_LOG holds TEXT (fixed string; default 30 s)
#   bus_wait_until SECONDS CMD...  wait until CMD succeeds; 1 after SECONDS
#
# Needs PELIO_BINARY_DIR (the build tree). Only a unix socket in a temporary directory is used.

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
