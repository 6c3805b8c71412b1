#!/usr/bin/env bash
# The service shell on a private session bus: D-Bus activation, launch requests and their log
# lines, the platform events that end the service, bad input, and pelioctl playing the voice app.
set -euo pipefail
: "${PELIO_BINARY_DIR:?}"
B=$PELIO_BINARY_DIR
PELIOCTL=$B/tools/pelioctl
CONF=$B/share/dbus-1/session-private.conf

work=$(mktemp -d /tmp/pelio-e2e-shell-XXXXXX)
export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share XDG_CONFIG_HOME=$work/home/.config
export XDG_CACHE_HOME=$work/home/.cache XDG_RUNTIME_DIR=$work/run
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
unset DBUS_SESSION_BUS_ADDRESS

bus_pid=""
bg_pids=()
cleanup() {
  set +e
  for p in "${bg_pids[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done
  if [ -n "$bus_pid" ]; then
    # Everything the bus activated is its child: end those first, then the bus.
    pkill -TERM -P "$bus_pid" 2>/dev/null
    kill "$bus_pid" 2>/dev/null
    wait "$bus_pid" 2>/dev/null
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; echo "--- bus and service log:" >&2; cat "$work/bus.log" >&2; exit 1; }
ok() { echo "ok - $*"; }

dbus-daemon --config-file="$CONF" --nofork --print-address=3 3>"$work/address" 2>"$work/bus.log" &
bus_pid=$!
for _ in $(seq 100); do [ -s "$work/address" ] && break; sleep 0.05; done
export DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$work/address")
[ -n "$DBUS_SESSION_BUS_ADDRESS" ] || fail "private bus did not start"

has_owner() { gdbus call --session -d org.freedesktop.DBus -o /org/freedesktop/DBus \
  -m org.freedesktop.DBus.NameHasOwner "$1" | grep -q true; }
service_pid() { gdbus call --session -d org.freedesktop.DBus -o /org/freedesktop/DBus \
  -m org.freedesktop.DBus.GetConnectionUnixProcessID com.quorvin.plmsvc 2>/dev/null | sed -E 's/.* ([0-9]+),.*/\1/'; }
wait_gone() { for _ in $(seq 100); do has_owner com.quorvin.plmsvc || return 0; sleep 0.05; done; return 1; }
wait_log() { for _ in $(seq 100); do grep -qF -- "$1" "$work/bus.log" && return 0; sleep 0.05; done; return 1; }

# 1. Activation on the first request; GET_DEVICE_ID gets no reply (the control handler is absent).
has_owner com.quorvin.plmsvc && fail "service runs before any request"
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || fail "launch not delivered"
[ "$out" = "result=none" ] || fail "unexpected launch output: $out"
pid=$(service_pid)
[ -n "$pid" ] || fail "no service pid"
wait_log "service_app_control start1" || fail "no app-control log line"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: main\([0-9]+\) > main: upload-manager started\.$" "$work/bus.log" \
  || fail "start line not in the fixed format"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: __app_create\([0-9]+\) > __app_create: upload-manager created\.\.$" "$work/bus.log" \
  || fail "create line missing"
grep -qE "^I/PelioService\($pid\): PelioSvcMain.cpp: __app_reset\([0-9]+\) > service_app_control start1$" "$work/bus.log" \
  || fail "app-control line not in the fixed format"
state=$(gdbus call --session -d com.quorvin.plmsvc -o /com/quorvin/plmsvc \
  -m org.freedesktop.DBus.Properties.Get com.quorvin.platform.Application State)
[ "$state" = "(<2>,)" ] || fail "service State is $state"
ok "activation and launch"

# pelioctl prefs reads the service's store (read-only): a sorted key=value list, or the note.
prefs=$("$PELIOCTL" prefs) || fail "pelioctl prefs"
if [ "$prefs" != "no preferences yet" ]; then
  printf '%s\n' "$prefs" | grep -qvE '^[^=]+=' && fail "pelioctl prefs printed: $prefs"
  [ "$prefs" = "$(printf '%s\n' "$prefs" | LC_ALL=C sort)" ] || fail "pelioctl prefs not sorted"
fi
ok "prefs"

# 2. Bad input never takes the service down.
gdbus call --session -d com.quorvin.plmsvc -o /com/quorvin/plmsvc \
  -m com.quorvin.platform.Application.Launch "@a{ss} {}" >/dev/null || fail "launch without extras"
"$PELIOCTL" launch NO_SUCH_KEY=1 EVENT_TYPE=NOT_AN_OPERATION >/dev/null || fail "unknown keys"
"$PELIOCTL" launch EVENT_TYPE= SET_IP= =x >/dev/null 2>&1 && fail "a KEY=VALUE without key was accepted"
"$PELIOCTL" launch EVENT_TYPE= SET_IP= >/dev/null || fail "empty values"
big=$(head -c 120000 /dev/zero | tr '\0' 'a')
"$PELIOCTL" launch "BIG=$big" >/dev/null || fail "120 kB value (1 MiB: integration test)"
if "$PELIOCTL" launch "$(printf 'BAD=\xff\xfe')" >/dev/null 2>&1; then fail "non-UTF-8 extra was sent"; fi
if dbus-send --session --print-reply --dest=com.quorvin.plmsvc /com/quorvin/plmsvc \
     com.quorvin.platform.Application.Launch "dict:string:string:K,$(printf '\xff')" >/dev/null 2>&1; then
  fail "the bus accepted a non-UTF-8 string"
