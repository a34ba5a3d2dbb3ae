# IPsec policies of one tunnel: device 192.0.2.1, peer 198.51.100.2, ESP in
# tunnel mode, TX SPI 0x1000, RX SPI 0x2000; traffic 10.1.0.0/16 -> 10.2.0.0/16.
pair="192.0.2.1 198.51.100.2 0x1000 0x2000 esp tunnel"

step "IPsec: the output policy of the tunnel (priority 100, template to the TX SA)"
# shellcheck disable=SC2086
lib xfrm_add_policies $pair 10.1.0.0/16 10.2.0.0/16 6 tx
show ip xfrm policy list dir out

step "IPsec: the input and forward policies (template to the RX SA)"
# shellcheck disable=SC2086
lib xfrm_add_policies $pair 10.1.0.0/16 10.2.0.0/16 6 rx
show ip xfrm policy list dir in
show ip xfrm policy list dir fwd

step "IPsec: adding the input policy again is refused, and the forward policy is not tried"
# shellcheck disable=SC2086
lib_fails xfrm_add_policies $pair 10.1.0.0/16 10.2.0.0/16 6 rx

step "IPsec: ICMPv6 to link-local destinations bypasses the tunnel (priority 10, no template)"
lib xfrm_add_policy_ex out
show ip xfrm policy list dir out
lib_fails xfrm_add_policy_ex out

step "IPsec: a protocol given by name converts to 0: logged as a failure, the policy covers every protocol"
# shellcheck disable=SC2086
lib xfrm_add_policies $pair - 10.3.0.0/16 udp tx
show ip xfrm policy list dst 10.3.0.0/16

step "IPsec: removal goes on after a failure: the input policy is gone already, the forward one is removed"
show ip xfrm policy delete src 10.1.0.0/16 dst 10.2.0.0/16 proto tcp dir in
lib xfrm_remove_policies 10.1.0.0/16 10.2.0.0/16 6 rx
lib xfrm_remove_policies 10.1.0.0/16 10.2.0.0/16 6 tx
lib xfrm_remove_policies - 10.3.0.0/16 udp tx
lib xfrm_remove_policy_ex out
show ip xfrm policy

step "IPsec: removing the pair's SAs dumps the SA table and deletes the entries of the pair"
# Two pairs installed with iproute2 where the kernel has ESP (a kernel
# without it refuses them, and the dump then finds nothing to delete).
key=0x00112233445566778899aabbccddeeff
for sa in "192.0.2.1 198.51.100.2 0x1000" "198.51.100.2 192.0.2.1 0x2000" \
          "192.0.2.1 198.51.100.2 0x3000" "198.51.100.2 192.0.2.1 0x4000"; do
  read -r sa_src sa_dst sa_spi <<<"$sa"
  ip xfrm state add src "$sa_src" dst "$sa_dst" proto esp spi "$sa_spi" mode tunnel \
    enc 'cbc(aes)' "$key" auth 'hmac(sha1)' "${key}00112233" 2>/dev/null || true
done
show ip xfrm state
# shellcheck disable=SC2086
lib xfrm_remove_states $pair
show ip xfrm state
