// SAs and policies against the running kernel, read back with `ip xfrm`. Without ESP the kernel refuses
// every SA; with it (the full-kernel tier) the ESP SAs are read back. That tavrel_xfrm_remove_states finds
// its pair in the kernel's own dump shows in the end-to-end tunnel (tests/e2e), which tears side A down.
#include <linux/xfrm.h>
#include <netinet/in.h>

#include "kernel_test.h"
#include "tavrel_host_xfrm.h"

// n key bytes counting up from first, as hex digits.
static std::string key(unsigned n, unsigned first)
{
    std::string k;
    for (unsigned i = first; i < first + n; i++)
        k += fmt("%02x", i & 0xff);
    return k;
}

// Every cipher and authentication algorithm the library names, both modes, both families, with and without UDP
// encapsulation. Which code gives which name, and which SA gets which output mark, is the unit tier's.
struct esp_pair {
    const char *local, *remote, *mode, *aes_mode, *cipher, *auth;  // aes_mode nullptr: not valid
    int crypto_algo, hash_algo;
    unsigned crypt_bytes, auth_bytes, trunc, encap_port;  // encap_port 0: none
} const kPairs[] = {
    {"10.1.0.1", "10.2.0.1", "tunnel", "cbc", "cbc(aes)", "hmac(sha256)", 12, 6, 16, 32, 128, 4501},
    {"2001:db8:1::1", "2001:db8:2::1", "transport", nullptr, "cbc(aes)", "hmac(sha1)", 19, 5, 32, 20, 96, 0},
    {"2001:db8:1::1", "2001:db8:2::1", "tunnel", "ctr", "rfc3686(ctr(aes))", "hmac(md5)", 12, 7, 20, 16, 96, 4600},
    {"10.1.0.1", "10.2.0.1", "transport", nullptr, "cbc(des)", "xcbc(aes)", 9, 12, 8, 16, 96, 0},
    {"10.1.0.1", "10.2.0.1", "tunnel", nullptr, "cbc(des3_ede)", "hmac(sha384)", 10, 20, 24, 48, 192, 4500},
    {"2001:db8:1::1", "2001:db8:2::1", "tunnel", "cbc", "cbc(aes)", "hmac(sha512)", 19, 21, 24, 64, 256, 0},
};
constexpr int32_t kLinkTech = -32640;  // with the switch on: output mark 0x20001 on TX SAs, 0x20002 on RX SAs

// The pair as the modem's configuration (the host model's SA record) or as
// the daemon's address set, parsed from text; RX keys start 0x80 above TX keys.
template <typename T>
T parsed(int (*parse)(const char *, T *, char *, size_t), const esp_pair &p, bool modem, const char *proto = "esp")
{
    std::string t = fmt("local = %s\n%s = %s\nmode = %s\nspi_tx = 0x1000\nspi_rx = 0x2000\n", p.local,
                        modem ? "dest" : "remote", p.remote, p.mode);
    t += modem ? fmt("protocol = %s\ncrypto_algo = %d\nhash_algo = %d\n", proto, p.crypto_algo, p.hash_algo) +
                     (p.aes_mode ? fmt("aes_mode = %s\n", p.aes_mode) : "")
               : fmt("proto = %s\ncrypto_alg_name = %s\nauth_alg_name = %s\nauth_trunc_len = %u\n", proto, p.cipher,
                     p.auth, p.trunc);
    const char *auth = modem ? "hash_key" : "auth_key";
    t += fmt("crypto_key_tx = %s\ncrypto_key_rx = %s\n", key(p.crypt_bytes, 0x10).c_str(),
             key(p.crypt_bytes, 0x90).c_str()) +
         fmt("%s_tx = %s\n%s_rx = %s\n", auth, key(p.auth_bytes, 0x30).c_str(), auth, key(p.auth_bytes, 0xb0).c_str());
    if (p.encap_port)
        t += fmt("udp_encap = 1\nudp_encap_port = %u\n", p.encap_port);
    T record;
    char error[256] = "";
    EXPECT_EQ(parse(t.c_str(), &record, error, sizeof error), 0) << error;
    return record;
}

