#!/usr/bin/env bash
# Compares vod's VOPROG call rates over one connection with those of a bare
# server generated from the same protocol file, and reports vod's idle memory.
# Prints figures; never fails because a machine is slow.
#
# usage: bench/run_rpc_bench.sh [-t SECONDS] [-r ROUNDS] [-n] [BUILD_DIR]
#        bench/run_rpc_bench.sh [-t SECONDS] [-r ROUNDS] [-n] VOD BARE_SERVER RPC_BENCH
#   -t  seconds of each timed loop (default 3)
#   -r  rounds; vod and the bare server take turns and the best round counts (default 3)
#   -n  no stand-ins for the node's VLDB and D-blade programs: vod then retries
#       its start-up pass after every request, as on a node whose VLDB is down
# BUILD_DIR defaults to build-bench in the repository; missing binaries are
# built there (Release). Needs root: everything runs in a private network,
# mount and PID namespace with its own rpcbind, and vod takes port 908 there.
set -euo pipefail

seconds=3
rounds=3
standins=1

if [[ "${1:-}" != --in-sandbox ]]; then
    while getopts "t:r:n" opt; do
        case $opt in
            t) seconds=$OPTARG ;;
            r) rounds=$OPTARG ;;
            n) standins=0 ;;
            *) sed -n '5,14p' "$0" >&2; exit 2 ;;
        esac
    done
    shift $((OPTIND - 1))
    repo=$(cd "$(dirname "$0")/.." && pwd)
    if [[ $# -eq 3 ]]; then
        vod=$1 bare=$2 client=$3
    elif [[ $# -le 1 ]]; then
        dir=${1:-$repo/build-bench}
        vod=$dir/volop/vod bare=$dir/bench/bare_server client=$dir/bench/rpc_bench
        if [[ ! -x $vod || ! -x $bare || ! -x $client ]]; then
            if [[ ! -f $dir/CMakeCache.txt ]]; then
                cmake -S "$repo" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOD_TESTS=OFF
            fi
            cmake --build "$dir" -j2 --target vod bare_server rpc_bench
        fi
    else
        sed -n '5,14p' "$0" >&2
        exit 2
    fi
    for b in "$vod" "$bare" "$client"; do
        [[ -x $b ]] || { echo "run_rpc_bench: $b is not an executable" >&2; exit 2; }
    done
    exec bash "$repo/scripts/node-sandbox.sh" \
        bash "$(realpath "$0")" --in-sandbox "$(realpath "$vod")" "$(realpath "$bare")" \
        "$(realpath "$client")" "$seconds" "$rounds" "$standins"
fi

# From here on we are inside the node sandbox (loopback only, private /run and
# /var/log, its own rpcbind): everything started below dies with it.
shift
vod=$1 bare=$2 client=$3 seconds=$4 rounds=$5 standins=$6
vod_port=908

work=/run/bench
mkdir -p "$work"

# Polls a command until it succeeds or the deadline (seconds) passes.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < deadline)) || return 1
        sleep 0.05
    done
}

# Port printed by a bare server on its first line of output.
port_of() {
    wait_for 5 test -s "$1" && head -n1 "$1"
}

rss_kib() {
    awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null || echo 0
}

us() {
    awk -v n="$1" 'BEGIN { printf "%.1f", n / 1000 }'
}

mib() {
    awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'
}


if ((standins)); then
    "$bare" -s >"$work/standin.port" 2>"$work/standin.err" &
    port_of "$work/standin.port" >/dev/null ||
        { echo "run_rpc_bench: stand-ins did not start" >&2; cat "$work/standin.err" >&2; exit 1; }
fi

"$vod" -d0 >"$work/vod.log" 2>&1 &
vod_pid=$!
if ! "$client" -w 10 "$vod_port"; then
    echo "run_rpc_bench: vod did not answer on port $vod_port; its output:" >&2
    tail -n 20 "$work/vod.log" >&2
    exit 1
fi
sleep 1
vod_idle_kib=$(rss_kib "$vod_pid")

"$bare" >"$work/bare.port" 2>"$work/bare.err" &
bare_pid=$!
bare_port=$(port_of "$work/bare.port") ||
    { echo "run_rpc_bench: the bare server did not start" >&2; cat "$work/bare.err" >&2; exit 1; }
"$client" -w 10 "$bare_port" || { echo "run_rpc_bench: the bare server did not answer" >&2; exit 1; }

# CPU time in ns of every thread of a process: unlike the call rates, this
# hardly moves when other work on the machine competes for the cores.
cpu_ns() {
    cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{ t += $1 } END { printf "%.0f", t }'
}

# Best of the rounds: other load on the machine only ever slows a round down,
# or makes a call cost more CPU (cold caches), never the other way.
declare -A rate cpu
measure() {
    local server=$1 port=$2 pid=$3 proc=$4 key=$1.$4 before after r calls
    if ! kill -0 "$pid" 2>/dev/null; then
        echo "run_rpc_bench: $server has exited" >&2
        return 0
    fi
    before=$(cpu_ns "$pid")
    if ! "$client" -t "$seconds" -p "$proc" "$port" >"$work/rates" 2>"$work/rates.err"; then
        echo "run_rpc_bench: $proc calls to $server failed:" >&2
        cat "$work/rates.err" >&2
        return 0
    fi
    after=$(cpu_ns "$pid")
    read -r _ r calls <"$work/rates"
    ((r > ${rate[$key]:-0})) && rate[$key]=$r
    ((calls > 0)) || return 0
    r=$(((after - before) / calls))
    ((${cpu[$key]:-0} == 0 || r < cpu[$key])) && cpu[$key]=$r
    return 0
}
for ((i = 0; i < rounds; i++)); do
    for proc in null decodeerror; do
        if ((i % 2 == 0)); then
            measure vod "$vod_port" "$vod_pid" $proc; measure bare "$bare_port" "$bare_pid" $proc
        else
            measure bare "$bare_port" "$bare_pid" $proc; measure vod "$vod_port" "$vod_pid" $proc
        fi
    done
done
sleep 1
vod_after_kib=$(rss_kib "$vod_pid")

ratio() {
    awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "n/a" }'
}
for proc in null decodeerror; do
    printf '%-21s vod %6d   bare %6d   ratio %s   (target >= 0.90)\n' "$proc calls/s:" \
        "${rate[vod.$proc]:-0}" "${rate[bare.$proc]:-0}" \
        "$(ratio "${rate[vod.$proc]:-0}" "${rate[bare.$proc]:-0}")"
done
# The same comparison from the servers' side: bare CPU per call over vod's,
# the figure to trust when the machine is busy.
for proc in null decodeerror; do
    printf '%-21s vod %6s   bare %6s   ratio %s   (server CPU us per call)\n' "$proc CPU/call:" \
        "$(us "${cpu[vod.$proc]:-0}")" "$(us "${cpu[bare.$proc]:-0}")" \
        "$(ratio "${cpu[bare.$proc]:-0}" "${cpu[vod.$proc]:-0}")"
done
printf 'vod idle RSS: %s MiB (target < 20 MiB); after the calls: %s MiB\n' \
    "$(mib "$vod_idle_kib")" "$(mib "$vod_after_kib")"
# Rates swing with other load on the cores; say how much there was.
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
((standins)) || echo "(no stand-ins: until its start-up pass can make its clients, vod retries it after every request)"
