# IPsec security associations from the example files of tools/examples. A
# kernel without ESP refuses every SA (error -93, EPROTONOSUPPORT); with ESP
# the SAs are installed and listed.
# shellcheck disable=SC2154  # here: set by demo.sh
examples="$here/../examples"
zero_key=0x$(printf '%064d' 0)
if ip xfrm state add src 192.0.2.1 dst 192.0.2.2 proto esp spi 1 mode tunnel \
     enc 'cbc(aes)' "${zero_key:0:34}" auth-trunc 'hmac(sha256)' "$zero_key" 128 2>/dev/null; then
  ip xfrm state flush
  sa_call=lib
else
  sa_call=lib_fails
fi

step "IPsec SAs: the TX and RX SA of an ESP tunnel from the modem's configuration, output mark on"
[[ $sa_call == lib ]] || echo "(this kernel has no ESP: it refuses the SAs of this and the last step)"
$sa_call xfrm_add_states "$examples/sa-esp-tunnel.conf" 0 0 -32735 1
show ip xfrm state

step "IPsec SAs: a cipher marked invalid answers 0, although nothing is installed"
invalid_cipher=$(mktemp)
{ cat "$examples/sa-esp-tunnel.conf"; echo "crypto_algo_valid = 0"; } > "$invalid_cipher"
lib xfrm_add_states "$invalid_cipher" 0 0 0
rm -f "$invalid_cipher"

step "IPsec SAs: the RX SA again from the daemon's address set, marked for link technology -32640"
ip xfrm state flush
$sa_call xfrm_add_state_from_addr_set "$examples/addr-set-esp-tunnel.conf" rx -32640
show ip xfrm state
