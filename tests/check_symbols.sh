#!/bin/sh
# Checks the dynamic symbol table of libnltavrel.so:
#  - it exports exactly the library's 26 public functions, as the version
#    script and the public header list them;
#  - it does not need the C++ runtime;
#  - the daemon's and its closed libraries' symbols stay undefined, and every
#    other undefined symbol comes from a versioned system library or liblog.
# usage: check_symbols.sh LIB MAP HEADER SANITIZED(0|1)
set -eu
lib=$1 map=$2 header=$3 sanitized=${4:-0}
READELF=${READELF:-readelf}
fail=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

official="tavrel_netlink_transact tavrel_nla_put tavrel_nla_put_ip_addr tavrel_nla_parse tavrel_netlink_dump
tavrel_netlink_query tavrel_netlink_query_genl tavrel_rtnetlink_add_ip_rule tavrel_rtnetlink_del_ip_rule
tavrel_rtnetlink_del_ip_rule_by_prio tavrel_rtnetlink_addr_cfg tavrel_rtnetlink_gso_max_size
tavrel_rtnetlink_flow_control tavrel_rtnetlink_tc_qdisc tavrel_rtnetlink_tc_prio tavrel_xfrm_add_states
tavrel_xfrm_add_state_from_addr_set tavrel_xfrm_remove_states tavrel_xfrm_add_policies tavrel_xfrm_add_policy_ex
tavrel_xfrm_remove_policies tavrel_xfrm_remove_policy_ex tavrel_addrlabel_add tavrel_addrlabel_del
tavrel_addrlabel_generate tavrel_addrlabel_purge_label"
echo "$official" | tr ' ' '\n' | sed '/^$/d' | sort > "$tmp/official"

sed -n 's/^[[:space:]]*\(tavrel_[a-z0-9_]*\);.*/\1/p' "$map" | sort > "$tmp/map"
sed -n 's/^TAVREL_API [^(]*[ *]\(tavrel_[a-z0-9_]*\)(.*/\1/p' "$header" | sort > "$tmp/header"
"$READELF" --dyn-syms -W "$lib" | awk '$7 != "UND" && ($5 == "GLOBAL" || $5 == "WEAK") && $6 == "DEFAULT" {print $4, $8}' \
  | sed 's/@.*//' | sort > "$tmp/defined"
awk '$1 == "FUNC" {print $2}' "$tmp/defined" > "$tmp/exported"

report() { echo "FAIL: $1"; fail=1; }
cmp -s "$tmp/header" "$tmp/official" || report "public header does not declare the 26 public functions: $(diff "$tmp/official" "$tmp/header" | grep '^[<>]' | tr '\n' ' ')"
cmp -s "$tmp/map" "$tmp/official" || report "version script differs from the 26 public functions: $(diff "$tmp/official" "$tmp/map" | grep '^[<>]' | tr '\n' ' ')"
cmp -s "$tmp/exported" "$tmp/map" || report "exported functions differ from the version script: $(diff "$tmp/map" "$tmp/exported" | grep '^[<>]' | tr '\n' ' ')"
others=$(awk '$1 != "FUNC" {print $2}' "$tmp/defined")
[ -z "$others" ] || report "exported non-function symbols: $others"

if [ "$sanitized" != 1 ]; then
  needed=$("$READELF" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  echo "$needed" | grep -q 'libstdc++' && report "needs the C++ runtime: $needed"
  daemon='^(log_to_file|logging_fd|kv_log_mask|kv_format_log_msg|kv_diag_emit_msg|kv_memscpy|tavrel_main_cfg|tavrel_util_convert_.*|tavrel_xfrm_utils_get_.*)$'
  "$READELF" --dyn-syms -W "$lib" | awk '$7 == "UND" && $8 != "" {print $8}' | sort -u > "$tmp/undefined"
  bad=$(grep -v '@' "$tmp/undefined" | grep -Ev "$daemon" | grep -Ev '^(__android_log_print|__gmon_start__|_ITM_.*|__cxa_finalize)$' || true)
  [ -z "$bad" ] || report "unexpected undefined symbols: $(echo $bad)"
  defined_daemon=$(awk '{print $2}' "$tmp/defined" | grep -E "$daemon" || true)
  [ -z "$defined_daemon" ] || report "defines symbols that belong to the daemon: $(echo $defined_daemon)"
fi

[ "$fail" = 0 ] && echo "symbols: $(wc -l < "$tmp/exported") exported functions match the version script"
exit $fail
