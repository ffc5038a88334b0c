#!/usr/bin/env bash
# A short tour of one node: the simulated cluster (vodsim: VLDB with its VODB,
# DLDB, coordinator, two D-blades with two LPs each), vod in the foreground,
# and voctl creating, cloning, finding and deleting volumes through it. A
# delete is then interrupted and vod killed, and a new vod finishes it from
# its VODB record. Builds into build-demo and runs everything inside a
# private node sandbox (scripts/node-sandbox.sh), so the machine's own
# rpcbind and logs are left alone. Needs root.
#
# What the tools print is the story; vod's trace goes to a file
# (build-demo/vod-trace.log) and the tour quotes it where it tells something
# the tools cannot show: how a delete is recorded, why one stays behind, how
# the next vod finds and finishes it, the steps of a copy.
#
# The tour is the list of steps in STEPS below: to show more, write a
# step_* function and add its name to the list.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)

if [[ "${1:-}" != --inside ]]; then
  bash "$ROOT/scripts/install-deps.sh"
  cmake -S "$ROOT" -B "$ROOT/build-demo" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVOD_TESTS=OFF >/dev/null
  echo "Building vod, voctl and the simulator in build-demo ..."
  if ! cmake --build "$ROOT/build-demo" -j2 --target vod voctl vodsim vodsimctl \
    >"$ROOT/build-demo/build.log" 2>&1; then
    cat "$ROOT/build-demo/build.log" >&2
    exit 1
  fi
  exec bash "$ROOT/scripts/node-sandbox.sh" bash "$ROOT/scripts/demo.sh" --inside "$ROOT/build-demo"
fi

BUILD=$2
VOD=$BUILD/volop/vod
VODSIM=$BUILD/sim/vodsim
SIMDIR=$(mktemp -d /tmp/vodsim-demo.XXXXXX)
VODLOG=$BUILD/vod-trace.log
VOPROG=536872452  # 0x20000604, as rpcinfo prints it
# The two tools by their own names, so that the commands shown read as typed.
voctl() { "$BUILD/voctl/voctl" "$@"; }
vodsimctl() { "$BUILD/sim/vodsimctl" --control "$SIMDIR/control.sock" "$@"; }
VOD_PID=
SIM_PID=
ALPHA=
CLONE=
BETA=
GAMMA=
DELTA=
EPSILON=

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
# Like run, for a listing that may be empty: says so instead of printing nothing.
run_list() {
  printf '$ %s\n' "$*"
  local out
  out=$("$@")
  if [[ -n "$out" ]]; then echo "$out"; else echo "(none)"; fi
}
# The number after "KEY": in voctl's JSON output.
json_number() {
  local re="\"$1\":([0-9]+)"
  [[ $2 =~ $re ]] && echo "${BASH_REMATCH[1]}"
}

# vod's trace: marks a point in it, and quotes the lines written since the
# last mark that match a pattern. The loop's "sleepTime = N" line after every
# wake-up is never quoted.
TRACE_MARK=0
trace_mark() { TRACE_MARK=$(wc -l <"$VODLOG"); }
# quote_trace PATTERN [UNTIL]: waits up to 5 s for a line matching UNTIL
# (written by a worker thread after the tool returned), then quotes.
quote_trace() {
  local pattern=$1 until=${2:-}
  if [[ -n "$until" ]]; then
    for _ in $(seq 50); do
      tail -n +"$((TRACE_MARK + 1))" "$VODLOG" | grep -qE -- "$until" && break
      sleep 0.1
    done
  fi
  echo "  vod's trace:"
  tail -n +"$((TRACE_MARK + 1))" "$VODLOG" | grep -v 'sleepTime = ' | grep -E -- "$pattern" |
    sed 's/^/  | /'
  trace_mark
}

start_vod() {
  # Line-buffered, so that the trace can be quoted as soon as it is written.
  # Preset 2: audits, warnings and fatal errors, one line per step.
  stdbuf -oL -eL "$VOD" -d2 >>"$VODLOG" 2>&1 &
  VOD_PID=$!
  for _ in $(seq 100); do
    rpcinfo -p 127.0.0.1 2>/dev/null | grep -q "^ *$VOPROG " && return 0
    sleep 0.1
  done
  echo "demo: vod did not register with rpcbind" >&2
  cat "$VODLOG" >&2
  return 1
}

