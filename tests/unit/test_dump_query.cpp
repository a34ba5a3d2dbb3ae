// Dumps, single-answer queries and the generic-netlink family lookup,
// against the fake kernel.
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>

#include "tavrel_internal.h"
#include "tavrel_test.h"

using fk::operator+;
using P = fk::socket_plan;

namespace {

struct dump_request {
    nlmsghdr header;
    uint8_t family[12];
};

dump_request make_dump()
{
    dump_request r;
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = sizeof r;
    r.header.nlmsg_type = RTM_GETADDRLABEL;
    r.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    return r;
}

fk::bytes record(uint32_t id, uint16_t flags = NLM_F_MULTI, uint16_t type = RTM_NEWADDRLABEL)
{
    return fk::datagram({fk::msg{type, flags, fk::u32_bytes(id)}});
}

// What a callback was handed: message type and the first payload word.
struct seen {
    std::vector<std::pair<uint16_t, uint32_t>> messages;
    std::vector<uint32_t> answers;  // for queries: answer per call, in order
};

void collect(const nlmsghdr *message, void *context)
{
    uint32_t word = 0;
    if (message->nlmsg_len >= 20)
        memcpy(&word, reinterpret_cast<const uint8_t *>(message) + 16, 4);
    static_cast<seen *>(context)->messages.emplace_back(message->nlmsg_type, word);
}

uint32_t answer_from_script(const nlmsghdr *message, void *context)
{
    auto *s = static_cast<seen *>(context);
    collect(message, context);
    const size_t i = s->messages.size() - 1;
    return i < s->answers.size() ? s->answers[i] : 2;
}

lines with_socket(const char *fn, int fd, const lines &middle)
{
    lines out{"LOW tavrel_netlink_open(): opened file descriptor " + fd_text(fd) + "\n"};
    out.insert(out.end(), middle.begin(), middle.end());
    out.push_back(std::string("LOW ") + fn + "(): closing file descriptor " + fd_text(fd) + "\n");
    return out;
}

}  // namespace

class Dump : public TavrelTest {};

TEST_F(Dump, WalksDatagramsUntilDone)
{
    const fk::bytes three = record(1) + record(2) + record(3);
    const struct {
        const char *name;
        P plan;
        int result;
        std::vector<uint32_t> delivered;
        lines middle;
    } cases[] = {
        {"one datagram", P().reply(three + fk::done(0)), 0, {1, 2, 3}, {}},
        {"several datagrams", P().reply(record(1)).reply(record(2) + record(3)).reply(fk::done(0)), 0, {1, 2, 3}, {}},
        {"short datagram ignored", P().reply(record(1)).reply(fk::bytes(8, 0xff)).reply(fk::done(0)), 0, {1}, {}},
        {"interrupted record still delivered", P().reply(record(1, NLM_F_MULTI | NLM_F_DUMP_INTR) + fk::done(0)), 0,
         {1}, {"HIGH tavrel_netlink_dump(): NL dump was interrupted.\n"}},
        {"acknowledgement goes to the callback", P().reply(record(1) + fk::ack(0) + fk::done(0)), 0, {1, 0}, {}},
        {"nothing behind DONE is read", P().reply(fk::done(0) + record(9)), 0, {}, {}},
        {"error after records", P().reply(three).reply(fk::ack(-1) + record(4)), -1, {1, 2, 3},
         {"ERR tavrel_netlink_dump(): kernel reports errno [1, Operation not permitted]\n"}},
        {"short error", P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(19, 0)}})), -1, {},
         {"ERR tavrel_netlink_dump(): invalid NL ERR received\n"}},
        {"16-byte DONE", P().reply(fk::datagram({fk::msg{NLMSG_DONE, NLM_F_MULTI, {}}})), -1, {},
         {"ERR tavrel_netlink_dump(): inavlid dump done message\n"}},
        {"DONE with a negative status", P().reply(record(1) + fk::done(-16)), -1, {1},
         {"ERR tavrel_netlink_dump(): NL dump reports errno [16, Device or resource busy]\n"}},
        {"receive fails", P().reply(record(1)).fail_recv(EINTR), -1, {1},
         {"ERR tavrel_netlink_dump(): receiving NL dump failed. errno=[4, Interrupted system call]\n"}},
        {"send fails", P().fail_send(ECONNREFUSED), -1, {},
         {"ERR tavrel_netlink_dump(): sending NL message failed. errno=[111, Connection refused]\n"}},
        {"short send", P().short_send(4), -1, {}, {"ERR tavrel_netlink_dump(): unable to send full message\n"}},
    };
    const dump_request request = make_dump();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fk::reset();
        logcap::start();
        fk::expect_socket() = c.plan;
        seen s;
        EXPECT_EQ(tavrel_netlink_dump(&request.header, NETLINK_ROUTE, collect, &s), c.result);
        std::vector<uint32_t> delivered;
        for (const auto &m : s.messages)
            delivered.push_back(m.second);
        EXPECT_EQ(delivered, c.delivered);
        const auto &sock = fk::sockets().at(0);
        EXPECT_EQ(logcap::diag_lines(), with_socket("tavrel_netlink_dump", sock.fd, c.middle));
        logcap::expect_sinks_agree();
        EXPECT_EQ(sock.sent, std::vector<fk::bytes>{request_bytes(&request)});
        for (size_t size : sock.recv_sizes)
            EXPECT_EQ(size, 4096u);
        EXPECT_EQ(fk::open_descriptors(), 0);
    }
}

