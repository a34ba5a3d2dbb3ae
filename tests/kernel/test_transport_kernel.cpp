// The transport against this machine's kernel: transactions with and without
// an acknowledgement, a generic-netlink lookup, a dump of several datagrams.
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

// "1234: from all lookup 77"; with a source length but no FRA_SRC, refused with a reason.
static rule_request rule(uint16_t flags, uint8_t src_len = 0)
{
    return {{sizeof(rule_request), RTM_NEWRULE, flags, 0, 0}, {AF_INET, 0, src_len, 0, 0, 0, 0, FR_ACT_TO_TBL, 0},
            {8, FRA_PRIORITY}, 1234, {8, FRA_TABLE}, 77};
}

TEST_F(KernelTest, RuleTransactionsWithAndWithoutAck)
{
    const uint16_t add = NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL;
    const struct {
        const char *what;
        rule_request request;
        int result, kernel_error;
        const char *logged;
    } rows[] = {{"added", rule(add | NLM_F_ACK), 0, 0, ""},
                {"duplicate", rule(add | NLM_F_ACK), -1, -EEXIST, ""},
                {"explained", rule(add | NLM_F_ACK, 8), -1, -EINVAL, "EXTACK reports Invalid source address\n"},
                {"duplicate, unread", rule(add), 0, 0, ""}};
    for (const auto &row : rows) {
        int kernel_error = 99;
        check(row.what, tavrel_netlink_transact(&row.request.header, NETLINK_ROUTE, &kernel_error), row.result,
              "ip rule show", {"\n1234:\tfrom all lookup 77\n"}, {row.logged});
        EXPECT_EQ(kernel_error, row.kernel_error) << row.what;
    }
}

TEST_F(KernelTest, GenericNetlinkFamilyLookup)
{
    uint16_t id = 0;
    check("nlctrl", tavrel_netlink_query_genl("nlctrl", 1, &id), 0, "", {});
    check("unknown", tavrel_netlink_query_genl("no_such_family", 1, &id), -1, "", {}, {"error -2\n"});
    EXPECT_EQ(id, GENL_ID_CTRL);  // from the first lookup, untouched by the second
}

TEST_F(KernelTest, DumpHandsEveryRuleToTheCallback)
{
    SH_OK("for p in $(seq 100 249); do echo rule add priority $p table $((p + 1000)); done | ip -batch -");
    rule_request dump = rule(0);
    dump.header = {NLMSG_LENGTH(sizeof dump.rule), RTM_GETRULE, NLM_F_REQUEST | NLM_F_DUMP, 0, 0};
    int rules = 0;
    const auto count = [](const nlmsghdr *m, void *n) { *static_cast<int *>(n) += m->nlmsg_type == RTM_NEWRULE; };
    ASSERT_EQ(tavrel_netlink_dump(&dump.header, NETLINK_ROUTE, count, &rules), 0) << kernel_log;
    EXPECT_EQ(sh("ip -4 rule show | wc -l"), "153\n");  // several datagrams' worth
    EXPECT_EQ(rules, 153);
}
