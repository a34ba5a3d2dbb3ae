// Route and traffic control against this machine's kernel, each test in a
// network namespace of its own, read back through iproute2.
#include <arpa/inet.h>

#include <regex>

#include "kernel_test.h"

namespace {

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// The line of `ip -o addr show dev d0` that carries the address.
std::string addr_line(const std::string &address)
{
    const std::string all = sh("ip -o addr show dev d0");
    const size_t at = all.find(" " + address + " ");
    if (at == std::string::npos)
        return "";
    const size_t begin = all.rfind('\n', at) + 1;  // npos + 1 == 0
    return all.substr(begin, all.find('\n', at) - begin);
}

tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{};
    a.family = strchr(text, ':') ? 6 : 4;
    a.length = a.family == 4 ? 4 : 16;
    EXPECT_EQ(inet_pton(a.family == 4 ? AF_INET : AF_INET6, text, a.addr), 1) << text;
    return a;
}

class RtnetlinkKernelTest : public KernelTest {
protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        if (HasFatalFailure())
            return;
        // A dummy interface where the kernel has the driver, a veth pair
        // otherwise; both behave alike for what is tested here.
        int status = -1;
        sh("ip link add d0 type dummy", &status);
        if (status != 0)
            SH_OK("ip link add d0 type veth peer name d0peer");
        SH_OK("ip link set d0 up");
    }

    // The prio qdisc is optional in a kernel; tests that need it skip
    // themselves where it is missing.
    static bool kernel_has_prio()
    {
        int status = -1;
        sh("tc qdisc add dev d0 root handle 9: prio", &status);
        if (status == 0)
            sh("tc qdisc del dev d0 root");
        return kernel_has(status == 0, "the prio qdisc (sch_prio)");
    }
};

TEST_F(RtnetlinkKernelTest, RulesAddedAndDeletedReadBackWithIpRule)
{
    ASSERT_EQ(tavrel_rtnetlink_add_ip_rule(0x10, 0xff, 100, 1000), 0);
    ASSERT_EQ(tavrel_rtnetlink_add_ip_rule(0x20, 0xffff, 200, 2000), 0);
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_add_ip_rule(): Successfully set up ip rule\n")) << log();
    std::string rules = sh("ip rule show");
    EXPECT_TRUE(has(rules, "1000:\tfrom all fwmark 0x10/0xff lookup 100")) << rules;
    EXPECT_TRUE(has(rules, "2000:\tfrom all fwmark 0x20/0xffff lookup 200")) << rules;

    // Unacknowledged: the kernel's refusal of the duplicate is not seen.
    EXPECT_EQ(tavrel_rtnetlink_add_ip_rule(0x10, 0xff, 100, 1000), 0);
    EXPECT_EQ(sh("ip rule show | grep -c '^1000:'"), "1\n");

    ASSERT_EQ(tavrel_rtnetlink_del_ip_rule(0x10, 0xff, 100, 1000), 0);
    rules = sh("ip rule show");
    EXPECT_FALSE(has(rules, "1000:")) << rules;
    EXPECT_TRUE(has(rules, "2000:\tfrom all fwmark 0x20/0xffff lookup 200")) << rules;

    ASSERT_EQ(tavrel_rtnetlink_del_ip_rule_by_prio(2000), 0);
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_del_ip_rule_by_prio(): Successfully removed ip rule\n")) << log();
    EXPECT_FALSE(has(sh("ip rule show"), "2000:"));
    // Nothing left at that priority: still reported as removed.
    EXPECT_EQ(tavrel_rtnetlink_del_ip_rule_by_prio(2000), 0);
    EXPECT_EQ(sh("ip rule show"), "0:\tfrom all lookup local\n32766:\tfrom all lookup main\n"
                                  "32767:\tfrom all lookup default\n");
}

