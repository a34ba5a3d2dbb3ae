// Adding SAs against the running kernel. A kernel without ESP and AH refuses
// every SA; one with them installs the ESP SAs, which are then read back with
// iproute2. AH SAs are refused either way: they always carry a cipher.
#include <regex>

#include "kernel_test.h"
#include "tavrel_host_xfrm.h"
#include "tavrel_platform.h"

namespace {

const char *const kCryptTx = "000102030405060708090a0b0c0d0e0f";
const char *const kCryptRx = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
// The last 8 bytes of each read as an attribute (length 8, type 0): see
// KernelExplanationReachesTheLog.
const char *const kAuthTx = "202122232425262728292a2b2c2d2e2f3031323334353637" "08000000dddddddd";
const char *const kAuthRx = "404142434445464748494a4b4c4d4e4f5051525354555657" "08000000eeeeeeee";

std::string sa_cfg_text(const char *protocol)
{
    return std::string("local = 10.1.0.1\ndest = 10.2.0.1\nmode = tunnel\nspi_tx = 0x1000\nspi_rx = 0x2000\n") +
           "protocol = " + protocol + "\ncrypto_algo = 12\naes_mode = cbc\ncrypto_key_tx = " + kCryptTx +
           "\ncrypto_key_rx = " + kCryptRx + "\nhash_algo = 6\nhash_key_tx = " + kAuthTx + "\nhash_key_rx = " +
           kAuthRx + "\n";
}

const char *const kEncap = "udp_encap = 1\nudp_encap_port = 4501\n";

// Whether this kernel installs ESP SAs, tried with iproute2 in the test's
// namespace on addresses the tests do not use.
bool kernel_has_esp()
{
    int status = -1;
    sh("ip xfrm state add src 192.0.2.1 dst 192.0.2.2 proto esp spi 0x1 mode tunnel enc 'cbc(aes)' 0x" +
           std::string(kCryptTx) + " auth-trunc 'hmac(sha256)' 0x" + kAuthTx + " 128",
       &status);
    sh("ip xfrm state flush");
    return status == 0;
}

std::string state(const char *src, const char *dst, const char *spi)
{
    return sh(std::string("ip xfrm state get src ") + src + " dst " + dst + " proto esp spi " + spi);
}

bool has(const std::string &text, const std::string &pattern)
{
    return std::regex_search(text, std::regex(pattern));
}

}  // namespace

class XfrmSaKernel : public KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        tavrel_main_cfg.output_mark_enabled = 0;
        esp_ = kernel_has_esp();
    }
    void TearDown() override
    {
        tavrel_main_cfg.output_mark_enabled = 0;
        KernelTest::TearDown();
    }
    tavrel_xfrm_sa_cfg cfg(const std::string &text)
    {
        tavrel_xfrm_sa_cfg c;
        char error[256];
        EXPECT_EQ(tavrel_host_sa_cfg_parse(text.c_str(), &c, error, sizeof error), 0) << error;
        return c;
    }
    // The refusal of a kernel without ESP as the library reports it.
    void expect_refused(const char *error_line, const std::string &sender = "tavrel_xfrm_add_state")
    {
        EXPECT_NE(log().find(error_line), std::string::npos) << log();
        EXPECT_NE(log().find(sender + "(): Sending XFRM state failed\n"), std::string::npos) << log();
        EXPECT_EQ(sh("ip xfrm state"), "");
    }
    bool esp_ = false;
};

TEST_F(XfrmSaKernel, EspTunnelPairFromConfiguration)
{
    tavrel_main_cfg.output_mark_enabled = 1;
    const tavrel_xfrm_sa_cfg c = cfg(sa_cfg_text("esp") + kEncap);
    const int result = tavrel_xfrm_add_states(&c, 0, 0, -32735);
    if (!esp_) {
        EXPECT_EQ(result, -1);
        expect_refused("tavrel_netlink_transact(): Kernel reports error -93\n");
        EXPECT_NE(log().find("tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"), std::string::npos);
        EXPECT_EQ(log().find("inserting incoming"), std::string::npos);
        // The request ends in the zeroed tail of the encapsulation template
        // and the mark; the walk for the kernel's explanation, which starts
        // 16 bytes early, stops there without a word.
        EXPECT_EQ(log().find("EXTACK"), std::string::npos) << log();
        return;
    }
    ASSERT_EQ(result, 0) << log();
    const std::string tx = state("10.1.0.1", "10.2.0.1", "0x1000");
    EXPECT_TRUE(has(tx, "proto esp spi 0x0*1000 .*mode tunnel")) << tx;
    EXPECT_TRUE(has(tx, "flag nopmtudisc af-unspec")) << tx;
    EXPECT_TRUE(has(tx, std::string("enc cbc\\(aes\\) 0x") + kCryptTx)) << tx;
    EXPECT_TRUE(has(tx, std::string("auth-trunc hmac\\(sha256\\) 0x") + kAuthTx + " 128")) << tx;
    EXPECT_TRUE(has(tx, "encap type espinudp sport 4501 dport 4500 addr 0\\.0\\.0\\.0")) << tx;
    EXPECT_TRUE(has(tx, "output-mark 0x20000\\b")) << tx;
    const std::string rx = state("10.2.0.1", "10.1.0.1", "0x2000");
    EXPECT_TRUE(has(rx, "flag af-unspec")) << rx;
    EXPECT_FALSE(has(rx, "nopmtudisc|output-mark")) << rx;
    EXPECT_TRUE(has(rx, std::string("enc cbc\\(aes\\) 0x") + kCryptRx)) << rx;
    EXPECT_TRUE(has(rx, "encap type espinudp sport 4500 dport 4501")) << rx;
}

