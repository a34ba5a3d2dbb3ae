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

request_buffer make_rule(uint16_t flags, uint32_t start_len = 28)
{
    request_buffer r;
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = start_len;
    r.header.nlmsg_type = RTM_NEWRULE;
    r.header.nlmsg_flags = flags;
    r.family[0] = AF_INET;
    return r;
}

const nlmsghdr *as_msg(const fk::bytes &b) { return reinterpret_cast<const nlmsghdr *>(b.data()); }

// An NLMSG_ERROR with extended-ack attributes behind the echoed request.
fk::bytes error_with(int32_t code, const fk::bytes &echoed, const fk::bytes &tlvs, uint16_t flags)
{
    return fk::datagram({fk::msg{NLMSG_ERROR, flags, fk::u32_bytes(static_cast<uint32_t>(code)) + echoed + tlvs}});
}

}  // namespace

class Attributes : public TavrelTest {};

TEST_F(Attributes, PutAndPutIpAddress)
{
    const uint8_t payload[5] = {1, 2, 3, 4, 5};
    // {nlmsg_len before, payload length, nlmsg_len after, attribute offset}:
    // placed at the rounded offset, added to the length as it stood.
    const uint32_t cases[][4] = {{28, 0, 32, 28}, {28, 5, 40, 28}, {30, 4, 38, 32}};
    for (const auto &c : cases) {
        request_buffer r = make_rule(0, c[0]);
        tavrel_nla_put(&r.header, 0x1234, static_cast<int>(c[1]), payload);
        EXPECT_EQ(r.header.nlmsg_len, c[2]);
        const auto *attr = reinterpret_cast<const uint8_t *>(&r) + c[3];
        fk::bytes want = fk::attr(0x1234, fk::bytes(payload, payload + c[1]));
        want.resize(4 + c[1]);  // padding is not written
        EXPECT_EQ(fk::bytes(attr, attr + 4 + c[1]), want);
    }
    request_buffer r = make_rule(0);
    tavrel_nla_put(&r.header, 1, -1, payload);
    EXPECT_EQ(r.header.nlmsg_len, 28u);

    const struct {
        const char *text;
        int result;
        fk::bytes attr;
        const char *error;
    } texts[] = {
        {"fe80::1", 0, fk::attr(7, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), nullptr},
        {"10.0.0.1", 0, fk::attr(7, {10, 0, 0, 1}), nullptr},
        {"10.0.0.1/24", -1, {}, "ERR tavrel_nla_put_ip_addr(): 10.0.0.1/24 is not a valid IPv4 address\n"},
        {"fe80::1%wlan0", -1, {}, "ERR tavrel_nla_put_ip_addr(): fe80::1%wlan0 is not a valid IPv6 address\n"},
    };
    for (const auto &t : texts) {
        logcap::start();
        request_buffer q = make_rule(0);
        const fk::bytes before = request_bytes(&q);
        EXPECT_EQ(tavrel_nla_put_ip_addr(&q.header, 7, t.text), t.result) << t.text;
        const fk::bytes after = request_bytes(&q);
        EXPECT_EQ(fk::bytes(after.begin() + 4, after.end()), fk::bytes(before.begin() + 4, before.end()) + t.attr);
        EXPECT_EQ(logcap::diag_lines(), t.error ? lines{t.error} : lines{}) << t.text;
        logcap::expect_sinks_agree();
    }
}

