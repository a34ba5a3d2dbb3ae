#!/bin/sh
# The dynamic symbol table of libnltavrel.so: it exports exactly the 26 public
# functions the version script and the public header list (abi/ pins their
# names and types); it needs no C++ runtime; the daemon's and its closed
# libraries' symbols stay undefined, every other undefined one is versioned or liblog's.
# usage: check_symbols.sh LIB MAP HEADER SANITIZED(0|1)
set -eu
lib=$1 map=$2 header=$3 sanitized=${4:-0} fail=0 tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

sed -n 's/^[[:space:]]*\(tavrel_[a-z0-9_]*\);.*/\1/p' "$map" | sort >"$tmp/map"
sed -n 's/^TAVREL_API [^(]*[ *]\(tavrel_[a-z0-9_]*\)(.*/\1/p' "$header" | sort >"$tmp/header"
readelf --dyn-syms -W "$lib" >"$tmp/dynsyms"
# Every defined global symbol, function or not, is the version script's: a
# daemon's symbol defined here would shadow the daemon's own.
awk '$7 != "UND" && ($5 == "GLOBAL" || $5 == "WEAK") && $6 == "DEFAULT" {print $8}' "$tmp/dynsyms" |
  sed 's/@.*//' | sort >"$tmp/exported"

report() { echo "FAIL: $*"; fail=1; }
differs() { cmp -s "$1" "$2" || report "$3: $(diff "$1" "$2" | grep '^[<>]' | tr '\n' ' ')"; }
[ "$(wc -l <"$tmp/map")" = 26 ] || report "the version script lists $(wc -l <"$tmp/map") functions, not 26"
differs "$tmp/map" "$tmp/header" "public header differs from the version script"
differs "$tmp/map" "$tmp/exported" "exported symbols differ from the version script"
if [ "$sanitized" != 1 ]; then
  needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  echo "$needed" | grep -q 'libstdc++' && report "needs the C++ runtime: $needed"
  daemon='^(log_to_file|logging_fd|kv_log_mask|kv_format_log_msg|kv_diag_emit_msg|kv_memscpy|tavrel_main_cfg|tavrel_util_convert_.*|tavrel_xfrm_utils_get_.*)$'
  bad=$(awk '$7 == "UND" && $8 != "" {print $8}' "$tmp/dynsyms" | sort -u | grep -v '@' | grep -Ev "$daemon" |
    grep -Ev '^(__android_log_print|__gmon_start__|_ITM_.*|__cxa_finalize)$' || true)
  [ -z "$bad" ] || report "unexpected undefined symbols:" $bad
fi
[ "$fail" = 0 ] && echo "symbols: $(wc -l <"$tmp/exported") exported functions match the version script"
exit $fail
