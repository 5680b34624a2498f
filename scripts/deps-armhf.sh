#!/usr/bin/env bash
# Sets up what a build for the recorder's 32-bit ARM (armhf) needs on a desktop Debian:
#  - the cross toolchain and qemu-user, as host packages (scripts/deps.sh);
#  - Debian's armhf builds of the libraries the project links (ZeroMQ, jsoncpp, GoogleTest and
#    what they need), unpacked into ROOT (default: .deps/armhf below the checkout).
# The armhf packages are downloaded with a private apt state and unpacked with `dpkg -x`: they
# are never installed, so the host's packages stay as they are (installing armhf -dev packages
# through dpkg multiarch conflicts with the host's versions). glibc and libstdc++ are not among
# them: the cross toolchain's own copies in /usr/arm-linux-gnueabihf are the only ones, because
# qemu-arm must see exactly one glibc.
# usage: deps-armhf.sh [ROOT]
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(realpath -m "${1:-$here/../.deps/armhf}")

bash "$here/deps.sh" g++-arm-linux-gnueabihf qemu-user file

packages=(
  libzmq3-dev libzmq5 libjsoncpp-dev libjsoncpp25 libgtest-dev libgmock-dev
  # What libzmq5 loads, and the -dev packages its pkg-config file requires.
  libsodium23 libsodium-dev libpgm-5.3-0 libpgm-dev libnorm1 libnorm-dev libxml2-dev
  libgssapi-krb5-2 libkrb5-3 libk5crypto3 libkrb5support0 libcom-err2 libkeyutils1
  libkrb5-dev krb5-multidev libbsd0 libbsd-dev libmd0 libmd-dev
  # pm-top's terminal library.
  libncurses-dev libncurses6 libncursesw6 libtinfo6
)
stamp=$root/.packages
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${packages[*]}" ]; then
  exit 0
fi

echo "deps-armhf: fetching ${#packages[@]} armhf packages into $root"
rm -rf "$root"
apt_dir=$root.apt
mkdir -p "$apt_dir/state/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs" "$root"
touch "$apt_dir/status"
apt_options=(
  -o "Dir::State=$apt_dir/state" -o "Dir::State::status=$apt_dir/status"
  -o "Dir::Cache=$apt_dir/cache" -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
  -o "Debug::NoLocking=1" -o "APT::Sandbox::User=root" -q
)
# The host's sources, read for armhf. A mirror that is half-way through a sync can fail one
# index (seen with the security suite); what the others hold is enough as long as every
# package below is found, which the download checks.
apt-get "${apt_options[@]}" update >"$apt_dir/update.log" 2>&1 ||
  echo "deps-armhf: some armhf indexes failed to download (see $apt_dir/update.log)" >&2
(cd "$apt_dir/debs" && apt-get "${apt_options[@]}" download "${packages[@]}") >"$apt_dir/download.log" 2>&1 || {
  cat "$apt_dir/download.log" >&2
  echo "deps-armhf: downloading the armhf packages failed" >&2
  exit 1
}
for deb in "$apt_dir"/debs/*.deb; do
  dpkg -x "$deb" "$root"
done
rm -rf "$apt_dir"
echo "${packages[*]}" >"$stamp"
