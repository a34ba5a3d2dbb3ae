#!/bin/bash
# Installs the Debian packages a group of tasks needs, only when something is
# missing. usage: install-deps.sh GROUP...   (groups: build test armhf vm)
# Packages named PACKAGE:ARCH come from a foreign dpkg architecture, which is
# enabled first.
set -euo pipefail

declare -A group_packages=(
  [build]="cmake make g++ clang libgtest-dev libgmock-dev android-liblog-dev iproute2 util-linux binutils"
  [test]="cmake make g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev android-liblog-dev iproute2 util-linux binutils pkgconf abigail-tools valgrind blueprint-tools"
  # Cross build and user-mode emulation; GoogleTest is built from googletest's sources.
  [armhf]="cmake make g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf googletest qemu-user android-liblog-dev:armhf pkgconf abigail-tools"
  # The full-kernel tier's guest runner (tools/vm/run-guest.sh); the kernel
  # and the guest's packages it fetches itself.
  [vm]="qemu-system-x86 qemu-system-arm kmod cpio binutils xz-utils util-linux iproute2 dash bash"
)

wanted=()
for group in "$@"; do
  [[ -n "${group_packages[$group]+x}" ]] || { echo "install-deps: unknown group $group" >&2; exit 2; }
  read -ra pkgs <<< "${group_packages[$group]}"
  wanted+=("${pkgs[@]}")
done

missing=()
for p in "${wanted[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

if [[ $(id -u) -ne 0 ]]; then
  echo "install-deps: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
for p in "${missing[@]}"; do
  [[ $p == *:* ]] || continue
  arch=${p##*:}
  if [[ $arch != "$(dpkg --print-architecture)" ]] && ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    echo "install-deps: enabling the $arch architecture"
    dpkg --add-architecture "$arch"
  fi
done
# Other users of the machine may hold apt's lock for a while.
apt_opts=(-o DPkg::Lock::Timeout=600)
# A mirror in mid-sync can fail one index; the install below still says
# clearly if a package cannot be had.
apt-get "${apt_opts[@]}" update -qq || echo "install-deps: apt-get update reported errors; trying the install anyway" >&2
apt-get "${apt_opts[@]}" install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
