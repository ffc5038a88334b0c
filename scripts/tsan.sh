#!/usr/bin/env bash
# tsan.sh [--slice]
#
# Builds the tree with ThreadSanitizer (build-tsan, or $VOD_TSAN_BUILD) and
# runs the test suite under it: by default every test; with --slice (or
# VOD_TSAN_SLICE=1) the part CI runs, the unit and simulator tests and the
# whole-node suites that drive the worker pool hardest, built for those
# targets only. A race in a test binary ends it with exit code 66; a race in
# vod, vodsim or a tool they start fails the test through its fixture, which
# reads the child's output (tests/integration/node.h, expectNoRaceReport).
#
# The last line is "tsan: N tests, R with races, F failed"; exits non-zero
# on any race or failure. Whole-node tests need root.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VOD_TSAN_BUILD:-$ROOT/build-tsan}
SLICE=${VOD_TSAN_SLICE:-0}
for arg in "$@"; do
  case $arg in
    --slice) SLICE=1 ;;
    *)
      echo "usage: tsan.sh [--slice]" >&2
      exit 2
      ;;
  esac
done

# The slice: every unit and simulator test, the copies (with the loop that
# answers while a worker holds a stream call, and vod killed between steps)
# and the administration suites (the recorded delete, resurrection).
SLICE_TARGETS=(unit_tests sim_tests copy_tests admin_tests)
SLICE_LABELS='^(unit|sim|copy_tests|admin_tests)$'

bash "$ROOT/scripts/install-deps.sh"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVOD_WERROR=ON -DVOD_TSAN=ON \
  >/dev/null
start=$(date +%s)
if [[ $SLICE == 1 ]]; then
  cmake --build "$BUILD" -j2 --target "${SLICE_TARGETS[@]}"
else
  cmake --build "$BUILD" -j2
fi
echo "tsan: build took $(($(date +%s) - start)) s"

# Children inherit these: vod and vodsim report and go on, so one run shows
# every race, and the tests see the reports in their output.
export TSAN_OPTIONS="halt_on_error=0 exitcode=66 second_deadlock_stack=1 suppressions=$ROOT/scripts/tsan.supp${TSAN_OPTIONS:+ $TSAN_OPTIONS}"

cd "$BUILD"
junit=$BUILD/tsan-junit.xml
rm -f "$junit"
ctest_args=(--output-on-failure -j4 --output-junit "$junit")
if [[ $SLICE == 1 ]]; then
  # Only the slice's binaries are built: pick their tests by label.
  ctest_args+=(-L "$SLICE_LABELS")
fi
start=$(date +%s)
set +e
ctest "${ctest_args[@]}"
ctest_rc=$?
set -e
echo "tsan: tests took $(($(date +%s) - start)) s"

# Count from ctest's own record: every test, the failed ones, and those whose
# output holds a ThreadSanitizer report (their own, or a child's that the
# fixture quoted).
python3 - "$junit" "$ctest_rc" <<'EOF'
import sys
import xml.etree.ElementTree as ET

path, rc = sys.argv[1], int(sys.argv[2])
try:
    cases = ET.parse(path).getroot().iter("testcase")
except (OSError, ET.ParseError) as e:
    print(f"tsan: no test record ({e})")
    sys.exit(1)
total = failed = raced = 0
for case in cases:
    total += 1
    out = "".join(e.text or "" for e in case.iter("system-out"))
    bad = case.get("status") not in ("run", "notrun") or case.find("failure") is not None
    if "ThreadSanitizer" in out:
        raced += 1
        print(f"tsan: race in {case.get('name')}")
    if bad:
        failed += 1
print(f"tsan: {total} tests, {raced} with races, {failed} failed")
sys.exit(0 if rc == 0 and raced == 0 and failed == 0 and total > 0 else 1)
EOF
