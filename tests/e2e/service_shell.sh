#!/usr/bin/env bash
# The service shell on a private session bus: D-Bus activation, launch requests and their log
# lines, the platform events that end the service, bad input, and pelioctl playing the voice app.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
VOICE=com.quorvin.orvane-k12
e2e_setup

launches() { grep -c "service_app_control start1" "$BUS_LOG" || true; }
launches_above() { [ "$(launches)" -gt "$1" ]; }
launch_raw() { gdbus call --session -d $SVC -o /com/quorvin/plmsvc -m com.quorvin.platform.Application.Launch "$@"; }
app_state() { gdbus call --session -d "$1" -o "$2" \
  -m org.freedesktop.DBus.Properties.Get com.quorvin.platform.Application State; }

# 1. Activation on the first request; GET_DEVICE_ID gets no reply (the control handler is absent).
bus_has_owner $SVC && e2e_fail "service runs before any request"
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || e2e_fail "launch not delivered"
[ "$out" = "result=none" ] || e2e_fail "unexpected launch output: $out"
pid=$(e2e_service_pid)
[ -n "$pid" ] || e2e_fail "no service pid"
bus_wait_log "service_app_control start1" || e2e_fail "no app-control log line"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: main\([0-9]+\) > main: upload-manager started\.$" "$BUS_LOG" \
  || e2e_fail "start line not in the fixed format"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: __app_create\([0-9]+\) > __app_create: upload-manager created\.\.$" "$BUS_LOG" \
  || e2e_fail "create line missing"
grep -qE "^I/PelioService\($pid\): PelioSvcMain.cpp: __app_reset\([0-9]+\) > service_app_control start1$" "$BUS_LOG" \
  || e2e_fail "app-control line not in the fixed format"
state=$(app_state $SVC /com/quorvin/plmsvc)
[ "$state" = "(<2>,)" ] || e2e_fail "service State is $state"
e2e_ok "activation and launch"

# 2. Bad input never takes the service down.
launch_raw "@a{ss} {}" >/dev/null || e2e_fail "launch without extras"
"$PELIOCTL" launch NO_SUCH_KEY=1 EVENT_TYPE=NOT_AN_OPERATION >/dev/null || e2e_fail "unknown keys"
"$PELIOCTL" launch EVENT_TYPE= SET_IP= =x >/dev/null 2>&1 && e2e_fail "a KEY=VALUE without key was accepted"
"$PELIOCTL" launch EVENT_TYPE= SET_IP= >/dev/null || e2e_fail "empty values"
# 1 MiB in one request (far more than the socket takes in one write), in nine extras: one
# command-line argument holds at most 128 KiB.
big=$(head -c 120000 /dev/zero | tr '\0' 'a')
mib=()
for i in $(seq 9); do mib+=("BIG$i=$big"); done
"$PELIOCTL" launch "${mib[@]}" EVENT_TYPE=GET_DEVICE_ID >/dev/null || e2e_fail "1 MiB request"
"$PELIOCTL" launch "${mib[@]}" BIG0=y >/dev/null || e2e_fail "second 1 MiB request"
if "$PELIOCTL" launch "$(printf 'BAD=\xff\xfe')" >/dev/null 2>&1; then e2e_fail "non-UTF-8 extra was sent"; fi
if dbus-send --session --print-reply --dest=com.quorvin.plmsvc /com/quorvin/plmsvc \
     com.quorvin.platform.Application.Launch "dict:string:string:K,$(printf '\xff')" >/dev/null 2>&1; then
  e2e_fail "the bus accepted a non-UTF-8 string"
fi
# A caller that goes away before the reply: killed once the service has taken its request (an
# operation it does not know keeps it running; it sends no reply).
seen=$(launches)
launch_raw "{'EVENT_TYPE': 'NOT_AN_OPERATION', 'BIG': '$big'}" >/dev/null 2>&1 &
caller=$!
bus_wait_until 60 launches_above "$seen" || e2e_fail "the service did not take the request of the caller"
kill -9 "$caller" 2>/dev/null || true
wait "$caller" 2>/dev/null || true
# Wrong argument type is an error for the caller, not for the service.
launch_raw "'text'" >/dev/null 2>&1 && e2e_fail "wrong signature accepted"
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || e2e_fail "service gone after bad input"
[ "$out" = "result=none" ] || e2e_fail "after bad input: $out"
[ "$(e2e_service_pid)" = "$pid" ] || e2e_fail "service restarted during bad input"
e2e_ok "bad input"

