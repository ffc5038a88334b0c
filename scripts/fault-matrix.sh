#!/usr/bin/env bash
# fault-matrix.sh [OPERATION...]
#
# A failure at every remote procedure each operation kind calls (copy-rw
# copy-ro delete move-remote move-local mirror-first mirror-refresh dump
# restore; all without arguments): the procedure's first call times out before
# the peer carries it out (drop) and after (lose-reply), answers each status
# documented for it (the table in tests/integration/matrix_test.cc), and the
# first connection to each program the operation uses, at each D-blade, is
# refused. vod runs with -w4, so a call that gets no answer costs 4 seconds.
# Each case checks that vod lives, that the client heard the failure of that
# procedure (or nothing, for a failure vod rides out), and that after the
# prescribed retries and any crash recovery the cluster holds the invariants
# of the crash matrix.
#
# Prints a table per operation and the cases not as documented; the last line
# is "fault matrix: N cases, M as documented". Needs root. VOD_MATRIX_JOBS
# cases run at once (default 8); logs stay in BUILD/matrix/fault-TIME/.
set -euo pipefail
source "$(dirname "$0")/matrix-lib.sh"

read -r -a OPS <<<"$(matrix_ops "$@")"
matrix_build
START=$(date +%s)
OUT=$BUILD/matrix/fault-$START
mkdir -p "$OUT/cases"
echo "fault matrix: recording ${OPS[*]} (logs in $OUT)"
matrix_record "$OUT" "${OPS[@]}"
"$BIN" --gtest_also_run_disabled_tests --gtest_filter='FaultMatrixTable.DISABLED_Documented' |
  grep '^MATRIX documented ' | cut -d' ' -f3- >"$OUT/documented.txt"

program_of() {
  case $1 in
    vldb_* | vodb_* | new_vfsid) echo vldb ;;
    vol*) echo dblade_vol ;;
    incrcopy* | tcpvfs*) echo dblade_incrcopy ;;
    lp_*) echo dblade_lpm ;;
    admin_*) echo coord ;;
    *) echo dldb ;;
  esac
}

# One case a line: OP PROC NTH FAULT DBLADE
: >"$OUT/cases.txt"
for op in "${OPS[@]}"; do
  declare -A seenProc=() seenProgram=()
  while read -r proc nth dblade _noisy; do
    [[ $nth == 1 && -z ${seenProc[$proc]:-} ]] || continue
    seenProc[$proc]=1
    for f in drop lose-reply; do echo "$op $proc 1 $f 0" >>"$OUT/cases.txt"; done
    for s in $(grep "^$proc " "$OUT/documented.txt" | cut -d' ' -f2-); do
      echo "$op $proc 1 status:$s 0" >>"$OUT/cases.txt"
    done
    program=$(program_of "$proc")
    if [[ -z ${seenProgram[$program.$dblade]:-} ]]; then
      seenProgram[$program.$dblade]=1
      echo "$op $proc 1 refuse $dblade" >>"$OUT/cases.txt"
    fi
  done <"$OUT/calls-$op"
  unset seenProc seenProgram
done
echo "fault matrix: $(wc -l <"$OUT/cases.txt") cases, $JOBS at a time"

fault_case() {
  local op=$1 proc=$2 nth=$3 fault=$4 dblade=$5
  local log=$OUT_CASES/$op.$proc.$nth.${fault/:/-}.$dblade.log
  matrix_run "$log" 'FaultMatrix.DISABLED_Case' VOD_MATRIX_OP="$op" VOD_MATRIX_PROC="$proc" \
    VOD_MATRIX_NTH="$nth" VOD_MATRIX_FAULT="$fault" VOD_MATRIX_DBLADE="$dblade"
  if ! grep -q '^MATRIX fault ' "$log"; then
    echo "MATRIX fault $op $proc#$nth $fault met=? found=error told=0 documented=0" >>"$log"
  fi
}
export OUT_CASES=$OUT/cases
matrix_parallel "$OUT/cases.txt" fault_case

cat "$OUT"/cases/*.log | grep -h '^MATRIX fault ' >"$OUT/results.txt" || true
for op in "${OPS[@]}"; do
  echo
  echo "== $op"
  printf '%-30s %-18s %-8s %-5s %s\n' "procedure" "fault" "outcome" "told" "as documented"
  grep "^MATRIX fault $op " "$OUT/results.txt" | sort -k4,4 -k5,5 |
    while read -r _ _ _ call fault met found told doc; do
      [[ $fault == refuse ]] && call="$(program_of "${call%#*}") (${call})"
      printf '%-30s %-18s %-8s %-5s %s\n' "$call" "$fault" "${found#found=}" "${told#told=}" \
        "$([[ $doc == documented=1 ]] && echo yes || echo NO)$([[ $met == met=0 ]] && echo ' (not met)')"
    done
done

bad=$(grep -c 'documented=0' "$OUT/results.txt" || true)
if [[ $bad -gt 0 ]]; then
  echo
  echo "== cases not as documented"
  for f in "$OUT"/cases/*.log; do
    grep -q 'documented=0' "$f" || continue
    echo "--- $(basename "$f" .log)"
    sed -n '/^not as documented: /,/^calls:/p' "$f" | head -60 || true
    grep -q '^not as documented: ' "$f" || tail -30 "$f"
  done
fi
total=$(wc -l <"$OUT/results.txt")
good=$(grep -c 'documented=1' "$OUT/results.txt" || true)
echo
echo "wall time: $(($(date +%s) - START)) s"
echo "fault matrix: $total cases, $good as documented"
