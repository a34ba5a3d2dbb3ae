#include <arpa/inet.h>

#include <cstdlib>

#include "kernel_test.h"

namespace {

tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{};
    a.family = strchr(text, ':') ? 6 : 4;
    a.length = a.family == 6 ? 16 : 4;
    EXPECT_EQ(inet_pton(a.family == 6 ? AF_INET6 : AF_INET, text, a.addr), 1) << text;
    return a;
}

constexpr uint32_t kLo = 1;

bool listed(const std::string &line)
{
    return sh("ip addrlabel list").find(line) != std::string::npos;
}

}  // namespace

class AddrlabelKernelTest : public KernelTest {
protected:
    // Adds prefix/prefix_length with label on lo through the library.
    void add(const char *prefix, uint32_t prefix_length, uint32_t label)
    {
        const tavrel_ip_addr a = ip(prefix);
        ASSERT_EQ(tavrel_addrlabel_add(&a, prefix_length, label, kLo), 0) << prefix << "\n" << log();
    }
};

TEST_F(AddrlabelKernelTest, EntriesAreAddedAndDeleted)
{
    const tavrel_ip_addr a = ip("2001:db8:1::");
    ASSERT_EQ(tavrel_addrlabel_add(&a, 64, 100, kLo), 0) << log();
    EXPECT_TRUE(listed("prefix 2001:db8:1::/64 dev lo label 100")) << sh("ip addrlabel list");

    EXPECT_EQ(tavrel_addrlabel_add(&a, 64, 101, kLo), -1);
    EXPECT_NE(log().find("tavrel_netlink_transact(): Kernel reports error -17\n"), std::string::npos) << log();
    EXPECT_NE(log().find("tavrel_addrlabel_modify(): modifying address label failed\n"), std::string::npos);

    ASSERT_EQ(tavrel_addrlabel_del(&a, 64, 100, kLo), 0) << log();
    EXPECT_FALSE(listed("2001:db8:1::/64")) << sh("ip addrlabel list");
    EXPECT_EQ(tavrel_addrlabel_del(&a, 64, 100, kLo), -1);

    // Linux keeps address labels for IPv6 only.
    const tavrel_ip_addr v4 = ip("192.0.2.0");
    EXPECT_EQ(tavrel_addrlabel_add(&v4, 24, 100, kLo), -1);
}

TEST_F(AddrlabelKernelTest, GenerateReturnsTheGapAboveTheSystemLabels)
{
    // A fresh namespace holds only the system's labels, all below 21: the
    // label is drawn above 20 from the process's rand().
    srand(11);
    const uint32_t drawn = static_cast<uint32_t>(rand()) + 20;
    srand(11);
    uint32_t label = 0;
    ASSERT_EQ(tavrel_addrlabel_generate(6, 0, &label), 0) << log();
    EXPECT_EQ(label, drawn);

    const struct {
        const char *prefix;
        uint32_t label;
        uint32_t expected;
    } steps[] = {
        {"2001:db8:20::", 20, 0},  // 0: drawn, not checked here
        {"2001:db8:21::", 21, 0},
        {"2001:db8:22::", 22, 0},
        {"2001:db8:30::", 30, 29},
        {"2001:db8:29::", 29, 28},
        {"2001:db8:23::", 23, 28},
        {"2001:db8:25::", 25, 24},
    };
    for (const auto &s : steps) {
        add(s.prefix, 64, s.label);
        if (s.expected == 0)
            continue;
        ASSERT_EQ(tavrel_addrlabel_generate(6, 0, &label), 0) << log();
        EXPECT_EQ(label, s.expected) << "after adding label " << s.label << "\n" << sh("ip addrlabel list");
    }

    // There is no IPv4 table to dump.
    EXPECT_EQ(tavrel_addrlabel_generate(4, 0, &label), -1);
    EXPECT_NE(log().find("tavrel_addrlabel_generate(): gathering list of current labels failed\n"), std::string::npos);
}

TEST_F(AddrlabelKernelTest, PurgeRemovesTheAddressAndItsLabelOnly)
{
    const std::string system_before = sh("ip addrlabel list");
    add("2001:db8:1::", 64, 100);
    add("2001:db8:2::", 64, 100);
    add("2001:db8:3::", 64, 101);
    add("2001:db8:4::", 48, 100);
    const tavrel_ip_addr all_interfaces = ip("2001:db8:5::");
    ASSERT_EQ(tavrel_addrlabel_add(&all_interfaces, 64, 100, 0), 0);

    // A system label is never purged: the query answers fc00::/7, label 5.
    const tavrel_ip_addr ula = ip("fd00::1");
    EXPECT_EQ(tavrel_addrlabel_purge_label(&ula, 7, 0), 0) << log();
    EXPECT_TRUE(listed("prefix fc00::/7 label 5"));

    const tavrel_ip_addr a = ip("2001:db8:1::5");
    EXPECT_EQ(tavrel_addrlabel_purge_label(&a, 64, kLo), 0) << log();
    EXPECT_NE(log().find("Matches AddressIPv6 addr [2001:0db8:0001:0000:0000:0000:0000:0005]"), std::string::npos)
        << log();
    EXPECT_NE(log().find("Label match forIPv6 addr [2001:0db8:0002:0000:0000:0000:0000:0000]"), std::string::npos);

    const std::string after = sh("ip addrlabel list");
    EXPECT_FALSE(listed("2001:db8:1::/64")) << after;
    EXPECT_FALSE(listed("2001:db8:2::/64")) << after;
    EXPECT_TRUE(listed("prefix 2001:db8:3::/64 dev lo label 101")) << after;
    EXPECT_TRUE(listed("prefix 2001:db8:4::/48 dev lo label 100")) << after;
    EXPECT_TRUE(listed("prefix 2001:db8:5::/64 label 100")) << after;
    std::string rest = after;
    for (const char *kept : {"prefix 2001:db8:3::/64 dev lo label 101 \n", "prefix 2001:db8:4::/48 dev lo label 100 \n",
                             "prefix 2001:db8:5::/64 label 100 \n"}) {
        const size_t at = rest.find(kept);
        ASSERT_NE(at, std::string::npos) << kept;
        rest.erase(at, strlen(kept));
    }
    EXPECT_EQ(rest, system_before) << "the system's entries changed";
}
