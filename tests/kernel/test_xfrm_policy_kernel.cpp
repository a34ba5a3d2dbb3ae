#include <arpa/inet.h>
#include <linux/xfrm.h>

#include "kernel_test.h"

namespace {

tavrel_ip_addr v4(const char *text)
{
    tavrel_ip_addr a{4, 4, {}};
    inet_pton(AF_INET, text, a.addr);
    return a;
}

bool has(const std::string &haystack, const std::string &needle)
{
    return haystack.find(needle) != std::string::npos;
}

const tavrel_xfrm_sa_addrs kPair = {v4("192.0.2.1"), v4("198.51.100.2"), 0x1000, 0x2000, IPPROTO_ESP, 1};
const char *const kSrc = "10.1.0.0/16";
const char *const kDst = "10.2.0.0/16";

}  // namespace

using XfrmPolicyKernel = KernelTest;

TEST_F(XfrmPolicyKernel, TunnelPoliciesAddedReadBackAndRemoved)
{
    ASSERT_EQ(tavrel_xfrm_add_policies(&kPair, kSrc, kDst, "6", 1), 0) << log();
    ASSERT_EQ(tavrel_xfrm_add_policies(&kPair, kSrc, kDst, "6", 0), 0) << log();
    const std::string policies = sh("ip xfrm policy");
    for (const char *dir : {"out", "in", "fwd"})
        EXPECT_TRUE(has(policies, "src 10.1.0.0/16 dst 10.2.0.0/16 proto tcp \n\tdir " + std::string(dir) +
                                      " priority 100"))
            << dir << "\n" << policies;
    EXPECT_TRUE(has(policies, "tmpl src 192.0.2.1 dst 198.51.100.2\n\t\tproto esp spi 0x00001000 reqid 0 mode tunnel"))
        << policies;
    EXPECT_TRUE(has(policies, "tmpl src 198.51.100.2 dst 192.0.2.1\n\t\tproto esp spi 0x00002000 reqid 0 mode tunnel"))
        << policies;

    kernel_log::text().clear();
    EXPECT_EQ(tavrel_xfrm_add_policies(&kPair, kSrc, kDst, "6", 1), -1);
    EXPECT_TRUE(has(log(), "tavrel_netlink_transact(): Kernel reports error -17\n")) << log();
    EXPECT_TRUE(has(log(), "tavrel_xfrm_add_policies(): Setting outgoing XFRM policy failed\n")) << log();

    EXPECT_EQ(tavrel_xfrm_remove_policies(kSrc, kDst, "6", 1), 0) << log();
    EXPECT_EQ(tavrel_xfrm_remove_policies(kSrc, kDst, "6", 0), 0) << log();
    EXPECT_EQ(sh("ip xfrm policy"), "");
    EXPECT_EQ(tavrel_xfrm_remove_policies(kSrc, kDst, "6", 1), -1);
}

TEST_F(XfrmPolicyKernel, LinkLocalIcmpv6Bypass)
{
    ASSERT_EQ(tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT), 0) << log();
    ASSERT_EQ(tavrel_xfrm_add_policy_ex(XFRM_POLICY_IN), 0) << log();
    const std::string policies = sh("ip xfrm policy");
    for (const char *dir : {"out", "in"})
        EXPECT_TRUE(has(policies, "src ::/0 dst fe80::/64 proto ipv6-icmp \n\tdir " + std::string(dir) +
                                      " priority 10 ptype main \n"))
            << policies;
    EXPECT_FALSE(has(policies, "tmpl")) << policies;

    EXPECT_EQ(tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT), -1);
    EXPECT_TRUE(has(log(), "tavrel_xfrm_add_policy_ex(): Sending XFRM policy failed\n")) << log();

    EXPECT_EQ(tavrel_xfrm_remove_policy_ex(XFRM_POLICY_OUT), 0);
    EXPECT_EQ(tavrel_xfrm_remove_policy_ex(XFRM_POLICY_IN), 0);
    EXPECT_EQ(sh("ip xfrm policy"), "");
    EXPECT_EQ(tavrel_xfrm_remove_policy_ex(XFRM_POLICY_IN), -1);
}

// Without ESP in the kernel the dump finds nothing to delete; with it, of
// two installed pairs exactly the requested one goes.
TEST_F(XfrmPolicyKernel, RemoveStatesDeletesExactlyThePair)
{
    const auto add_sa = [](const char *src, const char *dst, const char *spi) {
        int status = -1;
        sh(std::string("ip xfrm state add src ") + src + " dst " + dst + " proto esp spi " + spi +
               " mode tunnel enc 'cbc(aes)' 0x00112233445566778899aabbccddeeff"
               " auth 'hmac(sha1)' 0x00112233445566778899aabbccddeeff00112233",
           &status);
        return status == 0;
    };
    const bool esp = kernel_has(add_sa("192.0.2.1", "198.51.100.2", "0x1000"), "ESP (esp4, xfrm_user)");
    if (esp) {
        ASSERT_TRUE(add_sa("198.51.100.2", "192.0.2.1", "0x2000"));
        ASSERT_TRUE(add_sa("192.0.2.1", "198.51.100.2", "0x3000"));
        ASSERT_TRUE(add_sa("198.51.100.2", "192.0.2.1", "0x4000"));
    }

    EXPECT_EQ(tavrel_xfrm_remove_states(&kPair), 0) << log();
    EXPECT_TRUE(has(log(), "tavrel_netlink_dump(): closing file descriptor")) << log();
    EXPECT_FALSE(has(log(), "failed")) << log();
    const std::string states = sh("ip xfrm state");
    EXPECT_FALSE(has(states, "spi 0x00001000")) << states;
    EXPECT_FALSE(has(states, "spi 0x00002000")) << states;
    if (esp) {
        EXPECT_TRUE(has(log(), "tavrel_xfrm_remove_state_cb(): removing TX XFRM state\n")) << log();
        EXPECT_TRUE(has(log(), "tavrel_xfrm_remove_state_cb(): removing RX XFRM state\n")) << log();
        EXPECT_TRUE(has(states, "spi 0x00003000")) << states;
        EXPECT_TRUE(has(states, "spi 0x00004000")) << states;
    } else {
        EXPECT_FALSE(has(log(), "removing")) << log();
        EXPECT_EQ(states, "");
    }
}
