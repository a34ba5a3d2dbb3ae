#!/bin/bash
# Installs the Debian packages a group of tasks needs, only when something is
# missing. usage: install-deps.sh GROUP...   (groups: build test)
set -euo pipefail

declare -A group_packages=(
  [build]="cmake make g++ clang libgtest-dev libgmock-dev android-liblog-dev iproute2 util-linux binutils"
  [test]="cmake make g++ clang libgtest-dev libgmock-dev android-liblog-dev iproute2 util-linux binutils"
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
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
