#!/usr/bin/env bash
# Mirrors a volume to one, two and three destinations on the simulated
# cluster and prints each mirror's end-to-end time next to one copy of the
# same volume, with the ratio of the mirror to as many copies as it has
# destinations: one stream feeding several sinks should cost far less than
# one copy per sink.
# Prints figures; never fails because a machine is slow.
#
# usage: bench/mirror_bench.sh [-s SIZE_MIB] [-r ROUNDS] [BUILD_DIR]
#   -s  volume size in MiB (default 64), in 256 KiB files
#   -r  rounds of each; the median is printed (default 3)
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind.
set -euo pipefail
. "$(dirname "$(realpath "$0")")/lib.sh"

size=64
rounds=3

if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "s:r:" opt; do
        case $opt in
            s) size=$OPTARG ;;
            r) rounds=$OPTARG ;;
            *) sed -n '9,14p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    (($# <= 1)) || { sed -n '9,14p' "$0" >&2; exit 2; }
    repo=$(cd "$(dirname "$0")/.." && pwd)
    dir=${1:-$repo/build-bench}
    bench_build "$repo" "$dir" vod voctl vodsim vodsimctl
    exec bash "$repo/scripts/node-sandbox.sh" \
        bash "$(realpath "$0")" --in-sandbox "$(realpath "$dir")" "$size" "$rounds"
fi

shift
dir=$1 size=$2 rounds=$3
vod=$dir/volop/vod voctl=$dir/voctl/voctl sim=$dir/sim/vodsim simctl=$dir/sim/vodsimctl
work=$(mktemp -d /tmp/mirror_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
sock=$work/sim/control.sock
simctl() { "$simctl" --control "$sock" "$@"; }

ms_since() { awk -v a="$1" -v b="$(date +%s%N)" 'BEGIN { printf "%.1f", (b - a) / 1e6 }'; }

bench_node mirror_bench "$dir" "$work" 0

files=$((size * 4))
# A fresh source volume of the size, on lp1a; its VFS id.
fresh() {
    local vfs
    # Run in a subshell by $(...): the name comes from the caller.
    vfs=$("$voctl" --json create "bench$1" lp1a vs1 | sed -n 's/.*"vfsid":\([0-9]*\).*/\1/p')
    simctl vol-fill "$vfs" lp1a --files "$files" --size 262144 >/dev/null
    echo "$vfs"
}

copies=()
for ((r = 1; r <= rounds; r++)); do
    vfs=$(fresh "$RANDOM$r")
    t0=$(date +%s%N)
    "$voctl" --json copy "$vfs" lp1a lp2a "bench$vfs.copy" --interval 0.01 >/dev/null
    copies+=("$(ms_since "$t0")")
done
copy=$(median "${copies[@]}")

printf 'a %s MiB volume (%s files) on lp1a (D-blade 1); median of %s\n' "$size" "$files" "$rounds"
printf '%-28s %12s %22s\n' "" "ms" "ratio to N copies"
printf '%-28s %12s %22s\n' "one copy to lp2a" "$copy" "-"
dests=(lp2a lp2b lp1b)
for k in 1 2 3; do
    times=()
    for ((r = 1; r <= rounds; r++)); do
        vfs=$(fresh "$RANDOM$r")
        t0=$(date +%s%N)
        "$voctl" --json mirror "$vfs" lp1a "${dests[@]:0:k}" --interval 0.01 >/dev/null
        times+=("$(ms_since "$t0")")
    done
    t=$(median "${times[@]}")
    printf '%-28s %12s %22s\n' "mirror to ${dests[*]:0:k}" "$t" \
        "$(awk -v m="$t" -v c="$copy" -v k="$k" 'BEGIN { printf "%.2f", m / (k * c) }')"
done
echo "(end to end through voctl: the request, the op src clone, the op sinks, one stream for every"
echo " destination, the id changes and the clean-up; a first mirror on each destination)"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