fi
# A caller that goes away before the reply.
gdbus call --session -d com.quorvin.plmsvc -o /com/quorvin/plmsvc \
  -m com.quorvin.platform.Application.Launch "{'EVENT_TYPE': 'CHECK_STATUS'}" >/dev/null 2>&1 &
kill -9 $! 2>/dev/null || true
wait $! 2>/dev/null || true
# Wrong argument type is an error for the caller, not for the service.
gdbus call --session -d com.quorvin.plmsvc -o /com/quorvin/plmsvc \
  -m com.quorvin.platform.Application.Launch "'text'" >/dev/null 2>&1 && fail "wrong signature accepted"
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || fail "service gone after bad input"
[ "$out" = "result=none" ] || fail "after bad input: $out"
[ "$(service_pid)" = "$pid" ] || fail "service restarted during bad input"
ok "bad input"

# 3. LowBattery ends the service (without destroying anything on the way).
"$PELIOCTL" event low-battery
wait_gone || fail "service still runs after LowBattery"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: __service_app_low_battery_cb\([0-9]+\) > __service_app_low_battery_cb: Low battery$" "$work/bus.log" \
  || fail "low battery line missing"
grep -q "__service_app_low_memory_cb" "$work/bus.log" && fail "low memory path ran on LowBattery"
ok "low battery"

# 4. Started again by the next request, then LowMemory ends it.
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || fail "no restart by activation"
pid2=$(service_pid)
[ -n "$pid2" ] && [ "$pid2" != "$pid" ] || fail "not a new process: $pid2"
"$PELIOCTL" event low-memory
wait_gone || fail "service still runs after LowMemory"
grep -qE "^D/PelioService\($pid2\): PelioSvcMain.cpp: __service_app_low_memory_cb\([0-9]+\) > __service_app_low_memory_cb: LOW Memory exit the process$" "$work/bus.log" \
  || fail "low memory line missing"
grep -qE "^D/PelioService\($pid2\): .*__app_terminate: upload-manager finished\.\.$" "$work/bus.log" \
  || fail "terminate line missing"
ok "restart and low memory"

# 5. pelioctl plays the voice app.
"$PELIOCTL" voice-app >"$work/voice.out" 2>"$work/voice.err" &
bg_pids+=($!)
for _ in $(seq 100); do has_owner com.quorvin.orvane-k12 && break; sleep 0.05; done
has_owner com.quorvin.orvane-k12 || fail "voice app did not take its name"
out=$("$PELIOCTL" launch --app com.quorvin.orvane-k12 SYNCED_TYPE=CONTACT SYNCED_PLM_ID=p-42) \
  || fail "launch to voice app"
[ "$out" = "result=none" ] || fail "voice app replied: $out"
for _ in $(seq 100); do [ -s "$work/voice.out" ] && break; sleep 0.05; done
[ "$(cat "$work/voice.out")" = "SYNCED_PLM_ID=p-42 SYNCED_TYPE=CONTACT" ] || fail "voice app printed: $(cat "$work/voice.out")"
state=$(gdbus call --session -d com.quorvin.orvane-k12 -o /com/quorvin/orvane_k12 \
  -m org.freedesktop.DBus.Properties.Get com.quorvin.platform.Application State)
[ "$state" = "(<1>,)" ] || fail "foreground voice app State is $state"
"$PELIOCTL" voice-app --state background >/dev/null 2>&1 && fail "second voice app took the name"
kill "${bg_pids[0]}"; wait "${bg_pids[0]}" 2>/dev/null || true; bg_pids=()
for _ in $(seq 100); do has_owner com.quorvin.orvane-k12 || break; sleep 0.05; done
"$PELIOCTL" voice-app --state background >/dev/null 2>&1 &
bg_pids+=($!)
for _ in $(seq 100); do has_owner com.quorvin.orvane-k12 && break; sleep 0.05; done
state=$(gdbus call --session -d com.quorvin.orvane-k12 -o /com/quorvin/orvane_k12 \
  -m org.freedesktop.DBus.Properties.Get com.quorvin.platform.Application State)
[ "$state" = "(<2>,)" ] || fail "background voice app State is $state"
ok "voice app"

# 6. Launching an application that is not there is reported, not hung.
"$PELIOCTL" launch --app com.quorvin.absent K=V >/dev/null 2>&1 && fail "launch to an absent app succeeded"
ok "absent application"

echo "7 passed, 0 failed"
