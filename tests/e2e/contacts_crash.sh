#!/usr/bin/env bash
# Crash safety: a forced sync of a few hundred cards is killed (SIGKILL) at a random moment, the
# next sync runs to its end, and the server must hold exactly the address book. Repeated at
# moments spread over the whole sync (collection, composition, posting, close, outcomes). The
# moments and the seed are printed: CRASH_SEED=N replays a run, CRASH_ROUNDS=N sets the rounds.
source "$PELIO_SOURCE_DIR/tests/support/e2e-common.sh"
e2e_setup --force-limit 1000
book=$XDG_DATA_HOME/contacts/default
seed=${CRASH_SEED:-$(( $(date +%s) % 32768 ))}
rounds=${CRASH_ROUNDS:-30}
RANDOM=$seed
echo "# seed $seed, $rounds rounds"

for i in $(seq 1 300); do
    e2e_card "$book/p$i.vcf" "p$i" "Person $i" "$i;Person;;;" "TEL;TYPE=CELL:+1555$i"
done
e2e_configure
forced_sync() {
    "$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
}
start=$(date +%s%N)
forced_sync
e2e_wait_service_end
span_ms=$(( ($(date +%s%N) - start) / 1000000 ))
e2e_expect_converged "first forced sync (${span_ms} ms)"

for round in $(seq 1 "$rounds"); do
    # A change for every round, so that there is always something in flight.
    n=$((RANDOM % 300 + 1))
    e2e_card "$book/p$n.vcf" "p$n" "Person $n round $round" "$n;Person;;;" "TEL;TYPE=CELL:+1555$n"
    # Moments spread over the whole sync: round r falls in the r-th slice of it.
    slice=$(( span_ms * (round - 1) / rounds ))
    moment=$(( slice + RANDOM % (span_ms / rounds + 1) ))
    forced_sync
    sleep "$(printf '%d.%03d' $((moment / 1000)) $((moment % 1000)))"
    pid=$(e2e_service_pid)
    if [ -n "$pid" ]; then
        kill -9 "$pid" 2>/dev/null
        echo "# round $round: killed at ${moment} ms"
    else
        echo "# round $round: the sync had ended before ${moment} ms"
    fi
    for _ in $(seq 100); do [ -z "$(bus_activated_pids)" ] && break; sleep 0.05; done
    e2e_diff_sync
    e2e_expect_converged "round $round (kill at ${moment} ms)"
done
