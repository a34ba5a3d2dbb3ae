// Address conversion between the daemon's texts and records and the kernel's xfrm_address_t.
#include <arpa/inet.h>

#include "tavrel_internal.h"
#include "tavrel_test.h"

using fk::operator+;

class XfrmAddr : public TavrelTest {};

TEST_F(XfrmAddr, SetAddressFromText)
{
    // Cut to 63 characters, the prefix reads octal 01 instead of 012.
    const std::string cut = "1.2.3.4/" + std::string(54, '0') + "12";
    const std::string bad = "-1 0 238 0.0.0.0 ERR tavrel_xfrm_set_address(): invalid ";
    const std::pair<std::string, std::string> cases[] = {  // text, "result family prefix address [log]"
        {"192.168.1.1", "0 2 32 192.168.1.1"},        {"fe80::/64", "0 10 64 fe80::"},
        {"::ffff:1.2.3.4", "0 10 128 ::ffff:1.2.3.4"}, {"10.0.0.1/", "0 2 0 10.0.0.1"},
        {"10.0.0.1/0x18", "0 2 24 10.0.0.1"},          {"10.0.0.1/300", "0 2 44 10.0.0.1"},
        {"1.2.3.4/8x", "0 2 8 1.2.3.4"},               {cut, "0 2 1 1.2.3.4"},
        {"abc", bad + "IPv4 address abc\n"},           {"fe80::zz/64", bad + "IPv6 address fe80::zz\n"},
    };
    for (const auto &[text, expected] : cases) {
        logcap::start();
        xfrm_address_t a{};
        uint8_t prefix = 0xEE;  // neither prefix nor family is written on failure
        uint16_t family = 0;
        char shown[INET6_ADDRSTRLEN];
        const int result = tavrel_xfrm_set_address(&a, &prefix, &family, text.c_str());
        std::string got = std::to_string(result) + " " + std::to_string(family) + " " + std::to_string(prefix);
        got += std::string(" ") + inet_ntop(family == AF_INET6 ? AF_INET6 : AF_INET, &a, shown, sizeof shown);
        for (const auto &line : logcap::diag_lines())
            got += " " + line;
        EXPECT_EQ(got, expected) << text;
        logcap::expect_sinks_agree();
    }
}

TEST_F(XfrmAddr, RecordsAreComparedAndCopied)
{
    const tavrel_ip_addr v4{4, 4, {10, 0, 0, 1}}, other{4, 4, {10, 0, 0, 2}}, v6{6, 16, {0xfe, 0x80, 0, 1}};
    const tavrel_ip_addr v6_marked_v4{4, 16, {0xfe, 0x80, 0, 1}};
    const auto cmp = [](const tavrel_ip_addr &a, unsigned family, const tavrel_ip_addr &element) {
        return tavrel_xfrm_addr_cmp(reinterpret_cast<const xfrm_address_t *>(a.addr), family, &element);
    };
    // Per version: equal, another address, an element of the other version;
    // IPv6 bytes in an element marked IPv4; families other than 2 and 10.
    EXPECT_EQ((std::vector<int>{cmp(v4, AF_INET, v4), cmp(other, AF_INET, v4), cmp(v4, AF_INET, v6),
                                cmp(v6, AF_INET6, v6), cmp(v4, AF_INET6, v6), cmp(v6, AF_INET6, v4),
                                cmp(v6, AF_INET6, v6_marked_v4), cmp(other, 0, v4), cmp(other, 7, v6)}),
              (std::vector<int>{0, 1, 1, 0, 1, 1, 1, 0, 0}));

    // 10.0.0.1 as a little-endian host integer (the modem, like the device) and in network order (the
    // daemon); the modem's IPv6 record counts its valid bytes, the daemon's always gives 16.
    const tavrel_modem_ip_addr m4{4, 4, {1, 0, 0, 10}}, m6{6, 8, {1, 2, 3, 4, 5, 6, 7, 8, 9, 9}}, m5{5, 4, {1, 2}};
    const tavrel_ip_addr d4{4, 4, {10, 0, 0, 1}}, d6{6, 8, {1, 2, 3, 4, 5, 6, 7, 8, 9, 9}}, d0{0, 4, {1, 2}};
    const auto copy = [](auto function, const auto &record) {
        xfrm_address_t a;
        memset(&a, 0xAB, sizeof a);
        function(&a, &record);
        return fk::bytes(reinterpret_cast<uint8_t *>(&a), reinterpret_cast<uint8_t *>(&a) + sizeof a);
    };
    const auto config = tavrel_xfrm_set_addr_from_config;
    const auto recovery = tavrel_xfrm_set_addr_from_recovery;
    const fk::bytes ten_0_0_1 = fk::bytes{10, 0, 0, 1} + fk::bytes(12, 0xAB), untouched(16, 0xAB);
    EXPECT_EQ((std::vector<fk::bytes>{copy(config, m4), copy(recovery, d4), copy(config, m6), copy(recovery, d6),
                                      copy(config, m5), copy(recovery, d0)}),
              (std::vector<fk::bytes>{ten_0_0_1, ten_0_0_1, fk::bytes{1, 2, 3, 4, 5, 6, 7, 8} + fk::bytes(8, 0xAB),
                                      fk::bytes(d6.addr, d6.addr + 16), untouched, untouched}));
    EXPECT_EQ(logcap::diag_lines(), (lines{"ERR tavrel_xfrm_set_addr_from_config(): invalid addr family 5\n",
                                           "ERR tavrel_xfrm_set_addr_from_recovery(): invalid addr family 0\n"}));
    logcap::expect_sinks_agree();
    // More valid bytes than an address holds would overwrite the request around it.
    EXPECT_DEATH(copy(config, (tavrel_modem_ip_addr{6, 17, {}})), "");
}
