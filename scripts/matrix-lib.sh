# What scripts/crash-matrix.sh and scripts/fault-matrix.sh share: the build of
# the matrix binary, the operation kinds, their recorded calls, and running
# many cases at once, each in a node sandbox of its own (the binary enters one
# per process).
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${VOD_TEST_BUILD:-$ROOT/build-test}
# Cases mostly sleep (recovery waits for the registry's look), so several
# run side by side even on two cores.
JOBS=${VOD_MATRIX_JOBS:-8}
ALL_OPS=(copy-rw copy-ro delete move-remote move-local mirror-first mirror-refresh dump restore)
BIN=$BUILD/tests/integration/matrix_tests

matrix_build() {
  if [[ $EUID -ne 0 ]]; then
    echo "$(basename "$0"): needs root (each case runs in a node sandbox)" >&2
    exit 2
  fi
  if [[ ! -f $BUILD/build.ninja ]]; then
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVOD_WERROR=ON \
      -DVOD_SANITIZE=ON >/dev/null
  fi
  cmake --build "$BUILD" -j2 --target matrix_tests >/dev/null
}

# matrix_ops OPERATION...: the kinds asked for, checked; all without any.
matrix_ops() {
  if [[ $# -eq 0 ]]; then
    echo "${ALL_OPS[@]}"
    return
  fi
  local op known
  for op in "$@"; do
    known=0
    for k in "${ALL_OPS[@]}"; do [[ $k == "$op" ]] && known=1; done
    if [[ $known -eq 0 ]]; then
      echo "unknown operation kind $op (one of: ${ALL_OPS[*]})" >&2
      exit 2
    fi
  done
  echo "$@"
}

# matrix_run LOG FILTER VAR=VALUE...: one case in its own sandbox.
matrix_run() {
  local log=$1 filter=$2
  shift 2
  env "$@" timeout 900 "$BIN" --gtest_also_run_disabled_tests --gtest_filter="$filter" \
    >"$log" 2>&1 || true
}

# matrix_record OUT OPERATION...: runs each kind once (in parallel) and leaves
# its calls in OUT/calls-OP: "PROC NTH DBLADE [noisy]" per line.
matrix_record() {
  local out=$1 op
  shift
  for op in "$@"; do
    matrix_run "$out/record-$op.log" 'CrashMatrix.DISABLED_Record' VOD_MATRIX_OP="$op" &
  done
  wait
  for op in "$@"; do
    grep '^MATRIX call ' "$out/record-$op.log" | cut -d' ' -f3- >"$out/calls-$op" || true
    if [[ ! -s $out/calls-$op ]]; then
      echo "the $op operation did not run through once; its log:" >&2
      tail -40 "$out/record-$op.log" >&2
      exit 1
    fi
  done
}

# matrix_parallel CASES FUNCTION: runs FUNCTION on each line of CASES, JOBS at a time.
matrix_parallel() {
  local cases=$1 fn=$2
  export -f matrix_run "$fn"
  export BIN
  xargs -a "$cases" -P "$JOBS" -I{} bash -c "$fn {}"
}