// Both SAs of the pair as iproute2 shows them, then flushed; without ESP, none.
static void expect_pair(const esp_pair &p, bool esp)
{
    EXPECT_TRUE(esp || sh("ip xfrm state").empty()) << sh("ip xfrm state");
    for (const bool tx : {true, false}) {
        const char *src = tx ? p.local : p.remote, *dst = tx ? p.remote : p.local;
        const unsigned spi = tx ? 0x1000 : 0x2000;
        if (esp)
            expect_in(sh(fmt("ip xfrm state get src %s dst %s proto esp spi %u", src, dst, spi)),
                      {fmt("src %s dst %s\n\tproto esp spi 0x%08x reqid 0 mode %s\n", src, dst, spi, p.mode),
                       tx ? " flag nopmtudisc af-unspec\n" : " flag af-unspec\n",
                       fmt("\tenc %s 0x%s\n", p.cipher, key(p.crypt_bytes, tx ? 0x10 : 0x90).c_str()),
                       fmt("\tauth-trunc %s 0x%s %u\n", p.auth, key(p.auth_bytes, tx ? 0x30 : 0xb0).c_str(), p.trunc),
                       p.encap_port ? fmt("\tencap type espinudp sport %u dport %u addr %s\n", tx ? p.encap_port : 4500,
                                          tx ? 4500 : p.encap_port, strchr(p.local, ':') ? "::" : "0.0.0.0")
                                    : "!encap",
                       fmt("\toutput-mark 0x%x/0xffffffff\n", tx ? 0x20001 : 0x20002)},
                      false);
    }
    sh("ip xfrm state flush");
}

// Each pair from the modem's configuration, then from the daemon's address set one direction at a time.
TEST_F(KernelTest, EspPairsReadBackAhRefused)
{
    // Whether this kernel installs ESP SAs, tried on addresses the pairs do not use.
    const bool esp = kernel_has("ip xfrm state add src 192.0.2.1 dst 192.0.2.2 proto esp spi 1 enc 'cbc(aes)' 0x" +
                                key(16, 0) + " && ip xfrm state flush", "ESP (esp4, xfrm_user)");
    tavrel_main_cfg.output_mark_enabled = 1;
    for (const esp_pair &p : kPairs) {
        SCOPED_TRACE(std::string(p.cipher) + " " + p.auth + " " + p.mode + " " + p.local);
        const auto cfg = parsed(tavrel_host_sa_cfg_parse, p, true);
        const auto set = parsed(tavrel_host_addr_set_parse, p, false);
        EXPECT_EQ(tavrel_xfrm_add_states(&cfg, 0, 0, kLinkTech), esp - 1) << "modem's configuration\n" << kernel_log;
        expect_pair(p, esp);
        for (const int tx : {1, 0})
            EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&set, tx, kLinkTech), esp - 1) << "address set\n" << kernel_log;
        expect_pair(p, esp);
    }
    // AH SAs always carry a cipher, which the kernel refuses.
    const auto cfg = parsed(tavrel_host_sa_cfg_parse, kPairs[0], true, "ah");
    const auto set = parsed(tavrel_host_addr_set_parse, kPairs[0], false, "ah");
    check("AH, modem's configuration", tavrel_xfrm_add_states(&cfg, 0, 0, 0), -1, "ip xfrm state", {"^$"},
          {"error -22\n"});
    check("AH, address set", tavrel_xfrm_add_state_from_addr_set(&set, 1, 0), -1, "ip xfrm state", {"^$"},
          {"error -22\n"});
}

const tavrel_xfrm_sa_addrs kPair = {{4, 4, {192, 0, 2, 1}}, {4, 4, {198, 51, 100, 2}}, 0x1000, 0x2000, IPPROTO_ESP, 1};

// A tunnel policy shows its selector, direction, priority and the template of the SA it points at; the
// ICMPv6 bypass to fe80::/64 has none and is preferred to the tunnel by its priority.
TEST_F(KernelTest, TunnelAndBypassPoliciesReadBack)
{
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

    const std::string bypass = "src ::/0 dst fe80::/64 proto ipv6-icmp \n\tdir ";
    check("bypass out", tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT), 0, "ip xfrm policy",
          {"^" + bypass + "out priority 10 ptype main \n$"});
    check("bypass in", tavrel_xfrm_add_policy_ex(XFRM_POLICY_IN), 0, "ip xfrm policy",
          {bypass + "in priority 10 ptype main \n", "!tmpl"});
    check("bypass out removed", tavrel_xfrm_remove_policy_ex(XFRM_POLICY_OUT), 0, "ip xfrm policy",
          {"!dir out", "dir in"});
}
