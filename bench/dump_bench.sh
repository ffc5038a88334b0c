#!/usr/bin/env bash
# Dumps a volume to a file and restores it into a new volume through voctl,
# and copies the same bytes over a plain loopback TCP connection in the same
# run, so that what the dump path costs beside the wire is visible. Prints
# figures; never fails because a machine is slow.
#
# usage: bench/dump_bench.sh [-m MIB] [-r ROUNDS] [BUILD_DIR]
#   -m  the volume's size in MiB (default 64), in 256 KiB files
#   -r  rounds; the median is printed (default 3)
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind.
set -euo pipefail
. "$(dirname "$(realpath "$0")")/lib.sh"

mib=64
rounds=3
if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "m:r:" opt; do
        case $opt in
            m) mib=$OPTARG ;;
            r) rounds=$OPTARG ;;
            *) sed -n '8,12p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    repo=$(cd "$(dirname "$0")/.." && pwd)
    dir=${1:-$repo/build-bench}
    bench_build "$repo" "$dir" vod voctl vodsim vodsimctl tcp_copy
    [[ -x $dir/bench/tcp_copy ]] || cmake --build "$dir" -j2 --target tcp_copy
    exec bash "$repo/scripts/node-sandbox.sh" \
        bash "$(realpath "$0")" --in-sandbox "$(realpath "$dir")" "$mib" "$rounds"
fi

shift
dir=$1 mib=$2 rounds=$3
voctl=$dir/voctl/voctl simctl=$dir/sim/vodsimctl
work=$(mktemp -d /tmp/dump_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
sock=$work/sim/control.sock
mkdir -p "$work/sim"
bench_node dump_bench "$dir" "$work" 0

ms_since() { awk -v a="$1" -v b="$(date +%s%N)" 'BEGIN { printf "%.1f", (b - a) / 1e6 }'; }
rate() { awk -v b="$1" -v ms="$2" 'BEGIN { printf "%.1f", b / 1048576 / (ms / 1000) }'; }

vfs=$("$voctl" --json create bench lp1a vs1 | sed -n 's/.*"vfsid":\([0-9]*\).*/\1/p')
"$simctl" --control "$sock" vol-fill "$vfs" lp1a --files $((mib * 4)) --size 262144 >/dev/null
sum=$("$simctl" --control "$sock" vol-checksum "$vfs" lp1a)

dumps=() restores=() raws=()
bytes=0
for ((r = 1; r <= rounds; r++)); do
    t0=$(date +%s%N)
    "$voctl" dump "$vfs" "$work/full.dump" >/dev/null 2>"$work/err" ||
        { echo "dump_bench: the dump failed:" >&2; cat "$work/err" >&2; exit 1; }
    dumps+=("$(ms_since "$t0")")
    bytes=$(stat -c %s "$work/full.dump")
    t0=$(date +%s%N)
    "$voctl" --json restore "$work/full.dump" --create "restored$r" lp1b >"$work/restore.out" \
        2>"$work/err" || { echo "dump_bench: the restore failed:" >&2; cat "$work/err" >&2; exit 1; }
    restores+=("$(ms_since "$t0")")
    rvfs=$(sed -n 's/.*"vfsid":\([0-9]*\).*/\1/p' "$work/restore.out")
    [[ $("$simctl" --control "$sock" vol-checksum "$rvfs" lp1b) == "$sum" ]] ||
        echo "dump_bench: the restored volume differs from its source" >&2
    raw=$("$dir/bench/tcp_copy" "$work/full.dump" "$work/raw.copy")
    raws+=("$(sed -n 's/.* ms=\([0-9.]*\).*/\1/p' <<<"$raw")")
done
d=$(median "${dumps[@]}") rs=$(median "${restores[@]}") raw=$(median "${raws[@]}")
printf 'a %s MiB volume (%s files), dump file %s bytes; median of %s rounds\n' \
    "$mib" $((mib * 4)) "$bytes" "$rounds"
printf '%-34s %10s %10s %22s\n' "" "ms" "MiB/s" "ratio to raw TCP copy"
printf '%-34s %10s %10s %22s\n' "raw loopback TCP copy, file to file" "$raw" "$(rate "$bytes" "$raw")" "1.00"
printf '%-34s %10s %10s %22s\n' "voctl dump (to a file)" "$d" "$(rate "$bytes" "$d")" \
    "$(awk -v a="$d" -v b="$raw" 'BEGIN { printf "%.2f", a / b }')"
printf '%-34s %10s %10s %22s\n' "voctl restore --create (from it)" "$rs" "$(rate "$bytes" "$rs")" \
    "$(awk -v a="$rs" -v b="$raw" 'BEGIN { printf "%.2f", a / b }')"
echo "(end to end: voctl's start-up, the cookie, vod's records, the D-blade's stream, vod's"
echo " wind-up; the ratio is time over the raw copy's time: 1.00 would be the wire alone)"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
