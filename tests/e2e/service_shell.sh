#!/usr/bin/env bash
# The service shell on a private session bus: D-Bus activation, launch requests and their log
# lines, the platform events that end the service, bad input, and pelioctl playing the voice app.
set -euo pipefail
: "${PELIO_SOURCE_DIR:?}" "${PELIO_BINARY_DIR:?}"
source "$PELIO_SOURCE_DIR/tests/support/bus.sh"
PELIOCTL=$PELIO_BINARY_DIR/tools/pelioctl
SVC=com.quorvin.plmsvc
VOICE=com.quorvin.orvane-k12

work=$(mktemp -d /tmp/pelio-e2e-shell-XXXXXX)
export HOME=$work/home XDG_DATA_HOME=$work/home/.local/share XDG_CONFIG_HOME=$work/home/.config
export XDG_CACHE_HOME=$work/home/.cache XDG_RUNTIME_DIR=$work/run
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"

bg_pids=()
cleanup() {
  set +e
  for p in "${bg_pids[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done
  bus_stop
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; echo "--- bus and service log:" >&2; cat "$BUS_LOG" >&2; exit 1; }
ok() { echo "ok - $*"; }

bus_start || { echo "FAIL: private bus did not start" >&2; exit 1; }

service_pid() { gdbus call --session -d org.freedesktop.DBus -o /org/freedesktop/DBus \
  -m org.freedesktop.DBus.GetConnectionUnixProcessID $SVC 2>/dev/null | sed -E 's/.* ([0-9]+),.*/\1/'; }
launches() { grep -c "service_app_control start1" "$BUS_LOG" || true; }
launches_above() { [ "$(launches)" -gt "$1" ]; }
file_has() { [ -s "$1" ]; }
app_state() { gdbus call --session -d "$1" -o "$2" \
  -m org.freedesktop.DBus.Properties.Get com.quorvin.platform.Application State; }

# 1. Activation on the first request; GET_DEVICE_ID gets no reply (the control handler is absent).
bus_has_owner $SVC && fail "service runs before any request"
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || fail "launch not delivered"
[ "$out" = "result=none" ] || fail "unexpected launch output: $out"
pid=$(service_pid)
[ -n "$pid" ] || fail "no service pid"
bus_wait_log "service_app_control start1" || fail "no app-control log line"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: main\([0-9]+\) > main: upload-manager started\.$" "$BUS_LOG" \
  || fail "start line not in the fixed format"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: __app_create\([0-9]+\) > __app_create: upload-manager created\.\.$" "$BUS_LOG" \
  || fail "create line missing"
grep -qE "^I/PelioService\($pid\): PelioSvcMain.cpp: __app_reset\([0-9]+\) > service_app_control start1$" "$BUS_LOG" \
  || fail "app-control line not in the fixed format"
state=$(app_state $SVC /com/quorvin/plmsvc)
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
# 1 MiB in one request (far more than the socket takes in one write), in nine extras: one
# command-line argument holds at most 128 KiB.
big=$(head -c 120000 /dev/zero | tr '\0' 'a')
mib=()
for i in $(seq 9); do mib+=("BIG$i=$big"); done
"$PELIOCTL" launch "${mib[@]}" EVENT_TYPE=GET_DEVICE_ID >/dev/null || fail "1 MiB request"
"$PELIOCTL" launch "${mib[@]}" BIG0=y >/dev/null || fail "second 1 MiB request"
if "$PELIOCTL" launch "$(printf 'BAD=\xff\xfe')" >/dev/null 2>&1; then fail "non-UTF-8 extra was sent"; fi
if dbus-send --session --print-reply --dest=com.quorvin.plmsvc /com/quorvin/plmsvc \
     com.quorvin.platform.Application.Launch "dict:string:string:K,$(printf '\xff')" >/dev/null 2>&1; then
  fail "the bus accepted a non-UTF-8 string"