TEST_F(Dump, FailedOpen)
{
    const dump_request request = make_dump();
    fk::expect_socket().fail_socket(EACCES);
    seen s;
    EXPECT_EQ(tavrel_netlink_dump(&request.header, NETLINK_ROUTE, collect, &s), -1);
    EXPECT_EQ(logcap::diag_lines().back(), "ERR tavrel_netlink_dump(): opening NL socket failed\n");
}

class Query : public TavrelTest {};

TEST_F(Query, CallbackAnswersSteerTheWalk)
{
    const fk::bytes two = record(1) + record(2);
    const struct {
        const char *name;
        P plan;
        std::vector<uint32_t> answers;
        int response_required;
        int result;
        size_t calls;
        lines middle;
    } cases[] = {
        {"second message taken", P().reply(two), {2, 1}, 1, 0, 2, {}},
        {"first message taken, rest unseen", P().reply(two), {1}, 1, 0, 1, {}},
        {"bad answer", P().reply(two), {0}, 1, -1, 1, {"ERR tavrel_netlink_query(): Netlink query cb reports failed\n"}},
        {"other answers mean not this one", P().reply(two), {7, 0xffffffffu}, 1, -1, 2,
         {"MED tavrel_netlink_query(): Netlink query response not found\n"}},
        {"no answer, not required", P().reply(fk::bytes{}), {}, 0, 0, 0, {}},
        {"no answer, required", P().reply(fk::bytes{}), {}, 1, -1, 0,
         {"MED tavrel_netlink_query(): Netlink query response not found\n"}},
        {"required compares with 1 only", P().reply(two), {2, 2}, 2, 0, 2, {}},
        {"an acknowledgement is a failure", P().reply(fk::ack(0)), {}, 1, -1, 0,
         {"ERR tavrel_netlink_query(): Kernel reports error 0\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {"kernel error after a skipped message", P().reply(record(1) + fk::ack(-2)), {2}, 1, -1, 1,
         {"ERR tavrel_netlink_query(): Kernel reports error -2\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {"short error", P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(8, 0)}})), {}, 1, -1, 0,
         {"ERR tavrel_netlink_query(): invalid NL error received\n"}},
        {"receive fails", P().fail_recv(EAGAIN), {}, 1, -1, 0,
         {"ERR tavrel_netlink_query(): Receiving query response from kernel failed: errno=[11, Resource temporarily unavailable]\n"}},
        {"send fails", P().fail_send(EPERM), {}, 1, -1, 0,
         {"ERR tavrel_netlink_query(): sending NL message failed: errno=[1, Operation not permitted]\n"}},
        {"short send", P().short_send(1), {}, 1, -1, 0,
         {"ERR tavrel_netlink_query(): Unable to send full NL messge to kernel\n"}},
    };
    const dump_request request = make_dump();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fk::reset();
        logcap::start();
        fk::expect_socket() = c.plan;
        seen s;
        s.answers = c.answers;
        EXPECT_EQ(tavrel_netlink_query(&request.header, NETLINK_ROUTE, answer_from_script, &s, c.response_required),
                  c.result);
        EXPECT_EQ(s.messages.size(), c.calls);
        const auto &sock = fk::sockets().at(0);
        EXPECT_EQ(logcap::diag_lines(), with_socket("tavrel_netlink_query", sock.fd, c.middle));
        logcap::expect_sinks_agree();
        EXPECT_LE(sock.recv_sizes.size(), 1u);  // exactly one datagram, never more
        EXPECT_EQ(fk::open_descriptors(), 0);
    }
}

class GenlLookup : public TavrelTest {};

TEST_F(GenlLookup, RequestBytesAndFamilyId)
{
    const fk::bytes answer = fk::datagram({fk::msg{
        GENL_ID_CTRL, 0,
        fk::bytes{CTRL_CMD_NEWFAMILY, 2, 0, 0} + fk::attr(CTRL_ATTR_FAMILY_NAME, fk::str_bytes("tavrel")) +
            fk::attr(CTRL_ATTR_FAMILY_ID, {0x1c, 0x00})}});
    fk::expect_socket().reply(answer);
    uint16_t id = 0;
    EXPECT_EQ(tavrel_netlink_query_genl("tavrel", 2, &id), 0);
    EXPECT_EQ(id, 28);

    const auto &sock = fk::sockets().at(0);
    EXPECT_EQ(sock.protocol, NETLINK_GENERIC);
    // nlmsghdr (len 32, GENL_ID_CTRL, REQUEST), genlmsghdr (GETFAMILY,
    // version 2), CTRL_ATTR_FAMILY_NAME "tavrel\0" padded to 12.
    const fk::bytes expected = {32, 0, 0, 0, 0x10, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 2, 0, 0,
                                11, 0, 2, 0, 't', 'a', 'v', 'r', 'e', 'l', 0, 0};
    EXPECT_EQ(sock.sent, std::vector<fk::bytes>{expected});
    EXPECT_EQ(logcap::diag_lines(), with_socket("tavrel_netlink_query", sock.fd, {}));
}

TEST_F(GenlLookup, Failures)
{
    const struct {
        const char *name;
        P plan;
        lines tail;
    } cases[] = {
        {"unknown family", P().reply(fk::ack(-2)),
         {"ERR tavrel_netlink_query(): Kernel reports error -2\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {"answer without an id",
         P().reply(fk::datagram({fk::msg{GENL_ID_CTRL, 0, fk::bytes{1, 2, 0, 0} + fk::attr(CTRL_ATTR_VERSION, fk::u32_bytes(1))}})),
         {"MED tavrel_netlink_query(): Netlink query response not found\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fk::reset();
        logcap::start();
        fk::expect_socket() = c.plan;
        uint16_t id = 0xabcd;
        EXPECT_EQ(tavrel_netlink_query_genl("nope", 1, &id), -1);
        EXPECT_EQ(id, 0xabcd);
        lines expected = with_socket("tavrel_netlink_query", fk::sockets().at(0).fd, c.tail);
        expected.push_back("ERR tavrel_netlink_query_genl(): Netlink query failed\n");
        EXPECT_EQ(logcap::diag_lines(), expected);
        logcap::expect_sinks_agree();
    }
}

TEST_F(GenlLookup, AnswerShorterThanItsHeadersStops)
{
    const fk::bytes tiny = fk::datagram({fk::msg{GENL_ID_CTRL, 0, {}}});
    int32_t id = -1;
    EXPECT_DEATH(tavrel_netlink_query_genl_cb(reinterpret_cast<const nlmsghdr *>(tiny.data()), &id), "");
}
