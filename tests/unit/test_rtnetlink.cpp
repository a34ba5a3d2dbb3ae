// Route and traffic control against the fake kernel: the bytes of every
// request, results, log texts and the sinks they reach.
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "tavrel_test.h"

namespace {

using fk::bytes;
using fk::u32_bytes;
using fk::operator+;

bytes u16_bytes(uint16_t v) { return {static_cast<uint8_t>(v & 0xff), static_cast<uint8_t>(v >> 8)}; }

bytes nl_header(uint32_t len, uint16_t type, uint16_t flags)
{
    return u32_bytes(len) + u16_bytes(type) + u16_bytes(flags) + u32_bytes(0) + u32_bytes(0);
}

bytes attr_u32(uint16_t type, uint32_t v) { return fk::attr(type, u32_bytes(v)); }

// Runs one case on a fresh fake kernel with every sink captured.
void fresh(unsigned eth0_index = 7)
{
    fk::reset();
    logcap::start();
    fk::set_interface("eth0", eth0_index);
}

const fk::socket_record &only_socket()
{
    EXPECT_EQ(fk::sockets().size(), 1u);
    return fk::sockets().front();
}

std::string last_diag()
{
    const auto l = logcap::diag_lines();
    return l.empty() ? "" : l.back();
}

// ---- rules -------------------------------------------------------------------

bytes rule_request(uint16_t type, uint16_t flags, uint8_t rtm_type, const bytes &attrs)
{
    // rtm_family AF_INET, rtm_protocol RTPROT_BOOT, rtm_type at the action byte.
    const bytes family_header = {AF_INET, 0, 0, 0, 0, RTPROT_BOOT, 0, rtm_type, 0, 0, 0, 0};
    return nl_header(static_cast<uint32_t>(28 + attrs.size()), type, flags) + family_header + attrs;
}

struct rule_case {
    const char *name;
    std::function<int()> call;
    bytes expected;
    std::string success, failure;
};

TEST_F(TavrelTest, RulesAreSentUnacknowledgedAndLogOnlyToDiagAndAndroid)
{
    const bytes match = attr_u32(FRA_PRIORITY, 1000) + attr_u32(FRA_FWMARK, 0x10) + attr_u32(FRA_FWMASK, 0) +
                        attr_u32(FRA_TABLE, 0xfffffffe);
    const rule_case cases[] = {
        {"add", [] { return tavrel_rtnetlink_add_ip_rule(0x10, 0, 0xfffffffe, 1000); },
         rule_request(RTM_NEWRULE, 0x0601, RTN_UNICAST, match),
         "tavrel_rtnetlink_add_ip_rule(): Successfully set up ip rule\n",
         "tavrel_rtnetlink_add_ip_rule(): Failed to install ip rule\n"},
        {"del", [] { return tavrel_rtnetlink_del_ip_rule(0x10, 0, 0xfffffffe, 1000); },
         rule_request(RTM_DELRULE, 0x0001, RTN_UNSPEC, match),
         "tavrel_rtnetlink_del_ip_rule(): Successfully removed ip rule\n",
         "tavrel_rtnetlink_del_ip_rule(): Failed to remove ip rule\n"},
        {"del_by_prio", [] { return tavrel_rtnetlink_del_ip_rule_by_prio(0); },
         rule_request(RTM_DELRULE, 0x0001, RTN_UNSPEC, attr_u32(FRA_PRIORITY, 0)),
         "tavrel_rtnetlink_del_ip_rule_by_prio(): Successfully removed ip rule\n",
         "tavrel_rtnetlink_del_ip_rule_by_prio(): Failed to remove ip rule\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        ASSERT_EQ(c.call(), 0);
        const auto &s = only_socket();
        EXPECT_EQ(s.protocol, NETLINK_ROUTE);
        ASSERT_EQ(s.sent.size(), 1u);
        EXPECT_EQ(s.sent[0], c.expected);
        EXPECT_TRUE(s.recv_sizes.empty()) << "a refusal must not be waited for";
        EXPECT_TRUE(s.closed);
        EXPECT_EQ(last_diag(), "LOW " + c.success);
        EXPECT_EQ(logcap::sinks_of(c.success), logcap::NO_FILE);
        logcap::expect_sinks_agree({c.success});

        for (const bool short_send : {false, true}) {
            fresh();
            auto &plan = fk::expect_socket();
            if (short_send)
                plan.send_short_by = 1;
            else
                plan.socket_errno = EMFILE;
            EXPECT_EQ(c.call(), -1);
            EXPECT_EQ(last_diag(), "ERR " + c.failure);
            EXPECT_EQ(logcap::sinks_of(c.failure), logcap::NO_FILE);
            EXPECT_EQ(fk::open_descriptors(), 0);
        }
    }
}

// ---- interface address and GSO limit ---------------------------------------------

bytes cacheinfo(uint32_t preferred, uint32_t valid)
{
    return fk::attr(IFA_CACHEINFO, u32_bytes(preferred) + u32_bytes(valid) + u32_bytes(0) + u32_bytes(0));
}

TEST_F(TavrelTest, AddressOperationsSetReplaceAndLifetimes)
{
    constexpr uint32_t forever = 0xffffffff;
    const struct {
        uint32_t operation;
        bool replace;
        uint32_t preferred, valid;
    } cases[] = {
        {0, false, forever, forever}, {1, true, 0, 600},          {2, true, forever, forever},
        {3, false, 0, 600},           {4, true, forever, forever}, {5, true, forever, forever},
        {7, true, forever, forever},  {0xffffffff, true, forever, forever},
    };
    tavrel_ip_addr v4{4, 4, {10, 1, 0, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.operation);
        fresh();
        fk::expect_socket().replies = {fk::ack(0)};
        // Only the low 8 bits of the prefix length are sent.
        ASSERT_EQ(tavrel_rtnetlink_addr_cfg("eth0", &v4, 0x118, c.operation, 600), 0);
        const bytes expected = nl_header(52, RTM_NEWADDR, c.replace ? 0x0105 : 0x0005) +
                               bytes{AF_INET, 24, 0, 0} + u32_bytes(7) + fk::attr(IFA_LOCAL, {10, 1, 0, 1}) +
                               cacheinfo(c.preferred, c.valid);
        EXPECT_EQ(only_socket().sent.at(0), expected);
    }

    fresh();
    fk::expect_socket().replies = {fk::ack(0)};
    tavrel_ip_addr v6{6, 0, {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("eth0", &v6, 64, 3, 30), 0);
    const bytes v6_bytes(v6.addr, v6.addr + 16);
    const bytes expected = nl_header(64, RTM_NEWADDR, 0x0005) + bytes{AF_INET6, 64, 0, 0} + u32_bytes(7) +
                           fk::attr(IFA_LOCAL, v6_bytes) + cacheinfo(0, 30);
    EXPECT_EQ(only_socket().sent.at(0), expected);
}

TEST_F(TavrelTest, AddressAndGsoFailures)
{
    const tavrel_ip_addr v4{4, 4, {10, 1, 0, 1}};
    const tavrel_ip_addr bad{5, 4, {10, 1, 0, 1}};
    const struct {
        const char *name;
        std::function<int()> call;
        bool kernel_refuses;
        std::string line;
        unsigned sinks;
    } cases[] = {
        // The interface is resolved before the record is looked at.
        {"unknown device", [&] { return tavrel_rtnetlink_addr_cfg("nope", &bad, 24, 0, 0); }, false,
         "tavrel_rtnetlink_addr_cfg(): no such device nope\n", logcap::ALL_SINKS},
        {"bad version", [&] { return tavrel_rtnetlink_addr_cfg("eth0", &bad, 24, 0, 0); }, false,
         "tavrel_rtnetlink_addr_cfg(): invalid addr family 5\n", logcap::ALL_SINKS},
        {"address refused", [&] { return tavrel_rtnetlink_addr_cfg("eth0", &v4, 24, 0, 0); }, true,
         "tavrel_rtnetlink_addr_cfg(): configuring address failed\n", logcap::ALL_SINKS},
        {"gso unknown device", [] { return tavrel_rtnetlink_gso_max_size("nope", 1); }, false,
         "tavrel_rtnetlink_gso_max_size(): no such device nope\n", logcap::NO_FILE},
        {"gso refused", [] { return tavrel_rtnetlink_gso_max_size("eth0", 1); }, true,
         "tavrel_rtnetlink_gso_max_size(): configuring gso max size failed for dev eth0\n", logcap::NO_FILE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        if (c.kernel_refuses)
            fk::expect_socket().replies = {fk::ack(-EEXIST)};
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(fk::sockets().size(), c.kernel_refuses ? 1u : 0u);
        EXPECT_EQ(last_diag(), "ERR " + c.line);
        EXPECT_EQ(logcap::sinks_of(c.line), c.sinks);
    }
}

TEST_F(TavrelTest, GsoLimitIsSentUncheckedAndLogged)
{
    fresh(3);
    fk::expect_socket().replies = {fk::ack(0)};
    ASSERT_EQ(tavrel_rtnetlink_gso_max_size("eth0", 0), 0);
    // ifinfomsg: family, pad, type, index, flags, change.
    const bytes expected = nl_header(40, RTM_NEWLINK, 0x0005) + bytes{0, 0, 0, 0} + u32_bytes(3) + u32_bytes(0) +
                           u32_bytes(0) + attr_u32(IFLA_GSO_MAX_SIZE, 0);
    EXPECT_EQ(only_socket().sent.at(0), expected);
    const std::string line = "tavrel_rtnetlink_gso_max_size(): configured gso max size 0 for dev eth0\n";
    EXPECT_EQ(last_diag(), "LOW " + line);
    logcap::expect_sinks_agree({line});
}

// ---- traffic control ---------------------------------------------------------------

bytes tc_request(uint32_t len, uint16_t type, uint16_t flags, uint32_t ifindex, uint32_t parent, uint32_t handle,
                 const std::string &kind, const bytes &options = {})
{
    return nl_header(len, type, flags) + bytes{0, 0, 0, 0} + u32_bytes(ifindex) + u32_bytes(handle) +
           u32_bytes(parent) + u32_bytes(0) + fk::attr(TCA_KIND, fk::str_bytes(kind)) + options;
}

// The prio record with its flow-enable byte, then an empty TCA_OPTIONS nest.
bytes prio_options(int32_t bands, const bytes &priomap, uint8_t flow_enable)
{
    return fk::attr(TCA_OPTIONS, u32_bytes(static_cast<uint32_t>(bands)) + priomap + bytes{flow_enable, 0, 0, 0} +
                                     bytes{4, 0, TCA_OPTIONS, 0});
}

const bytes flow_map = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
const bytes prio_map = {3, 4, 4, 4, 3, 4, 2, 2, 4, 3, 2, 1, 0, 0, 0, 0};

TEST_F(TavrelTest, QdiscRequests)
{
    constexpr uint32_t root = 0xffffffff;
    const std::string flow = "tavrel_rtnetlink_flow_control(): sending nlmsg \"tc qdisc ";
    const struct {
        const char *name;
        std::function<int()> call;
        bytes expected;
        std::string log;  // the function's own line, if any
    } cases[] = {
        {"qdisc add at root", [] { return tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0x10000, 0); },
         tc_request(48, RTM_NEWQDISC, 0x0605, 7, root, 0x10000, "pfifo"), ""},
        {"qdisc delete, 10-byte kind", [] { return tavrel_rtnetlink_tc_qdisc("eth0", "abcdefghij", 0x10001, 0x20000, 1); },
         tc_request(52, RTM_DELQDISC, 0x0005, 7, 0x10001, 0x20000, "abcdefghij"), ""},
        {"unknown interface goes on as index 0", [] { return tavrel_rtnetlink_tc_qdisc("nope", "pfifo", 0, 0, 0); },
         tc_request(48, RTM_NEWQDISC, 0x0605, 0, root, 0, "pfifo"), ""},
        {"prio add", [] { return tavrel_rtnetlink_tc_prio("eth0", 0, 0x10000, 0); },
         tc_request(80, RTM_NEWQDISC, 0x0605, 7, root, 0x10000, "prio", prio_options(5, prio_map, 1)), ""},
        {"prio delete", [] { return tavrel_rtnetlink_tc_prio("eth0", 0x10000, 0x20000, 1); },
         tc_request(48, RTM_DELQDISC, 0x0005, 7, 0x10000, 0x20000, "prio"), ""},
        {"flow add", [] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 1, 0); },
         tc_request(80, RTM_NEWQDISC, 0x0605, 7, root, 0x10000, "prio", prio_options(3, flow_map, 1)),
         flow + "add dev eth0 parent:0xffffffff hndl:0x10000 prio flow enable"},
        {"flow change", [] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 0, 2); },
         tc_request(80, RTM_NEWQDISC, 0x0005, 7, root, 0x10000, "prio", prio_options(3, flow_map, 0)),
         flow + "change dev eth0 parent:0xffffffff hndl:0x10000 prio flow disable"},
        // Only the low byte of enable is sent; the word reflects the whole value.
        {"flow enable 0x100", [] { return tavrel_rtnetlink_flow_control("eth0", 0x30000, 0x10000, 0x100, 0); },
         tc_request(80, RTM_NEWQDISC, 0x0605, 7, 0x30000, 0x10000, "prio", prio_options(3, flow_map, 0)),
         flow + "add dev eth0 parent:0x30000 hndl:0x10000 prio flow enable"},
        {"flow delete", [] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 1, 1); },
         tc_request(48, RTM_DELQDISC, 0x0005, 7, root, 0x10000, "prio"),
         flow + "delete dev eth0 parent:0xffffffff hndl:0x10000 prio flow enable"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        fk::expect_socket().replies = {fk::ack(0)};
        ASSERT_EQ(c.call(), 0);
        const auto &s = only_socket();
        EXPECT_EQ(s.type, SOCK_RAW | SOCK_CLOEXEC);
        EXPECT_EQ(s.protocol, NETLINK_ROUTE);
        EXPECT_FALSE(s.ext_ack_requested);
        EXPECT_EQ(s.bind_length, 12u);
        EXPECT_EQ(s.bind_address.nl_family, AF_NETLINK);
        EXPECT_EQ(s.bind_address.nl_pid | s.bind_address.nl_groups, 0u);
        ASSERT_EQ(s.sent.size(), 1u);
        EXPECT_EQ(s.sent[0], c.expected);
        EXPECT_EQ(s.recv_sizes, std::vector<size_t>{36});
        EXPECT_TRUE(s.closed);
        const std::string fd = fd_text(s.fd);
        lines expected = {"LOW tavrel_rtnetlink_transaction(): opened file descriptor " + fd + "\n",
                          "LOW tavrel_rtnetlink_transaction(): closing file descriptor " + fd + "\n"};
        if (!c.log.empty())
            expected.insert(expected.begin(), "LOW " + c.log);
        EXPECT_EQ(logcap::diag_lines(), expected);
        logcap::expect_sinks_agree({c.log});
    }
}