fi
# A caller that goes away before the reply: killed once the service has taken its request (an
# operation it does not know keeps it running; it sends no reply).
seen=$(launches)
gdbus call --session -d $SVC -o /com/quorvin/plmsvc -m com.quorvin.platform.Application.Launch \
  "{'EVENT_TYPE': 'NOT_AN_OPERATION', 'BIG': '$big'}" >/dev/null 2>&1 &
caller=$!
bus_wait_until 60 launches_above "$seen" || fail "the service did not take the request of the caller"
kill -9 "$caller" 2>/dev/null || true
wait "$caller" 2>/dev/null || true
# Wrong argument type is an error for the caller, not for the service.
gdbus call --session -d com.quorvin.plmsvc -o /com/quorvin/plmsvc \
  -m com.quorvin.platform.Application.Launch "'text'" >/dev/null 2>&1 && fail "wrong signature accepted"
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || fail "service gone after bad input"
[ "$out" = "result=none" ] || fail "after bad input: $out"
[ "$(service_pid)" = "$pid" ] || fail "service restarted during bad input"
ok "bad input"

# 3. LowBattery ends the service (without destroying anything on the way).
"$PELIOCTL" event low-battery
bus_wait_gone $SVC || fail "service still runs after LowBattery"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: __service_app_low_battery_cb\([0-9]+\) > __service_app_low_battery_cb: Low battery$" "$BUS_LOG" \
  || fail "low battery line missing"
grep -q "__service_app_low_memory_cb" "$BUS_LOG" && fail "low memory path ran on LowBattery"
ok "low battery"

# 4. Started again by the next request, then LowMemory ends it.
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || fail "no restart by activation"
pid2=$(service_pid)
[ -n "$pid2" ] && [ "$pid2" != "$pid" ] || fail "not a new process: $pid2"
"$PELIOCTL" event low-memory
bus_wait_gone $SVC || fail "service still runs after LowMemory"
grep -qE "^D/PelioService\($pid2\): PelioSvcMain.cpp: __service_app_low_memory_cb\([0-9]+\) > __service_app_low_memory_cb: LOW Memory exit the process$" "$BUS_LOG" \
  || fail "low memory line missing"
grep -qE "^D/PelioService\($pid2\): .*__app_terminate: upload-manager finished\.\.$" "$BUS_LOG" \
  || fail "terminate line missing"
ok "restart and low memory"

# 5. pelioctl plays the voice app.
"$PELIOCTL" voice-app >"$work/voice.out" 2>"$work/voice.err" &
bg_pids+=($!)
bus_wait_until 60 bus_has_owner $VOICE || fail "voice app did not take its name"
out=$("$PELIOCTL" launch --app com.quorvin.orvane-k12 SYNCED_TYPE=CONTACT SYNCED_PLM_ID=p-42) \
  || fail "launch to voice app"
[ "$out" = "result=none" ] || fail "voice app replied: $out"
bus_wait_until 30 file_has "$work/voice.out" || fail "voice app printed nothing"
[ "$(cat "$work/voice.out")" = "SYNCED_PLM_ID=p-42 SYNCED_TYPE=CONTACT" ] || fail "voice app printed: $(cat "$work/voice.out")"
state=$(app_state $VOICE /com/quorvin/orvane_k12)
[ "$state" = "(<1>,)" ] || fail "foreground voice app State is $state"
"$PELIOCTL" voice-app --state background >/dev/null 2>&1 && fail "second voice app took the name"
kill "${bg_pids[0]}"; wait "${bg_pids[0]}" 2>/dev/null || true; bg_pids=()
bus_wait_gone $VOICE || fail "voice app kept its name after its end"
"$PELIOCTL" voice-app --state background >/dev/null 2>&1 &
bg_pids+=($!)
bus_wait_until 60 bus_has_owner $VOICE || fail "background voice app did not take its name"
state=$(app_state $VOICE /com/quorvin/orvane_k12)
[ "$state" = "(<2>,)" ] || fail "background voice app State is $state"
ok "voice app"

# 6. Launching an application that is not there is reported, not hung.
"$PELIOCTL" launch --app com.quorvin.absent K=V >/dev/null 2>&1 && fail "launch to an absent app succeeded"
ok "absent application"

echo "7 passed, 0 failed"
