#!/bin/bash
# The demonstration proper; run it in a network namespace of its own
# (run-demo.sh does). usage: demo.sh PATH_TO_TAVRELCTL
set -euo pipefail
tavrelctl_bin=$1
here=$(cd "$(dirname "$0")" && pwd)

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
# The library's call, with its log lines from the diagnostics channel.
lib() { printf '$ tavrelctl %s\n' "$*"; "$tavrelctl_bin" --diag "$@" 2>&1; }
# The kernel's view.
show() { printf '$ %s\n' "$*"; "$@" 2>&1 | sed 's/^/    /'; }
# A call that is expected to be refused.
lib_fails() { if lib "$@"; then echo "unexpected success" >&2; exit 1; fi; }

ip link set lo up
for s in "$here"/steps/*.sh; do
  # shellcheck source=/dev/null
  . "$s"
done
printf '\ndemonstration complete\n'
