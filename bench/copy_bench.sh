#!/usr/bin/env bash
# Copies volumes of a few sizes on the simulated cluster and prints, for each,
# the end-to-end time of `voctl copy` (from the start to the final report)
# next to the time the simulated D-blade spent streaming, so that what vod
# itself adds to a copy (set-up, conclusion, polling) is visible.
# Prints figures; never fails because a machine is slow.
#
# usage: bench/copy_bench.sh [-s "SIZES_MIB"] [-r ROUNDS] [-i SECONDS] [BUILD_DIR]
#   -s  volume sizes in MiB (default "1 16 64"), in 256 KiB files
#   -r  copies of each size; the median is printed (default 3)
#   -i  voctl's poll interval: the end of a copy is seen at most this late
#       (default 0.01)
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind.
set -euo pipefail
. "$(dirname "$(realpath "$0")")/lib.sh"

sizes="1 16 64"
rounds=3
interval=0.01

if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "s:r:i:" opt; do
        case $opt in
            s) sizes=$OPTARG ;;
            r) rounds=$OPTARG ;;
            i) interval=$OPTARG ;;
            *) sed -n '8,16p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    (($# <= 1)) || { sed -n '8,16p' "$0" >&2; exit 2; }
    repo=$(cd "$(dirname "$0")/.." && pwd)
    dir=${1:-$repo/build-bench}
    bins=("$dir/volop/vod" "$dir/voctl/voctl" "$dir/sim/vodsim" "$dir/sim/vodsimctl"
          "$dir/bench/stream_timer")
    for b in "${bins[@]}"; do
        if [[ ! -x $b ]]; then
            if [[ ! -f $dir/CMakeCache.txt ]]; then
                cmake -S "$repo" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOD_TESTS=OFF
            fi
            cmake --build "$dir" -j2 --target vod voctl vodsim vodsimctl stream_timer
            break
        fi
    done
    exec bash "$repo/scripts/node-sandbox.sh" \
        bash "$(realpath "$0")" --in-sandbox "$(realpath "$dir")" "$sizes" "$rounds" "$interval"
fi

# From here on we are inside the node sandbox (loopback only, private /run and
# /var/log, its own rpcbind): everything started below dies with it.
shift
dir=$1 sizes=$2 rounds=$3 interval=$4
vod=$dir/volop/vod voctl=$dir/voctl/voctl sim=$dir/sim/vodsim simctl=$dir/sim/vodsimctl
timer=$dir/bench/stream_timer

# The volumes are real files: keep them on disk, not in memory.
work=$(mktemp -d /tmp/copy_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
sock=$work/sim/control.sock


ms_between() {
    awk -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", (b - a) / 1e6 }'
}


"$sim" --dir "$work/sim" --quiet >"$work/sim.log" 2>&1 &
wait_for 20 "$simctl" --control "$sock" ping ||
    { echo "copy_bench: the simulator did not start" >&2; tail -n 20 "$work/sim.log" >&2; exit 1; }
# Trace preset 0: only vod's own warnings, so tracing costs next to nothing.
"$vod" -d0 >"$work/vod.log" 2>&1 &
wait_for 20 "$voctl" ping ||
    { echo "copy_bench: vod did not answer" >&2; tail -n 20 "$work/vod.log" >&2; exit 1; }

printf 'copy lp1a (D-blade 1) -> lp2a (D-blade 2); median of %s; voctl polls every %s s\n' \
    "$rounds" "$interval"
printf '%8s %6s %15s %11s %17s %10s %13s\n' size files "end-to-end ms" "stream ms" \
    "vod overhead ms" "set-up ms" "conclusion ms"
for mib in $sizes; do
    files=$((mib * 4))
    vfs=$("$voctl" --json create "bench$mib" lp1a vs1 | sed -n 's/.*"vfsid":\([0-9]*\).*/\1/p')
    [[ -n $vfs ]] || { echo "copy_bench: cannot create a $mib MiB volume" >&2; continue; }
    "$simctl" --control "$sock" vol-fill "$vfs" lp1a --files "$files" --size 262144 >/dev/null
    sum=$("$simctl" --control "$sock" vol-checksum "$vfs" lp1a)
    e2e=() stream=() overhead=() setup=() conclusion=()
    for ((r = 1; r <= rounds; r++)); do
        "$timer" "$sock" 300 >"$work/timer" &
        timer_pid=$!
        wait_for 10 grep -q ready "$work/timer"
        t0=$(date +%s%N)
        if ! "$voctl" --json copy "$vfs" lp1a lp2a "bench$mib-$r" --interval "$interval" \
            >"$work/copy.out" 2>"$work/copy.err"; then
            echo "copy_bench: the copy of $mib MiB failed:" >&2
            tail -n 3 "$work/copy.err" >&2
            kill "$timer_pid" 2>/dev/null || true
            continue
        fi
        t1=$(date +%s%N)
        wait "$timer_pid" || true
        ms=$(sed -n 's/^opid=[0-9]* ms=\([0-9.]*\).*/\1/p' "$work/timer")
        s0=$(sed -n 's/.* start_ns=\([0-9]*\).*/\1/p' "$work/timer")
        s1=$(sed -n 's/.* end_ns=\([0-9]*\).*/\1/p' "$work/timer")
        sink=$(head -n1 "$work/copy.out" | sed -n 's/.*"sinkVfsid":\([0-9]*\).*/\1/p')
        if [[ -n $sink && $("$simctl" --control "$sock" vol-checksum "$sink" lp2a) != "$sum" ]]; then
            echo "copy_bench: the $mib MiB copy differs from its source" >&2
        fi
        total=$(ms_between "$t0" "$t1")
        e2e+=("$total")
        if [[ -n $ms ]]; then
            stream+=("$ms")
            overhead+=("$(awk -v a="$total" -v b="$ms" 'BEGIN { printf "%.1f", a - b }')")
            setup+=("$(ms_between "$t0" "$s0")")
            conclusion+=("$(ms_between "$s1" "$t1")")
        fi
    done
    printf '%4s MiB %6d %15s %11s %17s %10s %13s\n' "$mib" "$files" "$(median "${e2e[@]}")" \
        "$(median "${stream[@]}")" "$(median "${overhead[@]}")" "$(median "${setup[@]}")" \
        "$(median "${conclusion[@]}")"
done
echo "(per copy, overhead = end-to-end - stream = set-up + conclusion; set-up runs from voctl's start to the"
echo " stream's first sighting and includes voctl's own start-up; conclusion runs from the stream's"
echo " end to voctl's exit and includes up to one poll interval)"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
