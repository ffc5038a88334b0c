#!/usr/bin/env bash
# Moves a volume on the simulated cluster, once with the source quiet and once
# with a writer changing its files, and prints for each move: the passes and
# the whole move's time, the window during which the source was stopped for
# writes (from the final pass's stop to the id swap, as the simulated D-blade
# records it), and per pass the D-blade's streaming time beside vod's own time
# (from the end of one pass's stream to the start of the next one's).
# Prints figures; never fails because a machine is slow.
#
# usage: bench/move_bench.sh [-s SIZE_MIB] [-w CHANGES_PER_SEC] [-r ROUNDS] [BUILD_DIR]
#   -s  volume size in MiB (default 64), in 256 KiB files
#   -w  the writer's rate during the second move (default 10 changes a second)
#   -r  moves of each kind; every one is printed (default 2)
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind.
set -euo pipefail
. "$(dirname "$(realpath "$0")")/lib.sh"

size=64
rate=10
rounds=2

if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "s:w:r:" opt; do
        case $opt in
            s) size=$OPTARG ;;
            w) rate=$OPTARG ;;
            r) rounds=$OPTARG ;;
            *) sed -n '9,16p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    (($# <= 1)) || { sed -n '9,16p' "$0" >&2; exit 2; }
    repo=$(cd "$(dirname "$0")/.." && pwd)
    dir=${1:-$repo/build-bench}
    bench_build "$repo" "$dir" vod voctl vodsim vodsimctl
    exec bash "$repo/scripts/node-sandbox.sh" \
        bash "$(realpath "$0")" --in-sandbox "$(realpath "$dir")" "$size" "$rate" "$rounds"
fi

shift
dir=$1 size=$2 rate=$3 rounds=$4
vod=$dir/volop/vod voctl=$dir/voctl/voctl sim=$dir/sim/vodsim simctl=$dir/sim/vodsimctl
work=$(mktemp -d /tmp/move_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
sock=$work/sim/control.sock
simctl() { "$simctl" --control "$sock" "$@"; }


bench_node move_bench "$dir" "$work" 2

# Seconds since midnight of a trace line's time.
trace_secs() { awk '{ split($4, t, ":"); printf "%.3f\n", t[1] * 3600 + t[2] * 60 + t[3] }'; }

# Per pass of opid, from vod's trace: the stream's time (started, to the
# D-blade's completion notice) and vod's own time before it (the previous
# pass's notice, or the request, to this stream's start).
pass_table() {
    local opid=$1 t0=$2
    grep -E "opid=$opid (incrcopymirror_1|incrcopymove_1) succeeded|call concludeDbladeIncrCopy\(\) for opid=$opid\$" \
        "$work/vod.log" | awk -v t0="$t0" '
        { split($4, t, ":"); s = t[1] * 3600 + t[2] * 60 + t[3] }
        /succeeded/ { start = s; vodms = (s - prev) * 1000; final = ($0 ~ /incrcopymove/) }
        /concludeDbladeIncrCopy/ { if (start) {
            printf "    pass %d%s  stream %7.1f ms  vod %7.1f ms\n", n++, final ? " (final)" : "        ",
                (s - start) * 1000, vodms; prev = s; start = 0 } }
        BEGIN { prev = t0; n = 0 }'
}

move_once() {
    local label=$1 vfs=$2 from=$3 to=$4
    local t0 t1 opid passes stopped
    t0=$(date +%s.%N)
    local t0day
    t0day=$(date +%H:%M:%S.%N | awk '{ split($1, t, ":"); printf "%.3f", t[1] * 3600 + t[2] * 60 + t[3] }')
    if ! "$voctl" --json move "$vfs" "$from" "$to" --interval 0.01 >"$work/move.out" 2>"$work/move.err"; then
        echo "move_bench: the move failed:" >&2
        tail -n 3 "$work/move.err" >&2
        return 1
    fi
    t1=$(date +%s.%N)
    opid=$(simctl move-stats --json | sed -n 's/.*"opid":\([0-9]*\).*/\1/p' | tail -n1)
    stopped=$(simctl move-stats | tail -n1 | sed -n 's/.*stopped-ms=\([0-9.]*\).*/\1/p')
    passes=$(pass_table "$opid" "$t0day" | wc -l)
    printf '  %-12s %2d passes  total %8.1f ms  source stopped %7s ms\n' "$label" "$passes" \
        "$(awk -v a="$t0" -v b="$t1" 'BEGIN { print (b - a) * 1000 }')" "${stopped:-n/a}"
    pass_table "$opid" "$t0day"
}

files=$((size * 4))
# A fresh volume of the size on lp1a: vod moves volumes of its own D-blade.
fresh() {
    local vfs
    # Run in a subshell by $(...): the name comes from the caller.
    vfs=$("$voctl" --json create "bench$1" lp1a vs1 | sed -n 's/.*"vfsid":\([0-9]*\).*/\1/p')
    simctl vol-fill "$vfs" lp1a --files "$files" --size 262144 >/dev/null
    echo "$vfs"
}

printf 'move of a %s MiB volume (%s files), lp1a (D-blade 1) -> lp2a (D-blade 2)\n' "$size" "$files"
for ((r = 1; r <= rounds; r++)); do
    vfs=$(fresh "$RANDOM$r")
    sum=$(simctl vol-checksum "$vfs" lp1a)
    move_once "quiet" "$vfs" lp1a lp2a || exit 1
    [[ $(simctl vol-checksum "$vfs" lp2a) == "$sum" ]] ||
        echo "move_bench: the moved volume differs from its source" >&2
done
# The writer changes 4 KiB files of its own; the passes must catch up with it.
for ((r = 1; r <= rounds; r++)); do
    vfs=$(fresh "$RANDOM$r")
    simctl writer start "$vfs" lp1a "$rate" --files 10 >/dev/null
    move_once "writer $rate/s" "$vfs" lp1a lp2a || exit 1
    simctl writer stop "$vfs" lp1a >/dev/null 2>&1 || true
done
echo "(stream: the pass's stream start to the D-blade's completion notice; vod: the notice of the"
echo " pass before, or the request, to this pass's stream start; the source is stopped from the"
echo " final pass's stop of writes to the id swap, as the D-blade records it)"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
