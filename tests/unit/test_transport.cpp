// Attributes, extended acknowledgements, socket opening and the acknowledged
// transaction, against the fake kernel.
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

#include "tavrel_internal.h"
#include "tavrel_test.h"

using fk::operator+;
using P = fk::socket_plan;

namespace {

struct request_buffer {
    nlmsghdr header;
    uint8_t family[12];
    uint8_t attributes[1024];
};

request_buffer make_request(uint16_t flags)
{
    request_buffer r;
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = NLMSG_LENGTH(sizeof r.family);
    r.header.nlmsg_type = RTM_NEWRULE;
    r.header.nlmsg_flags = flags;
    r.family[0] = AF_INET;
    const uint32_t priority = 1234;
    tavrel_nla_put(&r.header, FRA_PRIORITY, 4, &priority);
    return r;
}

// The two log lines of a socket opened and closed without trouble.
std::string opened(int fd) { return "LOW tavrel_netlink_open(): opened file descriptor " + fd_text(fd) + "\n"; }
std::string closed(const char *fn, int fd)
{
    return std::string("LOW ") + fn + "(): closing file descriptor " + fd_text(fd) + "\n";
}

// An NLMSG_ERROR carrying extended-ack attributes behind the echoed request.
fk::bytes error_with_extack(int32_t code, const fk::bytes &echoed, const fk::bytes &tlvs, uint16_t flags)
{
    fk::bytes payload(4);
    memcpy(payload.data(), &code, 4);
    return fk::datagram({fk::msg{NLMSG_ERROR, flags, payload + echoed + tlvs}});
}

}  // namespace

class Attributes : public TavrelTest {};

TEST_F(Attributes, PutAppendsAlignedAndGrowsLength)
{
    const struct {
        uint32_t start_len;
        int length;
        uint32_t end_len;
        uint32_t attr_offset;
    } cases[] = {
        {28, 0, 32, 28}, {28, 5, 40, 28}, {28, 4, 36, 28}, {28, -1, 28, 0},
        // Placed at the rounded offset, added to the length as it stood.
        {30, 4, 38, 32},
    };
    for (const auto &c : cases) {
        request_buffer r;
        memset(&r, 0, sizeof r);
        r.header.nlmsg_len = c.start_len;
        const uint8_t payload[5] = {1, 2, 3, 4, 5};
        tavrel_nla_put(&r.header, 0x1234, c.length, payload);
        EXPECT_EQ(r.header.nlmsg_len, c.end_len) << c.length;
        if (c.length < 0)
            continue;
        const auto *bytes = reinterpret_cast<const uint8_t *>(&r);
        nlattr a;
        memcpy(&a, bytes + c.attr_offset, sizeof a);
        EXPECT_EQ(a.nla_len, c.length + 4);
        EXPECT_EQ(a.nla_type, 0x1234);
        EXPECT_EQ(memcmp(bytes + c.attr_offset + 4, payload, static_cast<size_t>(c.length)), 0);
    }
}

TEST_F(Attributes, PutIpAddressChoosesFamilyByColon)
{
    const struct {
        const char *text;
        int result;
        uint32_t end_len;
        const char *error;
    } cases[] = {
        {"fe80::1", 0, 48, nullptr},
        {"10.0.0.1", 0, 36, nullptr},
        {"10.0.0.1/24", -1, 28, "ERR tavrel_nla_put_ip_addr(): 10.0.0.1/24 is not a valid IPv4 address\n"},
        {"fe80::1%wlan0", -1, 28, "ERR tavrel_nla_put_ip_addr(): fe80::1%wlan0 is not a valid IPv6 address\n"},
        {"fe80::/64", -1, 28, "ERR tavrel_nla_put_ip_addr(): fe80::/64 is not a valid IPv6 address\n"},
    };
    for (const auto &c : cases) {
        logcap::start();
        request_buffer r;
        memset(&r, 0, sizeof r);
        r.header.nlmsg_len = 28;
        EXPECT_EQ(tavrel_nla_put_ip_addr(&r.header, 7, c.text), c.result) << c.text;
        EXPECT_EQ(r.header.nlmsg_len, c.end_len) << c.text;
        EXPECT_EQ(logcap::diag_lines(), c.error ? lines{c.error} : lines{}) << c.text;
        logcap::expect_sinks_agree();
    }
    request_buffer r;
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = 28;
    tavrel_nla_put_ip_addr(&r.header, 7, "10.0.0.1");
    EXPECT_EQ(request_bytes(&r), fk::bytes(reinterpret_cast<uint8_t *>(&r), reinterpret_cast<uint8_t *>(&r) + 28) +
                                     fk::attr(7, {10, 0, 0, 1}));
}