TEST_F(Attributes, ParseIndexesByTypeLastWins)
{
    // The first payload byte of each attribute found, 255 for an empty one.
    auto value = [](const nlattr *a) {
        return !a ? 0 : a->nla_len > NLA_HDRLEN ? reinterpret_cast<const uint8_t *>(a)[4] : 255;
    };
    const nlattr *t[4];
    auto parse = [&](const fk::bytes &run, uint32_t length) {
        tavrel_nla_parse(reinterpret_cast<const nlattr *>(run.data()), t, length, 3);
        return std::vector<int>{value(t[0]), value(t[1]), value(t[2]), value(t[3])};
    };
    auto a = [](uint16_t type, uint8_t v) { return fk::attr(type, {v, 0, 0, 0}); };
    const fk::bytes run = a(1, 11) + a(3, 31) + a(3, 32) + a(0x8001 /* nested flag */, 12) + a(9, 90);
    EXPECT_EQ(parse(run, run.size()), (std::vector<int>{0, 12, 0, 32}));
    // A malformed length ends the walk and keeps what was found before it.
    const fk::bytes broken = a(1, 11) + fk::bytes{2, 0, 2, 0} + a(2, 21);
    EXPECT_EQ(parse(broken, broken.size()), (std::vector<int>{0, 11, 0, 0}));
    // Fewer than 4 bytes, or an attribute longer than the run: nothing; 4 bytes hold an empty attribute.
    EXPECT_EQ(parse(run, 3), (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(parse(fk::attr(2, {}), 4), (std::vector<int>{0, 0, 255, 0}));
    EXPECT_EQ(parse(run, 7), (std::vector<int>{0, 0, 0, 0}));
    // A final attribute whose padding lies beyond the run stops the process.
    EXPECT_DEATH(parse(fk::attr(1, {1, 2, 3, 4, 5}), 9), "");
}

TEST_F(Attributes, ExtendedAcknowledgementText)
{
    // The echoed request's last 16 bytes are two whole attributes, so the
    // walk that starts 16 bytes early reaches the extended-ack attributes.
    request_buffer rule = make_rule(NLM_F_REQUEST | NLM_F_ACK);
    const uint32_t prio = 1234, table = 77;
    tavrel_nla_put(&rule.header, FRA_PRIORITY, 4, &prio);
    tavrel_nla_put(&rule.header, FRA_TABLE, 4, &table);
    const fk::bytes echoed = request_bytes(&rule);
    const fk::bytes offs = fk::attr(NLMSGERR_ATTR_OFFS, fk::u32_bytes(28));
    const fk::bytes tlvs = offs + fk::attr(NLMSGERR_ATTR_MSG, fk::str_bytes("Rule exists"));
    const struct {
        fk::bytes message;
        lines log;
    } cases[] = {
        {error_with(-17, echoed, tlvs, NLM_F_ACK_TLVS), {"ERR tavrel_nla_extack(): EXTACK reports Rule exists\n"}},
        {error_with(-17, echoed, tlvs, 0), {"HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {error_with(-17, echoed, offs, NLM_F_ACK_TLVS), {}},
        // Capped: the walk starts right behind the error code.
        {error_with(-22, {}, fk::attr(NLMSGERR_ATTR_MSG, fk::str_bytes("capped")), NLM_F_ACK_TLVS | NLM_F_CAPPED),
         {"ERR tavrel_nla_extack(): EXTACK reports capped\n"}},
        // An unterminated text is read no further than its attribute.
        {error_with(-1, {}, fk::attr(NLMSGERR_ATTR_MSG, fk::bytes(8, 'x')), NLM_F_ACK_TLVS | NLM_F_CAPPED),
         {"ERR tavrel_nla_extack(): EXTACK reports xxxxxxxx\n"}},
        // An echoed request of odd length puts the text at an odd address.
        {error_with(-22, fk::u32_bytes(33) + fk::bytes(13, 0), fk::attr(NLMSGERR_ATTR_MSG, fk::str_bytes("odd")),
                    NLM_F_ACK_TLVS),
         {"ERR tavrel_nla_extack(): EXTACK reports odd\n"}},
    };
    for (const auto &c : cases) {
        logcap::start();
        tavrel_nla_extack(as_msg(c.message));
        EXPECT_EQ(logcap::diag_lines(), c.log);
        logcap::expect_sinks_agree();
    }
    // An echoed length below a header, or an offset past the message, stops.
    for (uint32_t echoed_len : {8u, 400u}) {
        const fk::bytes bad = error_with(-1, fk::u32_bytes(echoed_len) + fk::bytes(12, 0), {}, NLM_F_ACK_TLVS);
        EXPECT_DEATH(tavrel_nla_extack(as_msg(bad)), "") << echoed_len;
    }
}

class Transact : public TavrelTest {};

TEST_F(Transact, AnswersAndFailures)
{
    const request_buffer ack = make_rule(NLM_F_REQUEST | NLM_F_ACK);
    const request_buffer no_ack = make_rule(NLM_F_REQUEST | NLM_F_CREATE);
    // 29 bytes long, padded to 32: the walk must round up to the next message.
    const fk::bytes other = fk::datagram({fk::msg{RTM_NEWRULE, 0, fk::bytes(13, 0)}});
    const fk::bytes short_error = fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(20, 0), 35}});
    const std::string ok = "HIGH tavrel_netlink_transact(): NL ACK received from kernel\n";
    const std::string no_ack_seen = "ERR tavrel_netlink_transact(): no NL ACK received from kernel\n";
    const struct {
        const char *name;
        const request_buffer *request;
        P plan;
        int result, kernel_error;
        lines middle;
    } cases[] = {
        {"ack", &ack, P().reply(fk::ack(0)), 0, 0, {ok}},
        {"no ack wanted", &no_ack, P(), 0, 0, {"MED tavrel_netlink_transact(): Not requesing ACK for NL message\n"}},
        {"ack after another message", &ack, P().reply(other + fk::ack(0)), 0, 0, {ok}},
        {"refused", &ack, P().reply(fk::ack(-17)), -1, -17,
         {"ERR tavrel_netlink_transact(): Kernel reports error -17\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {"positive code", &ack, P().reply(fk::ack(5)), -1, 5,
         {"ERR tavrel_netlink_transact(): Kernel reports error 5\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {"error of 35 bytes", &ack, P().reply(short_error), -1, 0,
         {"ERR tavrel_netlink_transact(): invalid NL error received\n"}},
        {"12-byte datagram", &ack, P().reply(fk::bytes(12, 0)), -1, 0, {no_ack_seen}},
        {"only other messages", &ack, P().reply(other), -1, 0, {no_ack_seen}},
        {"length beyond the datagram", &ack, P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(20, 0), 100}})),
         -1, 0, {no_ack_seen}},
        {"padding past the end", &ack, P().reply(fk::bytes(other.begin(), other.end() - 3)), -1, 0, {no_ack_seen}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        int kernel_error = 99;
        const socket_run r = run_on_socket(c.plan, "tavrel_netlink_transact", [&] {
            return tavrel_netlink_transact(&c.request->header, NETLINK_XFRM, &kernel_error);
        });
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(kernel_error, c.kernel_error);
        EXPECT_EQ(r.middle, c.middle);
        EXPECT_EQ(r.sock.protocol, NETLINK_XFRM);
        EXPECT_EQ(r.sock.type, SOCK_RAW | SOCK_CLOEXEC);
        EXPECT_TRUE(r.sock.ext_ack_requested);
        EXPECT_EQ(r.sock.bind_length, 12u);
        EXPECT_EQ(r.sock.bind_address.nl_family, AF_NETLINK);
        EXPECT_EQ(r.sock.sent, std::vector<fk::bytes>{request_bytes(c.request)});
        EXPECT_EQ(r.sock.recv_sizes, c.request == &ack ? std::vector<size_t>{4096} : std::vector<size_t>{});
    }
}

TEST(CheckedArithmetic, OverflowStopsTheProcess)
{
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
