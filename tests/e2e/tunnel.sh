#!/bin/bash
# An IPsec tunnel between two network namespaces joined by a veth pair, with plain
# ESP and with ESP in UDP: side A set up and torn down only by the library
# (tavrelctl), side B by iproute2 with the mirrored SPIs and keys. Pings between
# the inner addresses must pass through all four SAs until side A is torn down.
# Needs a kernel with ESP (the guest of tools/vm); traffic stays in the namespaces.
# usage: tunnel.sh TAVRELCTL UDP_ENCAP_HOLDER [--show: each command, its output
# and the kernel's view]. Ends with "N passed, N failed".
set -uo pipefail
ctl=$1 holder=$2 show=${3:-}
work=$(mktemp -d) holders=() passed=0 failed=0
reset() { kill "${holders[@]}" 2>/dev/null; holders=(); ip netns del tunA 2>/dev/null; ip netns del tunB 2>/dev/null; }
trap 'reset; rm -rf "$work"' EXIT
a_out=192.0.2.1 b_out=192.0.2.2 a_in=198.51.100.1 b_in=203.0.113.1 spi_tx=0x1001 spi_rx=0x2001
crypt_tx=$(printf %02x {0..15}) crypt_rx=$(printf %02x {240..255}) auth_tx=$(printf %02x {32..63}) auth_rx=$(printf %02x {64..95})

