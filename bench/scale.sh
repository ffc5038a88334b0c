#!/usr/bin/env bash
# How vod behaves with many live operations: for each N it starts N copies
# whose streams the simulated D-blade slows so that they stay live, and
# prints, each next to its target:
#   - progress polls of random copies, back to back from one client, with a
#     null call every 10 ms from another: poll p50/p99/max, polls a second,
#     null-call p99;
#   - the loop's housekeeping pass on a time-out (resurrection look, status
#     checks, retire, sleep computation), from vod's trace, measured
#     while nothing else runs;
#   - vod's resident memory and open descriptors;
#   - a slow D-blade: one copy's stream answers every incrcopyprogress 20 s
#     late (and vod is told that stream completed, so a worker asks it at
#     once) while the others are polled every 50 ms and null calls go out
#     every 50 ms: poll and null-call p99 and max;
#   - the cost of one poll inside vod beside what vod does for it, done bare
#     by the client: a port look-up, a client to the D-blade, one call;
#   - SIGKILL of vod with the N copies recorded, and the time until a new vod
#     knows them all.
# Then a new vod starts with R operations recorded in the VODB (no volumes
# behind them) and the restart, the housekeeping pass and the polls are
# measured again.
# Prints figures; never fails because a machine is slow.
#
# usage: bench/scale.sh [-n "100 300 1000"] [-r RECORDED] [-d SECONDS] [-t THREADS]
#                       [-V VOD] [BUILD_DIR]
#   -n  numbers of live copies (default "100 300 1000")
#   -r  operations recorded for the last restart (default 10000; 0: skip it)
#   -d  seconds of back-to-back polling per N (default 10)
#   -t  vod's worker threads (default 10, vod's own default)
#   -V  the vod binary to measure (default BUILD_DIR's), e.g. an older build
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind.
set -euo pipefail
. "$(dirname "$(realpath "$0")")/lib.sh"

counts="100 300 1000"
recorded=10000
secs=10
threads=10
vodbin=

if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "n:r:d:t:V:" opt; do
        case $opt in
            n) counts=$OPTARG ;;
            r) recorded=$OPTARG ;;
            d) secs=$OPTARG ;;
            t) threads=$OPTARG ;;
            V) vodbin=$(realpath "$OPTARG") ;;
            *) sed -n '25,33p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    (($# <= 1)) || { sed -n '25,33p' "$0" >&2; exit 2; }
    repo=$(cd "$(dirname "$0")/.." && pwd)
    dir=${1:-$repo/build-bench}
    bench_build "$repo" "$dir" vod voctl vodsim vodsimctl scale_load
    [[ -x $dir/bench/scale_load ]] || cmake --build "$dir" -j2 --target scale_load
    exec bash "$repo/scripts/node-sandbox.sh" bash "$(realpath "$0")" --in-sandbox \
        "$(realpath "$dir")" "$counts" "$recorded" "$secs" "$threads" "${vodbin:-$dir/volop/vod}"
fi

# From here on we are inside the node sandbox: everything started below dies with it.
shift
dir=$1 counts=$2 recorded=$3 secs=$4 threads=$5 vod=$6
voctl=$dir/voctl/voctl sim=$dir/sim/vodsim simctl=$dir/sim/vodsimctl load=$dir/bench/scale_load

# Each copy's source: one 512 KiB file, sent at 1 KiB/s, so that a stream
# lives for minutes: longer than the set-up of the largest N and its phases.
file_bytes=524288
speed_kibps=1
# vo_vod's events, warnings and fatal errors: the housekeeping figure and
# nothing that a poll or a null call writes.
event_mask=0x000010D0

