#!/bin/bash
# Builds libnltavrel and tavrelctl (installing what is missing) and runs the
# demonstration inside a private network namespace: each step calls the
# library through tavrelctl, prints the library's log lines (diagnostics
# channel, on stderr) and then the kernel's view through iproute2.
#
#   tools/demo/run-demo.sh        in this machine's kernel
#   tools/demo/run-demo.sh --vm   in a full x86_64 Debian kernel under qemu
#                                 (tools/vm), which has ESP and the prio
#                                 qdisc; it ends with an IPsec tunnel between
#                                 two namespaces, one side set up by the
#                                 library alone, with ping through it
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
vm=false
case ${1:-} in
"") ;;
--vm) vm=true ;;
*) echo "usage: $0 [--vm]" >&2; exit 2 ;;
esac
if $vm; then
  "$root/scripts/install-deps.sh" build vm
else
  "$root/scripts/install-deps.sh" build
fi
build=${TAVREL_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
if $vm; then
  cmake --build "$build" -j"$(nproc)" --target tavrelctl udp_encap_holder >/dev/null
  exec "$root/tests/vm/guest-tier.sh" x86_64 "$build" demo
fi
cmake --build "$build" -j"$(nproc)" --target tavrelctl >/dev/null
exec unshare -n "$root/tools/demo/demo.sh" "$build/tools/tavrelctl"
