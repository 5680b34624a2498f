#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need, and any further
# packages named as arguments; quick when all is there already. Run as root, or with sudo
# available.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libzmq3-dev cppzmq-dev libjsoncpp-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang-format clang libclang-rt-14-dev
  python3 python3-zmq python3-serial
  libncurses-dev tmux
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "deps: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "deps: not root and no sudo; install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
