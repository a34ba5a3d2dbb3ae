#!/bin/sh
# Android.bp exactly as the platform's formatter writes it, so that a tree's
# upload checks take it unchanged.
# usage: check_android_bp.sh BPFMT ANDROID_BP
set -u
command -v "$1" >/dev/null || { echo "FAIL: no bpfmt (Debian package blueprint-tools)"; exit 1; }
diff=$("$1" -d "$2") || { echo "FAIL: bpfmt cannot parse $2"; exit 1; }
[ -z "$diff" ] || { printf '%s\n' "$diff"; echo "FAIL: $2 is not formatted as bpfmt formats it"; exit 1; }
echo "Android.bp: formatted as bpfmt formats it"