work=$(mktemp -d /tmp/scale_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT

# value LINE NAME: NAME's value in a "phase name=value ..." line.
value() { sed -n "s/.* $2=\([^ ]*\).*/\1/p" <<<"$1"; }

# ok VALUE TARGET: "met" when VALUE < TARGET, else "NOT met".
ok() { awk -v v="$1" -v t="$2" 'BEGIN { print (v != "" && v + 0 < t + 0) ? "met" : "NOT met" }'; }

start_sim() {
    rm -rf "$work/sim"
    "$sim" --dir "$work/sim" --quiet >"$work/sim.log" 2>&1 &
    sim_pid=$!
    wait_for 20 "$simctl" --control "$work/sim/control.sock" ping ||
        { echo "scale: the simulator did not start" >&2; tail -n 20 "$work/sim.log" >&2; exit 1; }
}

simctl() { "$simctl" --control "$work/sim/control.sock" "$@"; }

start_vod() {
    "$vod" -d0 "-t$threads" >>"$work/vod.log" 2>&1 &
    vod_pid=$!
}

stop_all() {
    kill -9 "$vod_pid" 2>/dev/null || true
    wait "$vod_pid" 2>/dev/null || true
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
}

# Resident memory in MiB and open descriptors of vod.
memory() {
    local kb fds
    kb=$(awk '/^VmRSS:/ { print $2 }' "/proc/$vod_pid/status")
    fds=$(ls "/proc/$vod_pid/fd" | wc -l)
    awk -v kb="$kb" -v fds="$fds" 'BEGIN { printf "%.1f %d\n", kb / 1024, fds }'
}

# The housekeeping passes traced after line $1 of vod.log: "median max count" in ms.
housekeeping() {
    tail -n "+$(($1 + 1))" "$work/vod.log" | sed -n 's/.*housekeeping pass took \([0-9]*\) us.*/\1/p' |
        sort -n | awk '{ v[NR] = $1 } END {
            if (NR == 0) print "n/a n/a 0";
            else printf "%.2f %.2f %d\n", v[int((NR + 1) / 2)] / 1000, v[NR] / 1000, NR }'
}

printf 'vod %s, %s worker threads; streams at %s KiB/s; %s on %s cores\n' "$vod" "$threads" \
    "$speed_kibps" "$(cut -d' ' -f1-3 /proc/loadavg)" "$(nproc)"

for n in $counts; do
    : >"$work/vod.log"
    start_sim
    simctl stream-speed "$speed_kibps" >/dev/null
    start_vod
    wait_for 20 "$voctl" ping || { echo "scale: vod did not answer" >&2; exit 1; }
    setup=$("$load" setup "$work/sim/control.sock" "$n" 1 "$file_bytes" "$work/keys") ||
        { echo "scale: set-up of $n copies failed" >&2; tail -n 5 "$work/vod.log" >&2; stop_all; continue; }
    wait_for 300 bash -c "(( \$('$simctl' --control '$work/sim/control.sock' stream-list | grep -c .) >= $n ))" ||
        echo "scale: not every stream started" >&2
    "$voctl" trace-mask "$event_mask" >/dev/null

    echo
    echo "N = $n live copies (set-up: $(value "$setup" create_ms) ms for the volumes, $(value "$setup" copies_ms) ms for the copies)"
    busy=$("$load" load "$work/keys" "$secs" 1 0)
    read -r rss fds < <(memory)
    p99=$(value "$busy" poll_p99)
    target_poll="under 2 ms at 1000"
    printf '  %-34s p50 %s  p99 %s  max %s ms   target: p99 %s (%s)\n' "poll latency" \
        "$(value "$busy" poll_p50)" "$p99" "$(value "$busy" poll_max)" "$target_poll" \
        "$( ((n >= 1000)) && ok "$p99" 2 || echo "n/a below 1000")"
    printf '  %-34s %s\n' "polls per second" "$(value "$busy" polls_per_s)"
    printf '  %-34s p99 %s  max %s ms (%s calls, %s failed)\n' "null calls meanwhile" \
        "$(value "$busy" null_p99)" "$(value "$busy" null_max)" "$(value "$busy" null_calls)" \
        "$(value "$busy" failures)"

    # Quiet: every copy comes due for its status check once in 31 s.
    mark=$(wc -l <"$work/vod.log")
    sleep 31
    read -r hk_med hk_max hk_n < <(housekeeping "$mark")
    printf '  %-34s median %s  max %s ms (%s passes)   target: under 50 ms (%s)\n' \
        "housekeeping pass" "$hk_med" "$hk_max" "$hk_n" "$(ok "$hk_max" 50)"
    printf '  %-34s %s MiB   target: under 100 MiB (%s)\n' "vod resident memory" "$rss" "$(ok "$rss" 100)"
    printf '  %-34s %s\n' "vod open descriptors" "$fds"

    # One slow stream. The fault names it alone: every stream of the node is
    # run by vod's own D-blade.
    slow=$(awk 'NR == 1 { print $3 }' "$work/keys")
    simctl fault delay incrcopyprogress 20000 always --opid "$slow" >/dev/null
    "$load" notify "$slow"
    slowrun=$("$load" load "$work/keys" 35 1 50 "$slow")
    simctl fault clear incrcopyprogress >/dev/null
    printf '  %-34s p99 %s  max %s ms; polls of the others p99 %s  max %s ms   target: both under 100 ms (%s, %s)\n' \
        "slow D-blade: null calls" "$(value "$slowrun" null_p99)" "$(value "$slowrun" null_max)" \
        "$(value "$slowrun" poll_p99)" "$(value "$slowrun" poll_max)" \
        "$(ok "$(value "$slowrun" null_p99)" 100)" "$(ok "$(value "$slowrun" poll_p99)" 100)"

    cost=$("$load" cost "$work/keys" 300 "$slow")
    ratio=$(value "$cost" ratio)
    printf '  %-34s %s ms in vod (poll %s - null %s) vs bare %s ms: x%s   target: at most x1.25 (%s)\n' \
        "cost of one poll" "$(value "$cost" in_vod_p50)" "$(value "$cost" poll_p50)" \
        "$(value "$cost" null_p50)" "$(value "$cost" bare_p50)" "$ratio" "$(ok "$ratio" 1.2501)"
    printf '  %-34s port look-up %s, connect and client %s, call %s, destroy %s ms\n' \
        "  bare, by part (p50)" "$(value "$cost" lookup_p50)" "$(value "$cost" connect_p50)" \
        "$(value "$cost" call_p50)" "$(value "$cost" destroy_p50)"
    printf '  %-34s poll %s, bare %s ms (one at a time: the tail the node adds)\n' \
        "  p99 of the same" "$(value "$cost" poll_p99)" "$(value "$cost" bare_p99)"

    kill -9 "$vod_pid"
    wait "$vod_pid" 2>/dev/null || true
    t0=$(date +%s%N)
    start_vod
    restart=$("$load" wait "$work/keys" 120 "$t0" || true)
    printf '  %-34s %s of %s known after %s ms\n' "restart after SIGKILL" \
        "$(value "$restart" known)" "$n" "$(value "$restart" ms)"
    if [[ -z $(value "$restart" known) ]]; then
        echo "  (the new vod never knew them; its last lines:)"
        tail -n 5 "$work/vod.log" | sed 's/^/    /'
    fi
    stop_all