TEST_F(Attributes, ParseIndexesByTypeLastWins)
{
    const fk::bytes one = fk::attr(1, fk::u32_bytes(11));
    const fk::bytes run = one + fk::attr(3, fk::u32_bytes(31)) + fk::attr(3, fk::u32_bytes(32)) +
                          fk::attr(0x8001 /* nested flag */, fk::u32_bytes(12)) + fk::attr(9, fk::u32_bytes(90));
    const nlattr *table[4];
    const auto *first = reinterpret_cast<const nlattr *>(run.data());
    tavrel_nla_parse(first, table, static_cast<uint32_t>(run.size()), 3);
    auto value = [](const nlattr *a) {
        uint32_t v;
        memcpy(&v, reinterpret_cast<const uint8_t *>(a) + 4, 4);
        return v;
    };
    EXPECT_EQ(table[0], nullptr);
    ASSERT_NE(table[1], nullptr);
    EXPECT_EQ(value(table[1]), 12u);
    EXPECT_EQ(table[2], nullptr);
    ASSERT_NE(table[3], nullptr);
    EXPECT_EQ(value(table[3]), 32u);

    // A malformed length ends the walk and keeps what was found before it.
    fk::bytes broken = one + fk::bytes{2, 0, 2, 0} + fk::attr(2, fk::u32_bytes(1));
    tavrel_nla_parse(reinterpret_cast<const nlattr *>(broken.data()), table, static_cast<uint32_t>(broken.size()), 3);
    EXPECT_NE(table[1], nullptr);
    EXPECT_EQ(table[2], nullptr);

    // Fewer than 4 bytes: only the table is cleared.
    tavrel_nla_parse(first, table, 3, 3);
    EXPECT_EQ(table[1], nullptr);
    // An attribute longer than the run is not taken.
    tavrel_nla_parse(first, table, 7, 3);
    EXPECT_EQ(table[1], nullptr);
}

TEST_F(Attributes, ParseStopsWhenPaddingRunsPastTheEnd)
{
    const fk::bytes run = fk::attr(1, {1, 2, 3, 4, 5});  // 9 bytes, padded to 12
    const nlattr *table[2];
    EXPECT_DEATH(tavrel_nla_parse(reinterpret_cast<const nlattr *>(run.data()), table, 9, 1), "");
}

class Extack : public TavrelTest {};

