#!/bin/bash
# The binary contract of libnltavrel.so with the daemon, recorded per
# architecture in abi/libnltavrel.ARCH.abi (docs/abi.md).
#
#   abi.sh check LIB BASELINE   fails when LIB's ABI differs from BASELINE in
#                               anything abidiff reports, harmless changes
#                               included, or when LIB has no debug information
#   abi.sh baseline [--compatible]
#                               builds build/ (x86_64) and build-armhf/ as
#                               scripts/test.sh does and rewrites both
#                               baselines; refuses a changed ABI under the same
#                               soname unless --compatible vouches for it
#
# Both sides of a comparison are dumps made here the same way, so the result
# depends neither on the build directory nor on the machine's paths.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

for tool in abidw abidiff abilint; do
  command -v "$tool" >/dev/null || { echo "abi: $tool not found (scripts/install-deps.sh test)" >&2; exit 2; }
done

# Every type the library's DWARF knows is loaded, so that the records no
# export reaches (the modem address, the log site) are in the dump; the
# library's own types are reduced to their names. Locations keep the file
# name, which compare()'s suppressions match; line and column are set to 1 so
# that moving code does not change the baseline.
dump() {  # lib out
  abidw --load-all-types --headers-dir "$root/inc" --drop-private-types --drop-undefined-syms \
    --no-corpus-path --no-comp-dir-path --short-locs "$1" \
    | sed -E "s/ line='[0-9]+' column='[0-9]+'/ line='1' column='1'/" > "$2"
  if ! grep -q "<function-decl name='tavrel_" "$2"; then
    echo "abi: $1 has no debug information; build it with -g (RelWithDebInfo or Debug)" >&2
    return 2
  fi
}

# abidiff's exit status: 4 any change, 8 an incompatible one, 1 and 2 an
# error. The first run covers the exports and every type they reach, wherever
# it is defined: the records tavrel_ip_addr, tavrel_xfrm_sa_addrs and
# tavrel_xfrm_addr_set and the callback types among them. The second run adds
# the records that only the daemon's functions reach (the modem address, the
# log site) and leaves out every other unreachable type: structures, classes,
# enums and unions by name or kind, typedefs unless they come from the public
# header or are the fixed-width integers the records use, so that a field
# changed from uint32_t to int32_t still shows (abidiff's own header filter,
# --hd, hides exactly that change). --harmless counts what abidiff would
# otherwise filter out: a record's field renamed keeps the binary but breaks
# the daemon's source.
compare() {  # old new
  local status=0 unreachable=0 suppr file
  # abidiff reads a damaged dump (a merge's conflict markers, say) as an
  # empty one and then reports no change at all.
  for file in "$1" "$2"; do
    abilint --noout "$file" 2>/dev/null || { echo "abi: $file is not a readable ABI dump" >&2; return 1; }
  done
  suppr=$(mktemp)
  cat > "$suppr" <<EOF
[suppress_type]
  type_kind = struct
  name_not_regexp = ^(tavrel_modem_ip_addr|tavrel_log_site)\$
[suppress_type]
  type_kind = class
  name_not_regexp = ^(tavrel_modem_ip_addr|tavrel_log_site)\$
[suppress_type]
  type_kind = enum
[suppress_type]
  type_kind = union
[suppress_type]
  type_kind = typedef
  source_location_not_in = libnltavrel.h, stdint-uintn.h, stdint-intn.h, types.h
EOF
  abidiff --harmless "$1" "$2" || status=$?
  # Of the second report only the unreachable types, as a rule: the rest
  # repeats the first.
  abidiff --harmless --non-reachable-types --suppressions "$suppr" "$1" "$2" > "$suppr.report" || unreachable=$?
  if grep -q 'unreachable from any public interface:$' "$suppr.report"; then
    sed -n '/^Unreachable types summary/p; /unreachable from any public interface:$/,$p' "$suppr.report"
  elif [[ $status -eq 0 ]]; then
    cat "$suppr.report"
  fi
  rm -f "$suppr" "$suppr.report"
  return $((status | unreachable))
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
  if (( status & 3 )); then
    cat "$tmp/report"
    echo "FAIL: could not compare $lib with ${baseline#"$root"/} (status $status)."
    exit 1
  elif [[ $status -ne 0 ]]; then
    cat "$tmp/report"
    echo "FAIL: the ABI of $lib differs from ${baseline#"$root"/} (abidiff status $status)."
    echo "An intended change updates the baseline in the same commit (scripts/abi.sh baseline);"
    echo "a break also raises the major version in CMakeLists.txt, which renames the soname (docs/abi.md)."
    exit 1
  fi
  echo "abi: $(grep -c '<function-decl ' "$tmp/current.abi") functions and the public records match ${baseline#"$root"/} ($(soname "$baseline"))"
  ;;
baseline)
  compatible=0
  [[ ${2:-} == --compatible ]] && compatible=1 && shift
  [[ $# -eq 1 ]] || { echo "usage: abi.sh baseline [--compatible]" >&2; exit 2; }
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
    dump "$dir/libnltavrel.so" "$tmp/$arch.abi"
    baseline=$root/abi/libnltavrel.$arch.abi
    [[ -f $baseline ]] || continue
    status=0
    compare "$baseline" "$tmp/$arch.abi" > "$tmp/$arch.report" || status=$?
    (( status & 3 )) && { cat "$tmp/$arch.report"; echo "abi: abidiff failed ($status)" >&2; exit 1; }
    [[ $status -eq 0 ]] && { touch "$tmp/$arch.same"; continue; }
    echo "=== $arch: changes against the current baseline"
    cat "$tmp/$arch.report"
    # A changed ABI under the same soname is either a break that forgot the
    # major version or a compatible change that someone has to vouch for.
    if [[ $(soname "$baseline") == $(soname "$tmp/$arch.abi") && $compatible -eq 0 ]]; then
      echo "abi: $arch: the ABI changed but the soname is still $(soname "$baseline"). A break raises the" \
        "major version in CMakeLists.txt's project(); a compatible change (an added function, say)" \
        "is accepted with 'abi.sh baseline --compatible'." >&2
      refused=1
    fi
  done
  [[ $refused -eq 0 ]] || { echo "abi: baselines left unchanged" >&2; exit 1; }
  # An unchanged ABI keeps its file: the order of the declarations in a dump
  # follows the debug information, which differs with the build's paths.
  mkdir -p "$root/abi"
  for arch in x86_64 armhf; do
    baseline=$root/abi/libnltavrel.$arch.abi
    if [[ -f $tmp/$arch.same ]]; then
      echo "abi: ${baseline#"$root"/} unchanged"
    else
      cp "$tmp/$arch.abi" "$baseline"
      echo "abi: wrote ${baseline#"$root"/} ($(soname "$baseline"))"
    fi
  done
  ;;
*)
  echo "usage: abi.sh check LIB BASELINE | abi.sh baseline [--compatible]" >&2
  exit 2
  ;;
esac
