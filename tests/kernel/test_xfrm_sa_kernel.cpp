// Adding SAs against the running kernel. A kernel without ESP and AH refuses
// every SA; one with them installs the ESP SAs, which are then read back with
// iproute2. AH SAs are refused either way: they always carry a cipher.
#include <regex>

#include "kernel_test.h"
#include "tavrel_host_xfrm.h"

namespace {

const std::string kCryptTx = "000102030405060708090a0b0c0d0e0f";
const std::string kCryptRx = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
// The last 8 bytes of each read as an attribute (length 8, type 0): see
// KernelExplanationReachesTheLog.
const std::string kAuthTx = "202122232425262728292a2b2c2d2e2f3031323334353637" "08000000dddddddd";
const std::string kAuthRx = "404142434445464748494a4b4c4d4e4f5051525354555657" "08000000eeeeeeee";
const std::string kEncap = "udp_encap = 1\nudp_encap_port = 4501\n";
const std::string kRefused = "tavrel_netlink_transact(): Kernel reports error ";

std::string sa_cfg_text(const char *protocol)
{
    return std::string("local = 10.1.0.1\ndest = 10.2.0.1\nmode = tunnel\nspi_tx = 0x1000\nspi_rx = 0x2000\n") +
           "protocol = " + protocol + "\ncrypto_algo = 12\ncrypto_key_tx = " + kCryptTx + "\ncrypto_key_rx = " +
           kCryptRx + "\nhash_algo = 6\nhash_key_tx = " + kAuthTx + "\nhash_key_rx = " + kAuthRx + "\n";
}

// The SA of one direction as iproute2 shows it.
std::string state(bool tx)
{
    return sh(tx ? "ip xfrm state get src 10.1.0.1 dst 10.2.0.1 proto esp spi 0x1000"
                 : "ip xfrm state get src 10.2.0.1 dst 10.1.0.1 proto esp spi 0x2000");
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
        // Whether this kernel installs ESP SAs, tried on addresses the tests
        // do not use.
        int status = -1;
        sh("ip xfrm state add src 192.0.2.1 dst 192.0.2.2 proto esp spi 0x1 mode tunnel enc 'cbc(aes)' 0x" +
               kCryptTx + " auth-trunc 'hmac(sha256)' 0x" + kAuthTx + " 128",
           &status);
        sh("ip xfrm state flush");
        esp_ = status == 0;
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
    bool logged(const std::string &text) { return log().find(text) != std::string::npos; }
    // A refusal as the library reports it; nothing is installed.
    void expect_refused(int code, const std::string &sender = "tavrel_xfrm_add_state")
    {
        EXPECT_TRUE(logged(kRefused + std::to_string(code) + "\n")) << log();
        EXPECT_TRUE(logged(sender + "(): Sending XFRM state failed\n")) << log();
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
        expect_refused(-EPROTONOSUPPORT);
        EXPECT_TRUE(logged("tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"));
        EXPECT_FALSE(logged("inserting incoming"));
        // The request ends in the zeroed tail of the encapsulation template
        // and the mark; the walk for the kernel's explanation, which starts
        // 16 bytes early, stops there without a word.
        EXPECT_FALSE(logged("EXTACK")) << log();
        return;
    }
    ASSERT_EQ(result, 0) << log();
    for (const bool tx : {true, false}) {
        const std::string sa = state(tx);
        EXPECT_TRUE(has(sa, "proto esp spi 0x0*" + std::string(tx ? "1000" : "2000") + " .*mode tunnel")) << sa;
        EXPECT_TRUE(has(sa, tx ? "flag nopmtudisc af-unspec" : "flag af-unspec")) << sa;
        EXPECT_TRUE(has(sa, "enc cbc\\(aes\\) 0x" + (tx ? kCryptTx : kCryptRx))) << sa;
        EXPECT_TRUE(has(sa, "auth-trunc hmac\\(sha256\\) 0x" + (tx ? kAuthTx : kAuthRx) + " 128")) << sa;
        EXPECT_TRUE(has(sa, tx ? "encap type espinudp sport 4501 dport 4500 addr 0\\.0\\.0\\.0"
                               : "encap type espinudp sport 4500 dport 4501")) << sa;
        EXPECT_EQ(has(sa, "output-mark 0x20000\\b"), tx) << sa;
    }
}

TEST_F(XfrmSaKernel, KernelExplanationReachesTheLog)
{
    // Marked for their link technology and without encapsulation, the
    // requests end in the key's last 8 bytes, which read as an attribute,
    // and the mark: the walk that starts 16 bytes early reaches the kernel's
    // own attributes.
    const tavrel_xfrm_sa_cfg c = cfg(sa_cfg_text("esp"));
    const int result = tavrel_xfrm_add_states(&c, 0, 0, -32640);
    if (!esp_) {
        EXPECT_EQ(result, -1);
        expect_refused(-EPROTONOSUPPORT);
        EXPECT_TRUE(logged("tavrel_nla_extack(): EXTACK reports Requested type not found\n")) << log();
        return;
    }
    ASSERT_EQ(result, 0) << log();
    for (const bool tx : {true, false}) {
        const std::string sa = state(tx);
        EXPECT_TRUE(has(sa, "output-mark 0x20002\\b")) << sa;
        EXPECT_FALSE(has(sa, "encap")) << sa;
    }
}

TEST_F(XfrmSaKernel, AhIsRefusedForItsCipher)
{
    const tavrel_xfrm_sa_cfg c = cfg(sa_cfg_text("ah"));
    EXPECT_EQ(tavrel_xfrm_add_states(&c, 0, 0, 0), -1);
    expect_refused(-EINVAL);
    EXPECT_TRUE(logged("tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"));
}

TEST_F(XfrmSaKernel, EspPairFromAddressSet)
{
    const std::string text = "local = 10.1.0.1\nremote = 10.2.0.1\nspi_tx = 0x1000\nspi_rx = 0x2000\nproto = esp\n"
                             "mode = tunnel\ncrypto_alg_name = cbc(aes)\ncrypto_key_tx = " + kCryptTx +
                             "\ncrypto_key_rx = " + kCryptRx + "\nauth_alg_name = hmac(sha256)\nauth_trunc_len = 96\n" +
                             "auth_key_tx = " + kAuthTx + "\nauth_key_rx = " + kAuthRx + "\n" + kEncap;
    tavrel_xfrm_addr_set set;
    char error[256];
    ASSERT_EQ(tavrel_host_addr_set_parse(text.c_str(), &set, error, sizeof error), 0) << error;
    for (const int tx : {1, 0}) {
        const int result = tavrel_xfrm_add_state_from_addr_set(&set, tx, 0);
        if (!esp_) {
            EXPECT_EQ(result, -1);
            expect_refused(-EPROTONOSUPPORT, "tavrel_xfrm_add_state_from_addr_set");
            continue;
        }
        ASSERT_EQ(result, 0) << log();
        const std::string sa = state(tx);
        EXPECT_TRUE(has(sa, "auth-trunc hmac\\(sha256\\) 0x" + (tx ? kAuthTx : kAuthRx) + " 96")) << sa;
        EXPECT_TRUE(has(sa, tx ? "encap type espinudp sport 4501 dport 4500" : "encap type espinudp sport 4500 dport 4501"))
            << sa;
    }
}
