#!/usr/bin/env bash
# A short tour of one node: the simulated cluster (vodsim: VLDB with its VODB,
# DLDB, coordinator, two D-blades with two LPs each), vod in the foreground
# with its trace visible, and voctl creating, cloning, finding and deleting
# volumes through it. A delete is then interrupted and vod killed, and a new
# vod finishes it from its VODB record. Builds into build-demo and runs
# everything inside a private node sandbox (scripts/node-sandbox.sh), so the
# machine's own rpcbind and logs are left alone. Needs root.
#
# The tour is the list of steps in STEPS below: to show more, write a
# step_* function and add its name to the list.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)

if [[ "${1:-}" != --inside ]]; then
  bash "$ROOT/scripts/install-deps.sh"
  cmake -S "$ROOT" -B "$ROOT/build-demo" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOD_TESTS=OFF >/dev/null
  cmake --build "$ROOT/build-demo" -j2 --target vod voctl vodsim vodsimctl
  exec bash "$ROOT/scripts/node-sandbox.sh" bash "$ROOT/scripts/demo.sh" --inside "$ROOT/build-demo"
fi

BUILD=$2
VOD=$BUILD/volop/vod
VOCTL=$BUILD/voctl/voctl
VODSIM=$BUILD/sim/vodsim
SIMDIR=$(mktemp -d /tmp/vodsim-demo.XXXXXX)
SIMCTL=("$BUILD/sim/vodsimctl" --control "$SIMDIR/control.sock")
VOPROG=536872452  # 0x20000604, as rpcinfo prints it
VOD_PID=
SIM_PID=
ALPHA=
CLONE=
BETA=
GAMMA=

say() { printf '\n== %s\n' "$*"; }
run() {
  printf '$ %s\n' "$*"
  "$@"
}
# Like run, but a failure is what the step wants to show.
run_failing() {
  printf '$ %s\n' "$*"
  local status=0
  "$@" || status=$?
  if [[ $status -eq 0 ]]; then
    echo "demo: expected a failure" >&2
    return 1
  fi
  echo "(exit status $status)"
}
# The number after "KEY": in voctl's JSON output.
json_number() {
  local re="\"$1\":([0-9]+)"
  [[ $2 =~ $re ]] && echo "${BASH_REMATCH[1]}"
}

start_vod() {
  # Line-buffered, so trace lines show up as they are written even in a pipe.
  # Preset 2: audits, warnings and fatal errors, one line per step.
  stdbuf -oL -eL "$VOD" -d2 &
  VOD_PID=$!
  for _ in $(seq 100); do
    rpcinfo -p 127.0.0.1 2>/dev/null | grep -q "^ *$VOPROG " && return 0
    sleep 0.1
  done
  echo "demo: vod did not register with rpcbind" >&2
  return 1
}

step_start_sim() {
  say "The simulated cluster: vodsim serves the VLDB, VODB, DLDB, coordinator and D-blades"
  "$VODSIM" --dir "$SIMDIR" --quiet &
  SIM_PID=$!
  for _ in $(seq 100); do
    "${SIMCTL[@]}" ping >/dev/null 2>&1 && break
    sleep 0.1
  done
  run "${SIMCTL[@]}" lps
  run "${SIMCTL[@]}" vservers
}

step_start_vod() {
  say "vod in the foreground (-d2): its trace lines appear among the output below"
  start_vod
}

step_ping() {
  say "Is it there?"
  run "$VOCTL" ping
}

step_decode() {
  say "What does the code that cancelop answers mean? (as JSON too, for scripts)"
  run "$VOCTL" decode 0x01859C52
  run "$VOCTL" --json decode 0x01859C52
}

step_create() {
  say "Create two volumes: LPs and virtual servers by name"
  local out
  printf '$ %s\n' "$VOCTL --json create alpha lp1a vs1"
  out=$("$VOCTL" --json create alpha lp1a vs1)
  echo "$out"
  ALPHA=$(json_number vfsid "$out")
  run "$VOCTL" create beta lp1b vs2
  BETA=$(json_number vfsid "$("$VOCTL" --json find beta)")
}

step_clone_find() {
  say "Clone alpha, then find volumes by name"
  local out
  printf '$ %s\n' "$VOCTL --json clone $ALPHA"
  out=$("$VOCTL" --json clone "$ALPHA")
  echo "$out"
  CLONE=$(json_number cloneVfsid "$out")
  run "$VOCTL" find alpha
  run "$VOCTL" find "alpha.clone$CLONE"
  run_failing "$VOCTL" find nosuch
}