step_start_sim() {
  say "The simulated cluster: vodsim serves the VLDB, VODB, DLDB, coordinator and D-blades"
  "$VODSIM" --dir "$SIMDIR" --quiet &
  SIM_PID=$!
  for _ in $(seq 100); do
    vodsimctl ping >/dev/null 2>&1 && break
    sleep 0.1
  done
  run vodsimctl lps
  run vodsimctl vservers
}

step_start_vod() {
  say "vod starts in the foreground (-d2), its trace going to build-demo/vod-trace.log"
  : >"$VODLOG"
  trace_mark
  start_vod
  echo "A trace line: nesting depth, level (A audit, W warning, F fatal), module, time,"
  echo "and for most lines the function and source line before the message."
  quote_trace . "listens on port 909"
}

step_ping() {
  say "Is it there?"
  run voctl ping
}

step_decode() {
  say "What does the code that cancelop answers mean? (as JSON too, for scripts)"
  run voctl decode 0x01859C52
  run voctl --json decode 0x01859C52
}

step_create() {
  say "Create two volumes: LPs and virtual servers by name"
  local out
  printf '$ %s\n' "voctl --json create alpha lp1a vs1"
  out=$(voctl --json create alpha lp1a vs1)
  echo "$out"
  ALPHA=$(json_number vfsid "$out")
  run voctl create beta lp1b vs2
  BETA=$(json_number vfsid "$(voctl --json find beta)")
}

step_clone_find() {
  say "Clone alpha, then find volumes by name"
  local out
  printf '$ %s\n' "voctl --json clone $ALPHA"
  out=$(voctl --json clone "$ALPHA")
  echo "$out"
  CLONE=$(json_number cloneVfsid "$out")
  run voctl find alpha
  run voctl find "alpha.clone$CLONE"
  run_failing voctl find nosuch
}

step_show_cluster() {
  say "What the VLDB and the D-blades hold now"
  run vodsimctl vldb
  run vodsimctl vol-list
}

step_set_ro() {
  say "Make alpha read-only and back (the LP may be given by its 32-digit id too)"
  run voctl set-ro "$ALPHA" lp1a
  run voctl set-rw "$ALPHA" 0x010A0000000000000000000000000000
}

step_delete() {
  say "Delete the clone by name and beta by id; each delete is an operation in the VODB"
  trace_mark
  run voctl delete-by-name "alpha.clone$CLONE"
  quote_trace 'vfsDelete|mkRec|del [0-9]+ ' 'clean up done'
  run voctl delete-by-id "$BETA"
  trace_mark
  run voctl ops
}

step_interrupted_delete() {
  say "A delete that fails half way: the D-blade deletes alpha, the VLDB refuses to drop its record"
  run vodsimctl fault status vldb_delete_record 133
  trace_mark
  run_failing voctl delete "$ALPHA" lp1a
  quote_trace 'mkRec|del [0-9]+ |VLDB rec|failed to clean up|Attempt clean up later'
  say "The operation stays in the VODB until it is finished"
  run voctl ops
  run_list vodsimctl vldb
  run_list vodsimctl vol-list
}

step_crash_and_recover() {
  say "vod is killed with the delete unfinished; voctl still explains codes, from vod's own tables"
  run kill -9 "$VOD_PID"
  wait "$VOD_PID" 2>/dev/null || true
  VOD_PID=
  run voctl decode 0x01819C4D
  say "A new vod finds the delete in the VODB and finishes it"
  trace_mark
  start_vod
  quote_trace 'resurrect|recoverFromCrash|recover successful|del [0-9]+ |dbladeVolDelete|vldbDeleteRecord' \
    'recover successful'
  echo "The D-blade's 21 says alpha is gone already: that counts as deleted, so the VLDB"
  echo "record goes next, and the VODB record last."
  run voctl ops
  run_list vodsimctl vldb
  run_list vodsimctl vol-list
}

