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

#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

using fk::bytes;
using fk::operator+;
using fk::u32_bytes;
using P = fk::socket_plan;

constexpr uint32_t kRoot = 0xffffffff;

bytes nl_header(uint32_t len, uint16_t type, uint16_t flags)
{
    bytes type_flags(4);
    memcpy(type_flags.data(), &type, 2);
    memcpy(type_flags.data() + 2, &flags, 2);
    return u32_bytes(len) + type_flags + u32_bytes(0) + u32_bytes(0);
}

bytes attr_u32(uint16_t type, uint32_t v) { return fk::attr(type, u32_bytes(v)); }

// A fresh fake kernel and captured sinks; eth0 is interface 7.
void fresh()
{
    fk::reset();
    logcap::start();
    fk::set_interface("eth0", 7);
}

const fk::socket_record &only_socket()
{
    EXPECT_EQ(fk::sockets().size(), 1u);
    return fk::sockets().front();
}

std::string last_diag()
{
    const lines l = logcap::diag_lines();
    return l.empty() ? "" : l.back();
}

class Rules : public TavrelTest {};
class InterfaceAddress : public TavrelTest {};
class Qdisc : public TavrelTest {};
class RouteSocket : public TavrelTest {};

// ---- rules ---------------------------------------------------------------------

bytes rule_request(uint16_t type, uint16_t flags, uint8_t rtm_type, const bytes &attrs)
{
    // struct rtmsg: AF_INET, lengths and tos 0, table 0, RTPROT_BOOT, scope 0, type.
    const bytes family_header = {AF_INET, 0, 0, 0, 0, RTPROT_BOOT, 0, rtm_type, 0, 0, 0, 0};
    return nl_header(static_cast<uint32_t>(28 + attrs.size()), type, flags) + family_header + attrs;
}

