#!/usr/bin/env bash
# Builds the Debian packages, checks them with lintian and the units with
# systemd-analyze, installs them into a pristine minimal Debian 12 tree, and
# there runs the daemon (as the unit starts it too), voctl, man on every page
# and the completion's own checks against a running simulated node. Needs
# root (debootstrap, chroot, namespaces) and Debian's package archive.
# Prints "package: N passed, N failed"; exits non-zero on any failure.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${VOD_PKG_BUILD:-$ROOT/build-pkg}
WORK=$(mktemp -d /var/tmp/vod-package-test.XXXXXX)
TREE=$WORK/tree

cleanup() {
  umount -R "$TREE/proc" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT

passed=0 failed=0
pass() { passed=$((passed + 1)); echo "ok   $1"; }
fail() { failed=$((failed + 1)); echo "FAIL $1" >&2; }
check() {  # check NAME CMD...: passes when CMD exits 0
  local name=$1
  shift
  if "$@"; then pass "$name"; else fail "$name"; fi
}
elapsed() { echo "$(($(date +%s) - $1)) s"; }

bash "$ROOT/scripts/install-deps.sh"

# ---- a pristine minimal Debian 12, from the archive this machine uses. It
# is fetched while the packages build: one waits on the network, the other on
# the processors.
mirror=$(awk '/^URIs:/ { uri = $2 } /^Suites:/ && / bookworm( |$)/ { print uri; exit }' \
  /etc/apt/sources.list.d/debian.sources 2>/dev/null || true)
[[ -z $mirror ]] && mirror=$(awk '$1 == "deb" && $3 == "bookworm" { print $2; exit }' \
  /etc/apt/sources.list 2>/dev/null || true)
if [[ -z $mirror ]]; then
  echo "package-test: no bookworm archive in this machine's apt sources" >&2
  exit 1
fi
t_tree=$(date +%s)
# man-db to show the pages, systemd to check the units against, netcat to
# stand in for the syslog daemon; nothing else.
(debootstrap --variant=minbase --include=man-db,systemd,netcat-openbsd bookworm "$TREE" "$mirror" \
  >"$WORK/debootstrap.log" 2>&1 && date +%s >"$WORK/debootstrap.done") &
debootstrap_pid=$!

# ---- build the packages: optimised as Debian builds (-O2), without tests
t0=$(date +%s)
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG" \
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DVOD_WERROR=ON -DVOD_TESTS=OFF >/dev/null
cmake --build "$BUILD" -j2 --target vod voctl vodsim vodsimctl man package_changelog
rm -f "$BUILD"/*.deb
(cd "$BUILD" && cpack -G DEB >/dev/null)
debs=("$BUILD"/vod_*.deb "$BUILD"/vod-sim_*.deb)
echo "package-test: packages built in $(elapsed "$t0"): ${debs[*]##*/}"

# Left as they are, and said why in the README: information tags only.
check "lintian: no errors or warnings" \
  lintian --no-cfg --fail-on error,warning "${debs[@]}"

if ! wait "$debootstrap_pid"; then
  tail -20 "$WORK/debootstrap.log" >&2
  exit 1
fi
echo "package-test: debootstrap --variant=minbase took $(($(cat "$WORK/debootstrap.done") - t_tree)) s"

# Install as an administrator would: apt fetches what Depends names. No
# service is started inside the tree.
t0=$(date +%s)
printf '#!/bin/sh\nexit 101\n' >"$TREE/usr/sbin/policy-rc.d"
chmod +x "$TREE/usr/sbin/policy-rc.d"
cp /etc/resolv.conf "$TREE/etc/resolv.conf"
mkdir -p "$TREE/tmp/debs"
cp "${debs[@]}" "$TREE/tmp/debs/"
cp "$ROOT/completion/check-completion.sh" "$TREE/tmp/"
mount -t proc proc "$TREE/proc"
in_tree() { chroot "$TREE" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"; }
in_tree apt-get update -qq
check "apt installs the packages with their dependencies" \
  in_tree sh -c 'DEBIAN_FRONTEND=noninteractive apt-get install -y -qq /tmp/debs/*.deb >/tmp/apt.log 2>&1 || { cat /tmp/apt.log; exit 1; }'
echo "package-test: installed in $(elapsed "$t0")"

# The units, in the installed tree: their syntax, their dependencies (the
# port mapper's unit), their programs and the man pages they name.
check "systemd-analyze verify the units" \
  in_tree systemd-analyze verify /lib/systemd/system/vod.service /lib/systemd/system/vodsim.service

# ---- run them, on a network of their own (loopback only; D-blade 2 of the
# simulated node answers at 127.0.0.2) with the tree's own rpcbind, in a pid
# namespace whose /proc shows only them.
cat >"$TREE/tmp/run-checks.sh" <<'INNER'
set -u
fails=0
report() { if [ "$2" = 0 ]; then echo "ok   $1"; else echo "FAIL $1"; fails=$((fails + 1)); fi; }
mkdir -p /run/rpcbind
rpcbind -f -w >/tmp/rpcbind.log 2>&1 &
for _ in $(seq 100); do rpcinfo -p 127.0.0.1 >/dev/null 2>&1 && break; sleep 0.1; done

# vod in the foreground for one loop pass: it registers, listens on 908 and returns.
vod -d -x1 >/tmp/vod.out 2>&1
grep -q "vod listens on port 908" /tmp/vod.out; report "vod -d -x1 listens on port 908" $?

# The unit's command line, with one loop pass added, starts it the same way.
cmdline=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/vod.service)
$cmdline -x1 >/tmp/vod-unit.out 2>&1
grep -q "vod listens on port 908" /tmp/vod-unit.out; report "vod.service's ExecStart starts vod" $?

