// The transport against this machine's kernel: an acknowledged and an explained
// transaction, a generic-netlink lookup, a dump of several datagrams.
#include <linux/fib_rules.h>
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "kernel_test.h"

struct rule_request {
    nlmsghdr header;
    fib_rule_hdr rule;
    nlattr priority_attr;
    uint32_t priority;
    nlattr table_attr;
    uint32_t table;
};

// "1234: from all lookup 77", acknowledged.
static rule_request rule(uint8_t src_len = 0)
{
    return {{sizeof(rule_request), RTM_NEWRULE, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, 0, 0},
            {AF_INET, 0, src_len, 0, 0, 0, 0, FR_ACT_TO_TBL, 0}, {8, FRA_PRIORITY}, 1234, {8, FRA_TABLE}, 77};
}

// A source length without FRA_SRC is refused with a reason: the text, found from 16 bytes before the end of the
// echoed request, shows that this walk fits the kernel's own answer.
TEST_F(KernelTest, TransactionExplainedAndGenericNetlinkLookup)
{
    const rule_request added = rule(), explained = rule(8);
    int kernel_error = 99;
    check("added", tavrel_netlink_transact(&added.header, NETLINK_ROUTE, &kernel_error), 0, "ip rule show",
          {"\n1234:\tfrom all lookup 77\n"});
    EXPECT_EQ(kernel_error, 0);
    check("explained", tavrel_netlink_transact(&explained.header, NETLINK_ROUTE, &kernel_error), -1, "", {},
          {"EXTACK reports Invalid source address\n"});
    EXPECT_EQ(kernel_error, -EINVAL);

    uint16_t id = 0;
    check("nlctrl", tavrel_netlink_query_genl("nlctrl", 1, &id), 0, "", {});
    EXPECT_EQ(id, GENL_ID_CTRL);
}

TEST_F(KernelTest, DumpHandsEveryRuleToTheCallback)
{
    SH_OK("for p in $(seq 100 249); do echo rule add priority $p table $((p + 1000)); done | ip -batch -");
    rule_request dump = rule();
    dump.header = {NLMSG_LENGTH(sizeof dump.rule), RTM_GETRULE, NLM_F_REQUEST | NLM_F_DUMP, 0, 0};
    int rules = 0;
    const auto count = [](const nlmsghdr *m, void *n) { *static_cast<int *>(n) += m->nlmsg_type == RTM_NEWRULE; };
    ASSERT_EQ(tavrel_netlink_dump(&dump.header, NETLINK_ROUTE, count, &rules), 0) << kernel_log;
    EXPECT_EQ(sh("ip -4 rule show | wc -l"), "153\n");  // several datagrams' worth
    EXPECT_EQ(rules, 153);
}
