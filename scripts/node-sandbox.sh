#!/usr/bin/env bash
# node-sandbox.sh CMD [ARG...]
#
# Runs CMD as if on a node of its own: a private network namespace with only
# loopback, private /run and /var/log (tmpfs), its own rpcbind, and a private
# pid namespace, so that every process started inside ends with CMD. The
# machine's own rpcbind and logs are never touched. Needs root.
#
# D-blade n of the simulated cluster answers at 127.0.0.n: loopback carries
# 127.0.0.1 to 127.0.0.8 (rpcbind tells a client of 127.0.0.n to go there only
# when it is an address of the node's), and a private /etc/hosts (a copy of the
# machine's, bind-mounted over it) names them dblade1 to dblade8. The
# whole-node tests set up the same (tests/integration/node.cc).
set -euo pipefail

if [[ "${VOD_NODE_SANDBOX_INNER:-}" != 1 ]]; then
  if [[ $# -eq 0 ]]; then
    echo "usage: node-sandbox.sh CMD [ARG...]" >&2
    exit 2
  fi
  if [[ $EUID -ne 0 ]]; then
    echo "node-sandbox.sh: needs root (namespaces, mounts, rpcbind)" >&2
    exit 2
  fi
  # --kill-child: if unshare itself is killed, the namespace goes with it.
  VOD_NODE_SANDBOX_INNER=1 exec unshare --net --mount --pid --fork --mount-proc --kill-child \
    bash "$0" "$@"
fi

# From here on this shell is pid 1 of the sandbox.
unset VOD_NODE_SANDBOX_INNER
export PATH="$PATH:/usr/sbin:/sbin"

ip link set lo up
mount -t tmpfs -o mode=0755 tmpfs /run
mkdir -p /run/rpcbind
chown _rpc: /run/rpcbind 2>/dev/null || true
mount -t tmpfs -o mode=0755 tmpfs /var/log

for n in $(seq 2 8); do
  ip addr add "127.0.0.$n/8" dev lo label "lo:$n"
done
{
  cat /etc/hosts
  echo "# node sandbox: D-blade n of the simulated cluster"
  for n in $(seq 1 8); do echo "127.0.0.$n dblade$n"; done
} >/run/vod-sandbox-hosts
mount --bind /run/vod-sandbox-hosts /etc/hosts

rpcbind -f -w >/var/log/rpcbind.out 2>&1 &
for _ in $(seq 150); do
  rpcinfo -p 127.0.0.1 >/dev/null 2>&1 && break
  sleep 0.1
done
if ! rpcinfo -p 127.0.0.1 >/dev/null 2>&1; then
  echo "node-sandbox.sh: rpcbind does not answer on 127.0.0.1" >&2
  cat /var/log/rpcbind.out >&2 || true
  exit 1
fi

set +e
"$@"
status=$?
# Leaving ends rpcbind and anything CMD left running: pid 1 is gone.
exit $status
