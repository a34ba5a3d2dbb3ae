// Tunnel policies, the ICMPv6 bypass and SA-pair removal against this machine's kernel, read back with `ip xfrm`.
#include <linux/xfrm.h>
#include <netinet/in.h>

#include "kernel_test.h"

using XfrmPolicyKernel = KernelTest;
const tavrel_xfrm_sa_addrs kPair = {{4, 4, {192, 0, 2, 1}}, {4, 4, {198, 51, 100, 2}}, 0x1000, 0x2000, IPPROTO_ESP, 1};

// The ICMPv6 bypass to fe80::/64 has no template and is preferred to the tunnel by its priority; a tunnel
// policy shows its selector, direction, priority and the template of the SA it points at.
TEST_F(XfrmPolicyKernel, BypassAndTunnelPoliciesReadBack)
{
    const std::string bypass = "src ::/0 dst fe80::/64 proto ipv6-icmp \n\tdir ";
    check("bypass out", tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT), 0, "ip xfrm policy",
          {"^" + bypass + "out priority 10 ptype main \n$"});
    check("bypass in", tavrel_xfrm_add_policy_ex(XFRM_POLICY_IN), 0, "ip xfrm policy",
          {bypass + "in priority 10 ptype main \n", "!tmpl"});
    check("bypass out removed", tavrel_xfrm_remove_policy_ex(XFRM_POLICY_OUT), 0, "ip xfrm policy", {"!dir out", "dir in"});
    check("bypass in removed", tavrel_xfrm_remove_policy_ex(XFRM_POLICY_IN), 0, "ip xfrm policy", {"^$"});
    check("nothing to remove", tavrel_xfrm_remove_policy_ex(XFRM_POLICY_IN), -1, "", {});

    const char *const src = "10.1.0.0/16", *const dst = "10.2.0.0/16", *const rx = "src 198.51.100.2 dst 192.0.2.1";
    const auto policy = [](const std::string &dir, const std::string &tmpl, const char *spi) {
        return "src 10.1.0.0/16 dst 10.2.0.0/16 proto tcp \n\tdir " + dir + " priority 100 ptype main \n\ttmpl " +
               tmpl + "\n\t\tproto esp spi " + spi + " reqid 0 mode tunnel\n";
    };
    check("output", tavrel_xfrm_add_policies(&kPair, src, dst, "6", 1), 0, "ip xfrm policy",
          {policy("out", "src 192.0.2.1 dst 198.51.100.2", "0x00001000")});
    check("input and forward", tavrel_xfrm_add_policies(&kPair, src, dst, "6", 0), 0, "ip xfrm policy",
          {policy("in", rx, "0x00002000"), policy("fwd", rx, "0x00002000")});
    check("output again", tavrel_xfrm_add_policies(&kPair, src, dst, "6", 1), -1, "", {}, {"error -17\n"});
    check("output removed", tavrel_xfrm_remove_policies(src, dst, "6", 1), 0, "ip xfrm policy",
          {"!dir out", "dir in", "dir fwd"});
    check("input and forward removed", tavrel_xfrm_remove_policies(src, dst, "6", 0), 0, "ip xfrm policy", {"^$"});
}

// Of the pair's two SAs and two others (its TX SPI towards another peer,
// another SPI from its peer) exactly the pair goes.
TEST_F(XfrmPolicyKernel, RemoveStatesDeletesExactlyThePair)
{
    const auto add = [](const char *src, const char *dst, const char *spi) {
        return std::string("ip xfrm state add src ") + src + " dst " + dst + " proto esp spi " + spi +
               " mode tunnel enc 'cbc(aes)' 0x" + std::string(32, '7');
    };
    const bool esp = kernel_has(add("192.0.2.1", "198.51.100.2", "0x1000"), "ESP (esp4, xfrm_user)");
    if (esp)
        SH_OK(add("198.51.100.2", "192.0.2.1", "0x2000") + " && " + add("192.0.2.1", "198.51.100.3", "0x1000") +
              " && " + add("198.51.100.2", "192.0.2.1", "0x3000"));
    check("removed", tavrel_xfrm_remove_states(&kPair), 0, "ip xfrm state",
          {"!dst 198.51.100.2\n", "!spi 0x00002000", esp ? "dst 198.51.100.3\n\tproto esp spi 0x00001000" : "^$",
           esp ? "spi 0x00003000" : "^$"});
}