TEST_F(Rules, SentUnacknowledgedAndLoggedOnlyToDiagAndAndroid)
{
    const bytes match = attr_u32(FRA_PRIORITY, 1000) + attr_u32(FRA_FWMARK, 0x10) + attr_u32(FRA_FWMASK, 0) +
                        attr_u32(FRA_TABLE, 0xfffffffe);
    const struct {
        std::function<int()> call;
        bytes expected;
        std::string success, failure;
    } cases[] = {
        {[] { return tavrel_rtnetlink_add_ip_rule(0x10, 0, 0xfffffffe, 1000); },
         rule_request(RTM_NEWRULE, 0x0601, RTN_UNICAST, match),
         "tavrel_rtnetlink_add_ip_rule(): Successfully set up ip rule\n",
         "tavrel_rtnetlink_add_ip_rule(): Failed to install ip rule\n"},
        {[] { return tavrel_rtnetlink_del_ip_rule(0x10, 0, 0xfffffffe, 1000); },
         rule_request(RTM_DELRULE, 0x0001, RTN_UNSPEC, match),
         "tavrel_rtnetlink_del_ip_rule(): Successfully removed ip rule\n",
         "tavrel_rtnetlink_del_ip_rule(): Failed to remove ip rule\n"},
        {[] { return tavrel_rtnetlink_del_ip_rule_by_prio(0); },
         rule_request(RTM_DELRULE, 0x0001, RTN_UNSPEC, attr_u32(FRA_PRIORITY, 0)),
         "tavrel_rtnetlink_del_ip_rule_by_prio(): Successfully removed ip rule\n",
         "tavrel_rtnetlink_del_ip_rule_by_prio(): Failed to remove ip rule\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.success);
        fresh();
        ASSERT_EQ(c.call(), 0);
        const auto &s = only_socket();
        EXPECT_EQ(s.protocol, NETLINK_ROUTE);
        EXPECT_EQ(s.sent, std::vector<bytes>{c.expected});
        EXPECT_TRUE(s.recv_sizes.empty()) << "no answer may be waited for";
        EXPECT_EQ(last_diag(), "LOW " + c.success);
        logcap::expect_sinks_agree({c.success});

        for (const P &plan : {P().fail_socket(EMFILE), P().short_send(1)}) {
            fresh();
            fk::expect_socket() = plan;
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

TEST_F(InterfaceAddress, OperationsSetReplaceAndLifetimes)
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
    const tavrel_ip_addr v4{4, 0, {10, 1, 0, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.operation);
        fresh();
        fk::expect_socket() = P().reply(fk::ack(0));
        // Only the low 8 bits of the prefix length are sent.
        ASSERT_EQ(tavrel_rtnetlink_addr_cfg("eth0", &v4, 0x118, c.operation, 600), 0);
        const bytes expected = nl_header(52, RTM_NEWADDR, c.replace ? 0x0105 : 0x0005) + bytes{AF_INET, 24, 0, 0} +
                               u32_bytes(7) + fk::attr(IFA_LOCAL, {10, 1, 0, 1}) + cacheinfo(c.preferred, c.valid);
        EXPECT_EQ(only_socket().sent.at(0), expected);
    }

    fresh();
    fk::expect_socket() = P().reply(fk::ack(0));
    const tavrel_ip_addr v6{6, 0, {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    ASSERT_EQ(tavrel_rtnetlink_addr_cfg("eth0", &v6, 64, 3, 30), 0);
    const bytes expected = nl_header(64, RTM_NEWADDR, 0x0005) + bytes{AF_INET6, 64, 0, 0} + u32_bytes(7) +
                           fk::attr(IFA_LOCAL, bytes(v6.addr, v6.addr + 16)) + cacheinfo(0, 30);
    EXPECT_EQ(only_socket().sent.at(0), expected);
}

TEST_F(InterfaceAddress, GsoLimitIsSentUnchecked)
{
    fk::expect_socket() = P().reply(fk::ack(0));
    fk::set_interface("eth0", 3);
    ASSERT_EQ(tavrel_rtnetlink_gso_max_size("eth0", 0), 0);
    // ifinfomsg: family, pad, type, index, flags, change.
    const bytes expected = nl_header(40, RTM_NEWLINK, 0x0005) + bytes{0, 0, 0, 0} + u32_bytes(3) + u32_bytes(0) +
                           u32_bytes(0) + attr_u32(IFLA_GSO_MAX_SIZE, 0);
    EXPECT_EQ(only_socket().sent.at(0), expected);
    const std::string line = "tavrel_rtnetlink_gso_max_size(): configured gso max size 0 for dev eth0\n";
    EXPECT_EQ(last_diag(), "LOW " + line);
    logcap::expect_sinks_agree({line});
}

TEST_F(InterfaceAddress, FailuresAndTheirSinks)
{
    const tavrel_ip_addr v4{4, 4, {10, 1, 0, 1}};
    const tavrel_ip_addr bad{5, 4, {10, 1, 0, 1}};
    const struct {
        std::function<int()> call;
        bool kernel_refuses;
        std::string line;
        unsigned sinks;
    } cases[] = {
        // The interface is resolved before the record is looked at.
        {[&] { return tavrel_rtnetlink_addr_cfg("nope", &bad, 24, 0, 0); }, false,
         "tavrel_rtnetlink_addr_cfg(): no such device nope\n", logcap::ALL_SINKS},
        {[&] { return tavrel_rtnetlink_addr_cfg("eth0", &bad, 24, 0, 0); }, false,
         "tavrel_rtnetlink_addr_cfg(): invalid addr family 5\n", logcap::ALL_SINKS},
        {[&] { return tavrel_rtnetlink_addr_cfg("eth0", &v4, 24, 0, 0); }, true,
         "tavrel_rtnetlink_addr_cfg(): configuring address failed\n", logcap::ALL_SINKS},
        {[] { return tavrel_rtnetlink_gso_max_size("nope", 1); }, false,
         "tavrel_rtnetlink_gso_max_size(): no such device nope\n", logcap::NO_FILE},
        {[] { return tavrel_rtnetlink_gso_max_size("eth0", 1); }, true,
         "tavrel_rtnetlink_gso_max_size(): configuring gso max size failed for dev eth0\n", logcap::NO_FILE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        fresh();
        if (c.kernel_refuses)
            fk::expect_socket() = P().reply(fk::ack(-EEXIST));
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(fk::sockets().size(), c.kernel_refuses ? 1u : 0u);
        EXPECT_EQ(last_diag(), "ERR " + c.line);
        EXPECT_EQ(logcap::sinks_of(c.line), c.sinks);
    }
}

// ---- traffic control ---------------------------------------------------------------

bytes tc_request(uint32_t len, uint16_t type, uint16_t flags, uint32_t ifindex, uint32_t parent, uint32_t handle,
                 const std::string &kind, const bytes &options = {})
{
    return nl_header(len, type, flags) + bytes{0, 0, 0, 0} + u32_bytes(ifindex) + u32_bytes(handle) +
           u32_bytes(parent) + u32_bytes(0) + fk::attr(TCA_KIND, fk::str_bytes(kind)) + options;
}

// The prio record with its flow-enable byte, then an empty TCA_OPTIONS nest.
bytes prio_options(uint32_t bands, const bytes &priomap, uint8_t flow_enable)
{
    return fk::attr(TCA_OPTIONS, u32_bytes(bands) + priomap + bytes{flow_enable, 0, 0, 0} + bytes{4, 0, 2, 0});
}

const bytes flow_map = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
const bytes prio_map = {3, 4, 4, 4, 3, 4, 2, 2, 4, 3, 2, 1, 0, 0, 0, 0};

TEST_F(Qdisc, Requests)
{
    const std::string flow = "tavrel_rtnetlink_flow_control(): sending nlmsg \"tc qdisc ";
    const struct {
        std::function<int()> call;
        bytes expected;
        std::string log;  // the function's own line, if any
    } cases[] = {
        {[] { return tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0x10000, 0); },
         tc_request(48, RTM_NEWQDISC, 0x0605, 7, kRoot, 0x10000, "pfifo"), ""},
        {[] { return tavrel_rtnetlink_tc_qdisc("eth0", "abcdefghij", 0x10001, 0x20000, 1); },
         tc_request(52, RTM_DELQDISC, 0x0005, 7, 0x10001, 0x20000, "abcdefghij"), ""},
        // An unknown interface goes on as index 0.
        {[] { return tavrel_rtnetlink_tc_qdisc("nope", "pfifo", 0, 0, 0); },
         tc_request(48, RTM_NEWQDISC, 0x0605, 0, kRoot, 0, "pfifo"), ""},
        {[] { return tavrel_rtnetlink_tc_prio("eth0", 0, 0x10000, 0); },
         tc_request(80, RTM_NEWQDISC, 0x0605, 7, kRoot, 0x10000, "prio", prio_options(5, prio_map, 1)), ""},
        {[] { return tavrel_rtnetlink_tc_prio("eth0", 0x10000, 0x20000, 1); },
         tc_request(48, RTM_DELQDISC, 0x0005, 7, 0x10000, 0x20000, "prio"), ""},
        {[] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 1, 0); },
         tc_request(80, RTM_NEWQDISC, 0x0605, 7, kRoot, 0x10000, "prio", prio_options(3, flow_map, 1)),
         flow + "add dev eth0 parent:0xffffffff hndl:0x10000 prio flow enable"},
        {[] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 0, 2); },
         tc_request(80, RTM_NEWQDISC, 0x0005, 7, kRoot, 0x10000, "prio", prio_options(3, flow_map, 0)),
         flow + "change dev eth0 parent:0xffffffff hndl:0x10000 prio flow disable"},
        // Only the low byte of enable is sent; the word reflects the whole value.
        {[] { return tavrel_rtnetlink_flow_control("eth0", 0x30000, 0x10000, 0x100, 0); },
         tc_request(80, RTM_NEWQDISC, 0x0605, 7, 0x30000, 0x10000, "prio", prio_options(3, flow_map, 0)),
         flow + "add dev eth0 parent:0x30000 hndl:0x10000 prio flow enable"},
        {[] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 1, 1); },
         tc_request(48, RTM_DELQDISC, 0x0005, 7, kRoot, 0x10000, "prio"),
         flow + "delete dev eth0 parent:0xffffffff hndl:0x10000 prio flow enable"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.expected));
        fresh();
        fk::expect_socket() = P().reply(fk::ack(0));
        ASSERT_EQ(c.call(), 0);
        const auto &s = only_socket();
        EXPECT_EQ(s.type, SOCK_RAW | SOCK_CLOEXEC);
        EXPECT_EQ(s.protocol, NETLINK_ROUTE);
        EXPECT_FALSE(s.ext_ack_requested);
        EXPECT_EQ(s.bind_length, 12u);
        EXPECT_EQ(s.bind_address.nl_family, AF_NETLINK);
        EXPECT_EQ(s.bind_address.nl_pid | s.bind_address.nl_groups, 0u);
        EXPECT_EQ(s.sent, std::vector<bytes>{c.expected});
        EXPECT_EQ(s.recv_sizes, std::vector<size_t>{36});
        const std::string fd = fd_text(s.fd);
        lines expected = {"LOW tavrel_rtnetlink_transaction(): opened file descriptor " + fd + "\n",
                          "LOW tavrel_rtnetlink_transaction(): closing file descriptor " + fd + "\n"};
        if (!c.log.empty())
            expected.insert(expected.begin(), "LOW " + c.log);
        EXPECT_EQ(logcap::diag_lines(), expected);
        logcap::expect_sinks_agree({c.log});
    }
}

