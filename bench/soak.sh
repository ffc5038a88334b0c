#!/usr/bin/env bash
# Soak: copies a small volume and deletes the copy, again and again, a few at
# a time, against the simulated cluster, and watches whether vod or the
# simulator grows. After every thousand operations (a copy and a delete
# count one each), with the threads idle, it prints the resident memory
# (VmRSS) and open descriptors of vod and of the simulator, and the time so
# far. Every operation is checked: a copy must end copied, a delete answer
# success; a failure is printed as it happens and counted.
#
# The simulator's call log (the last 100,000 calls, kept for the crash
# matrix) is emptied before each reading: filling it is not growth.
#
# Flat, for each of the four figures: the last reading is at most the
# reading after the first thousand operations (the warm-up: caches, the
# allocator's arenas and the connections vod keeps are filled by then)
# plus a margin:
#   - descriptors: 2 (a connection vod keeps or drops at that moment); a
#     descriptor left per client or per operation would be thousands;
#   - resident memory: 2 MiB or 5 % of the reading, whichever is more; a
#     leak of 128 bytes per operation over the run's 19,000 after the
#     warm-up passes that.
# Exits 1 when an operation failed, a figure did not stay flat, or
# operations or volumes are left behind at the end; 0 otherwise.
#
# usage: bench/soak.sh [-n OPERATIONS] [-c CONCURRENT] [BUILD_DIR]
#   -n  operations in all, copies and deletes (default 20000: 10,000 of each)
#   -c  copies (each followed by its delete) at a time (default 4)
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind.
set -euo pipefail
. "$(dirname "$(realpath "$0")")/lib.sh"

ops=20000
concurrent=4

if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "n:c:" opt; do
        case $opt in
            n) ops=$OPTARG ;;
            c) concurrent=$OPTARG ;;
            *) sed -n '25,30p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    (($# <= 1)) || { sed -n '25,30p' "$0" >&2; exit 2; }
    repo=$(cd "$(dirname "$0")/.." && pwd)
    dir=${1:-$repo/build-bench}
    bench_build "$repo" "$dir" vod voctl vodsim vodsimctl soak_load
    [[ -x $dir/bench/soak_load ]] || cmake --build "$dir" -j2 --target soak_load
    exec bash "$repo/scripts/node-sandbox.sh" bash "$(realpath "$0")" --in-sandbox \
        "$(realpath "$dir")" "$ops" "$concurrent"
fi

# From here on we are inside the node sandbox: everything started below dies with it.
shift
dir=$1 ops=$2 concurrent=$3
simctl=$dir/sim/vodsimctl

work=$(mktemp -d /tmp/soak.XXXXXX)
trap 'rm -rf "$work"' EXIT
bench_node soak "$dir" "$work" 0
vod_pid=$(pgrep -x vod)
sim_pid=$(pgrep -x vodsim)
simctl() { "$simctl" --control "$work/sim/control.sock" "$@"; }

printf 'soak: %s operations (copies lp1a -> lp2a, each then deleted), %s at a time; %s on %s cores\n' \
    "$ops" "$concurrent" "$(cut -d' ' -f1-3 /proc/loadavg)" "$(nproc)"
printf '%8s %9s %12s %8s %14s %9s %9s\n' operations elapsed "vod RSS KiB" "vod fds" \
    "vodsim RSS KiB" "vodsim fds" failures
set +e
"$dir/bench/soak_load" "$ops" "$concurrent" "$vod_pid" "$sim_pid" "$work/sim/control.sock" 2>&1 |
    tee "$work/load.out" | while read -r line; do
    case $line in
        reading*)
            # "reading ops=N elapsed_s=S vod_rss_kb=... sim_fds=F failures=X skipped=Y"
            set -- $line
            printf '%8s %8ss %12s %8s %14s %9s %9s\n' "${2#*=}" "${3#*=}" "${4#*=}" "${5#*=}" \
                "${6#*=}" "${7#*=}" "${8#*=}"
            ;;
        done*) ;;
        *) echo "  $line" ;;
    esac
done
status=${PIPESTATUS[0]}
set -e
((status == 0 || status == 1)) || { echo "soak: the driver stopped (status $status)" >&2; exit 1; }
summary=$(grep '^done' "$work/load.out" || true)

# What the run left: no VODB record, no stream the simulator still keeps, no
# copy in the VLDB, and on the D-blades only the sources (no clone, no sink).
leftover_ops=$(simctl vodb | awk '$1 ~ /^[0-9]+$/' | wc -l)
streams=$(simctl stream-list | grep -c . || true)
sinks=$(simctl vldb | grep -c ' soak[0-9]' || true)
volumes=$(simctl vol-list | grep -c . || true)
extra=$((volumes - concurrent))

verdict=$(grep '^reading' "$work/load.out" | awk '
    function field(name,   i) { for (i = 2; i <= NF; i++) if (index($i, name "=") == 1)
                                     return substr($i, length(name) + 2) + 0 }
    function flat(label, first, last, margin) {
        ok = last <= first + margin
        printf "  %-22s %10d -> %10d (margin %d): %s\n", label, first, last, margin,
            ok ? "flat" : "GREW"
        return ok
    }
    function rssMargin(v) { return v * 0.05 > 2048 ? int(v * 0.05) : 2048 }
    NR == 1 { vr = field("vod_rss_kb"); vf = field("vod_fds"); sr = field("sim_rss_kb"); sf = field("sim_fds") }
    { lvr = field("vod_rss_kb"); lvf = field("vod_fds"); lsr = field("sim_rss_kb"); lsf = field("sim_fds") }
    END {
        if (NR < 2) { print "  too few readings to judge"; print "VERDICT 1"; exit }
        all = flat("vod RSS KiB", vr, lvr, rssMargin(vr))
        all = flat("vod descriptors", vf, lvf, 2) && all
        all = flat("vodsim RSS KiB", sr, lsr, rssMargin(sr)) && all
        all = flat("vodsim descriptors", sf, lsf, 2) && all
        print "VERDICT " (all ? 0 : 1)
    }')
echo
echo "from the reading after the first thousand to the last:"
grep -v '^VERDICT' <<<"$verdict"
flat=$(sed -n 's/^VERDICT //p' <<<"$verdict")

failures=$(sed -n 's/.* failures=\([0-9]*\).*/\1/p' <<<"${summary:-}")
elapsed=$(sed -n 's/.* elapsed_s=\([0-9.]*\).*/\1/p' <<<"${summary:-}")
echo "operations failed: ${failures:-unknown} ($(sed -n 's/.* skipped=\([0-9]*\).*/\1/p' <<<"${summary:-}") deletes skipped); time: ${elapsed:-?} s"
echo "left behind: $leftover_ops VODB records, $streams streams, $sinks copies in the VLDB, $extra volumes besides the sources"
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
if [[ ${failures:-x} != 0 || $flat != 0 || $leftover_ops != 0 || $streams != 0 || $sinks != 0 ||
      $extra != 0 ]]; then
    echo "soak: NOT flat or not clean"
    exit 1
fi
echo "soak: flat and clean"
