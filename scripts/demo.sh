#!/usr/bin/env bash
# A short tour of one node: vod in the foreground with its trace visible, and
# voctl talking to it. Builds into build-demo and runs everything inside a
# private node sandbox (scripts/node-sandbox.sh), so the machine's own
# rpcbind and logs are left alone. Needs root.
#
# The tour is the list of steps in STEPS below: to show more, write a
# step_* function and add its name to the list.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)

if [[ "${1:-}" != --inside ]]; then
  bash "$ROOT/scripts/install-deps.sh"
  cmake -S "$ROOT" -B "$ROOT/build-demo" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOD_TESTS=OFF >/dev/null
  cmake --build "$ROOT/build-demo" -j2 --target vod voctl
  exec bash "$ROOT/scripts/node-sandbox.sh" bash "$ROOT/scripts/demo.sh" --inside "$ROOT/build-demo"
fi

BUILD=$2
VOD=$BUILD/volop/vod
VOCTL=$BUILD/voctl/voctl
VOPROG=536872452  # 0x20000604, as rpcinfo prints it
VOD_PID=

say() { printf '\n== %s\n' "$*"; }
run() {
  printf '$ %s\n' "$*"
  "$@"
}

step_start_vod() {
  say "vod in the foreground (-d): its trace lines appear among the output below"
  # Line-buffered, so trace lines show up as they are written even in a pipe.
  stdbuf -oL -eL "$VOD" -d &
  VOD_PID=$!
  for _ in $(seq 100); do
    rpcinfo -p 127.0.0.1 2>/dev/null | grep -q "^ *$VOPROG " && return 0
    sleep 0.1
  done
  echo "demo: vod did not register with rpcbind" >&2
  return 1
}

step_ping() {
  say "Is it there?"
  run "$VOCTL" ping
}

step_decode_oom() {
  say "What does error 40002 mean?"
  run "$VOCTL" decode 40002
}

step_decode_cancel() {
  say "And the code that cancelop answers, as JSON for scripts"
  run "$VOCTL" decode 0x01859C52
  run "$VOCTL" --json decode 0x01859C52
}

step_stop_vod() {
  say "Stop vod"
  kill "$VOD_PID"
  wait "$VOD_PID" 2>/dev/null || true
  VOD_PID=
}

STEPS=(
  step_start_vod
  step_ping
  step_decode_oom
  step_decode_cancel
  step_stop_vod
)

trap '[[ -n "$VOD_PID" ]] && kill "$VOD_PID" 2>/dev/null; true' EXIT
for s in "${STEPS[@]}"; do
  "$s"
  sleep 0.2  # let vod's trace of the step reach the screen before the next heading
done
say "Done"