TEST_F(Qdisc, RefusalsBeforeAnySocket)
{
    const struct {
        std::function<int()> call;
        std::string line;  // empty: refused silently
    } cases[] = {
        {[] { return tavrel_rtnetlink_tc_qdisc(nullptr, "pfifo", 0, 0, 0); }, ""},
        {[] { return tavrel_rtnetlink_tc_qdisc("eth0", nullptr, 0, 0, 0); }, ""},
        {[] { return tavrel_rtnetlink_tc_prio(nullptr, 0, 0, 0); }, ""},
        {[] { return tavrel_rtnetlink_flow_control(nullptr, 0, 0, 1, 0); }, ""},
        {[] { return tavrel_rtnetlink_flow_control("huge", 0, 0, 1, 0); }, ""},  // index above INT_MAX
        {[] { return tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0, 2); },
         "tavrel_rtnetlink_tc_qdisc(): tc qdisc invalid flag operation"},
        {[] { return tavrel_rtnetlink_tc_prio("eth0", 0, 0, 2); },
         "tavrel_rtnetlink_tc_prio(): tc qdisc invalid flag operation"},
        {[] { return tavrel_rtnetlink_flow_control("nope", 0, 0, 1, 3); },
         "tavrel_rtnetlink_flow_control(): tc qdisc invalid flag operation"},
        {[] { return tavrel_rtnetlink_flow_control("eth0", 0, 0, 1, -1); },
         "tavrel_rtnetlink_flow_control(): tc qdisc invalid flag operation"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        fresh();
        fk::set_interface("huge", 0x80000000u);
        EXPECT_EQ(c.call(), -1);
        EXPECT_TRUE(fk::sockets().empty());
        EXPECT_EQ(logcap::diag_lines(), c.line.empty() ? lines{} : lines{"ERR " + c.line});
        EXPECT_EQ(logcap::sinks_of(c.line), c.line.empty() ? 0u : logcap::NO_FILE);
    }
}

