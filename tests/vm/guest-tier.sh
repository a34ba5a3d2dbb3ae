#!/bin/bash
# Runs the kernel tier of one build tree and the end-to-end tunnel, or the
# README's demonstration, in a full Debian kernel under qemu (docs/kernel-tier.md).
# The payload: the tree's programs and libraries (under their SONAMEs), tests/e2e
# and tests/vm/run.sh, which runs in the guest of tools/vm/run-guest.sh. Status:
# run.sh's, 124 for a time-out (TAVREL_VM_TIMEOUT seconds, default 600), 125 for
# a guest that did not come up.
#
# usage: tests/vm/guest-tier.sh x86_64|armhf BUILD_DIR [kernel|demo] [5.10|6.1|6.12]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
[[ $# -ge 2 ]] || { sed -n 's/^# usage: //p' "${BASH_SOURCE[0]}" >&2; exit 2; }
arch=$1 build=$(cd "$2" && pwd) mode=${3:-kernel} line=${4:-6.1}

payload=$(mktemp -d "${TMPDIR:-/tmp}/tavrel-payload.XXXXXX")
trap 'rm -rf "$payload"' EXIT
mkdir -p "$payload/bin" "$payload/lib" "$payload/tools" "$payload/e2e"

files=(tests/udp_encap_holder tools/tavrelctl)
[[ $mode == demo ]] || files+=(tests/tavrel_kernel_tests)
for f in "${files[@]}"; do
	[[ -x $build/$f ]] || { echo "guest-tier: $build/$f is not built" >&2; exit 125; }
	cp "$build/$f" "$payload/bin/"
done
# CTest passes it; a tree that is a parent project's subdirectory has no cache.
liblog=${TAVREL_VM_LIBLOG:-$(sed -n 's/^TAVREL_ANDROID_LOG_LIBRARY:FILEPATH=//p' "$build/CMakeCache.txt")}
for lib in "$build/libnltavrel.so" "$build/libtavrel_host.so" "$liblog"; do
	soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')
	cp -L "$lib" "$payload/lib/${soname:-${lib##*/}}"
done
cp "$root"/tests/e2e/*.sh "$payload/e2e/"
cp "$root/tests/vm/run.sh" "$payload/run.sh"
echo "$mode" >"$payload/mode"
[[ $mode != demo ]] || cp -r "$root/tools/demo" "$root/tools/examples" "$payload/tools/"
"$root/tools/vm/run-guest.sh" --arch "$arch" --kernel "$line" --payload "$payload" --timeout "${TAVREL_VM_TIMEOUT:-600}"
