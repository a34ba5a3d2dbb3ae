// SAs against the running kernel. A kernel without ESP refuses every SA; one
// with it (the full-kernel tier) installs the ESP SAs, read back with
// iproute2. AH SAs are refused either way: they always carry a cipher.
#include "kernel_test.h"
#include "tavrel_host_xfrm.h"

template <typename... Args>
std::string fmt(const char *format, Args... args)
{
    char text[512];
    snprintf(text, sizeof text, format, args...);
    return text;
}

// n key bytes counting up from first, as hex digits.
static std::string key(unsigned n, unsigned first)
{
    std::string k;
    for (unsigned i = first; i < first + n; i++)
        k += fmt("%02x", i & 0xff);
    return k;
}

// Every cipher and authentication code of the modem's tables, both modes,
// both families, with and without UDP encapsulation, every output mark.
struct esp_pair {
    const char *local, *remote, *mode;
    const char *aes_mode, *cipher, *auth;  // aes_mode nullptr: not valid
    int crypto_algo, hash_algo;
    unsigned crypt_bytes, auth_bytes, trunc, encap_port;  // encap_port 0: none
    uint32_t mark_switch;
    int32_t link_tech;
    uint32_t mark_tx, mark_rx;  // 0: none
} const kPairs[] = {
    {"10.1.0.1", "10.2.0.1", "tunnel", "cbc", "cbc(aes)", "hmac(sha256)", 12, 6, 16, 32, 128, 4501, 1, -32735, 0x20000,
     0},
    {"2001:db8:1::1", "2001:db8:2::1", "transport", nullptr, "cbc(aes)", "hmac(sha1)", 19, 5, 32, 20, 96, 0, 0, -32640,
     0x20002, 0x20002},
    {"2001:db8:1::1", "2001:db8:2::1", "tunnel", "ctr", "rfc3686(ctr(aes))", "hmac(md5)", 12, 7, 20, 16, 96, 4600, 1, 0,
     0x20001, 0},
    {"10.1.0.1", "10.2.0.1", "transport", nullptr, "cbc(des)", "xcbc(aes)", 9, 12, 8, 16, 96, 0, 0, 0, 0, 0},
    {"10.1.0.1", "10.2.0.1", "tunnel", nullptr, "cbc(des3_ede)", "hmac(sha384)", 10, 20, 24, 48, 192, 4500, 1, -32640,
     0x20001, 0x20002},
    {"2001:db8:1::1", "2001:db8:2::1", "tunnel", "cbc", "cbc(aes)", "hmac(sha512)", 19, 21, 24, 64, 256, 0, 0, 5, 0, 0},
};

// The pair as the modem's configuration or as the daemon's address set; RX
// keys start 0x80 above TX keys.
static std::string pair_text(const esp_pair &p, bool modem, const char *proto = "esp")
{
    std::string t = fmt("local = %s\n%s = %s\nmode = %s\nspi_tx = 0x1000\nspi_rx = 0x2000\n", p.local,
                        modem ? "dest" : "remote", p.remote, p.mode);
    if (modem)
        t += fmt("protocol = %s\ncrypto_algo = %d\nhash_algo = %d\n", proto, p.crypto_algo, p.hash_algo) +
             (p.aes_mode ? fmt("aes_mode = %s\n", p.aes_mode) : "");
    else
        t += fmt("proto = %s\ncrypto_alg_name = %s\nauth_alg_name = %s\nauth_trunc_len = %u\n", proto, p.cipher, p.auth,
                 p.trunc);
    const char *auth = modem ? "hash_key" : "auth_key";
    t += fmt("crypto_key_tx = %s\ncrypto_key_rx = %s\n", key(p.crypt_bytes, 0x10).c_str(),
             key(p.crypt_bytes, 0x90).c_str()) +
         fmt("%s_tx = %s\n%s_rx = %s\n", auth, key(p.auth_bytes, 0x30).c_str(), auth, key(p.auth_bytes, 0xb0).c_str());
    return p.encap_port ? t + fmt("udp_encap = 1\nudp_encap_port = %u\n", p.encap_port) : t;
}

// The host model's SA record or the daemon's address set, read from text.
template <typename T>
T parsed(int (*parse)(const char *, T *, char *, size_t), const std::string &text)
{
    T record;
    char error[256] = "";
    EXPECT_EQ(parse(text.c_str(), &record, error, sizeof error), 0) << error;
    return record;
}