TEST_F(Qdisc, KindFillsItsRoomOrStopsTheProcess)
{
    const std::string kind(495, 'k');
    fk::expect_socket() = P().reply(fk::ack(0));
    ASSERT_EQ(tavrel_rtnetlink_tc_qdisc("eth0", kind.c_str(), 0, 0, 0), 0);
    EXPECT_EQ(only_socket().sent.at(0), tc_request(536, RTM_NEWQDISC, 0x0605, 0, kRoot, 0, kind));

    const std::string too_long(496, 'k');
    EXPECT_DEATH(tavrel_rtnetlink_tc_qdisc("eth0", too_long.c_str(), 0, 0, 0), "");
}

// ---- route-socket transaction ----------------------------------------------------------

TEST_F(RouteSocket, AnswersAndFailures)
{
    const std::string tx = "ERR tavrel_rtnetlink_transaction(): ";
    const bytes echoed = tc_request(48, RTM_NEWQDISC, 0x0605, 7, kRoot, 0, "pfifo");
    const struct {
        P plan;
        int result;
        std::string line;  // the transaction's error, if any; one ending in "errno " is followed by any number
    } cases[] = {
        {P().reply(fk::ack(0)), 0, ""},
        {P().short_send(8).reply(fk::ack(0)), 0, ""},  // not noticed
        // The refusal echoes the whole request; only 36 bytes are read.
        {P().reply(fk::ack(-EINVAL, echoed)), -1, tx + "netlink message error rc:-22 (Unknown error -22)"},
        {P().reply(fk::datagram({{NLMSG_ERROR, 0, bytes(4)}})), -1, tx + "route nl recv failed! rc:20 errno "},
        {P().fail_recv(ECONNRESET), -1, tx + "route nl recv failed! rc:-1 errno 104"},
        {P().reply(fk::datagram({{RTM_NEWQDISC, 0, bytes(20)}})), -1, ""},  // not an error message
        {P().fail_bind(EADDRINUSE), -1, tx + "route nl bind failed![98:Address already in use]"},
        {P().fail_send(ENOBUFS), -1, tx + "route nl send failed![105:No buffer space available]"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        fresh();
        fk::expect_socket() = c.plan;
        EXPECT_EQ(tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0, 0), c.result);
        EXPECT_TRUE(only_socket().closed);
        const lines got = logcap::diag_lines();
        // opened, [error], closing, [the caller's failure]
        ASSERT_EQ(got.size(), 2u + !c.line.empty() + (c.result != 0)) << ::testing::PrintToString(got);
        if (!c.line.empty()) {
            const bool errno_tail = c.line.back() == ' ';
            EXPECT_EQ(errno_tail ? got[1].substr(0, c.line.size()) : got[1], c.line);
            EXPECT_EQ(got[1].find_first_not_of("0123456789", c.line.size()), std::string::npos) << got[1];
            EXPECT_EQ(logcap::sinks_of(got[1].substr(4)), logcap::NO_FILE);
        }
        if (c.result != 0) {
            EXPECT_EQ(got.back(), "ERR tavrel_rtnetlink_tc_qdisc(): tc qdisc transaction failed!");
        }
    }

    // A socket that cannot be made is reported as descriptor -1 and not closed.
    fresh();
    fk::expect_socket() = P().fail_socket(EMFILE);
    EXPECT_EQ(tavrel_rtnetlink_tc_prio("eth0", 0, 0, 1), -1);
    EXPECT_EQ(logcap::diag_lines(), (lines{"LOW tavrel_rtnetlink_transaction(): opened file descriptor " +
                                               fd_text(-1) + "\n",
                                           tx + "route nl socket creation failed![24:Too many open files]",
                                           "ERR tavrel_rtnetlink_tc_prio(): tc qdisc transaction failed!"}));
}

