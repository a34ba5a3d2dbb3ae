// Address labels against this machine's kernel, read back with `ip addrlabel`.
#include <arpa/inet.h>
#include <cstdlib>

#include "kernel_test.h"

using AddrlabelKernelTest = KernelTest;

static tavrel_ip_addr ip(const std::string &text)
{
    tavrel_ip_addr a{6, 16, {}};
    EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), a.addr), 1) << text;
    return a;
}

static int entry(const std::string &prefix, uint32_t length, uint32_t label, uint32_t index = 1,
                 int (*modify)(const tavrel_ip_addr *, uint32_t, uint32_t, uint32_t) = tavrel_addrlabel_add)
{
    const tavrel_ip_addr a = ip(prefix);
    return modify(&a, length, label, index);
}

TEST_F(AddrlabelKernelTest, GenerateReturnsTheLowestGapAboveTheSystemLabels)
{
    srand(11);  // only the system's labels, all below 21: the label is drawn above 20
    const uint32_t drawn = static_cast<uint32_t>(rand()) + 20;
    srand(11);
    uint32_t label = 0;
    // {label placed, result then}: just below the lowest label from 21 up with a free one beneath (0: none, drawn).
    const uint32_t steps[][2] = {{0, drawn}, {21, 20}, {20, 0}, {22, 0}, {30, 29}, {29, 28}, {23, 28}, {25, 24}};
    for (const auto &s : steps) {
        ASSERT_EQ(s[0] ? entry("2001:db8:" + std::to_string(s[0]) + "::", 64, s[0]) : 0, 0) << kernel_log;
        ASSERT_EQ(tavrel_addrlabel_generate(6, 0, &label), 0) << kernel_log;
        EXPECT_EQ(s[1] ? label : 0, s[1]) << "after placing label " << s[0] << "\n" << sh("ip addrlabel list");
    }
    check("no IPv4 table to dump", tavrel_addrlabel_generate(4, 0, &label), -1, "", {});
}

// The address's own entry and the other entry with its label go; the rest,
// and the system's fc00::/7 with label 5, stay.
TEST_F(AddrlabelKernelTest, EntriesAddedPurgedAndDeleted)
{
    const std::string system = sh("ip addrlabel list");
    const struct {
        const char *prefix;
        uint32_t length, label, index;
    } placed[] = {{"2001:db8:1::", 64, 100, 1}, {"2001:db8:2::", 64, 100, 1},  // purged
                  {"2001:db8:3::", 64, 101, 1}, {"2001:db8:4::", 48, 100, 1}, {"2001:db8:5::", 64, 100, 0}};
    for (const auto &p : placed)
        ASSERT_EQ(entry(p.prefix, p.length, p.label, p.index), 0) << kernel_log;
    check("exclusive", entry("2001:db8:1::", 64, 101), -1, "ip addrlabel list",
          {"prefix 2001:db8:1::/64 dev lo label 100 \n"});
    const tavrel_ip_addr ula = ip("fd00::1"), a = ip("2001:db8:1::5");
    EXPECT_EQ(tavrel_addrlabel_purge_label(&ula, 7, 0), 0) << kernel_log;
    EXPECT_EQ(tavrel_addrlabel_purge_label(&a, 64, 1), 0) << kernel_log;
    for (const auto &p : {placed[2], placed[3], placed[4]})
        EXPECT_EQ(entry(p.prefix, p.length, p.label, p.index, tavrel_addrlabel_del), 0) << p.prefix;
    EXPECT_EQ(sh("ip addrlabel list"), system);
    check("nothing to delete", entry("2001:db8:3::", 64, 101, 1, tavrel_addrlabel_del), -1, "", {});
}
