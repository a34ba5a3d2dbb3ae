// Attributes, extended acknowledgements, and the transport's socket functions against the fake kernel: the
// acknowledged transaction, dumps, single-answer queries and the generic-netlink family lookup.
#include <linux/fib_rules.h>
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>

#include "tavrel_internal.h"
#include "tavrel_test.h"

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

namespace {

// The transport's rows name every line but the descriptor lines. Its socket is a bound raw socket of the protocol that
// asks for extended acknowledgements; tavrel_netlink_open logs its opening first, the closer logs its closing as its
// own last line.
bool not_descriptor(const std::string &t) { return t.find(" file descriptor ") == std::string::npos; }
bool never(const std::string &) { return false; }
const log_view kTransport = {not_descriptor, never};

std::function<void()> transport_socket(int protocol, const std::string &closer)
{
    return [=] {
        ASSERT_EQ(fk::sockets().size(), 1u);
        const auto &s = fk::sockets()[0];
        EXPECT_EQ(std::make_tuple(s.protocol, s.type, s.ext_ack_requested, s.bind_length, s.bind_address.nl_family),
                  std::make_tuple(protocol, SOCK_RAW | SOCK_CLOEXEC, true, 12u, AF_NETLINK));
        EXPECT_THAT(s.recv_sizes, testing::Each(4096u));
        const lines all = logcap::diag_lines();
        const std::string fd = fd_text(s.fd);
        EXPECT_THAT(all, testing::Contains("LOW tavrel_netlink_open(): opened file descriptor " + fd + "\n").Times(1));
        EXPECT_EQ(all.at(0), "LOW tavrel_netlink_open(): opened file descriptor " + fd + "\n");
        const auto last = std::find_if(all.rbegin(), all.rend(),
                                       [&](const std::string &l) { return l.find(" " + closer + "(): ") != std::string::npos; });
        EXPECT_TRUE(last != all.rend() && *last == "LOW " + closer + "(): closing file descriptor " + fd + "\n");
    };
}

size_t receives() { return fk::sockets().at(0).recv_sizes.size(); }

const request_buffer kAck = make_rule(NLM_F_REQUEST | NLM_F_ACK), kNoAck = make_rule(NLM_F_REQUEST | NLM_F_CREATE);

// A transaction of one of the two requests above; the kernel's error code, 0 for none, is always written.
call_row transact(const request_buffer &request, P plan, int result, int kernel_error, line_matchers log)
{
    const auto call = [&request, kernel_error] {
        int error = 99;
        const int r = tavrel_netlink_transact(&request.header, NETLINK_XFRM, &error);
        EXPECT_EQ(error, kernel_error);
        EXPECT_EQ(receives(), &request == &kAck ? 1u : 0u);
        return r;
    };
    return {call, {plan}, {request_bytes(&request)}, log, result};
}

}  // namespace

class Transport : public TavrelTest {};

TEST_F(Transport, TransactAnswersAndFailures)
{
    // 29 bytes long, padded to 32: the walk must round up to the next message.
    const fk::bytes other = fk::datagram({fk::msg{RTM_NEWRULE, 0, fk::bytes(13, 0)}});
    const std::string tx = "tavrel_netlink_transact(): ", ok = "HIGH " + tx + "NL ACK received from kernel\n",
                      no_ack = "ERR " + tx + "no NL ACK received from kernel\n",
                      no_extack = "HIGH tavrel_nla_extack(): No EXTACK content\n";
    check_rows({
        transact(kAck, P().reply(fk::ack(0)), 0, 0, {ok}),
        transact(kNoAck, P(), 0, 0, {"MED " + tx + "Not requesing ACK for NL message\n"}),
        transact(kAck, P().reply(other + fk::ack(0)), 0, 0, {ok}),
        transact(kAck, P().reply(fk::ack(-17)), -1, -17, {"ERR " + tx + "Kernel reports error -17\n", no_extack}),
        transact(kAck, P().reply(fk::ack(5)), -1, 5, {"ERR " + tx + "Kernel reports error 5\n", no_extack}),
        // An error of 35 bytes is too short to read the kernel's code.
        transact(kAck, P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(20, 0), 35}})), -1, 0,
                 {"ERR " + tx + "invalid NL error received\n"}),
        // A 12-byte datagram, only other messages, a length beyond the datagram, padding past its end.
        transact(kAck, P().reply(fk::bytes(12, 0)), -1, 0, {no_ack}),
        transact(kAck, P().reply(other), -1, 0, {no_ack}),
        transact(kAck, P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(20, 0), 100}})), -1, 0, {no_ack}),
        transact(kAck, P().reply(fk::bytes(other.begin(), other.end() - 3)), -1, 0, {no_ack}),
    }, kTransport, transport_socket(NETLINK_XFRM, "tavrel_netlink_transact"));
}

