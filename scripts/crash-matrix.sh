#!/usr/bin/env bash
# crash-matrix.sh [OPERATION...]
#
# vod killed at every remote call of every operation kind (copy-rw copy-ro
# delete move-remote move-local mirror-first mirror-refresh dump restore; all
# without arguments). Each kind is run once to record its calls from the
# simulator's call log; then for each call vod is killed twice in fresh runs:
# while the call is held before the peer carries it out, and after the peer
# carried it out but before vod read the reply. Every VOD_MATRIX_SECOND_EVERY-th
# point (default 4) kills the recovering vod once more, at its first or second
# changing call. vod is started again and the cluster checked: VODB empty, VLDB
# agreeing with the D-blades, nothing hidden, temp or orphaned, the source
# intact, and the operation rolled forward or back as its recovery must at
# that point.
#
# Prints a table per operation and, for each inconsistent point, its kill
# point, the calls around it and the state found. The last line is
# "crash matrix: N points, M consistent". Needs root. VOD_MATRIX_JOBS points
# run at once (default 8); logs stay in BUILD/matrix/crash-TIME/.
set -euo pipefail
source "$(dirname "$0")/matrix-lib.sh"
SECOND_EVERY=${VOD_MATRIX_SECOND_EVERY:-4}

read -r -a OPS <<<"$(matrix_ops "$@")"
matrix_build
START=$(date +%s)
OUT=$BUILD/matrix/crash-$START
mkdir -p "$OUT/points"
echo "crash matrix: recording ${OPS[*]} (logs in $OUT)"
matrix_record "$OUT" "${OPS[@]}"

# One point a line: OP PROC NTH WHEN SECOND
: >"$OUT/points.txt"
n=0
for op in "${OPS[@]}"; do
  while read -r proc nth _dblade _noisy; do
    for when in before after; do
      echo "$op $proc $nth $when 0" >>"$OUT/points.txt"
      n=$((n + 1))
      if ((n % SECOND_EVERY == 0)); then
        echo "$op $proc $nth $when $(((n / SECOND_EVERY) % 2 + 1))" >>"$OUT/points.txt"
      fi
    done
  done <"$OUT/calls-$op"
done
echo "crash matrix: $(wc -l <"$OUT/points.txt") points, $JOBS at a time"

crash_point() {
  local op=$1 proc=$2 nth=$3 when=$4 second=$5
  local log=$OUT_POINTS/$op.$proc.$nth.$when.$second.log
  matrix_run "$log" 'CrashMatrix.DISABLED_Point' VOD_MATRIX_OP="$op" VOD_MATRIX_PROC="$proc" \
    VOD_MATRIX_NTH="$nth" VOD_MATRIX_WHEN="$when" VOD_MATRIX_SECOND="$second"
  # A point that never reported (a crash of the test, a time-out) counts as inconsistent.
  if ! grep -q '^MATRIX crash ' "$log"; then
    echo "MATRIX crash $op $proc#$nth $when second=$second allowed=? found=error consistent=0" >>"$log"
  fi
}
export OUT_POINTS=$OUT/points
matrix_parallel "$OUT/points.txt" crash_point

cat "$OUT"/points/*.log | grep -h '^MATRIX crash ' >"$OUT/results.txt" || true
for op in "${OPS[@]}"; do
  echo
  echo "== $op"
  printf '%-4s %-34s %-8s %-26s %s\n' "#" "call" "killed" "recovery (allowed/found)" "consistent"
  k=0
  while read -r proc nth dblade _noisy; do
    k=$((k + 1))
    for when in before after; do
      for second in 0 1 2; do
        line=$(grep -F "MATRIX crash $op $proc#$nth $when second=$second " "$OUT/results.txt" || true)
        [[ -z $line ]] && continue
        allowed=$(sed -n 's/.* allowed=\([^ ]*\).*/\1/p' <<<"$line")
        found=$(sed -n 's/.* found=\([^ ]*\).*/\1/p' <<<"$line")
        ok=$(sed -n 's/.* consistent=\([01]\).*/\1/p' <<<"$line")
        label=$when
        [[ $second != 0 ]] && label="$when+r$second"
        printf '%-4s %-34s %-8s %-26s %s\n' "$k" "$proc#$nth (dblade $dblade)" "$label" \
          "$allowed/$found" "$([[ $ok == 1 ]] && echo yes || echo NO)"
      done
    done
  done <"$OUT/calls-$op"
done

bad=$(grep -c 'consistent=0' "$OUT/results.txt" || true)
if [[ $bad -gt 0 ]]; then
  echo
  echo "== inconsistent points"
  for f in "$OUT"/points/*.log; do
    grep -q 'consistent=0' "$f" || continue
    echo "--- $(basename "$f" .log)"
    sed -n '/^inconsistent at /,/^\[  FAILED  \]/p' "$f" | grep -v '^\[  FAILED  \]' | head -80 || true
    grep -q '^inconsistent at ' "$f" || tail -30 "$f"
  done
fi
total=$(wc -l <"$OUT/results.txt")
good=$(grep -c 'consistent=1' "$OUT/results.txt" || true)
echo
echo "wall time: $(($(date +%s) - START)) s"
echo "crash matrix: $total points, $good consistent"