check() {  # NAME COMMAND...: one step; its output shows in --show mode, or when it fails
	local name=$1
	shift
	if [[ $show == --show ]]; then "$@"; else "$@" >"$work/out" 2>&1; fi && { echo "ok   $name"; ((++passed)); return; }
	echo "FAIL $name" && ((++failed)) && [[ $show != --show ]] && sed 's/^/    /' "$work/out"
}
in_ns() {  # a command in a namespace, printed with its output in --show mode
	local ns=$1
	shift
	[[ $show == --show ]] || { ip netns exec "$ns" "$@"; return; }
	printf '[%s]$ %s\n' "${ns#tun}" "$*"
	ip netns exec "$ns" "$@" 2>&1 | sed 's/^/    /'
	return "${PIPESTATUS[0]}"
}
view() { [[ $show != --show ]] || in_ns "$@"; }
lib() { in_ns tunA "$ctl" --diag "$@"; }
# The packets each SA of the namespaces counted; grew BEFORE AFTER: four counters, each larger.
packets() { for ns; do ip -n "$ns" -s xfrm state | sed -n 's/.*, \([0-9]*\)(packets).*/\1/p'; done | tr '\n' ' '; }
grew() {
	local -a b a
	read -ra b <<<"$1" && read -ra a <<<"$2"
	[[ ${#b[@]} -eq 4 && ${#a[@]} -eq 4 ]] && ((a[0] > b[0] && a[1] > b[1] && a[2] > b[2] && a[3] > b[3]))
}
holders_ready() {
	for _ in $(seq 50); do [[ $(cat "$work"/holder-* 2>/dev/null) == $'ready\nready' ]] && return 0 || sleep 0.1; done
	cat "$work"/holder-* && false
}
setup_namespaces() {
	ip netns add tunA && ip netns add tunB && ip link add vA netns tunA type veth peer name vB netns tunB &&
		ip -n tunA addr add $a_out/24 dev vA && ip -n tunB addr add $b_out/24 dev vB &&
		ip -n tunA addr add $a_in/32 dev lo && ip -n tunB addr add $b_in/32 dev lo || return
	for ns in tunA:vA tunB:vB; do ip -n ${ns%:*} link set lo up && ip -n ${ns%:*} link set ${ns#*:} up || return; done
	ip -n tunA route add $b_in/32 via $b_out src $a_in && ip -n tunB route add $a_in/32 via $a_out src $b_in
}
setup_side_b() {  # mirrors side A: A's TX SA is B's incoming one. $1: esp or encap.
	local encap=() sa
	[[ $1 == encap ]] && encap=(encap espinudp 4500 4500 0.0.0.0)
	for sa in "$a_out $b_out $spi_tx $crypt_tx $auth_tx" "$b_out $a_out $spi_rx $crypt_rx $auth_rx"; do
		set -- $sa
		in_ns tunB ip xfrm state add src $1 dst $2 proto esp spi $3 mode tunnel \
			enc 'cbc(aes)' 0x$4 auth-trunc 'hmac(sha256)' 0x$5 128 "${encap[@]}" || return
	done
	in_ns tunB ip xfrm policy add src $b_in dst $a_in dir out tmpl src $b_out dst $a_out proto esp spi $spi_rx mode tunnel &&
		in_ns tunB ip xfrm policy add src $a_in dst $b_in dir in tmpl src $a_out dst $b_out proto esp spi $spi_tx mode tunnel &&
		in_ns tunB ip xfrm policy add src $a_in dst $b_in dir fwd tmpl src $a_out dst $b_out proto esp spi $spi_tx mode tunnel
}
setup_side_a() {
	printf 'local = %s\ndest = %s\nprotocol = esp\nmode = tunnel\nspi_tx = %s\nspi_rx = %s\ncrypto_algo = 12\naes_mode = cbc
crypto_key_tx = %s\ncrypto_key_rx = %s\nhash_algo = 6\nhash_key_tx = %s\nhash_key_rx = %s\n' $a_out $b_out $spi_tx $spi_rx \
		$crypt_tx $crypt_rx $auth_tx $auth_rx >"$work/sa.conf"
	[[ $1 == encap ]] && printf 'udp_encap = 1\nudp_encap_port = 4500\n' >>"$work/sa.conf"
	view tunA cat "$work/sa.conf"
	lib xfrm_add_states "$work/sa.conf" 0 0 0 &&
		lib xfrm_add_policies $a_out $b_out $spi_tx $spi_rx esp tunnel $a_in $b_in - tx &&
		lib xfrm_add_policies $a_out $b_out $spi_tx $spi_rx esp tunnel $b_in $a_in - rx
}
teardown_side_a() {
	lib xfrm_remove_states $a_out $b_out $spi_tx $spi_rx esp tunnel &&
		lib xfrm_remove_policies $a_in $b_in - tx && lib xfrm_remove_policies $b_in $a_in - rx
}

for v in esp encap; do
	[[ $show == --show ]] && printf '\n\033[1m== Tunnel: %s\033[0m\n' \
		"$([[ $v == esp ]] && echo "ESP" || echo "ESP in UDP, port 4500 on both sides")"
	reset
	check "$v: namespaces joined by a veth pair" setup_namespaces
	if [[ $v == encap ]]; then
		rm -f "$work"/holder-*
		for ns in tunA tunB; do ip netns exec $ns "$holder" 4500 120 >"$work/holder-$ns" 2>&1 & holders+=($!); done
		check "$v: UDP_ENCAP_ESPINUDP sockets on port 4500" holders_ready
	fi
	check "$v: side B through iproute2" setup_side_b $v
	check "$v: side A through the library" setup_side_a $v
	view tunA ip xfrm state && view tunA ip xfrm policy
	before=$(packets tunA tunB)
	check "$v: ping through the tunnel" in_ns tunA ping -c 3 -W 2 $b_in
	after=$(packets tunA tunB)
	check "$v: the counters of all four SAs grew ($before-> $after)" grew "$before" "$after"
	view tunA ip -s xfrm state
	check "$v: side A torn down through the library" teardown_side_a
	check "$v: no SA and no policy left on side A" test -z "$(ip -n tunA xfrm state)$(ip -n tunA xfrm policy)"
	before=$(packets tunB)
	check "$v: ping no longer passes" eval "! in_ns tunA ping -c 2 -W 1 $b_in"
	check "$v: side B's SAs saw nothing more" test "$before" = "$(packets tunB)"
done
echo "tunnel: $passed passed, $failed failed"
[[ $failed -eq 0 ]]