namespace {

struct dump_request {
    nlmsghdr header;
    uint8_t family[12];
};
const dump_request kDumpRequest = {{sizeof(dump_request), RTM_GETADDRLABEL, NLM_F_REQUEST | NLM_F_DUMP, 0, 0}, {}};

fk::bytes record(uint8_t id, uint16_t flags = NLM_F_MULTI)
{
    return fk::datagram({fk::msg{RTM_NEWADDRLABEL, flags, {id, 0, 0, 0}}});
}

// The first payload byte of every message handed to a callback (-1 for none).
int id_of(const nlmsghdr *message) { return message->nlmsg_len > 16 ? reinterpret_cast<const uint8_t *>(message)[16] : -1; }

// A dump of kDumpRequest delivering messages of these ids.
call_row dump(P plan, int result, std::vector<int> ids, line_matchers log)
{
    const auto call = [ids] {
        std::vector<int> seen;
        const auto collect = [](const nlmsghdr *m, void *context) { static_cast<std::vector<int> *>(context)->push_back(id_of(m)); };
        const int r = tavrel_netlink_dump(&kDumpRequest.header, NETLINK_ROUTE, collect, &seen);
        EXPECT_EQ(seen, ids);
        return r;
    };
    return {call, {plan}, {request_bytes(&kDumpRequest)}, log, result};
}

// A query of kDumpRequest whose callback answers from a script (2 once it runs out) and must see these ids; one
// datagram is read at most.
call_row query(P plan, std::vector<uint32_t> answers, int required, int result, std::vector<int> ids, line_matchers log)
{
    const auto call = [=] {
        struct script {
            std::vector<uint32_t> answers;
            std::vector<int> seen;
        } s{answers, {}};
        const auto answer = [](const nlmsghdr *m, void *context) {
            auto *s = static_cast<script *>(context);
            s->seen.push_back(id_of(m));
            return s->seen.size() <= s->answers.size() ? s->answers[s->seen.size() - 1] : 2u;
        };
        const int r = tavrel_netlink_query(&kDumpRequest.header, NETLINK_ROUTE, answer, &s, required);
        EXPECT_EQ(s.seen, ids);
        EXPECT_LE(receives(), 1u);
        return r;
    };
    return {call, {plan}, {request_bytes(&kDumpRequest)}, log, result};
}

}  // namespace

TEST_F(Transport, DumpWalksDatagramsUntilDone)
{
    const fk::bytes three = record(1) + record(2) + record(3);
    const std::string fn = "ERR tavrel_netlink_dump(): ";
    check_rows({
        dump(P().reply(three + fk::done(0)), 0, {1, 2, 3}, {}),
        // Several datagrams, a short one ignored.
        dump(P().reply(record(1)).reply(fk::bytes(8, 0xff)).reply(record(2) + fk::done(0)), 0, {1, 2}, {}),
        dump(P().reply(record(1, NLM_F_MULTI | NLM_F_DUMP_INTR) + fk::done(0)), 0, {1},
             {"HIGH tavrel_netlink_dump(): NL dump was interrupted.\n"}),
        // An acknowledgement goes to the callback; nothing behind DONE is read.
        dump(P().reply(record(1) + fk::ack(0) + fk::done(0)), 0, {1, 0}, {}),
        dump(P().reply(fk::done(0) + record(9)), 0, {}, {}),
        dump(P().reply(three).reply(fk::ack(-1) + record(4)), -1, {1, 2, 3},
             {fn + "kernel reports errno [1, Operation not permitted]\n"}),
        dump(P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(19, 0)}})), -1, {}, {fn + "invalid NL ERR received\n"}),
        dump(P().reply(fk::datagram({fk::msg{NLMSG_DONE, NLM_F_MULTI, {}}})), -1, {}, {fn + "inavlid dump done message\n"}),
        dump(P().reply(record(1) + fk::done(-16)), -1, {1}, {fn + "NL dump reports errno [16, Device or resource busy]\n"}),
    }, kTransport, transport_socket(NETLINK_ROUTE, "tavrel_netlink_dump"));
}