TEST_F(TavrelTest, RouteSocketAnswersAndFailures)
{
    const std::string tx = "tavrel_rtnetlink_transaction(): ";
    const std::string failed = "ERR tavrel_rtnetlink_tc_qdisc(): tc qdisc transaction failed!";
    const bytes echoed = tc_request(48, RTM_NEWQDISC, 0x0605, 7, 0xffffffff, 0, "pfifo");
    const struct {
        const char *name;
        std::function<void(fk::socket_plan &)> plan;
        int result;
        lines log;  // between "opened" and "closing"; a line ending in '*' is matched as a prefix
    } cases[] = {
        {"acknowledged", [](fk::socket_plan &p) { p.replies = {fk::ack(0)}; }, 0, {}},
        {"short send is not noticed", [](fk::socket_plan &p) { p.send_short_by = 8; p.replies = {fk::ack(0)}; }, 0, {}},
        // The refusal echoes the whole request; only 36 bytes are read.
        {"refused", [&](fk::socket_plan &p) { p.replies = {fk::ack(-EINVAL, echoed)}; }, -1,
         {"ERR " + tx + "netlink message error rc:-22 (Unknown error -22)"}},
        {"20-byte answer", [](fk::socket_plan &p) { p.replies = {fk::datagram({{NLMSG_ERROR, 0, bytes(4)}})}; }, -1,
         {"ERR " + tx + "route nl recv failed! rc:20 errno *"}},
        {"receive error", [](fk::socket_plan &p) { p.recv_errno = ECONNRESET; }, -1,
         {"ERR " + tx + "route nl recv failed! rc:-1 errno 104"}},
        {"not an error message", [](fk::socket_plan &p) { p.replies = {fk::datagram({{RTM_NEWQDISC, 0, bytes(20)}})}; },
         -1, {}},
        {"bind fails", [](fk::socket_plan &p) { p.bind_errno = EADDRINUSE; }, -1,
         {"ERR " + tx + "route nl bind failed![98:Address already in use]"}},
        {"send fails", [](fk::socket_plan &p) { p.send_errno = ENOBUFS; }, -1,
         {"ERR " + tx + "route nl send failed![105:No buffer space available]"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        c.plan(fk::expect_socket());
        EXPECT_EQ(tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0, 0), c.result);
        const auto &s = only_socket();
        EXPECT_TRUE(s.closed);
        const std::string fd = fd_text(s.fd);
        lines expected = {"LOW " + tx + "opened file descriptor " + fd + "\n"};
        expected.insert(expected.end(), c.log.begin(), c.log.end());
        expected.push_back("LOW " + tx + "closing file descriptor " + fd + "\n");
        if (c.result != 0)
            expected.push_back(failed);
        lines got = logcap::diag_lines();
        ASSERT_EQ(got.size(), expected.size()) << ::testing::PrintToString(got);
        lines no_file;
        for (size_t i = 0; i < got.size(); i++) {
            const std::string &e = expected[i];
            if (e.back() == '*')
                got[i] = got[i].substr(0, e.size() - 1) + "*";
            EXPECT_EQ(got[i], e);
            if (logcap::diag_lines()[i].rfind("ERR ", 0) == 0)
                no_file.push_back(logcap::diag_lines()[i].substr(4));
        }
        logcap::expect_sinks_agree(no_file);
    }

    // A socket that cannot be made is reported as descriptor -1 and not closed.
    fresh();
    fk::expect_socket().socket_errno = EMFILE;
    EXPECT_EQ(tavrel_rtnetlink_tc_prio("eth0", 0, 0, 1), -1);
    EXPECT_EQ(logcap::diag_lines(),
              (lines{"LOW " + tx + "opened file descriptor " + fd_text(-1) + "\n",
                     "ERR " + tx + "route nl socket creation failed![24:Too many open files]",
                     "ERR tavrel_rtnetlink_tc_prio(): tc qdisc transaction failed!"}));
}

TEST_F(TavrelTest, RouteSocketLeavesDescriptorZeroOpen)
{
    auto &plan = fk::expect_socket();
    plan.fd_override = 0;
    plan.replies = {fk::ack(0)};
    EXPECT_EQ(tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0, 0), 0);
    EXPECT_FALSE(only_socket().closed);
    EXPECT_EQ(logcap::diag_lines(),
              lines{"LOW tavrel_rtnetlink_transaction(): opened file descriptor " + fd_text(0) + "\n"});
    close(0);  // releases the fake descriptor only
}

