#!/bin/bash
# Builds libnltavrel and tavrelctl (installing what is missing) and runs the
# demonstration inside a private network namespace: each step calls the
# library through tavrelctl, prints the library's log lines (diagnostics
# channel, on stderr) and then the kernel's view through iproute2.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
"$root/scripts/install-deps.sh" build
build=${TAVREL_BUILD_DIR:-$root/build}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target tavrelctl >/dev/null
exec unshare -n "$root/tools/demo/demo.sh" "$build/tools/tavrelctl"