step_show_cluster() {
  say "What the VLDB and the D-blades hold now"
  run "${SIMCTL[@]}" vldb
  run "${SIMCTL[@]}" vol-list
}

step_set_ro() {
  say "Make alpha read-only and back (the LP may be given by its 32-digit id too)"
  run "$VOCTL" set-ro "$ALPHA" lp1a
  run "$VOCTL" set-rw "$ALPHA" 0x010A0000000000000000000000000000
}

step_delete() {
  say "Delete the clone by name and beta by id; each delete is an operation in the VODB"
  run "$VOCTL" delete-by-name "alpha.clone$CLONE"
  run "$VOCTL" delete-by-id "$BETA"
  run "$VOCTL" ops
}

step_interrupted_delete() {
  say "A delete that fails half way: the D-blade deletes alpha, the VLDB refuses to drop its record"
  run "${SIMCTL[@]}" fault status vldb_delete_record 133
  run_failing "$VOCTL" delete "$ALPHA" lp1a
  say "The operation stays in the VODB until it is finished"
  run "$VOCTL" ops
  run "${SIMCTL[@]}" vldb
  run "${SIMCTL[@]}" vol-list
}

step_crash_and_recover() {
  say "vod is killed; a new vod finds the delete in the VODB and finishes it"
  kill -9 "$VOD_PID"
  wait "$VOD_PID" 2>/dev/null || true
  start_vod
  for _ in $(seq 100); do
    "$VOCTL" ops | grep -q "no operations" && break
    sleep 0.2
  done
  run "$VOCTL" ops
  run "${SIMCTL[@]}" vldb
  run "${SIMCTL[@]}" vol-list
}

step_copy() {
  say "A volume holding real files: gamma gets 40 files of 64 KiB and a text file"
  local out sink
  out=$("$VOCTL" --json create gamma lp1a vs1)
  GAMMA=$(json_number vfsid "$out")
  run "${SIMCTL[@]}" vol-fill "$GAMMA" lp1a --files 40 --size 65536
  run "${SIMCTL[@]}" vol-write "$GAMMA" lp1a docs/readme.txt --text "gamma, copied by vod"
  say "Copy it to lp2b, on the other D-blade; voctl follows the copy to its end"
  # Slowed to 1 MiB/s so that the progress bar has something to show.
  "${SIMCTL[@]}" stream-speed 1024 >/dev/null
  run "$VOCTL" copy "$GAMMA" lp1a lp2b gamma.copy --interval 0.2
  "${SIMCTL[@]}" stream-speed 0 >/dev/null
  say "The copy holds what the source holds: equal checksums; no clone or record is left"
  sink=$(json_number vfsid "$("$VOCTL" --json find gamma.copy)")
  local a b
  a=$("${SIMCTL[@]}" vol-checksum "$GAMMA" lp1a)
  b=$("${SIMCTL[@]}" vol-checksum "$sink" lp2b)
  printf 'gamma      (vfs %s on lp1a): %s\ngamma.copy (vfs %s on lp2b): %s\n' "$GAMMA" "$a" "$sink" "$b"
  if [[ "$a" == "$b" ]]; then echo "equal"; else echo "demo: the checksums differ" >&2; return 1; fi
  run "${SIMCTL[@]}" vol-list
  run "$VOCTL" ops
}

step_stop() {
  say "Stop vod and the simulator"
  kill "$VOD_PID"
  wait "$VOD_PID" 2>/dev/null || true
  VOD_PID=
  kill "$SIM_PID"
  wait "$SIM_PID" 2>/dev/null || true
  SIM_PID=
}

STEPS=(
  step_start_sim
  step_start_vod
  step_ping
  step_decode
  step_create
  step_clone_find
  step_show_cluster
  step_set_ro
  step_delete
  step_interrupted_delete
  step_crash_and_recover
  step_copy
  step_stop
)

cleanup() {
  [[ -n "$VOD_PID" ]] && kill "$VOD_PID" 2>/dev/null
  [[ -n "$SIM_PID" ]] && kill "$SIM_PID" 2>/dev/null
  rm -rf "$SIMDIR"
  true
}
trap cleanup EXIT
for s in "${STEPS[@]}"; do
  "$s"
  sleep 0.2  # let vod's trace of the step reach the screen before the next heading
done
say "Done"