TEST_F(RtnetlinkKernelTest, AddressOperationsReadBackWithIpAddr)
{
    const std::regex forever("valid_lft forever preferred_lft forever");
    const std::regex deprecated_600("deprecated.*valid_lft (600|599|598)sec preferred_lft 0sec");
    const std::regex deprecated_300("deprecated.*valid_lft (300|299|298)sec preferred_lft 0sec");

    const tavrel_ip_addr a1 = ip("10.1.0.1");
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &a1, 24, 0, 600), 0);
    EXPECT_TRUE(std::regex_search(addr_line("10.1.0.1/24"), forever)) << sh("ip addr show dev d0");

    EXPECT_EQ(tavrel_rtnetlink_addr_cfg("d0", &a1, 24, 0, 0), -1);
    EXPECT_TRUE(has(log(), "tavrel_netlink_transact(): Kernel reports error -17\n")) << log();
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_addr_cfg(): configuring address failed\n")) << log();

    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &a1, 24, 1, 600), 0);
    EXPECT_TRUE(std::regex_search(addr_line("10.1.0.1/24"), deprecated_600)) << sh("ip addr show dev d0");
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &a1, 24, 2, 600), 0);
    EXPECT_TRUE(std::regex_search(addr_line("10.1.0.1/24"), forever)) << sh("ip addr show dev d0");

    const tavrel_ip_addr a2 = ip("10.1.0.2");
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &a2, 24, 3, 300), 0);
    EXPECT_TRUE(std::regex_search(addr_line("10.1.0.2/24"), deprecated_300)) << sh("ip addr show dev d0");

    const tavrel_ip_addr v6 = ip("fd00::5");
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &v6, 64, 3, 300), 0);
    EXPECT_TRUE(std::regex_search(addr_line("fd00::5/64"), deprecated_300)) << sh("ip addr show dev d0");
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &v6, 64, 1, 600), 0);
    EXPECT_TRUE(std::regex_search(addr_line("fd00::5/64"), deprecated_600)) << sh("ip addr show dev d0");
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("d0", &v6, 64, 2, 0), 0);
    EXPECT_TRUE(std::regex_search(addr_line("fd00::5/64"), forever)) << sh("ip addr show dev d0");

    EXPECT_EQ(tavrel_rtnetlink_addr_cfg("nope0", &a1, 24, 0, 0), -1);
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_addr_cfg(): no such device nope0\n")) << log();
}

TEST_F(RtnetlinkKernelTest, GsoLimitReadBackWithIpDetails)
{
    ASSERT_EQ(tavrel_rtnetlink_gso_max_size("d0", 32768), 0);
    EXPECT_TRUE(has(sh("ip -d link show d0"), " gso_max_size 32768 ")) << sh("ip -d link show d0");
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_gso_max_size(): configured gso max size 32768 for dev d0\n")) << log();

    // The size is not checked here; the kernel refuses 0.
    EXPECT_EQ(tavrel_rtnetlink_gso_max_size("d0", 0), -1);
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_gso_max_size(): configuring gso max size failed for dev d0\n")) << log();
    EXPECT_TRUE(has(sh("ip -d link show d0"), " gso_max_size 32768 "));
}

TEST_F(RtnetlinkKernelTest, QdiscAddedAndDeletedReadBackWithTc)
{
    ASSERT_EQ(tavrel_rtnetlink_tc_qdisc("d0", "pfifo", 0, 0x10000, 0), 0) << log();
    EXPECT_TRUE(has(sh("tc qdisc show dev d0"), "qdisc pfifo 1: root")) << sh("tc qdisc show dev d0");

    EXPECT_EQ(tavrel_rtnetlink_tc_qdisc("d0", "pfifo", 0, 0x10000, 0), -1);
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_transaction(): netlink message error rc:-17 (Unknown error -17)"))
        << log();
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_tc_qdisc(): tc qdisc transaction failed!")) << log();

    ASSERT_EQ(tavrel_rtnetlink_tc_qdisc("d0", "pfifo", 0, 0x10000, 1), 0) << log();
    EXPECT_FALSE(has(sh("tc qdisc show dev d0"), "pfifo")) << sh("tc qdisc show dev d0");

    // An unknown interface is sent as index 0 and left to the kernel.
    kernel_log::text().clear();
    EXPECT_EQ(tavrel_rtnetlink_tc_qdisc("nope0", "pfifo", 0, 0x10000, 0), -1);
    EXPECT_TRUE(has(log(), "tavrel_rtnetlink_transaction(): netlink message error rc:-19 (Unknown error -19)"))
        << log();
}

