#!/usr/bin/env bash
# tsan.sh [--slice] [--build-only]
#
# Builds the tree with ThreadSanitizer (build-tsan, or $VOD_TSAN_BUILD) and
# runs the test suite under it: by default every test; with --slice (or
# VOD_TSAN_SLICE=1) the part CI runs, built for its targets only: the unit
# and simulator tests and the copy suites (copies side by side, pause and
# resume, a few points where vod is killed between steps, the loop answering
# while a worker waits on a D-blade, voctl top following a copy).
# --build-only stops after the build (CI builds while other tests run).
#
# A race in a test binary ends it with exit code 66; a race in vod, vodsim or
# a tool they start fails the test through its fixture, which reads the
# child's output (tests/integration/node.h, expectNoRaceReport). The options
# and the library suppressions come with the tests (tests/CMakeLists.txt,
# scripts/tsan.supp), so a plain ctest in the tree behaves the same.
#
# The last line is "tsan: N tests, R with races, F failed"; exits non-zero
# on any race or failure. Whole-node tests need root.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VOD_TSAN_BUILD:-$ROOT/build-tsan}
SLICE=${VOD_TSAN_SLICE:-0}
BUILD_ONLY=0
for arg in "$@"; do
  case $arg in
    --slice) SLICE=1 ;;
    --build-only) BUILD_ONLY=1 ;;
    *)
      echo "usage: tsan.sh [--slice] [--build-only]" >&2
      exit 2
      ;;
  esac
done

# The slice's binaries (they bring vod, voctl, vodsim and vodsimctl), and its
# tests: every unit and simulator test (by label), and by name (a test has one
# label only) copy_tests' copies, voctl top and the loop held up by a D-blade,
# with three of its crash points: recovery of a running stream, a conclusion
# and a roll-back, each of which waits out the registry's 30-second look.
SLICE_TARGETS=(unit_tests sim_tests copy_tests)
SLICE_LABELS='^(unit|sim)$'
SLICE_NODE_TESTS='^(CopyReport|VoctlCopyUsage|CopyNodeTest|TopTest|HeldStreamCall/LoopTest)\.'
SLICE_NODE_TESTS+='|^KilledAt/CopyCrash\..*/(MidStreamWhileTheStreamRunsOn|AfterTheStreamEndedBeforeConclusion|MidRollBackAfterTheSinkWasDeleted)'

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
[[ $BUILD_ONLY == 1 ]] && exit 0

cd "$BUILD"
rm -f "$BUILD"/tsan-junit-*.xml
# Whole-node tests mostly wait (on the registry's 30-second look, on a held
# call): four at a time keep two cores busy, as in scripts/test.sh.
ctest_rc=0
run() {
  local name=$1
  shift
  ctest --output-on-failure -j4 --output-junit "$BUILD/tsan-junit-$name.xml" "$@" || ctest_rc=1
}
start=$(date +%s)
if [[ $SLICE == 1 ]]; then
  run unit-sim -L "$SLICE_LABELS"
  run node -L integration -R "$SLICE_NODE_TESTS"
else
  run all
fi
echo "tsan: tests took $(($(date +%s) - start)) s"

# Counted from ctest's record: every test, the failed ones, and those whose
# output holds a ThreadSanitizer report (their own, or a child's that the
# fixture quoted).
python3 - "$ctest_rc" "$BUILD"/tsan-junit-*.xml <<'EOF'
import sys
import xml.etree.ElementTree as ET

rc, paths = int(sys.argv[1]), sys.argv[2:]
cases = []
for path in paths:
    try:
        cases += ET.parse(path).getroot().iter("testcase")
    except (OSError, ET.ParseError) as e:
        print(f"tsan: no test record in {path} ({e})")
        sys.exit(1)
raced = failed = 0
for case in cases:
    out = "".join(e.text or "" for e in case.iter("system-out"))
    if "ThreadSanitizer" in out:
        raced += 1
        print(f"tsan: race in {case.get('name')}")
    if case.get("status") not in ("run", "notrun") or case.find("failure") is not None:
        failed += 1
print(f"tsan: {len(cases)} tests, {raced} with races, {failed} failed")
sys.exit(0 if rc == 0 and raced == 0 and failed == 0 and cases else 1)
EOF