step_copy() {
  say "A volume holding real files: gamma gets 40 files of 64 KiB and a text file"
  local out sink
  out=$(voctl --json create gamma lp1a vs1)
  GAMMA=$(json_number vfsid "$out")
  run vodsimctl vol-fill "$GAMMA" lp1a --files 40 --size 65536
  run vodsimctl vol-write "$GAMMA" lp1a docs/readme.txt --text "gamma, copied by vod"
  say "Copy it to lp2b, on the other D-blade; voctl follows the copy to its end"
  # Slowed to 1 MiB/s so that the progress bar has something to show.
  vodsimctl stream-speed 1024 >/dev/null
  trace_mark
  run voctl copy "$GAMMA" lp1a lp2b gamma.copy --interval 0.2
  vodsimctl stream-speed 0 >/dev/null
  quote_trace 'mkRec|mkOpSrcSink|startStream|opComplete\(\)|concluded|_rollForward|concludeCopy|deleteOpSrc [0-9]+ ' \
    'deleteVodbRec'
  echo "The copy reads from a clone of gamma (the op src); the D-blade streams it into the"
  echo "new volume (the sink), and at the end the sink is committed and the clone deleted."
  say "The copy holds what the source holds: equal checksums; no clone or record is left"
  sink=$(json_number vfsid "$(voctl --json find gamma.copy)")
  local a b
  a=$(vodsimctl vol-checksum "$GAMMA" lp1a)
  b=$(vodsimctl vol-checksum "$sink" lp2b)
  printf 'gamma      (vfs %s on lp1a): %s\ngamma.copy (vfs %s on lp2b): %s\n' "$GAMMA" "$a" "$sink" "$b"
  if [[ "$a" == "$b" ]]; then echo "equal"; else echo "demo: the checksums differ" >&2; return 1; fi
  run vodsimctl vol-list
  run voctl ops
}

step_move() {
  say "Move gamma to lp2a while a writer keeps changing ten of its files, 20 times a second"
  run voctl move --dry-run "$GAMMA" lp1a lp2a
  run vodsimctl writer start "$GAMMA" lp1a 20 --files 10
  # Slowed to 8 MiB/s so that the passes can be watched converging.
  vodsimctl stream-speed 8192 >/dev/null
  trace_mark
  run voctl move "$GAMMA" lp1a lp2a --interval 0.1
  vodsimctl stream-speed 0 >/dev/null
  quote_trace 'too many changes|_isFinal = 1|final pass of local move|incrcopymove_1 succeeded|_rollForward=1|vldbDeleteRecord vfsid|deleteOpSrc' \
    'vodb_delete_by_opid_3 opid'
  echo "Every pass streamed what changed since the last one, from a fresh clone; once the"
  echo "source had nearly settled, the final pass stopped it, sent the rest, and the volume"
  echo "took its own id on lp2a. The old source, the clones and the op sink are gone."
  printf '$ %s\n' "vodsimctl writer stop $GAMMA lp1a"
  vodsimctl writer stop "$GAMMA" lp1a
  say "gamma lives on lp2a now, under its own id, with the writer's last change"
  local a
  a=$(vodsimctl vol-checksum "$GAMMA" lp2a)
  printf 'gamma (vfs %s on lp2a): %s\n' "$GAMMA" "$a"
  run vodsimctl move-stats
  run vodsimctl vldb "$GAMMA"
  run_list vodsimctl vol-list lp1a
  run_list voctl ops
}

step_mirror() {
  say "Read-only mirrors: delta, on lp1a, mirrored to lp1a itself, lp1b and lp2b (two D-blades)"
  local out
  out=$(voctl --json create delta lp1a vs1)
  DELTA=$(json_number vfsid "$out")
  run vodsimctl vol-fill "$DELTA" lp1a --files 20 --size 65536
  trace_mark
  run voctl mirror "$DELTA" lp1a lp1a lp1b lp2b --interval 0.1
  quote_trace 'found a local mirror|made an upstream clone|created a new vfs|incrcopymirror_1 succeeded|dbladeVfsSetAttrs vfsid=[0-9]+->|swapVolId' \
    'deleteVodbRec'
  echo "One stream fed the two remote destinations; on lp1a the frozen clone of delta itself"
  echo "became the mirror. Every mirror answers to one id, delta's with 0x40000000 set."
  run voctl mirrors "$DELTA"

  say "delta changes; a refresh clones each mirror in place, brings the clone forward and swaps it in"
  run vodsimctl vol-write "$DELTA" lp1a notes.txt --text "delta, second edition"
  trace_mark
  run voctl mirror "$DELTA" lp1a lp1a lp1b lp2b --interval 0.1
  quote_trace 'made an upstream clone|swapVolId [0-9]' 'deleteVodbRec'
  show_mirror_sums

  say "vod is killed in the middle of the next refresh, between two renumberings of an id swap"
  run vodsimctl vol-write "$DELTA" lp1a notes.txt --text "delta, third edition"
  vodsimctl fault hold volswapvolid.step3 >/dev/null
  voctl --json mirror "$DELTA" lp1a lp1a lp1b lp2b --no-wait >/dev/null
  vodsimctl fault wait-held volswapvolid.step3 60 >/dev/null
  run kill -9 "$VOD_PID"
  wait "$VOD_PID" 2>/dev/null || true
  VOD_PID=
  printf '$ %s\n' "vodsimctl fault release volswapvolid.step3 drop   # the D-blade stops there too"
  vodsimctl fault release volswapvolid.step3 drop >/dev/null
  vodsimctl fault clear >/dev/null
  run_list voctl ops
  say "The next vod finds the mirror in the VODB and settles every destination (about 30 s)"
  trace_mark
  start_vod
  for _ in $(seq 120); do
    [[ -z $(voctl ops 2>/dev/null | grep -v 'no operations') ]] && break
    sleep 0.5
  done
  quote_trace 'resurrect MIRROR|isFirstMirror=|Roll forward|Roll back|Redo now|recover successful' \
    'recover successful'
  show_mirror_sums
  run_list voctl ops
}