TEST_F(RouteSocket, LeavesDescriptorZeroOpen)
{
    fk::expect_socket() = P().fd(0).reply(fk::ack(0));
    EXPECT_EQ(tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0, 0), 0);
    EXPECT_FALSE(only_socket().closed);
    EXPECT_EQ(logcap::diag_lines(),
              lines{"LOW tavrel_rtnetlink_transaction(): opened file descriptor " + fd_text(0) + "\n"});
    close(0);  // releases the fake descriptor only
}

TEST_F(RouteSocket, RefusesAMissingMessageBeforeAnySocket)
{
    const nlmsghdr message{16, RTM_NEWQDISC, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    errno = ENOENT;
    EXPECT_EQ(tavrel_rtnetlink_transaction(nullptr, 16), -1);
    errno = ENOENT;
    EXPECT_EQ(tavrel_rtnetlink_transaction(&message, 0), -1);
    const std::string line = "tavrel_rtnetlink_transaction(): invalid parameter failed![2:No such file or directory]";
    EXPECT_EQ(logcap::diag_lines(), (lines{"ERR " + line, "ERR " + line}));
    EXPECT_EQ(logcap::sinks_of(line), logcap::NO_FILE);
    EXPECT_TRUE(fk::sockets().empty());
}

}  // namespace