TEST_F(Extack, ReportsTheKernelsText)
{
    // The echoed request's last 16 bytes are two whole attributes, so the
    // walk that starts 16 bytes early reaches the extended-ack attributes.
    request_buffer rule = make_request(NLM_F_REQUEST | NLM_F_ACK);
    const uint32_t table = 77;
    tavrel_nla_put(&rule.header, FRA_TABLE, 4, &table);
    const fk::bytes echoed = request_bytes(&rule);
    const fk::bytes tlvs = fk::attr(NLMSGERR_ATTR_OFFS, fk::u32_bytes(28)) +
                           fk::attr(NLMSGERR_ATTR_MSG, fk::str_bytes("Rule exists"));
    const struct {
        fk::bytes message;
        lines log;
    } cases[] = {
        {error_with_extack(-17, echoed, tlvs, NLM_F_ACK_TLVS), {"ERR tavrel_nla_extack(): EXTACK reports Rule exists\n"}},
        {error_with_extack(-17, echoed, tlvs, 0), {"HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {error_with_extack(-17, echoed, fk::attr(NLMSGERR_ATTR_OFFS, fk::u32_bytes(28)), NLM_F_ACK_TLVS), {}},
        // Capped: the walk starts right behind the error code.
        {error_with_extack(-22, {}, fk::attr(NLMSGERR_ATTR_MSG, fk::str_bytes("capped")), NLM_F_ACK_TLVS | NLM_F_CAPPED),
         {"ERR tavrel_nla_extack(): EXTACK reports capped\n"}},
    };
    for (const auto &c : cases) {
        logcap::start();
        tavrel_nla_extack(reinterpret_cast<const nlmsghdr *>(c.message.data()));
        EXPECT_EQ(logcap::diag_lines(), c.log);
        logcap::expect_sinks_agree();
    }
}

TEST_F(Extack, UnterminatedTextStaysInsideTheMessage)
{
    fk::bytes text(40, 'x');
    const fk::bytes message =
        error_with_extack(-1, {}, fk::attr(NLMSGERR_ATTR_MSG, text), NLM_F_ACK_TLVS | NLM_F_CAPPED);
    std::vector<uint8_t> exact(message.begin(), message.end());  // nothing behind it for a runaway read
    tavrel_nla_extack(reinterpret_cast<const nlmsghdr *>(exact.data()));
    EXPECT_EQ(logcap::diag_lines(), lines{"ERR tavrel_nla_extack(): EXTACK reports " + std::string(40, 'x') + "\n"});
}

TEST_F(Extack, ImpossibleOffsetsStopTheProcess)
{
    fk::bytes short_echo(16, 0);
    const uint32_t bad_len = 8;  // echoed request shorter than a header
    memcpy(short_echo.data(), &bad_len, 4);
    const fk::bytes a = error_with_extack(-1, short_echo, {}, NLM_F_ACK_TLVS);
    EXPECT_DEATH(tavrel_nla_extack(reinterpret_cast<const nlmsghdr *>(a.data())), "");

    fk::bytes long_echo(16, 0);
    const uint32_t too_long = 400;  // offset beyond the message
    memcpy(long_echo.data(), &too_long, 4);
    const fk::bytes b = error_with_extack(-1, long_echo, {}, NLM_F_ACK_TLVS);
    EXPECT_DEATH(tavrel_nla_extack(reinterpret_cast<const nlmsghdr *>(b.data())), "");
}

class Transact : public TavrelTest {};

TEST_F(Transact, OpensBindsAndSendsTheRequestAsItIs)
{
    const request_buffer r = make_request(NLM_F_REQUEST | NLM_F_ACK);
    fk::expect_socket().replies = {fk::ack(0)};
    EXPECT_EQ(tavrel_netlink_transact(&r.header, NETLINK_XFRM, nullptr), 0);
    ASSERT_EQ(fk::sockets().size(), 1u);
    const auto &s = fk::sockets()[0];
    EXPECT_EQ(s.domain, AF_NETLINK);
    EXPECT_EQ(s.type, SOCK_RAW | SOCK_CLOEXEC);
    EXPECT_EQ(s.protocol, NETLINK_XFRM);
    EXPECT_TRUE(s.ext_ack_requested);
    EXPECT_EQ(s.bind_length, 12u);
    EXPECT_EQ(s.bind_address.nl_family, AF_NETLINK);
    EXPECT_EQ(s.bind_address.nl_pid, 0u);
    EXPECT_EQ(s.bind_address.nl_groups, 0u);
    EXPECT_EQ(s.sent, std::vector<fk::bytes>{request_bytes(&r)});
    EXPECT_EQ(s.recv_sizes, std::vector<size_t>{4096});
    EXPECT_TRUE(s.closed);
}

TEST_F(Transact, AnswersAndFailures)
{
    const request_buffer ack_req = make_request(NLM_F_REQUEST | NLM_F_ACK);
    const request_buffer no_ack = make_request(NLM_F_REQUEST | NLM_F_CREATE);
    const fk::bytes other = fk::datagram({fk::msg{RTM_NEWRULE, 0, fk::bytes(12, 0)}});
    const struct {
        const char *name;
        const request_buffer *request;
        fk::socket_plan plan;
        int result;
        int kernel_error;
        lines middle;  // log lines between the open and close lines
        size_t receives;
    } cases[] = {
        {"ack", &ack_req, P().reply(fk::ack(0)), 0, 0, {"HIGH tavrel_netlink_transact(): NL ACK received from kernel\n"}, 1},
        {"no ack wanted", &no_ack, P(), 0, 0, {"MED tavrel_netlink_transact(): Not requesing ACK for NL message\n"}, 0},
        {"ack after another message", &ack_req, P().reply(other + fk::ack(0)), 0, 0,
         {"HIGH tavrel_netlink_transact(): NL ACK received from kernel\n"}, 1},
        {"refused", &ack_req, P().reply(fk::ack(-17)), -1, -17,
         {"ERR tavrel_netlink_transact(): Kernel reports error -17\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}, 1},
        {"short error", &ack_req, P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(4, 0)}})), -1, 0,
         {"ERR tavrel_netlink_transact(): invalid NL error received\n"}, 1},
        {"error of 35 bytes", &ack_req, P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(20, 0), 35}})), -1, 0,
         {"ERR tavrel_netlink_transact(): invalid NL error received\n"}, 1},
        {"12-byte datagram", &ack_req, P().reply(fk::bytes(12, 0)), -1, 0,
         {"ERR tavrel_netlink_transact(): no NL ACK received from kernel\n"}, 1},
        {"only other messages", &ack_req, P().reply(other), -1, 0,
         {"ERR tavrel_netlink_transact(): no NL ACK received from kernel\n"}, 1},
        {"length beyond the datagram", &ack_req,
         P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(20, 0), 100}})), -1, 0,
         {"ERR tavrel_netlink_transact(): no NL ACK received from kernel\n"}, 1},
        {"final message padded past the end", &ack_req,
         P().reply(fk::bytes(other.begin(), other.end() - 3)), -1, 0,
         {"ERR tavrel_netlink_transact(): no NL ACK received from kernel\n"}, 1},
        {"receive fails", &ack_req, P().fail_recv(ENOBUFS), -1, 0,
         {"ERR tavrel_netlink_transact(): Receiving NL ACK from kernel failed: errno=[105, No buffer space available]\n"}, 1},
        {"send fails", &ack_req, P().fail_send(EPERM), -1, 0,
         {"ERR tavrel_netlink_transact(): sending NL message failed: errno=[1, Operation not permitted]\n"}, 0},
        {"short send", &ack_req, P().short_send(1), -1, 0,
         {"ERR tavrel_netlink_transact(): Unable to send full NL messge to kernel\n"}, 0},
        {"extack refused", &ack_req, P().fail_setsockopt(ENOPROTOOPT).reply(fk::ack(0)), 0, 0,
         {"HIGH tavrel_netlink_open(): EXTACK not supported\n", "HIGH tavrel_netlink_transact(): NL ACK received from kernel\n"}, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fk::reset();
        logcap::start();
        fk::expect_socket() = c.plan;
        int kernel_error = 99;
        EXPECT_EQ(tavrel_netlink_transact(&c.request->header, NETLINK_ROUTE, &kernel_error), c.result);
        EXPECT_EQ(kernel_error, c.kernel_error);
        ASSERT_EQ(fk::sockets().size(), 1u);
        const int fd = fk::sockets()[0].fd;
        lines expected{opened(fd)};
        expected.insert(expected.end(), c.middle.begin(), c.middle.end());
        expected.push_back(closed("tavrel_netlink_transact", fd));
        EXPECT_EQ(logcap::diag_lines(), expected);
        logcap::expect_sinks_agree();
        EXPECT_EQ(fk::sockets()[0].recv_sizes.size(), c.receives);
        EXPECT_EQ(fk::sockets()[0].sent.size(), 1u);
        EXPECT_EQ(fk::open_descriptors(), 0);
    }
}