show_mirror_sums() {
  local m=$((DELTA | 0x40000000)) lp
  printf 'delta (vfs %s on lp1a): %s\n' "$DELTA" "$(vodsimctl vol-checksum "$DELTA" lp1a)"
  for lp in lp1a lp1b lp2b; do
    printf 'mirror (vfs %s on %s): %s\n' "$m" "$lp" "$(vodsimctl vol-checksum "$m" "$lp")"
  done
}

step_dump_restore() {
  say "Backups: epsilon, on lp1a, dumped whole, changed, then dumped again since that label"
  local out eps label restored dumps=$SIMDIR/dumps
  mkdir -p "$dumps"
  out=$(voctl --json create epsilon lp1a vs1)
  EPSILON=$(json_number vfsid "$out")
  run vodsimctl vol-fill "$EPSILON" lp1a --files 12 --size 65536
  trace_mark
  run voctl dump "$EPSILON" "$dumps/epsilon.full" --name nightly
  quote_trace 'queued to worker|tcpvfsdump_1|_rollForward=' 'deleteVodbRec|_rollForward='
  echo "vod checked the cookie, recorded the dump and handed the connection to the D-blade,"
  echo "which wrote the volume's records on it; the label names the versions it covers."
  label=$(voctl --json dump-info "$dumps/epsilon.full" | sed -n 's/.*"label":"\([^"]*\)".*/\1/p')
  run vodsimctl vol-write "$EPSILON" lp1a notes.txt --text "epsilon, after the full dump"
  run vodsimctl vol-rm "$EPSILON" lp1a fill/00003
  run voctl dump "$EPSILON" "$dumps/epsilon.incr" --name nightly --since "$label"
  run voctl dump-info "$dumps/epsilon.incr"

  say "Restore the chain, full then incremental, into a new volume on lp1b"
  out=$(voctl --json restore "$dumps/epsilon.full" --create epsilon.restored lp1b)
  restored=$(json_number vfsid "$out")
  printf '$ voctl restore %s --create epsilon.restored lp1b\n(vfsid %s)\n' "$dumps/epsilon.full" "$restored"
  run voctl restore "$dumps/epsilon.incr" "$restored"
  local a b
  a=$(vodsimctl vol-checksum "$EPSILON" lp1a)
  b=$(vodsimctl vol-checksum "$restored" lp1b)
  printf 'epsilon          (vfs %s on lp1a): %s\nepsilon.restored (vfs %s on lp1b): %s\n' \
    "$EPSILON" "$a" "$restored" "$b"
  if [[ "$a" == "$b" ]]; then echo "equal"; else echo "demo: the checksums differ" >&2; return 1; fi

  say "A dump damaged in one byte is refused, and the volume it was meant for is left alone"
  cp "$dumps/epsilon.full" "$dumps/epsilon.bad"
  printf 'X' | dd of="$dumps/epsilon.bad" bs=1 seek=5000 conv=notrunc status=none
  run_failing voctl dump-info "$dumps/epsilon.bad"
  run_failing voctl restore "$dumps/epsilon.bad" "$restored" --force
  printf 'epsilon.restored (vfs %s on lp1b): %s\n' "$restored" "$(vodsimctl vol-checksum "$restored" lp1b)"
  run_list voctl ops
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
  step_move
  step_mirror
  step_dump_restore
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
done
say "Done. vod's whole trace of this tour: build-demo/vod-trace.log"
