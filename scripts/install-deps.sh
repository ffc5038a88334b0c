#!/usr/bin/env bash
# Installs what building and testing vod needs on a fresh Debian 12 machine.
# Idempotent: when every package is already there it does nothing, quickly,
# and needs no root.
#
# Usage: install-deps.sh [fuzz]   (fuzz: also clang and its libFuzzer runtime,
# for scripts/fuzz.sh)
set -euo pipefail

PACKAGES=(
  build-essential g++ cmake ninja-build pkg-config
  libtirpc-dev rpcsvc-proto rpcbind
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  libsqlite3-dev sqlite3
  iproute2 util-linux procps
  # /etc/protocols: without it rpcbind does not answer and no RPC client can
  # be made (a minimal Debian 12 lacks it)
  netbase
  # packages, man pages and their checks (scripts/package-test.sh); tmux for
  # watching voctl top as a person would
  scdoc groff-base man-db lintian debootstrap zsh tmux
)
if [[ "${1:-}" == fuzz ]]; then
  # clang does not pull in its runtimes without recommends; libFuzzer is one.
  PACKAGES+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $EUID -ne 0 ]]; then
  echo "install-deps.sh: missing packages: ${missing[*]}" >&2
  echo "install-deps.sh: run as root: sudo bash scripts/install-deps.sh" >&2
  exit 1
fi

echo "install-deps.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
