// Rules, addresses, the GSO limit, queueing disciplines and address labels
// against this machine's kernel, read back through iproute2.
#include <arpa/inet.h>
#include <sys/utsname.h>

#include <cstdlib>

#include "kernel_test.h"

namespace {

struct RtnetlinkKernelTest : KernelTest {
    void SetUp() override
    {
        KernelTest::SetUp();
        if (!HasFatalFailure() && !sh("ip link add d0 type dummy").empty())  // veth where there is no dummy driver
            SH_OK("ip link add d0 type veth peer name d0peer");
        SH_OK("ip link set d0 up");
    }
};

tavrel_ip_addr ip(const std::string &text)
{
    const bool v6 = text.find(':') != text.npos;
    tavrel_ip_addr a{v6 ? 6u : 4u, v6 ? 16u : 4u, {}};
    EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, text.c_str(), a.addr), 1) << text;
    return a;
}

int addr(const char *text, uint32_t prefix_length, uint32_t operation, uint32_t lifetime)
{
    const tavrel_ip_addr a = ip(text);
    return tavrel_rtnetlink_addr_cfg("d0", &a, prefix_length, operation, lifetime);
}

int entry(const std::string &prefix, uint32_t length, uint32_t label, uint32_t index = 1,
          int (*modify)(const tavrel_ip_addr *, uint32_t, uint32_t, uint32_t) = tavrel_addrlabel_add)
{
    const tavrel_ip_addr a = ip(prefix);
    return modify(&a, length, label, index);
}

const char *const kRules = "ip rule show", *const kAddrs = "ip -o addr show dev d0";
const char *const kQdiscs = "tc qdisc show dev d0";
const std::string kForever = " [^\n]*valid_lft forever preferred_lft forever";
const std::string kDeprecated300 = " [^\n]*deprecated[^\n]*valid_lft (300|299|298)sec preferred_lft 0sec";
const std::string kDeprecated600 = " [^\n]*deprecated[^\n]*valid_lft (600|599|598)sec preferred_lft 0sec";

TEST_F(RtnetlinkKernelTest, RulesAddressesGsoAndQdiscReadBack)
{
    // Adding and deleting by priority alone: the concurrency test, which reads back every rule.
    check("rule added", tavrel_rtnetlink_add_ip_rule(0x10, 0xff, 100, 1000), 0, kRules,
          {"\n1000:\tfrom all fwmark 0x10/0xff lookup 100\n"});
    // Unacknowledged: the kernel's refusal of the duplicate is not seen.
    check("duplicate", tavrel_rtnetlink_add_ip_rule(0x10, 0xff, 100, 1000), 0, kRules, {"!1000:[^\n]*\n1000:"});
    check("rule deleted", tavrel_rtnetlink_del_ip_rule(0x10, 0xff, 100, 1000), 0, kRules, {"!1000:"});

    check("operation 0 adds", addr("10.1.0.1", 24, 0, 600), 0, kAddrs, {"10.1.0.1/24" + kForever});
    check("operation 0 again", addr("10.1.0.1", 24, 0, 0), -1, kAddrs, {"10.1.0.1/24" + kForever});
    check("operation 1 deprecates", addr("10.1.0.1", 24, 1, 600), 0, kAddrs, {"10.1.0.1/24" + kDeprecated600});
    check("operation 2 replaces", addr("10.1.0.1", 24, 2, 600), 0, kAddrs, {"10.1.0.1/24" + kForever});
    check("operation 3 adds", addr("fd00::5", 64, 3, 300), 0, kAddrs, {"fd00::5/64" + kDeprecated300});

    check("GSO limit", tavrel_rtnetlink_gso_max_size("d0", 32768), 0, "ip -d link show d0", {" gso_max_size 32768 "});
    // 5.10's attribute policy puts no lower bound on the limit, so 0 is taken;
    // 6.1 and later refuse it ("integer out of range").
    utsname u{};
    uname(&u);
    int major = 0, minor = 0;
    std::sscanf(u.release, "%d.%d", &major, &minor);
    const bool zero_taken = major < 6 || (major == 6 && minor < 1);
    std::printf("GSO limit 0: %s by kernel %s\n", zero_taken ? "taken" : "refused", u.release);
    check("GSO limit 0", tavrel_rtnetlink_gso_max_size("d0", 0), zero_taken ? 0 : -1, "ip -d link show d0",
          {zero_taken ? " gso_max_size 0 " : " gso_max_size 32768 "});

    // The kernel's codes: EEXIST for the exclusive add; ENODEV for the unknown interface, sent as index 0.
    check("pfifo added", tavrel_rtnetlink_tc_qdisc("d0", "pfifo", 0, 0x10000, 0), 0, kQdiscs, {"qdisc pfifo 1: root"});
    check("exclusive", tavrel_rtnetlink_tc_qdisc("d0", "pfifo", 0, 0x10000, 0), -1, kQdiscs, {"qdisc pfifo 1: root"},
          {"rc:-17 "});
    check("pfifo deleted", tavrel_rtnetlink_tc_qdisc("d0", "pfifo", 0, 0x10000, 1), 0, kQdiscs, {"!pfifo"});
    check("no such device", tavrel_rtnetlink_tc_qdisc("nope0", "pfifo", 0, 0x10000, 0), -1, "", {}, {"rc:-19 "});
}

// The kernel reads the first 20 bytes of the options record, so the
// flow-enable byte does not show.
TEST_F(RtnetlinkKernelTest, PrioAndFlowControlReadBackWithTc)
{
    if (!kernel_has("tc qdisc add dev d0 root handle 9: prio && tc qdisc del dev d0 root", "sch_prio"))
        GTEST_SKIP() << "this kernel has no prio qdisc; the full-kernel tier runs this test";
    const std::string five = "qdisc prio 1: root refcnt [0-9]+ bands 5 priomap +3 4 4 4 3 4 2 2 4 3 2 1 0 0 0 0";
    const std::string three = "qdisc prio 1: root refcnt [0-9]+ bands 3 priomap +1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1";
    check("change without a qdisc", tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 2), -1, kQdiscs, {"!prio"},
          {"rc:-2 "});
    check("five bands", tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 0), 0, kQdiscs, {five});
    check("exclusive", tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 0), -1, kQdiscs, {five}, {"rc:-17 "});
    check("three bands, flow off", tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 0, 2), 0, kQdiscs, {three});
    check("deleted by flow control", tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 1), 0, kQdiscs, {"!prio"});
    check("added by flow control", tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 0), 0, kQdiscs, {three});
    check("deleted by tc_prio", tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 1), 0, kQdiscs, {"!prio"});
}

TEST_F(KernelTest, GenerateReturnsTheLowestGapAboveTheSystemLabels)
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
TEST_F(KernelTest, EntriesAddedPurgedAndDeleted)
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

}  // namespace
