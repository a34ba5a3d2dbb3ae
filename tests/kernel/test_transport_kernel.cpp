#include <linux/fib_rules.h>
#include <linux/genetlink.h>

#include <algorithm>
#include <linux/rtnetlink.h>

#include "kernel_test.h"

namespace {

struct rule_request {
    nlmsghdr header;
    fib_rule_hdr rule;
    uint8_t attributes[1024];
};

void build_rule(rule_request &r, uint16_t flags, uint32_t priority, uint32_t table)
{
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = NLMSG_LENGTH(sizeof r.rule);
    r.header.nlmsg_type = RTM_NEWRULE;
    r.header.nlmsg_flags = flags;
    r.rule.family = AF_INET;
    r.rule.action = FR_ACT_TO_TBL;
    tavrel_nla_put(&r.header, FRA_PRIORITY, 4, &priority);
    tavrel_nla_put(&r.header, FRA_TABLE, 4, &table);
}

}  // namespace

TEST_F(KernelTest, AcknowledgedRuleIsAddedAndDuplicateRefused)
{
    rule_request r;
    build_rule(r, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, 1234, 77);

    int kernel_error = 99;
    ASSERT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, &kernel_error), 0);
    EXPECT_EQ(kernel_error, 0);
    EXPECT_NE(log().find("tavrel_netlink_transact(): NL ACK received from kernel\n"), std::string::npos) << log();
    EXPECT_NE(sh("ip rule show").find("1234:\tfrom all lookup 77"), std::string::npos) << sh("ip rule show");

    kernel_log::text().clear();
    EXPECT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, &kernel_error), -1);
    EXPECT_EQ(kernel_error, -EEXIST);
    EXPECT_NE(log().find("tavrel_netlink_transact(): Kernel reports error -17\n"), std::string::npos) << log();
    // The kernel explains some refusals; when it does, the text is logged.
    const bool explained = log().find("tavrel_nla_extack(): EXTACK reports ") != std::string::npos;
    const bool silent = log().find("tavrel_nla_extack(): No EXTACK content\n") != std::string::npos;
    EXPECT_TRUE(explained || silent || log().find("EXTACK") == std::string::npos) << log();
}

TEST_F(KernelTest, RequestWithoutAckReturnsAtOnceEvenWhenRefused)
{
    rule_request r;
    build_rule(r, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL, 1234, 77);
    ASSERT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, nullptr), 0);
    int kernel_error = 99;
    EXPECT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, &kernel_error), 0);
    EXPECT_EQ(kernel_error, 0);
    EXPECT_NE(log().find("Not requesing ACK for NL message"), std::string::npos);
    EXPECT_NE(sh("ip rule show").find("1234:"), std::string::npos);
}

TEST_F(KernelTest, GenericNetlinkFamilyLookup)
{
    uint16_t id = 0;
    ASSERT_EQ(tavrel_netlink_query_genl("nlctrl", 1, &id), 0) << log();
    EXPECT_EQ(id, GENL_ID_CTRL);

    id = 0xabcd;
    EXPECT_EQ(tavrel_netlink_query_genl("no_such_family", 1, &id), -1);
    EXPECT_EQ(id, 0xabcd);
    EXPECT_NE(log().find("tavrel_netlink_query(): Kernel reports error -2\n"), std::string::npos) << log();
    EXPECT_NE(log().find("tavrel_netlink_query_genl(): Netlink query failed\n"), std::string::npos) << log();
}

namespace {

void count_rule(const nlmsghdr *message, void *context)
{
    if (message->nlmsg_type == RTM_NEWRULE)
        ++*static_cast<int *>(context);
}

}  // namespace

TEST_F(KernelTest, DumpHandsEveryRuleToTheCallback)
{
    for (uint32_t priority = 100; priority < 250; priority++) {
        rule_request r;
        build_rule(r, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL, priority, 1000 + priority);
        ASSERT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, nullptr), 0);
    }
    struct {
        nlmsghdr header;
        fib_rule_hdr rule;
    } dump;
    memset(&dump, 0, sizeof dump);
    dump.header.nlmsg_len = sizeof dump;
    dump.header.nlmsg_type = RTM_GETRULE;
    dump.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    dump.rule.family = AF_INET;
    int rules = 0;
    ASSERT_EQ(tavrel_netlink_dump(&dump.header, NETLINK_ROUTE, count_rule, &rules), 0) << log();

    // Several datagrams' worth of rules, each counted once.
    const std::string listed = sh("ip -4 rule show");
    const int expected = static_cast<int>(std::count(listed.begin(), listed.end(), '\n'));
    EXPECT_EQ(expected, 153);
    EXPECT_EQ(rules, expected) << listed;
}
