#!/usr/bin/env bash
# Builds the fuzz targets (fuzz/*_fuzz.cc) with clang, libFuzzer, ASan and
# UBSan in build-fuzz/, then runs each, one after another, for
# SECONDS-PER-TARGET (10 by default) on a fresh copy of its seed corpus
# (fuzz/corpus/<target>/). FUZZ_RUNS=N also stops each target after N
# executions, whichever comes first. A crash, leak, time-out or failed
# property leaves its input in build-fuzz/artifacts/ and the target's log in
# build-fuzz/logs/.
#
# Prints one line per target, then, as its last line:
#   fuzz: N targets, E execs, C crashes
# (C: targets that found a crash). Exits non-zero when C > 0.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VOD_FUZZ_BUILD:-$ROOT/build-fuzz}
SECONDS_PER_TARGET=${1:-10}
if ! [[ $SECONDS_PER_TARGET =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: fuzz.sh [SECONDS-PER-TARGET]" >&2
  exit 2
fi

bash "$ROOT/scripts/install-deps.sh" fuzz
# Debug keeps the daemon's asserts; -O1 keeps the executions fast.
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS=-O1 -DCMAKE_CXX_FLAGS=-O1 \
  -DVOD_WERROR=ON -DVOD_TESTS=OFF -DVOD_FUZZ=ON >/dev/null
cmake --build "$BUILD" -j2 --target fuzz_targets >/dev/null

# Artifacts and logs are this run's only.
rm -rf "$BUILD/artifacts" "$BUILD/logs"
mkdir -p "$BUILD/artifacts" "$BUILD/logs"
runs=()
[[ -n ${FUZZ_RUNS:-} ]] && runs=(-runs="$FUZZ_RUNS")
targets=0 execs=0 crashes=0
for src in "$ROOT"/fuzz/*_fuzz.cc; do
  name=$(basename "$src" .cc)
  work="$BUILD/corpus/$name"
  log="$BUILD/logs/$name.log"
  # New inputs go to the copy: the seeds in the tree stay as they are.
  rm -rf "$work"
  mkdir -p "$work"
  cp "$ROOT/fuzz/corpus/$name"/* "$work"/
  start=$(date +%s)
  rc=0
  "$BUILD/fuzz/$name" -max_total_time="$SECONDS_PER_TARGET" "${runs[@]}" -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$BUILD/artifacts/$name-" \
    "$work" >"$log" 2>&1 || rc=$?
  took=$(($(date +%s) - start))
  n=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  n=${n:-0}
  targets=$((targets + 1))
  execs=$((execs + n))
  if [[ $rc -ne 0 ]]; then
    crashes=$((crashes + 1))
    echo "$name: $n execs in ${took}s, CRASH (exit $rc; log $log)"
    # The input too, for a run whose artifacts are gone with its machine.
    grep -E '^(==[0-9]+==ERROR|SUMMARY|.*property failed|artifact_prefix|Base64)' "$log" |
      head -6 >&2 || true
  else
    echo "$name: $n execs in ${took}s, no crash"
  fi
done
echo "fuzz: $targets targets, $execs execs, $crashes crashes"
[[ $crashes -eq 0 ]]