TEST_F(Transact, FailedOpenIsLoggedTwiceAndFailedBindCloses)
{
    const request_buffer r = make_request(NLM_F_REQUEST | NLM_F_ACK);
    fk::expect_socket().socket_errno = EMFILE;
    int kernel_error = 99;
    EXPECT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, &kernel_error), -1);
    EXPECT_EQ(kernel_error, 0);
    EXPECT_EQ(logcap::diag_lines(),
              (lines{opened(-1), "ERR tavrel_netlink_open(): opening NL socket failed: errno=[24, Too many open files]\n",
                     "ERR tavrel_netlink_transact(): opening NL socket failed\n"}));

    logcap::start();
    fk::expect_socket().bind_errno = EADDRINUSE;
    EXPECT_EQ(tavrel_netlink_transact(&r.header, NETLINK_ROUTE, nullptr), -1);
    const int fd = fk::sockets()[1].fd;
    EXPECT_TRUE(fk::sockets()[1].closed);
    EXPECT_TRUE(fk::sockets()[1].sent.empty());
    EXPECT_EQ(logcap::diag_lines(),
              (lines{opened(fd), "ERR tavrel_netlink_open(): binding NL socket failed: errno=[98, Address already in use]\n",
                     closed("tavrel_netlink_open", fd), "ERR tavrel_netlink_transact(): opening NL socket failed\n"}));
    logcap::expect_sinks_agree();
}

TEST(CheckedArithmetic, OverflowStopsTheProcess)
{
    EXPECT_EQ(tavrel_ck_add<uint32_t>(1, 2), 3u);
    EXPECT_EQ(tavrel_ck_align4<uint32_t>(13), 16u);
    EXPECT_EQ(tavrel_ck_neg<int32_t>(-17), 17);
    EXPECT_DEATH(tavrel_ck_add<uint32_t>(0xffffffffu, 1), "");
    EXPECT_DEATH(tavrel_ck_align4<uint32_t>(0xfffffffeu), "");
    EXPECT_DEATH(tavrel_ck_sub<uint32_t>(3, 4), "");
    EXPECT_DEATH(tavrel_ck_mul<uint32_t>(0x20000000u, 8), "");
    EXPECT_DEATH(tavrel_ck_neg<int32_t>(INT32_MIN), "");
    uint8_t room[4];
    const uint8_t src[5] = {};
    EXPECT_DEATH(tavrel_bounded_copy(room, sizeof room, src, sizeof src), "");
}
