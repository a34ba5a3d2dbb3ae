#!/bin/bash
# The binary contract of libnltavrel.so with the daemon, recorded per
# architecture in abi/libnltavrel.ARCH.abi (docs/abi.md).
#
#   abi.sh check LIB BASELINE   fails when LIB's ABI differs from BASELINE in
#                               anything abidiff reports, harmless changes
#                               included, or when LIB has no debug information
#   abi.sh baseline             builds build/ (x86_64) and build-armhf/ as
#                               scripts/test.sh does and rewrites both
#                               baselines; refuses a break that keeps the soname
#
# Both sides of a comparison are dumps made here the same way, so the result
# depends neither on the build directory nor on the machine's paths.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

for tool in abidw abidiff; do
  command -v "$tool" >/dev/null || { echo "abi: $tool not found (scripts/install-deps.sh test)" >&2; exit 2; }
done

# Every type the library's DWARF knows is loaded, so that the records no
# export reaches (the modem address, the log site) are in the dump; types
# defined outside the public header are reduced to their names or, when
# compare() runs, left out of the report unless an export reaches them.
# Locations keep the file name only, which the header filter needs; line and
# column are set to 1 so that moving code does not change the baseline.
dump() {  # lib out
  abidw --load-all-types --headers-dir "$root/inc" --drop-private-types --drop-undefined-syms \
    --no-corpus-path --no-comp-dir-path --short-locs "$1" \
    | sed -E "s/ line='[0-9]+' column='[0-9]+'/ line='1' column='1'/" > "$2"
  if ! grep -q "<function-decl name='tavrel_" "$2"; then
    echo "abi: $1 has no debug information; build it with -g (RelWithDebInfo or Debug)" >&2
    return 2
  fi
}

# abidiff's exit status: bit 2 (4) any change, bit 3 (8) an incompatible one,
# bits 0 and 1 an error. --harmless counts the changes abidiff would otherwise
# filter out (a typedef renamed, a qualifier added), so that the baseline
# always states exactly what ships.
compare() {  # old new
  abidiff --non-reachable-types --harmless --hd1 "$root/inc" --hd2 "$root/inc" "$1" "$2"
}

soname() { sed -n "1s/.* soname='\([^']*\)'.*/\1/p" "$1"; }

cmd=${1:-}
case $cmd in
check)
  [[ $# -eq 3 ]] || { echo "usage: abi.sh check LIB BASELINE" >&2; exit 2; }
  lib=$2 baseline=$3
  [[ -f $baseline ]] || { echo "abi: no baseline $baseline (scripts/abi.sh baseline)" >&2; exit 2; }
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  dump "$lib" "$tmp/current.abi"
  status=0
  compare "$baseline" "$tmp/current.abi" > "$tmp/report" || status=$?
  if [[ $status -ne 0 ]]; then
    cat "$tmp/report"
    echo "FAIL: the ABI of $lib differs from ${baseline#"$root"/} (abidiff status $status)."
    echo "An intended change updates the baseline in the same commit (scripts/abi.sh baseline);"
    echo "a break also raises the major version in CMakeLists.txt, which renames the soname (docs/abi.md)."
    exit 1
  fi
  echo "abi: $(grep -c '<function-decl ' "$tmp/current.abi") functions and the public records match ${baseline#"$root"/} ($(soname "$baseline"))"
  ;;
baseline)
  [[ $# -eq 1 ]] || { echo "usage: abi.sh baseline" >&2; exit 2; }
  mkdir -p "$root/abi"
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  refused=0
  for arch in x86_64 armhf; do
    dir=$root/build args=()
    if [[ $arch == armhf ]]; then
      dir=$root/build-armhf args=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake")
    fi
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${args[@]}" >/dev/null
    cmake --build "$dir" -j"$(nproc)" --target nltavrel >/dev/null
    baseline=$root/abi/libnltavrel.$arch.abi
    dump "$dir/libnltavrel.so" "$tmp/$arch.abi"
    if [[ -f $baseline ]]; then
      status=0
      compare "$baseline" "$tmp/$arch.abi" > "$tmp/report" || status=$?
      if [[ $status -eq 0 ]]; then
        echo "abi: $arch unchanged"
      else
        cat "$tmp/report"
        if (( status & 3 )); then
          echo "abi: abidiff failed ($status)" >&2
          exit 1
        fi
        if (( status & 8 )) && [[ $(soname "$baseline") == $(soname "$tmp/$arch.abi") ]]; then
          echo "abi: $arch: incompatible change, but the soname is still $(soname "$baseline");" \
            "raise the major version in CMakeLists.txt's project() first (docs/abi.md)" >&2
          refused=1
          continue
        fi
      fi
    fi
    cp "$tmp/$arch.abi" "$baseline"
    echo "abi: wrote ${baseline#"$root"/} ($(soname "$baseline"))"
  done
  exit $refused
  ;;
*)
  echo "usage: abi.sh check LIB BASELINE | abi.sh baseline" >&2
  exit 2
  ;;
esac