# As a daemon vod traces to syslog as vod[PID] with facility daemon: its
# warning that it returns after one pass is priority notice, <29>.
nc -lkUu /dev/log >/tmp/syslog.out 2>&1 &
nc_pid=$!
for _ in $(seq 50); do [ -S /dev/log ] && break; sleep 0.1; done
vod -x1
for _ in $(seq 100); do grep -q "will exit" /tmp/syslog.out && break; sleep 0.1; done
grep -q '<29>.* vod\[[0-9]*\]: 0 W VOD .*vod will exit after servicing 1 RPC calls' /tmp/syslog.out
report "vod as a daemon: syslog daemon.notice, identifier vod" $?
kill $nc_pid
# The daemon's one pass ends before the next vod binds its ports.
for _ in $(seq 100); do grep -qx vod /proc/[0-9]*/comm 2>/dev/null || break; sleep 0.1; done

voctl --help >/tmp/voctl-help.out 2>&1; report "voctl --help" $?

for page in /usr/share/man/man8/vod.8.gz /usr/share/man/man8/voctl.8.gz \
  /usr/share/man/man8/vodsim.8.gz /usr/share/man/man8/vodsimctl.8.gz; do
  warn=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/tmp/page.txt)
  [ -z "$warn" ] && [ -s /tmp/page.txt ]; report "man -l $page" $?
  [ -n "$warn" ] && echo "$warn"
done

# voctl's page has an entry for every subcommand voctl has.
# An entry is a term line (the one before ".RS 4") under SUBCOMMANDS.
zcat /usr/share/man/man8/voctl.8.gz | awk '/^\.SH/ { on = ($2 == "SUBCOMMANDS") }
  on && $0 == ".RS 4" { print prev } { prev = $0 }' >/tmp/voctl-terms
missing=""
for sub in $(voctl --help | awk '$0 == "Subcommands:" { on = 1; next } on && /^[^ ]/ { on = 0 } on && /^  [^ ]/ { print $1 }'); do
  grep -qF "\\fB$sub\\fR" /tmp/voctl-terms || missing="$missing $sub"
done
[ -z "$missing" ]; report "voctl(8) documents every subcommand${missing:+ (missing:$missing)}" $?

# The simulated node, as its unit starts it, gives the completion LP names to offer.
mkdir -p /var/lib/vodsim
simcmd=$(sed -n 's/^ExecStart=//p' /lib/systemd/system/vodsim.service)
$simcmd --quiet >/tmp/vodsim.out 2>&1 &
for _ in $(seq 100); do vodsimctl ping >/dev/null 2>&1 && break; sleep 0.1; done
vodsimctl ping >/dev/null 2>&1; report "vodsim.service's ExecStart starts vodsim" $?
voctl lps >/tmp/lps.out 2>&1; report "voctl lps names the simulated node's LPs" $?
VOCTL_CHECK_LPS="lp1a lp1b lp2a lp2b" bash /tmp/check-completion.sh; report "completion checks" $?
exit $fails
INNER
t0=$(date +%s)
# shellcheck disable=SC2016 # $1 is the tree, expanded by the inner shell
unshare --net --pid --mount --fork bash -c '
    mount -t proc proc "$1/proc" && ip link set lo up && ip addr add 127.0.0.2/8 dev lo &&
    chroot "$1" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM=dumb sh /tmp/run-checks.sh' \
  _ "$TREE" 2>&1 | tee "$WORK/in-tree.log" || true
in_ok=$(grep -c '^ok ' "$WORK/in-tree.log" || true)
in_failed=$(grep -c '^FAIL ' "$WORK/in-tree.log" || true)
passed=$((passed + in_ok))
failed=$((failed + in_failed))
# The inner script ran to its end: its last check's line is there.
grep -q '^ok   completion checks$\|^FAIL completion checks$' "$WORK/in-tree.log" ||
  fail "the checks in the tree did not run to their end"
echo "package-test: checks in the tree in $(elapsed "$t0")"

echo "package: $passed passed, $failed failed"
((failed == 0))