# 3. LowBattery ends the service (without destroying anything on the way).
"$PELIOCTL" event low-battery
bus_wait_gone $SVC || e2e_fail "service still runs after LowBattery"
grep -qE "^D/PelioService\($pid\): PelioSvcMain.cpp: __service_app_low_battery_cb\([0-9]+\) > __service_app_low_battery_cb: Low battery$" "$BUS_LOG" \
  || e2e_fail "low battery line missing"
grep -q "__service_app_low_memory_cb" "$BUS_LOG" && e2e_fail "low memory path ran on LowBattery"
e2e_ok "low battery"

# 4. Started again by the next request, then LowMemory ends it.
out=$("$PELIOCTL" launch EVENT_TYPE=GET_DEVICE_ID) || e2e_fail "no restart by activation"
pid2=$(e2e_service_pid)
[ -n "$pid2" ] && [ "$pid2" != "$pid" ] || e2e_fail "not a new process: $pid2"
"$PELIOCTL" event low-memory
bus_wait_gone $SVC || e2e_fail "service still runs after LowMemory"
grep -qE "^D/PelioService\($pid2\): PelioSvcMain.cpp: __service_app_low_memory_cb\([0-9]+\) > __service_app_low_memory_cb: LOW Memory exit the process$" "$BUS_LOG" \
  || e2e_fail "low memory line missing"
grep -qE "^D/PelioService\($pid2\): .*__app_terminate: upload-manager finished\.\.$" "$BUS_LOG" \
  || e2e_fail "terminate line missing"
e2e_ok "restart and low memory"

# 5. pelioctl plays the voice app.
"$PELIOCTL" voice-app >"$E2E_WORK/voice.out" 2>"$E2E_WORK/voice.err" &
E2E_PIDS+=($!)
bus_wait_until 60 bus_has_owner $VOICE || e2e_fail "voice app did not take its name"
out=$("$PELIOCTL" launch --app com.quorvin.orvane-k12 SYNCED_TYPE=CONTACT SYNCED_PLM_ID=p-42) \
  || e2e_fail "launch to voice app"
[ "$out" = "result=none" ] || e2e_fail "voice app replied: $out"
bus_wait_until 30 test -s "$E2E_WORK/voice.out" || e2e_fail "voice app printed nothing"
[ "$(cat "$E2E_WORK/voice.out")" = "SYNCED_PLM_ID=p-42 SYNCED_TYPE=CONTACT" ] || e2e_fail "voice app printed: $(cat "$E2E_WORK/voice.out")"
state=$(app_state $VOICE /com/quorvin/orvane_k12)
[ "$state" = "(<1>,)" ] || e2e_fail "foreground voice app State is $state"
"$PELIOCTL" voice-app --state background >/dev/null 2>&1 && e2e_fail "second voice app took the name"
kill "${E2E_PIDS[0]}"; wait "${E2E_PIDS[0]}" 2>/dev/null || true
bus_wait_gone $VOICE || e2e_fail "voice app kept its name after its end"
"$PELIOCTL" voice-app --state background >/dev/null 2>&1 &
E2E_PIDS+=($!)
bus_wait_until 60 bus_has_owner $VOICE || e2e_fail "background voice app did not take its name"
state=$(app_state $VOICE /com/quorvin/orvane_k12)
[ "$state" = "(<2>,)" ] || e2e_fail "background voice app State is $state"
e2e_ok "voice app"

# 6. Launching an application that is not there is reported, not hung.
"$PELIOCTL" launch --app com.quorvin.absent K=V >/dev/null 2>&1 && e2e_fail "launch to an absent app succeeded"
e2e_ok "absent application"

