# Pieces the benchmark scripts share; sourced, never run.

# bench_build REPO DIR TARGET...: builds the targets into DIR (Release) when
# one of vod, voctl, vodsim or vodsimctl is missing there.
bench_build() {
    local repo=$1 dir=$2 b
    shift 2
    for b in "$dir/volop/vod" "$dir/voctl/voctl" "$dir/sim/vodsim" "$dir/sim/vodsimctl"; do
        if [[ ! -x $b ]]; then
            if [[ ! -f $dir/CMakeCache.txt ]]; then
                cmake -S "$repo" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOD_TESTS=OFF
            fi
            cmake --build "$dir" -j2 --target "$@"
            return
        fi
    done
}

# wait_for SECONDS CMD...: until CMD succeeds; false after SECONDS.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < deadline)) || return 1
        sleep 0.05
    done
}

# Median of the numbers given.
median() {
    printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END {
        if (NR == 0) print "n/a"; else if (NR % 2) print v[(NR + 1) / 2];
        else printf "%.1f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

# bench_node NAME DIR WORK PRESET: the simulator (data in WORK/sim) and vod
# (trace preset PRESET, output in WORK/vod.log) from build DIR, both waited
# for; exits with their output when either does not come up.
bench_node() {
    local name=$1 dir=$2 work=$3 preset=$4
    "$dir/sim/vodsim" --dir "$work/sim" --quiet >"$work/sim.log" 2>&1 &
    wait_for 20 "$dir/sim/vodsimctl" --control "$work/sim/control.sock" ping ||
        { echo "$name: the simulator did not start" >&2; tail -n 20 "$work/sim.log" >&2; exit 1; }
    "$dir/volop/vod" "-d$preset" >"$work/vod.log" 2>&1 &
    wait_for 20 "$dir/voctl/voctl" ping ||
        { echo "$name: vod did not answer" >&2; tail -n 20 "$work/vod.log" >&2; exit 1; }
}