// Both SAs of the pair as iproute2 shows them, then flushed.
static void expect_pair(const esp_pair &p)
{
    for (const bool tx : {true, false}) {
        const char *src = tx ? p.local : p.remote, *dst = tx ? p.remote : p.local;
        const unsigned spi = tx ? 0x1000 : 0x2000, sport = tx ? p.encap_port : 4500, dport = tx ? 4500 : p.encap_port;
        const uint32_t mark = tx ? p.mark_tx : p.mark_rx;
        const std::string sa = sh(fmt("ip xfrm state get src %s dst %s proto esp spi %u", src, dst, spi));
        for (const std::string &line :
             {fmt("src %s dst %s\n\tproto esp spi 0x%08x reqid 0 mode %s\n", src, dst, spi, p.mode),
              std::string(tx ? " flag nopmtudisc af-unspec\n" : " flag af-unspec\n"),
              fmt("\tenc %s 0x%s\n", p.cipher, key(p.crypt_bytes, tx ? 0x10 : 0x90).c_str()),
              fmt("\tauth-trunc %s 0x%s %u\n", p.auth, key(p.auth_bytes, tx ? 0x30 : 0xb0).c_str(), p.trunc),
              p.encap_port ? fmt("\tencap type espinudp sport %u dport %u addr %s\n", sport, dport,
                                 strchr(p.local, ':') ? "::" : "0.0.0.0")
                           : "!encap",
              mark ? fmt("\toutput-mark 0x%x/0xffffffff\n", mark) : "!output-mark"})
            EXPECT_NE(has(sa, line.substr(line[0] == '!')), line[0] == '!') << line << "\n" << sa;
    }
    sh("ip xfrm state flush");
}

struct XfrmSaKernel : KernelTest {
    void SetUp() override
    {
        KernelTest::SetUp();
        tavrel_main_cfg.output_mark_enabled = 0;
        // Whether this kernel installs ESP SAs, tried on addresses the tests do not use.
        esp_ = !HasFatalFailure() &&
               kernel_has(sh("ip xfrm state add src 192.0.2.1 dst 192.0.2.2 proto esp spi 1 enc 'cbc(aes)' 0x" +
                             key(16, 0) + " && ip xfrm state flush").empty(), "ESP (esp4, xfrm_user)");
    }
    bool esp_ = false;
};

// Each pair from the modem's configuration, then from the daemon's address
// set one direction at a time.
TEST_F(XfrmSaKernel, EspPairsReadBackWithIpXfrm)
{
    for (const esp_pair &p : kPairs) {
        SCOPED_TRACE(std::string(p.cipher) + " " + p.auth + " " + p.mode + " " + p.local);
        tavrel_main_cfg.output_mark_enabled = p.mark_switch;
        const auto cfg = parsed(tavrel_host_sa_cfg_parse, pair_text(p, true));
        const auto set = parsed(tavrel_host_addr_set_parse, pair_text(p, false));
        if (esp_) {
            ASSERT_EQ(tavrel_xfrm_add_states(&cfg, 0, 0, p.link_tech), 0) << kernel_log;
            expect_pair(p);
            for (const int tx : {1, 0})
                ASSERT_EQ(tavrel_xfrm_add_state_from_addr_set(&set, tx, p.link_tech), 0) << kernel_log;
            expect_pair(p);
            continue;
        }
        // The walk for the kernel's explanation starts 16 bytes early; in the
        // zeroed tail of the encapsulation template it stops without a word.
        check("modem's configuration", tavrel_xfrm_add_states(&cfg, 0, 0, p.link_tech), -1, "ip xfrm state", {"^$"},
              {"Kernel reports error -", "tavrel_xfrm_add_state(): Sending XFRM state failed\n",
               "tavrel_xfrm_add_states(): Setting TX XFRM state failed\n", "!inserting incoming",
               p.encap_port ? "!EXTACK" : ""});
        check("address set", tavrel_xfrm_add_state_from_addr_set(&set, 1, p.link_tech), -1, "ip xfrm state", {"^$"},
              {"Kernel reports error -", "tavrel_xfrm_add_state_from_addr_set(): Sending XFRM state failed\n"});
    }
}

// Every kernel refuses an AH SA with a cipher, whichever way it is built.
TEST_F(XfrmSaKernel, AhIsRefusedForItsCipher)
{
    const auto cfg = parsed(tavrel_host_sa_cfg_parse, pair_text(kPairs[0], true, "ah"));
    const auto set = parsed(tavrel_host_addr_set_parse, pair_text(kPairs[0], false, "ah"));
    check("modem's configuration", tavrel_xfrm_add_states(&cfg, 0, 0, 0), -1, "ip xfrm state", {"^$"},
          {"error -22\n", "tavrel_xfrm_add_state(): Sending XFRM state failed\n",
           "tavrel_xfrm_add_states(): Setting TX XFRM state failed\n", "!inserting incoming"});
    check("address set", tavrel_xfrm_add_state_from_addr_set(&set, 1, 0), -1, "ip xfrm state", {"^$"},
          {"error -22\n", "tavrel_xfrm_add_state_from_addr_set(): Sending XFRM state failed\n"});
}
