#!/usr/bin/env bash
# Crash safety: a forced sync of a few hundred cards, twenty songs and five applications is killed
# (SIGKILL) at a random moment, the next sync runs to its end, and the server must hold exactly
# what the device holds. Repeated at
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
for i in $(seq 1 20); do e2e_song "Song $i"; done
for i in $(seq 1 5); do e2e_app "org.pelio.app$i" "App $i"; done
e2e_configure
forced_sync() {
    "$PELIOCTL" launch SET_IS_FORCE=true EVENT_TYPE=TRIGGER_FORCE_SYNC >/dev/null || e2e_fail "trigger"
}
forced_sync
e2e_wait_service_end 600
e2e_expect_converged "first forced sync"
# The span of a forced sync from a stopped service, which is what every round runs.
start=$(date +%s%N)
forced_sync
e2e_wait_service_end 600
span_ms=$(( ($(date +%s%N) - start) / 1000000 ))
e2e_expect_converged "second forced sync (${span_ms} ms)"

# Every round kills at a moment in the next slice of the span; a round whose sync ended before
# its moment shows the span is shorter than measured, shrinks it and is played again.
kills=0
round=0
while [ "$kills" -lt "$rounds" ]; do
    round=$((round + 1))
    [ "$round" -le $((rounds * 3)) ] || e2e_fail "only $kills of $rounds rounds hit a running sync"
    # A change for every round, so that there is always something in flight.
    n=$((RANDOM % 300 + 1))
    e2e_card "$book/p$n.vcf" "p$n" "Person $n round $round" "$n;Person;;;" "TEL;TYPE=CELL:+1555$n"
    song=$(find "$HOME/Music" -name '*.mp3' -printf '%f\n' | sort | sed -n "$((RANDOM % 20 + 1))p")
    mv "$HOME/Music/$song" "$HOME/Music/Song r$round.mp3"
    e2e_app "org.pelio.app$((RANDOM % 5 + 1))" "App round $round"
    moment=$(( span_ms * kills / rounds + RANDOM % (span_ms / rounds + 1) ))
    forced_sync
    sleep "$(printf '%d.%03d' $((moment / 1000)) $((moment % 1000)))"
    pid=$(e2e_service_pid || true)
    if [ -n "$pid" ]; then
        kill -9 "$pid" 2>/dev/null || true
        kills=$((kills + 1))
        phase=$(grep "PelioService($pid)" "$BUS_LOG" | tail -n 1 | sed -E 's/^[^:]*: ([^:]*): ([^(]*).*/\1 \2/')
        echo "# kill $kills: round $round at ${moment} ms, last in $phase"
    else
        span_ms=$moment
        echo "# round $round: the sync had ended before ${moment} ms; span now ${span_ms} ms"
    fi
    # The name goes with the killed connection; a request sent before that would reach the dead one.
    bus_wait_gone "$SVC" 30 || e2e_fail "the killed service still owns its name"
    for _ in $(seq 100); do [ -z "$(bus_activated_pids)" ] && break; sleep 0.05; done
    e2e_diff_sync 600
    e2e_expect_converged "round $round (kill at ${moment} ms)"
done