TEST_F(Transport, QueryCallbackAnswersSteerTheWalk)
{
    const fk::bytes two = record(1) + record(2);
    const std::string fn = "tavrel_netlink_query(): ", not_found = "MED " + fn + "Netlink query response not found\n",
                      no_extack = "HIGH tavrel_nla_extack(): No EXTACK content\n";
    check_rows({
        query(P().reply(two), {2, 1}, 1, 0, {1, 2}, {}),
        query(P().reply(two), {1}, 1, 0, {1}, {}),  // the rest unseen
        query(P().reply(two), {0}, 1, -1, {1}, {"ERR " + fn + "Netlink query cb reports failed\n"}),
        // Other answers mean "not this one"; "required" compares with 1 only.
        query(P().reply(two), {7, 0xffffffffu}, 1, -1, {1, 2}, {not_found}),
        query(P().reply({}), {}, 0, 0, {}, {}),
        query(P().reply({}), {}, 1, -1, {}, {not_found}),
        query(P().reply(two), {}, 2, 0, {1, 2}, {}),
        // An acknowledgement is a failure, also after a skipped message.
        query(P().reply(fk::ack(0)), {}, 1, -1, {}, {"ERR " + fn + "Kernel reports error 0\n", no_extack}),
        query(P().reply(record(1) + fk::ack(-2)), {}, 1, -1, {1}, {"ERR " + fn + "Kernel reports error -2\n", no_extack}),
        query(P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(8, 0)}})), {}, 1, -1, {},
              {"ERR " + fn + "invalid NL error received\n"}),
    }, kTransport, transport_socket(NETLINK_ROUTE, "tavrel_netlink_query"));
}

TEST_F(Transport, GenlLookupRequestIdAndFailures)
{
    const fk::bytes answer = fk::bytes{CTRL_CMD_NEWFAMILY, 2, 0, 0} + fk::attr(CTRL_ATTR_FAMILY_NAME, fk::str_bytes("tavrel"));
    // nlmsghdr (32, GENL_ID_CTRL, REQUEST), genlmsghdr (GETFAMILY, version 2), CTRL_ATTR_FAMILY_NAME "tavrel\0" padded.
    const fk::bytes sent = {32, 0, 0, 0, 0x10, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 2, 0, 0,
                            11, 0, 2, 0, 't', 'a', 'v', 'r', 'e', 'l', 0, 0};
    const auto lookup = [&](P plan, uint16_t id, line_matchers log) -> call_row {
        const auto call = [id] {
            uint16_t got = 0xabcd;
            const int r = tavrel_netlink_query_genl("tavrel", 2, &got);
            EXPECT_EQ(got, id);
            return r;
        };
        if (id == 0xabcd)
            log.push_back("ERR tavrel_netlink_query_genl(): Netlink query failed\n");
        return {call, {plan}, {sent}, log, id == 0xabcd ? -1 : 0};
    };
    check_rows({
        lookup(P().reply(fk::datagram({fk::msg{GENL_ID_CTRL, 0, answer + fk::attr(CTRL_ATTR_FAMILY_ID, {0x1c, 0})}})), 28, {}),
        lookup(P().reply(fk::ack(-2)), 0xabcd,
               {"ERR tavrel_netlink_query(): Kernel reports error -2\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}),
        lookup(P().reply(fk::datagram({fk::msg{GENL_ID_CTRL, 0, answer}})), 0xabcd,
               {"MED tavrel_netlink_query(): Netlink query response not found\n"}),
    }, kTransport, transport_socket(NETLINK_GENERIC, "tavrel_netlink_query"));
    const fk::bytes tiny = fk::datagram({fk::msg{GENL_ID_CTRL, 0, {}}});
    int32_t id = -1;
    EXPECT_DEATH(tavrel_netlink_query_genl_cb(reinterpret_cast<const nlmsghdr *>(tiny.data()), &id), "");
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