TEST_F(XfrmSaKernel, KernelExplanationReachesTheLog)
{
    // SAs marked for their link technology, without encapsulation: each
    // request ends in the key's last 8 bytes, which read as an attribute,
    // and the mark, so the walk that starts 16 bytes early reaches the
    // kernel's own attributes.
    const tavrel_xfrm_sa_cfg c = cfg(sa_cfg_text("esp"));
    const int result = tavrel_xfrm_add_states(&c, 0, 0, -32640);
    if (!esp_) {
        EXPECT_EQ(result, -1);
        expect_refused("tavrel_netlink_transact(): Kernel reports error -93\n");
        EXPECT_NE(log().find("tavrel_nla_extack(): EXTACK reports Requested type not found\n"), std::string::npos)
            << log();
        return;
    }
    ASSERT_EQ(result, 0) << log();
    for (const bool tx : {true, false}) {
        const std::string sa = tx ? state("10.1.0.1", "10.2.0.1", "0x1000") : state("10.2.0.1", "10.1.0.1", "0x2000");
        EXPECT_TRUE(has(sa, std::string("auth-trunc hmac\\(sha256\\) 0x") + (tx ? kAuthTx : kAuthRx) + " 128")) << sa;
        EXPECT_TRUE(has(sa, "output-mark 0x20002\\b")) << sa;
        EXPECT_FALSE(has(sa, "encap")) << sa;
    }
}

TEST_F(XfrmSaKernel, AhIsRefusedForItsCipher)
{
    const tavrel_xfrm_sa_cfg c = cfg(sa_cfg_text("ah"));
    EXPECT_EQ(tavrel_xfrm_add_states(&c, 0, 0, 0), -1);
    expect_refused("tavrel_netlink_transact(): Kernel reports error -22\n");
    EXPECT_NE(log().find("tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"), std::string::npos);
}

TEST_F(XfrmSaKernel, EspPairFromAddressSet)
{
    const std::string text = std::string("local = 10.1.0.1\nremote = 10.2.0.1\nspi_tx = 0x1000\nspi_rx = 0x2000\n") +
                             "proto = esp\nmode = tunnel\ncrypto_alg_name = cbc(aes)\ncrypto_key_tx = " + kCryptTx +
                             "\ncrypto_key_rx = " + kCryptRx + "\nauth_alg_name = hmac(sha256)\nauth_trunc_len = 96\n" +
                             "auth_key_tx = " + kAuthTx + "\nauth_key_rx = " + kAuthRx + "\n" + kEncap;
    tavrel_xfrm_addr_set set;
    char error[256];
    ASSERT_EQ(tavrel_host_addr_set_parse(text.c_str(), &set, error, sizeof error), 0) << error;
    const int tx = tavrel_xfrm_add_state_from_addr_set(&set, 1, 0);
    const int rx = tavrel_xfrm_add_state_from_addr_set(&set, 0, 0);
    if (!esp_) {
        EXPECT_EQ(tx, -1);
        EXPECT_EQ(rx, -1);
        expect_refused("tavrel_netlink_transact(): Kernel reports error -93\n", "tavrel_xfrm_add_state_from_addr_set");
        return;
    }
    ASSERT_EQ(tx, 0) << log();
    ASSERT_EQ(rx, 0) << log();
    const std::string out = state("10.1.0.1", "10.2.0.1", "0x1000");
    EXPECT_TRUE(has(out, std::string("auth-trunc hmac\\(sha256\\) 0x") + kAuthTx + " 96")) << out;
    EXPECT_TRUE(has(out, "encap type espinudp sport 4501 dport 4500")) << out;
    const std::string in = state("10.2.0.1", "10.1.0.1", "0x2000");
    EXPECT_TRUE(has(in, "encap type espinudp sport 4500 dport 4501")) << in;
}