// The two prio functions on one interface, step by step. The kernel reads
// the first 20 bytes of the options record, so the flow-enable byte does not
// show.
TEST_F(RtnetlinkKernelTest, PrioAndFlowControlReadBackWithTc)
{
    if (!kernel_has_prio())
        GTEST_SKIP() << "this kernel has no prio qdisc (sch_prio); the full-kernel tier runs this test";
    const char *const five = "qdisc prio 1: root refcnt [0-9]+ bands 5 priomap +3 4 4 4 3 4 2 2 4 3 2 1 0 0 0 0";
    const char *const three = "qdisc prio 1: root refcnt [0-9]+ bands 3 priomap +1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1";
    const char *const none = nullptr;  // no prio qdisc
    const char *const sent = "tavrel_rtnetlink_flow_control(): sending nlmsg \"tc qdisc ";
    const struct {
        const char *what;
        int (*call)();
        int result;
        const char *shown;  // regular expression over `tc qdisc show dev d0`, or none
        std::string logged;
    } steps[] = {
        {"change without a qdisc", [] { return tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 2); }, -1, none,
         "tavrel_rtnetlink_transaction(): netlink message error rc:-2 "},
        {"five bands", [] { return tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 0); }, 0, five, ""},
        {"exclusive second add", [] { return tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 0); }, -1, five,
         "tavrel_rtnetlink_transaction(): netlink message error rc:-17 "},
        {"second add by flow control", [] { return tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 0); }, -1,
         five, "tavrel_rtnetlink_flow_control(): tc qdisc transaction failed!"},
        {"change is no tc_prio operation", [] { return tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 2); }, -1, five,
         "tavrel_rtnetlink_tc_prio(): tc qdisc invalid flag operation"},
        {"changed to three bands, flow off", [] { return tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 0, 2); }, 0,
         three, std::string(sent) + "change dev d0 parent:0xffffffff hndl:0x10000 prio flow disable"},
        {"flow on", [] { return tavrel_rtnetlink_flow_control("d0", 0xffffffff, 0x10000, 1, 2); }, 0, three,
         std::string(sent) + "change dev d0 parent:0xffffffff hndl:0x10000 prio flow enable"},
        {"deleted by flow control", [] { return tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 1); }, 0, none,
         std::string(sent) + "delete dev d0 parent:0xffffffff hndl:0x10000 prio flow enable"},
        {"added by flow control", [] { return tavrel_rtnetlink_flow_control("d0", 0, 0x10000, 1, 0); }, 0, three,
         std::string(sent) + "add dev d0 parent:0xffffffff hndl:0x10000 prio flow enable"},
        {"deleted by tc_prio", [] { return tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 1); }, 0, none, ""},
        {"nothing left to delete", [] { return tavrel_rtnetlink_tc_prio("d0", 0, 0x10000, 1); }, -1, none,
         "tavrel_rtnetlink_tc_prio(): tc qdisc transaction failed!"},
    };
    for (const auto &step : steps) {
        kernel_log::text().clear();
        EXPECT_EQ(step.call(), step.result) << step.what << "\n" << log();
        const std::string shown = sh("tc qdisc show dev d0");
        EXPECT_TRUE(step.shown ? std::regex_search(shown, std::regex(step.shown)) : !has(shown, "prio"))
            << step.what << "\n" << shown;
        EXPECT_TRUE(has(log(), step.logged)) << step.what << "\n" << log();
    }
}

}  // namespace