TEST_F(TavrelTest, QdiscRefusalsBeforeAnySocket)
{
    const struct {
        const char *name;
        std::function<int()> call;
        std::string line;  // empty: refused silently
    } cases[] = {
        {"no interface name", [] { return tavrel_rtnetlink_tc_qdisc(nullptr, "pfifo", 0, 0, 0); }, ""},
        {"no kind", [] { return tavrel_rtnetlink_tc_qdisc("eth0", nullptr, 0, 0, 0); }, ""},
        {"prio without name", [] { return tavrel_rtnetlink_tc_prio(nullptr, 0, 0, 0); }, ""},
        {"flow without name", [] { return tavrel_rtnetlink_flow_control(nullptr, 0, 0, 1, 0); }, ""},
        {"negative index", [] { return tavrel_rtnetlink_flow_control("huge", 0, 0, 1, 0); }, ""},
        {"qdisc change", [] { return tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0, 2); },
         "tavrel_rtnetlink_tc_qdisc(): tc qdisc invalid flag operation"},
        {"prio change", [] { return tavrel_rtnetlink_tc_prio("eth0", 0, 0, 2); },
         "tavrel_rtnetlink_tc_prio(): tc qdisc invalid flag operation"},
        {"flow 3", [] { return tavrel_rtnetlink_flow_control("nope", 0, 0, 1, 3); },
         "tavrel_rtnetlink_flow_control(): tc qdisc invalid flag operation"},
        {"flow -1", [] { return tavrel_rtnetlink_flow_control("eth0", 0, 0, 1, -1); },
         "tavrel_rtnetlink_flow_control(): tc qdisc invalid flag operation"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        fk::set_interface("huge", 0x80000000u);
        EXPECT_EQ(c.call(), -1);
        EXPECT_TRUE(fk::sockets().empty());
        EXPECT_EQ(logcap::diag_lines(), c.line.empty() ? lines{} : lines{"ERR " + c.line});
        if (!c.line.empty()) {
            EXPECT_EQ(logcap::sinks_of(c.line), logcap::NO_FILE);
        }
    }
}

TEST_F(TavrelTest, QdiscKindFillsItsRoomExactly)
{
    const std::string kind(495, 'k');
    fk::expect_socket().replies = {fk::ack(0)};
    ASSERT_EQ(tavrel_rtnetlink_tc_qdisc("eth0", kind.c_str(), 0, 0, 0), 0);
    EXPECT_EQ(only_socket().sent.at(0), tc_request(536, RTM_NEWQDISC, 0x0605, 0, 0xffffffff, 0, kind));
}

using TavrelDeathTest = TavrelTest;

TEST_F(TavrelDeathTest, QdiscKindTooLongStopsTheProcess)
{
    const std::string kind(496, 'k');
    EXPECT_DEATH(tavrel_rtnetlink_tc_qdisc("eth0", kind.c_str(), 0, 0, 0), "");
}

}  // namespace
