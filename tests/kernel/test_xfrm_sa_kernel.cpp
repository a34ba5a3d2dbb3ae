// Adding SAs against the running kernel. A kernel without ESP and AH refuses
// every SA; one with them (the full-kernel tier) installs the ESP SAs, which
// are then read back with iproute2. AH SAs are refused either way: they
// always carry a cipher.
#include <cstdio>
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
const std::string kRefused = "tavrel_netlink_transact\\(\\): Kernel reports error ";
// Without ESP: EPROTONOSUPPORT, or ENOSYS for a cipher the kernel does not
// know either.
const std::string kNoEsp = "-(93|38)";

std::string sa_cfg_text(const char *protocol)
{
    return std::string("local = 10.1.0.1\ndest = 10.2.0.1\nmode = tunnel\nspi_tx = 0x1000\nspi_rx = 0x2000\n") +
           "protocol = " + protocol + "\ncrypto_algo = 12\ncrypto_key_tx = " + kCryptTx + "\ncrypto_key_rx = " +
           kCryptRx + "\nhash_algo = 6\nhash_key_tx = " + kAuthTx + "\nhash_key_rx = " + kAuthRx + "\n";
}

// n key bytes counting up from first, as hex digits.
std::string key(unsigned n, unsigned first)
{
    std::string k;
    char byte[3];
    for (unsigned i = 0; i < n; i++) {
        snprintf(byte, sizeof byte, "%02x", (first + i) & 0xff);
        k += byte;
    }
    return k;
}

// One ESP pair: every cipher and authentication code of the modem's tables,
// both modes, both families, with and without UDP encapsulation, and every
// output mark. Keys are crypt_bytes / auth_bytes long, RX keys start 0x80
// higher than TX keys.
struct esp_pair {
    const char *local, *remote, *mode;
    int crypto_algo;
    const char *aes_mode;  // nullptr: the AES mode is not valid
    const char *cipher;
    unsigned crypt_bytes;
    int hash_algo;
    const char *auth;
    unsigned trunc, auth_bytes;
    unsigned encap_port;  // 0: none
    uint32_t mark_switch;
    int32_t link_tech;
    uint32_t mark_tx, mark_rx;  // 0: no mark
};

const esp_pair kPairs[] = {
    {"10.1.0.1", "10.2.0.1", "tunnel", 12, "cbc", "cbc(aes)", 16, 6, "hmac(sha256)", 128, 32, 4501, 1, -32735,
     0x20000, 0},
    {"2001:db8:1::1", "2001:db8:2::1", "transport", 19, nullptr, "cbc(aes)", 32, 5, "hmac(sha1)", 96, 20, 0, 0,
     -32640, 0x20002, 0x20002},
    {"2001:db8:1::1", "2001:db8:2::1", "tunnel", 12, "ctr", "rfc3686(ctr(aes))", 20, 7, "hmac(md5)", 96, 16, 4600, 1,
     0, 0x20001, 0},
    {"10.1.0.1", "10.2.0.1", "transport", 9, nullptr, "cbc(des)", 8, 12, "xcbc(aes)", 96, 16, 0, 0, 0, 0, 0},
    {"10.1.0.1", "10.2.0.1", "tunnel", 10, nullptr, "cbc(des3_ede)", 24, 20, "hmac(sha384)", 192, 48, 4500, 1,
     -32640, 0x20001, 0x20002},
    {"2001:db8:1::1", "2001:db8:2::1", "tunnel", 19, "cbc", "cbc(aes)", 24, 21, "hmac(sha512)", 256, 64, 0, 0, 5, 0,
     0},
};

std::string keys_text(const char *crypt_name, const char *auth_name, const esp_pair &p)
{
    return std::string(crypt_name) + "_tx = " + key(p.crypt_bytes, 0x10) + "\n" + crypt_name + "_rx = " +
           key(p.crypt_bytes, 0x90) + "\n" + auth_name + "_tx = " + key(p.auth_bytes, 0x30) + "\n" + auth_name +
           "_rx = " + key(p.auth_bytes, 0xb0) + "\n" +
           (p.encap_port ? "udp_encap = 1\nudp_encap_port = " + std::to_string(p.encap_port) + "\n" : "");
}

// The modem's configuration of the pair, and the daemon's address set.
std::string cfg_text(const esp_pair &p)
{
    return std::string("local = ") + p.local + "\ndest = " + p.remote + "\nmode = " + p.mode +
           "\nspi_tx = 0x1000\nspi_rx = 0x2000\nprotocol = esp\ncrypto_algo = " + std::to_string(p.crypto_algo) +
           "\n" + (p.aes_mode ? std::string("aes_mode = ") + p.aes_mode + "\n" : "") +
           "hash_algo = " + std::to_string(p.hash_algo) + "\n" + keys_text("crypto_key", "hash_key", p);
}

