#!/usr/bin/env bash
# Prepares a Debian 12 machine to build and test for 32-bit ARM (armhf):
# installs the cross compiler and qemu-user when missing (run as root), and
# unpacks the armhf SQLite, OpenSSL and GoogleTest packages into a sysroot
# directory. The .debs are fetched with a private apt state and unpacked with
# dpkg-deb, so the machine's own apt configuration is not touched (adding the
# armhf architecture to dpkg would make every later apt-get update fail).
#   ARMHF_SYSROOT  where to unpack (default: build-armhf-sysroot in the tree,
#                  where cmake/toolchain-armhf.cmake looks by default)
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=${ARMHF_SYSROOT:-$PWD/build-armhf-sysroot}
host_packages="g++-arm-linux-gnueabihf qemu-user"
target_packages="libsqlite3-0 libsqlite3-dev libssl3 libssl-dev libgtest-dev libgmock-dev"

missing=""
for p in $host_packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  if [ "$(id -u)" != 0 ]; then
    echo "armhf-setup: missing Debian packages:$missing (run as root to install them)" >&2
    exit 1
  fi
  echo "armhf-setup: installing$missing"
  apt-get update -qq
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
fi

# The sysroot is complete when the stamp lists exactly these packages.
stamp="$sysroot/.packages"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$target_packages" ]; then
  echo "armhf-setup: sysroot ready in $sysroot"
  exit 0
fi

apt_state="$sysroot.apt"
rm -rf "$sysroot" "$apt_state"
mkdir -p "$apt_state/lists/partial" "$apt_state/cache/archives/partial" "$apt_state/debs" "$sysroot"
apt_opts=(-o APT::Architectures=armhf -o APT::Architecture=armhf
  -o Dir::State::Lists="$apt_state/lists" -o Dir::Cache="$apt_state/cache"
  -o Dir::State::Status=/dev/null -o Debug::NoLocking=1 -o APT::Sandbox::User=root)
# A stale index (the security suite's, typically) makes apt-get update exit
# 100; the main index has every package named here, so go on if it arrived.
apt-get "${apt_opts[@]}" update -qq || echo "armhf-setup: apt-get update exited $?; using the indexes it fetched"
names=""
for p in $target_packages; do names="$names $p:armhf"; done
# shellcheck disable=SC2086
(cd "$apt_state/debs" && apt-get "${apt_opts[@]}" download $names)
for deb in "$apt_state"/debs/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done
rm -rf "$apt_state"
# qemu-arm -L SYSROOT looks up the target's files there first: with the
# cross C library under lib/, it finds the loader, libc, libstdc++ and the
# packages' libraries (usr/lib/arm-linux-gnueabihf) as the panel would.
ln -s /usr/arm-linux-gnueabihf/lib "$sysroot/lib"
echo "$target_packages" >"$stamp"
echo "armhf-setup: sysroot ready in $sysroot"