done

if ((recorded > 0)); then
    : >"$work/vod.log"
    start_sim
    # Copies recorded straight into the VODB table: source on lp1a, sink on
    # lp2a and op src, under operation ids the simulator never hands out.
    sqlite3 "$work/sim/vldb.sqlite" <<EOF
BEGIN;
WITH RECURSIVE i(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM i WHERE n < $recorded - 1)
INSERT INTO vodb(opid, optype, vfsid, lp, role)
    SELECT 1000000 + n, 1, 5000000 + 3 * n, X'010A0000000000000000000000000000', 1 FROM i
    UNION ALL SELECT 1000000 + n, 1, 5000001 + 3 * n, X'020A0000000000000000000000000000', 2 FROM i
    UNION ALL SELECT 1000000 + n, 1, 5000002 + 3 * n, X'010A0000000000000000000000000000', 3 FROM i;
INSERT OR REPLACE INTO meta(key, value) VALUES ('next_opid', 2000000),
    ('last_create_opid', 1000000 + $recorded - 1);
COMMIT;
EOF
    awk -v r="$recorded" 'BEGIN { for (n = 0; n < r; n++) print 5000000 + 3 * n, 5000001 + 3 * n, 1000000 + n }' \
        >"$work/keys"
    echo
    echo "$recorded operations recorded in the VODB ($(sqlite3 "$work/sim/vldb.sqlite" "SELECT COUNT(*) FROM vodb") records)"
    t0=$(date +%s%N)
    start_vod
    restart=$("$load" wait "$work/keys" 120 "$t0" || true)
    ms=$(value "$restart" ms)
    printf '  %-34s %s of %s known after %s ms   target: under 10000 ms (%s)\n' "start with them recorded" \
        "$(value "$restart" known)" "$recorded" "$ms" "$(ok "$ms" 10000)"
    "$voctl" trace-mask "$event_mask" >/dev/null
    mark=$(wc -l <"$work/vod.log")
    sleep 10
    read -r hk_med hk_max hk_n < <(housekeeping "$mark")
    printf '  %-34s median %s  max %s ms (%s passes)   target: under 50 ms (%s)\n' \
        "housekeeping pass" "$hk_med" "$hk_max" "$hk_n" "$(ok "$hk_max" 50)"
    busy=$("$load" load "$work/keys" "$secs" 1 0)
    read -r rss fds < <(memory)
    printf '  %-34s p50 %s  p99 %s  max %s ms, %s a second\n' "poll latency" \
        "$(value "$busy" poll_p50)" "$(value "$busy" poll_p99)" "$(value "$busy" poll_max)" \
        "$(value "$busy" polls_per_s)"
    printf '  %-34s %s MiB   target: under 100 MiB (%s)\n' "vod resident memory" "$rss" "$(ok "$rss" 100)"
    printf '  %-34s %s\n' "vod open descriptors" "$fds"
    stop_all
fi
echo
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