std::string addr_set_text(const esp_pair &p, const char *proto = "esp")
{
    return std::string("local = ") + p.local + "\nremote = " + p.remote + "\nmode = " + p.mode +
           "\nspi_tx = 0x1000\nspi_rx = 0x2000\nproto = " + proto + "\ncrypto_alg_name = " + p.cipher +
           "\nauth_alg_name = " + p.auth + "\nauth_trunc_len = " + std::to_string(p.trunc) + "\n" +
           keys_text("crypto_key", "auth_key", p);
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

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
        esp_ = kernel_has(status == 0, "ESP (esp4, xfrm_user)");
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
    tavrel_xfrm_addr_set addr_set(const std::string &text)
    {
        tavrel_xfrm_addr_set set;
        char error[256];
        EXPECT_EQ(tavrel_host_addr_set_parse(text.c_str(), &set, error, sizeof error), 0) << error;
        return set;
    }
    bool logged(const std::string &text) { return has(log(), text); }
    // A refusal as the library reports it, with the kernel's error (a
    // regular expression); nothing is installed.
    void expect_refused(const std::string &error, const std::string &sender = "tavrel_xfrm_add_state")
    {
        EXPECT_TRUE(std::regex_search(log(), std::regex(kRefused + error + "\n"))) << log();
        EXPECT_TRUE(logged(sender + "(): Sending XFRM state failed\n")) << log();
        EXPECT_EQ(sh("ip xfrm state"), "");
    }
    // Both SAs of the pair as iproute2 reads them back, then flushed.
    void expect_pair(const esp_pair &p)
    {
        for (const bool tx : {true, false}) {
            const char *src = tx ? p.local : p.remote, *dst = tx ? p.remote : p.local;
            const unsigned spi = tx ? 0x1000 : 0x2000;
            const std::string sa = sh(std::string("ip xfrm state get src ") + src + " dst " + dst +
                                      " proto esp spi " + std::to_string(spi));
            char line[160];
            snprintf(line, sizeof line, "src %s dst %s\n\tproto esp spi 0x%08x reqid 0 mode %s\n", src, dst, spi,
                     p.mode);
            EXPECT_TRUE(has(sa, line)) << sa;
            EXPECT_TRUE(has(sa, tx ? " flag nopmtudisc af-unspec\n" : " flag af-unspec\n")) << sa;
            EXPECT_TRUE(has(sa, std::string("\tenc ") + p.cipher + " 0x" + key(p.crypt_bytes, tx ? 0x10 : 0x90) +
                                    "\n")) << sa;
            EXPECT_TRUE(has(sa, std::string("\tauth-trunc ") + p.auth + " 0x" + key(p.auth_bytes, tx ? 0x30 : 0xb0) +
                                    " " + std::to_string(p.trunc) + "\n")) << sa;
            if (p.encap_port) {
                const unsigned sport = tx ? p.encap_port : 4500, dport = tx ? 4500 : p.encap_port;
                snprintf(line, sizeof line, "\tencap type espinudp sport %u dport %u addr %s\n", sport, dport,
                         strchr(p.local, ':') ? "::" : "0.0.0.0");
                EXPECT_TRUE(has(sa, line)) << sa;
            } else {
                EXPECT_FALSE(has(sa, "encap")) << sa;
            }
            const uint32_t mark = tx ? p.mark_tx : p.mark_rx;
            snprintf(line, sizeof line, "\toutput-mark 0x%x/0xffffffff\n", mark);
            EXPECT_TRUE(mark ? has(sa, line) : !has(sa, "output-mark")) << sa;
        }
        sh("ip xfrm state flush");
    }
    bool esp_ = false;
};

// Each pair twice: from the modem's configuration, then from the daemon's
// address set, one direction at a time.
TEST_F(XfrmSaKernel, EspPairsReadBackWithIpXfrm)
{
    for (const esp_pair &p : kPairs) {
        SCOPED_TRACE(std::string(p.cipher) + " " + p.auth + " " + p.mode + " " + p.local);
        kernel_log::text().clear();
        tavrel_main_cfg.output_mark_enabled = p.mark_switch;
        const tavrel_xfrm_sa_cfg c = cfg(cfg_text(p));
        const int result = tavrel_xfrm_add_states(&c, 0, 0, p.link_tech);
        if (esp_) {
            ASSERT_EQ(result, 0) << log();
            expect_pair(p);
        } else {
            EXPECT_EQ(result, -1);
            expect_refused(kNoEsp);
            EXPECT_TRUE(logged("tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"));
            EXPECT_FALSE(logged("inserting incoming"));
            // A request that ends in the zeroed tail of the encapsulation
            // template (and maybe the mark): the walk for the kernel's
            // explanation, which starts 16 bytes early, stops there without
            // a word.
            if (p.encap_port) {
                EXPECT_FALSE(logged("EXTACK")) << log();
            }
        }

        const tavrel_xfrm_addr_set set = addr_set(addr_set_text(p));
        for (const int tx : {1, 0})
            EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&set, tx, p.link_tech), esp_ ? 0 : -1) << log();
        if (esp_)
            expect_pair(p);
        else
            expect_refused(kNoEsp, "tavrel_xfrm_add_state_from_addr_set");
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
        expect_refused(kNoEsp);
        EXPECT_TRUE(logged("tavrel_nla_extack(): EXTACK reports Requested type not found\n")) << log();
        return;
    }
    ASSERT_EQ(result, 0) << log();
    for (const char *spi : {"0x1000", "0x2000"}) {
        const std::string sa = sh(std::string("ip xfrm state list spi ") + spi);
        EXPECT_TRUE(has(sa, "\toutput-mark 0x20002/")) << sa;
        EXPECT_FALSE(has(sa, "encap")) << sa;
    }
}

// Every kernel refuses an AH SA with a cipher, whichever way it is built.
TEST_F(XfrmSaKernel, AhIsRefusedForItsCipher)
{
    const tavrel_xfrm_sa_cfg c = cfg(sa_cfg_text("ah"));
    EXPECT_EQ(tavrel_xfrm_add_states(&c, 0, 0, 0), -1);
    expect_refused("-22");
    EXPECT_TRUE(logged("tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"));
    EXPECT_FALSE(logged("inserting incoming"));

    const tavrel_xfrm_addr_set set = addr_set(addr_set_text(kPairs[0], "ah"));
    EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&set, 1, 0), -1);
    expect_refused("-22", "tavrel_xfrm_add_state_from_addr_set");
}
