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

const dump_request request = {{sizeof(dump_request), RTM_GETADDRLABEL, NLM_F_REQUEST | NLM_F_DUMP, 0, 0}, {}};

fk::bytes record(uint8_t id, uint16_t flags = NLM_F_MULTI)
{
    return fk::datagram({fk::msg{RTM_NEWADDRLABEL, flags, {id, 0, 0, 0}}});
}

// First payload byte of every message handed to the callback; for queries
// the callback answers from a script (2 once it runs out).
struct seen {
    std::vector<int> ids;
    std::vector<uint32_t> answers;
};

void collect(const nlmsghdr *message, void *context)
{
    static_cast<seen *>(context)->ids.push_back(message->nlmsg_len > 16 ? reinterpret_cast<const uint8_t *>(message)[16] : -1);
}

uint32_t answer(const nlmsghdr *message, void *context)
{
    auto *s = static_cast<seen *>(context);
    collect(message, s);
    return s->ids.size() <= s->answers.size() ? s->answers[s->ids.size() - 1] : 2;
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
        std::vector<int> delivered;
        lines middle;
    } cases[] = {
        {"one datagram", P().reply(three + fk::done(0)), 0, {1, 2, 3}, {}},
        {"several datagrams, a short one ignored", P().reply(record(1)).reply(fk::bytes(8, 0xff)).reply(record(2) + fk::done(0)),
         0, {1, 2}, {}},
        {"interrupted record still delivered", P().reply(record(1, NLM_F_MULTI | NLM_F_DUMP_INTR) + fk::done(0)), 0, {1},
         {"HIGH tavrel_netlink_dump(): NL dump was interrupted.\n"}},
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
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        seen s;
        const socket_run r = run_on_socket(c.plan, "tavrel_netlink_dump", [&] {
            return tavrel_netlink_dump(&request.header, NETLINK_ROUTE, collect, &s);
        });
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(s.ids, c.delivered);
        EXPECT_EQ(r.middle, c.middle);
        EXPECT_EQ(r.sock.sent, std::vector<fk::bytes>{request_bytes(&request)});
        EXPECT_EQ(r.sock.recv_sizes, std::vector<size_t>(r.sock.recv_sizes.size(), 4096));
    }
}

class Query : public TavrelTest {};

TEST_F(Query, CallbackAnswersSteerTheWalk)
{
    const fk::bytes two = record(1) + record(2);
    const std::string not_found = "MED tavrel_netlink_query(): Netlink query response not found\n";
    const std::string no_extack = "HIGH tavrel_nla_extack(): No EXTACK content\n";
    const struct {
        const char *name;
        P plan;
        std::vector<uint32_t> answers;
        int response_required, result;
        std::vector<int> seen_ids;
        lines middle;
    } cases[] = {
        {"second message taken", P().reply(two), {2, 1}, 1, 0, {1, 2}, {}},
        {"first taken, rest unseen", P().reply(two), {1}, 1, 0, {1}, {}},
        {"bad answer", P().reply(two), {0}, 1, -1, {1}, {"ERR tavrel_netlink_query(): Netlink query cb reports failed\n"}},
        {"other answers mean not this one", P().reply(two), {7, 0xffffffffu}, 1, -1, {1, 2}, {not_found}},
        {"no answer, not required", P().reply({}), {}, 0, 0, {}, {}},
        {"no answer, required", P().reply({}), {}, 1, -1, {}, {not_found}},
        {"required compares with 1 only", P().reply(two), {}, 2, 0, {1, 2}, {}},
        {"an acknowledgement is a failure", P().reply(fk::ack(0)), {}, 1, -1, {},
         {"ERR tavrel_netlink_query(): Kernel reports error 0\n", no_extack}},
        {"error after a skipped message", P().reply(record(1) + fk::ack(-2)), {}, 1, -1, {1},
         {"ERR tavrel_netlink_query(): Kernel reports error -2\n", no_extack}},
        {"short error", P().reply(fk::datagram({fk::msg{NLMSG_ERROR, 0, fk::bytes(8, 0)}})), {}, 1, -1, {},
         {"ERR tavrel_netlink_query(): invalid NL error received\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        seen s;
        s.answers = c.answers;
        const socket_run r = run_on_socket(c.plan, "tavrel_netlink_query", [&] {
            return tavrel_netlink_query(&request.header, NETLINK_ROUTE, answer, &s, c.response_required);
        });
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(s.ids, c.seen_ids);
        EXPECT_EQ(r.middle, c.middle);
        EXPECT_LE(r.sock.recv_sizes.size(), 1u);  // one datagram, never more
    }
}

class GenlLookup : public TavrelTest {};

TEST_F(GenlLookup, RequestBytesIdAndFailures)
{
    const fk::bytes genl_answer = fk::bytes{CTRL_CMD_NEWFAMILY, 2, 0, 0} + fk::attr(CTRL_ATTR_FAMILY_NAME, fk::str_bytes("tavrel"));
    const struct {
        const char *name;
        P plan;
        int result;
        uint16_t id;
        lines middle;
    } cases[] = {
        {"found", P().reply(fk::datagram({fk::msg{GENL_ID_CTRL, 0, genl_answer + fk::attr(CTRL_ATTR_FAMILY_ID, {0x1c, 0})}})),
         0, 28, {}},
        {"unknown family", P().reply(fk::ack(-2)), -1, 0xabcd,
         {"ERR tavrel_netlink_query(): Kernel reports error -2\n", "HIGH tavrel_nla_extack(): No EXTACK content\n"}},
        {"answer without an id", P().reply(fk::datagram({fk::msg{GENL_ID_CTRL, 0, genl_answer}})), -1, 0xabcd,
         {"MED tavrel_netlink_query(): Netlink query response not found\n"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        uint16_t id = 0xabcd;
        const socket_run r = run_on_socket(c.plan, "tavrel_netlink_query", [&] {
            return tavrel_netlink_query_genl("tavrel", 2, &id);
        });
        EXPECT_EQ(r.result, c.result);
        EXPECT_EQ(id, c.id);
        EXPECT_EQ(r.middle, c.middle);
        EXPECT_EQ(r.sock.protocol, NETLINK_GENERIC);
        // nlmsghdr (32, GENL_ID_CTRL, REQUEST), genlmsghdr (GETFAMILY, version 2),
        // CTRL_ATTR_FAMILY_NAME "tavrel\0" padded.
        const fk::bytes sent = {32, 0, 0, 0, 0x10, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 2, 0, 0,
                                11, 0, 2, 0, 't', 'a', 'v', 'r', 'e', 'l', 0, 0};
        EXPECT_EQ(r.sock.sent, std::vector<fk::bytes>{sent});
        EXPECT_EQ(r.after, c.result ? lines{"ERR tavrel_netlink_query_genl(): Netlink query failed\n"} : lines{});
    }
    const fk::bytes tiny = fk::datagram({fk::msg{GENL_ID_CTRL, 0, {}}});
    int32_t id = -1;
    EXPECT_DEATH(tavrel_netlink_query_genl_cb(reinterpret_cast<const nlmsghdr *>(tiny.data()), &id), "");
}
