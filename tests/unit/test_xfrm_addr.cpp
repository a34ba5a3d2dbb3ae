// Address conversion between the daemon's texts and records and the kernel's
// xfrm_address_t.
#include <arpa/inet.h>

#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

struct text_case {
    const char *text;
    int result;
    uint16_t family;
    uint8_t prefix;
    const char *address;  // as inet_ntop prints it; nullptr when the call fails
    const char *log;      // the error line, if any
};

std::string ntop(uint16_t family, const xfrm_address_t &a)
{
    char buf[INET6_ADDRSTRLEN];
    return inet_ntop(family, &a, buf, sizeof buf);
}

}  // namespace

class XfrmAddr : public TavrelTest {};

TEST_F(XfrmAddr, SetAddressFromText)
{
    const text_case cases[] = {
        {"192.168.1.1", 0, AF_INET, 32, "192.168.1.1", nullptr},
        {"2001:db8::1", 0, AF_INET6, 128, "2001:db8::1", nullptr},
        {"fe80::/64", 0, AF_INET6, 64, "fe80::", nullptr},
        {"10.0.0.1/", 0, AF_INET, 0, "10.0.0.1", nullptr},
        {"10.0.0.1/0x18", 0, AF_INET, 24, "10.0.0.1", nullptr},
        {"10.0.0.1/010", 0, AF_INET, 8, "10.0.0.1", nullptr},
        {"10.0.0.1/300", 0, AF_INET, 44, "10.0.0.1", nullptr},
        {"1.2.3.4/8x", 0, AF_INET, 8, "1.2.3.4", nullptr},
        {"::ffff:1.2.3.4", 0, AF_INET6, 128, "::ffff:1.2.3.4", nullptr},
        {"abc", -1, 0, 0, nullptr, "ERR tavrel_xfrm_set_address(): invalid IPv4 address abc\n"},
        {"fe80::zz/64", -1, 0, 0, nullptr, "ERR tavrel_xfrm_set_address(): invalid IPv6 address fe80::zz\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        logcap::start();
        xfrm_address_t a{};
        uint8_t prefix = 0xEE;
        uint16_t family = 0xEEEE;
        EXPECT_EQ(tavrel_xfrm_set_address(&a, &prefix, &family, c.text), c.result);
        if (c.address) {
            EXPECT_EQ(family, c.family);
            EXPECT_EQ(prefix, c.prefix);
            EXPECT_EQ(ntop(family, a), c.address);
            EXPECT_TRUE(logcap::diag_lines().empty());
        } else {
            // Nothing is written on failure.
            EXPECT_EQ(family, 0xEEEE);
            EXPECT_EQ(prefix, 0xEE);
            EXPECT_EQ(logcap::diag_lines(), lines{c.log});
            logcap::expect_sinks_agree();
        }
    }
}

TEST_F(XfrmAddr, LongTextIsCutTo63Characters)
{
    // 63 characters of a valid address followed by junk: the junk is cut off.
    std::string text = "1.2.3.4/" + std::string(55, '0');
    ASSERT_EQ(text.size(), 63u);
    text += "999999";
    xfrm_address_t a{};
    uint8_t prefix = 1;
    uint16_t family = 0;
    EXPECT_EQ(tavrel_xfrm_set_address(&a, &prefix, &family, text.c_str()), 0);
    EXPECT_EQ(prefix, 0);
}

TEST_F(XfrmAddr, Compare)
{
    tavrel_ip_addr v4{4, 4, {10, 0, 0, 1}};
    tavrel_ip_addr v6{6, 16, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    xfrm_address_t a4{}, a6{}, other{};
    memcpy(&a4, v4.addr, 4);
    memcpy(&a6, v6.addr, 16);
    other.a4 = htonl(0x0a000002);
    const struct {
        const xfrm_address_t *addr;
        unsigned family;
        const tavrel_ip_addr *element;
        int expected;
    } cases[] = {
        {&a4, AF_INET, &v4, 0},     {&other, AF_INET, &v4, 1}, {&a4, AF_INET, &v6, 1},
        {&a6, AF_INET6, &v6, 0},    {&a4, AF_INET6, &v6, 1},   {&a6, AF_INET6, &v4, 1},
        {&other, 0, &v4, 0},        {&other, 7, &v6, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(tavrel_xfrm_addr_cmp(c.addr, c.family, c.element), c.expected) << c.family;
}

TEST_F(XfrmAddr, ModemRecordIsSwappedDaemonRecordIsNot)
{
    // 10.0.0.1 as a little-endian host integer, and as network-order bytes.
    tavrel_modem_ip_addr modem{4, 4, {0x01, 0x00, 0x00, 0x0a}};
    tavrel_ip_addr daemon{4, 4, {0x0a, 0x00, 0x00, 0x01}};
    xfrm_address_t from_modem{}, from_daemon{};
    tavrel_xfrm_set_addr_from_config(&from_modem, &modem);
    tavrel_xfrm_set_addr_from_recovery(&from_daemon, &daemon);
    EXPECT_EQ(ntop(AF_INET, from_modem), "10.0.0.1");  // little-endian hosts, as the device
    EXPECT_EQ(ntop(AF_INET, from_daemon), "10.0.0.1");

    // The modem's IPv6 record copies only its valid bytes.
    tavrel_modem_ip_addr partial{6, 8, {0x20, 0x01, 0x0d, 0xb8, 1, 2, 3, 4, 9, 9, 9, 9, 9, 9, 9, 9}};
    xfrm_address_t target;
    memset(&target, 0xAB, sizeof target);
    tavrel_xfrm_set_addr_from_config(&target, &partial);
    EXPECT_EQ(memcmp(&target, partial.addr, 8), 0);
    for (int i = 8; i < 16; i++)
        EXPECT_EQ(reinterpret_cast<uint8_t *>(&target)[i], 0xAB);
}

TEST_F(XfrmAddr, InvalidFamilyLeavesAddressAndLogs)
{
    tavrel_modem_ip_addr modem{5, 4, {1, 2, 3, 4}};
    tavrel_ip_addr daemon{0, 4, {1, 2, 3, 4}};
    xfrm_address_t a{};
    tavrel_xfrm_set_addr_from_config(&a, &modem);
    tavrel_xfrm_set_addr_from_recovery(&a, &daemon);
    EXPECT_EQ(a.a6[0] | a.a6[1] | a.a6[2] | a.a6[3], 0u);
    EXPECT_EQ(logcap::diag_lines(), (lines{"ERR tavrel_xfrm_set_addr_from_config(): invalid addr family 5\n",
                                           "ERR tavrel_xfrm_set_addr_from_recovery(): invalid addr family 0\n"}));
    logcap::expect_sinks_agree();
}

TEST_F(XfrmAddr, ModemLengthBeyondTheAddressStops)
{
    tavrel_modem_ip_addr modem{6, 17, {}};
    xfrm_address_t a{};
    EXPECT_DEATH(tavrel_xfrm_set_addr_from_config(&a, &modem), "");
}
