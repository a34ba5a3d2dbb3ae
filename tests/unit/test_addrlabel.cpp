#include <arpa/inet.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>

#include "heap_rand_interpose.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

using fk::operator+;

tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{};
    a.family = strchr(text, ':') ? 6 : 4;
    a.length = a.family == 6 ? 16 : 4;
    EXPECT_EQ(inet_pton(a.family == 6 ? AF_INET6 : AF_INET, text, a.addr), 1) << text;
    return a;
}

fk::bytes addr_bytes(const tavrel_ip_addr &a) { return fk::bytes(a.addr, a.addr + (a.family == 6 ? 16 : 4)); }

fk::bytes header(uint32_t len, uint16_t type, uint16_t flags, uint8_t family, uint8_t prefixlen, uint32_t index)
{
    nlmsghdr h{len, type, flags, 0, 0};
    ifaddrlblmsg m{family, 0, prefixlen, 0, index, 0};
    const auto *hp = reinterpret_cast<const uint8_t *>(&h);
    const auto *mp = reinterpret_cast<const uint8_t *>(&m);
    return fk::bytes(hp, hp + sizeof h) + fk::bytes(mp, mp + sizeof m);
}

// The ifaddrlblmsg and attributes of a kernel entry.
fk::msg entry(const char *prefix, uint8_t prefixlen, uint32_t index, uint32_t label)
{
    const tavrel_ip_addr a = ip(prefix);
    const fk::bytes head = header(0, 0, 0, a.family == 6 ? AF_INET6 : AF_INET, prefixlen, index);
    return fk::msg{RTM_NEWADDRLABEL, NLM_F_MULTI,
                   fk::bytes(head.begin() + 16, head.end()) + fk::attr(IFAL_ADDRESS, addr_bytes(a)) +
                       fk::attr(IFAL_LABEL, fk::u32_bytes(label))};
}

fk::bytes modify_request(uint16_t type, const tavrel_ip_addr &a, uint8_t prefixlen, uint32_t label, uint32_t index)
{
    const fk::bytes attrs = fk::attr(IFAL_LABEL, fk::u32_bytes(label)) + fk::attr(IFAL_ADDRESS, addr_bytes(a));
    const uint16_t flags = type == RTM_NEWADDRLABEL ? 0x605 : 0x005;
    return header(static_cast<uint32_t>(28 + attrs.size()), type, flags, a.family == 6 ? AF_INET6 : AF_INET,
                  prefixlen, index) +
           attrs;
}

// The lines of this subsystem's own functions in one sink.
lines own(const lines &sink)
{
    lines out;
    for (const auto &l : sink)
        if (l.find("tavrel_addrlabel_") != std::string::npos)
            out.push_back(l);
    return out;
}

void expect_acks(int count)
{
    for (int i = 0; i < count; i++)
        fk::expect_socket().replies = {fk::ack(0)};
}

using AddrlabelTest = TavrelTest;

TEST_F(AddrlabelTest, AddAndDeleteSendTheEntryAndWaitForTheAck)
{
    struct case_ {
        bool add;
        const char *address;
        uint32_t prefix_length, label, index;
        uint8_t sent_prefixlen;
    } cases[] = {
        {true, "2001:db8::", 64, 100, 3, 64},
        {false, "2001:db8::", 64, 100, 3, 64},
        {true, "192.0.2.0", 24, 21, 0, 24},
        {false, "192.0.2.0", 24, 21, 0, 24},
        {true, "fd00::", 300, 1, 7, 44},  // only the low 8 bits of the prefix length go out
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.address);
        fk::reset();
        expect_acks(1);
        const tavrel_ip_addr a = ip(c.address);
        const int result = (c.add ? tavrel_addrlabel_add : tavrel_addrlabel_del)(&a, c.prefix_length, c.label, c.index);
        EXPECT_EQ(result, 0);
        ASSERT_EQ(fk::sockets().size(), 1u);
        EXPECT_EQ(fk::sockets()[0].protocol, NETLINK_ROUTE);
        ASSERT_EQ(fk::sockets()[0].sent.size(), 1u);
        EXPECT_EQ(fk::sockets()[0].sent[0], modify_request(c.add ? RTM_NEWADDRLABEL : RTM_DELADDRLABEL, a,
                                                           c.sent_prefixlen, c.label, c.index));
    }
    // Any type but an addition goes out with the delete flags.
    fk::reset();
    expect_acks(1);
    const tavrel_ip_addr a = ip("2001:db8::");
    EXPECT_EQ(tavrel_addrlabel_modify(99, &a, 64, 5, 1), 0);
    fk::bytes expected = modify_request(RTM_DELADDRLABEL, a, 64, 5, 1);
    expected[4] = 99;
    EXPECT_EQ(fk::sockets().at(0).sent.at(0), expected);
}

TEST_F(AddrlabelTest, ModifyFailures)
{
    tavrel_ip_addr bad = ip("2001:db8::");
    bad.family = 0;
    EXPECT_EQ(tavrel_addrlabel_add(&bad, 64, 100, 3), -1);
    EXPECT_TRUE(fk::sockets().empty());

    fk::expect_socket().replies = {fk::ack(-EEXIST)};
    const tavrel_ip_addr a = ip("2001:db8::");
    EXPECT_EQ(tavrel_addrlabel_add(&a, 64, 100, 3), -1);
    fk::expect_socket().socket_errno = EMFILE;
    EXPECT_EQ(tavrel_addrlabel_del(&a, 64, 100, 3), -1);

    const lines errors = {
        "ERR tavrel_addrlabel_modify(): invalid addr family 0\n",
        "ERR tavrel_netlink_transact(): Kernel reports error -17\n",
        "ERR tavrel_addrlabel_modify(): modifying address label failed\n",
        "ERR tavrel_netlink_open(): opening NL socket failed: errno=[24, Too many open files]\n",
        "ERR tavrel_netlink_transact(): opening NL socket failed\n",
        "ERR tavrel_addrlabel_modify(): modifying address label failed\n",
    };
    lines seen;
    for (const auto &l : logcap::diag_lines())
        if (l.rfind("ERR ", 0) == 0)
            seen.push_back(l);
    EXPECT_EQ(seen, errors);
    logcap::expect_sinks_agree();
}

// ---- unique label ----------------------------------------------------------

// Runs a generate whose dump answers with entries carrying these labels.
int generate_with(const std::vector<uint32_t> &labels, uint32_t *out, size_t *allocations)
{
    std::vector<fk::msg> entries;
    for (size_t i = 0; i < labels.size(); i++)
        entries.push_back(entry("2001:db8::", 64, static_cast<uint32_t>(i), labels[i]));
    auto &plan = fk::expect_socket();
    if (!entries.empty())
        plan.replies.push_back(fk::datagram(entries));
    plan.replies.push_back(fk::done());
    node_heap::start();
    const int result = tavrel_addrlabel_generate(6, 0, out);
    EXPECT_TRUE(node_heap::stop().empty()) << "label list not freed";
    *allocations = node_heap::allocations();
    return result;
}

TEST_F(AddrlabelTest, GenerateFindsTheGapOrDrawsAboveTheLargestLabel)
{
    struct case_ {
        std::vector<uint32_t> labels;
        int rand_value;  // -1: the gap decides, rand() is not called
        uint32_t label;
        size_t distinct;
    } cases[] = {
        {{}, 7, 27, 0},
        {{0, 3, 12, 19}, 0, 20, 4},
        {{21, 22, 30}, -1, 20, 3},
        {{5, 21}, -1, 20, 2},
        {{30, 22, 20, 21}, -1, 29, 4},  // gathered sorted
        {{19, 20, 21}, 5, 26, 3},       // no gap above 20
        {{25, 25, 24, 25, 24}, -1, 23, 2},  // duplicates stored once
        {{40, 21, 20}, -1, 39, 3},
        {{0xfffffff0}, -1, 0xffffffef, 1},
        {{20, 21, 22}, 0, 22, 3},  // rand() 0 hands out the largest label in use
        {{20, 21, 22}, 0x7fffffff, 0x80000015, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.labels));
        fk::reset();
        logcap::start();
        scripted_rand::set(c.rand_value < 0 ? std::vector<int>{} : std::vector<int>{c.rand_value});
        uint32_t label = 1234;
        size_t allocations = 0;
        EXPECT_EQ(generate_with(c.labels, &label, &allocations), 0);
        EXPECT_EQ(label, c.label);
        EXPECT_EQ(allocations, c.distinct);
        EXPECT_EQ(scripted_rand::calls(), c.rand_value < 0 ? 0u : 1u);
        ASSERT_EQ(fk::sockets().size(), 1u);
        const fk::bytes expected = header(28, RTM_GETADDRLABEL, 0x301, AF_INET6, 0, 0);
        EXPECT_EQ(fk::sockets()[0].sent.at(0), expected);
    }
    scripted_rand::set({});
}

TEST_F(AddrlabelTest, GenerateModeOneAndBadVersionsNeedNoKernel)
{
    uint32_t label = 99;
    EXPECT_EQ(tavrel_addrlabel_generate(0, 1, &label), 0);
    EXPECT_EQ(label, 1u);
    EXPECT_EQ(tavrel_addrlabel_generate(5, 0, &label), -1);
    EXPECT_EQ(label, 1u);
    EXPECT_TRUE(fk::sockets().empty());
    EXPECT_EQ(logcap::diag_lines(), lines{"ERR tavrel_addrlabel_generate(): invalid addr type 0x5\n"});

    fk::expect_socket().replies = {fk::done()};
    scripted_rand::set({3});
    EXPECT_EQ(tavrel_addrlabel_generate(4, 0, &label), 0);
    EXPECT_EQ(label, 23u);
    EXPECT_EQ(fk::sockets().at(0).sent.at(0), header(28, RTM_GETADDRLABEL, 0x301, AF_INET, 0, 0));
}

TEST_F(AddrlabelTest, GenerateSkipsBadEntriesAndSurvivesAFailedAllocation)
{
    fk::msg no_label = entry("2001:db8::", 64, 1, 0);
    no_label.payload.resize(12 + 20);  // ifaddrlblmsg and address only
    fk::msg short_label = entry("2001:db8::", 64, 1, 0);
    short_label.payload.resize(12 + 20);
    short_label.payload = short_label.payload + fk::attr(IFAL_LABEL, {30, 0});
    fk::msg long_label = short_label;
    long_label.payload.resize(12 + 20);
    long_label.payload = long_label.payload + fk::attr(IFAL_LABEL, fk::u32_bytes(30) + fk::u32_bytes(0));
    fk::expect_socket().replies = {
        fk::datagram({fk::msg{NLMSG_NOOP, 0, {}}, fk::msg{RTM_NEWADDRLABEL, 0, fk::bytes(8)}, no_label,
                      short_label, long_label, entry("2001:db8::", 64, 1, 30), entry("2001:db8::", 64, 2, 40)}),
        fk::done()};

    node_heap::start(1);  // the node for label 30 cannot be allocated
    uint32_t label = 0;
    EXPECT_EQ(tavrel_addrlabel_generate(6, 0, &label), 0);
    EXPECT_TRUE(node_heap::stop().empty());
    EXPECT_EQ(label, 39u);  // 30 was lost, so 40 has a gap beneath it
    EXPECT_EQ(own(logcap::diag_lines()),
              (lines{
                  "LOW tavrel_addrlabel_generate_cb(): ignoring non-NEWADDRLABEL message\n",
                  "ERR tavrel_addrlabel_generate_cb(): invalid NEADDRLABEL message received\n",
                  "ERR tavrel_addrlabel_generate_cb(): label attribute is missing in NEWADDRLABEL message\n",
                  "ERR tavrel_addrlabel_generate_cb(): label attribute is malformed\n",
                  "ERR tavrel_addrlabel_generate_cb(): label attribute is malformed\n",
                  "ERR tavrel_addrlabel_list_insert(): adding node to label list failed\n",
                  "ERR tavrel_addrlabel_generate_cb(): Inserting label 30 failed\n",
              }));
    logcap::expect_sinks_agree();
}

TEST_F(AddrlabelTest, FailedDumpLeavesTheGatheredNodesAllocated)
{
    fk::expect_socket().replies = {fk::datagram({entry("2001:db8::", 64, 1, 40), entry("2001:db8::", 64, 2, 21)}),
                                   fk::ack(-EPERM)};
    node_heap::start();
    uint32_t label = 77;
    EXPECT_EQ(tavrel_addrlabel_generate(6, 0, &label), -1);
    const std::vector<void *> left = node_heap::stop();
    EXPECT_EQ(label, 77u);
    EXPECT_EQ(logcap::sinks_of("tavrel_addrlabel_generate(): gathering list of current labels failed\n"),
              unsigned(logcap::ALL_SINKS));

    // Exactly the two nodes, still linked in order through the dead head.
    ASSERT_EQ(left.size(), 2u);
    const auto *first = static_cast<const tavrel_addrlabel_node *>(left[0]);
    const auto *second = static_cast<const tavrel_addrlabel_node *>(left[1]);
    EXPECT_EQ(first->label, 40u);
    EXPECT_EQ(second->label, 21u);
    EXPECT_EQ(second->next, first);
    EXPECT_EQ(first->prev, second);
    for (void *node : left)
        free(node);
}

// ---- purge -------------------------------------------------------------------

fk::bytes query_request(const tavrel_ip_addr &a, uint16_t flags, uint32_t index)
{
    const fk::bytes address = fk::attr(IFAL_ADDRESS, addr_bytes(a));
    const bool v6 = a.family == 6;
    return header(static_cast<uint32_t>(28 + address.size()), RTM_GETADDRLABEL, flags, v6 ? AF_INET6 : AF_INET,
                  v6 ? 128 : 32, index) +
           address;
}

struct purge_case {
    const char *name;
    const char *address;
    uint32_t prefix_length, index;
    std::vector<fk::msg> query_answer;
    std::vector<fk::msg> table;  // empty: no dump expected
    // Deletes expected, in order: address, label sent.
    std::vector<std::pair<const char *, uint32_t>> deletes;
    lines match_messages;
    int result;
};

TEST_F(AddrlabelTest, PurgeDeletesTheAddressAndItsLabel)
{
    const purge_case cases[] = {
        {"system label 7 stops it",
         "2001:db8::5", 64, 3, {entry("2001:db8::", 64, 3, 7)}, {}, {}, {}, 0},
        {"system label 0 stops it",
         "2001:db8::5", 64, 3, {entry("2001:db8::", 64, 3, 0)}, {}, {}, {}, 0},
        {"answer for another prefix length finds no label",
         "2001:db8::5", 64, 3, {entry("2001:db8::", 48, 3, 100)}, {}, {}, {}, 0},
        {"/60 compares 7 bytes; the label finds the rest",
         "2001:db8:0:1234::5", 60, 3,
         {entry("2001:db8:0:1230::", 60, 3, 100)},
         {entry("2001:db8:0:1230::", 60, 3, 100), entry("2001:db8:0:123f::", 60, 3, 55),
          entry("2001:db8:1::", 60, 3, 100), entry("2001:db8:2::", 60, 3, 101), entry("2001:db8:3::", 60, 4, 100),
          entry("2001:db8:4::", 64, 3, 100)},
         {{"2001:db8:0:1234::5", 100}, {"2001:db8:0:1234::5", 55}, {"2001:db8:1::", 100}},
         {"4 Matches AddressIPv6 addr [2001:0db8:0000:1234:0000:0000:0000:0005]",
          "4 Matches AddressIPv6 addr [2001:0db8:0000:1234:0000:0000:0000:0005]",
          "4 Label match forIPv6 addr [2001:0db8:0001:0000:0000:0000:0000:0000]"},
         0},
        {"label 1 is purgeable; /0 matches every address",
         "fd00::1", 0, 2, {entry("::", 0, 2, 1)},
         {entry("::", 0, 2, 1), entry("2001:db8::", 0, 2, 33)},
         {{"fd00::1", 1}, {"fd00::1", 33}},
         {"4 Matches AddressIPv6 addr [fd00:0000:0000:0000:0000:0000:0000:0001]",
          "4 Matches AddressIPv6 addr [fd00:0000:0000:0000:0000:0000:0000:0001]"},
         0},
        {"IPv4 matches on all four bytes whatever the prefix",
         "10.1.2.3", 24, 2, {entry("10.1.2.0", 24, 2, 20)},
         {entry("10.1.2.0", 24, 2, 20), entry("10.1.2.3", 24, 2, 21), entry("10.1.3.0", 24, 2, 22)},
         {{"10.1.2.0", 20}, {"10.1.2.3", 21}},
         {"4 Label match forIPv4 addr [10.1.2.0]", "4 Matches AddressIPv4 addr [10.1.2.3]"},
         0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fk::reset();
        logcap::start();
        const tavrel_ip_addr a = ip(c.address);
        fk::expect_socket().replies = {fk::datagram(c.query_answer)};
        if (!c.table.empty())
            fk::expect_socket().replies = {fk::datagram(c.table), fk::done()};
        expect_acks(static_cast<int>(c.deletes.size()));

        EXPECT_EQ(tavrel_addrlabel_purge_label(&a, c.prefix_length, c.index), c.result);
        const auto &s = fk::sockets();
        ASSERT_EQ(s.size(), 1 + !c.table.empty() + c.deletes.size());
        EXPECT_EQ(s[0].sent.at(0), query_request(a, NLM_F_REQUEST, c.index));
        if (!c.table.empty()) {
            EXPECT_EQ(s[1].sent.at(0), query_request(a, 0x301, c.index));
        }
        for (size_t i = 0; i < c.deletes.size(); i++)
            EXPECT_EQ(s[2 + i].sent.at(0), modify_request(RTM_DELADDRLABEL, ip(c.deletes[i].first),
                                                          static_cast<uint8_t>(c.prefix_length),
                                                          c.deletes[i].second, c.index))
                << "delete " << i;

        lines matches;
        for (const auto &l : logcap::android_lines())
            if (l.find(" match") != std::string::npos || l.find("Matches") != std::string::npos)
                matches.push_back(l);
        EXPECT_EQ(matches, c.match_messages);
        lines no_file;
        for (const auto &m : c.match_messages)
            no_file.push_back(m.substr(2));
        logcap::expect_sinks_agree(no_file);
    }
}

TEST_F(AddrlabelTest, PurgeQueryTakesOnlyAWellFormedEntryOfTheAddress)
{
    fk::msg empty_entry = entry("2001:db8::", 64, 3, 0);
    empty_entry.payload.resize(12);
    const tavrel_ip_addr a = ip("2001:db8::5");
    fk::expect_socket().replies = {fk::datagram({
        fk::msg{RTM_DELADDRLABEL, 0, fk::bytes(12)},
        fk::msg{RTM_NEWADDRLABEL, 0, fk::bytes(8)},
        empty_entry,
        entry("192.0.2.0", 64, 3, 100),
        entry("2001:db8::", 64, 4, 100),
        entry("2001:db8::", 64, 3, 100),
    })};
    fk::expect_socket().replies = {fk::datagram({entry("2001:db8::", 64, 3, 100)}), fk::done()};
    fk::expect_socket().replies = {fk::ack(-ENOENT)};

    EXPECT_EQ(tavrel_addrlabel_purge_label(&a, 64, 3), 0);  // a failed delete does not fail the purge
    EXPECT_EQ(own(logcap::file_lines()), (lines{
                       "LOW tavrel_addrlabel_nlmsg_parse(): ignoring non-NEWADDRLABEL message\n",
                       "ERR tavrel_addrlabel_nlmsg_parse(): invalid NEADDRLABEL message received\n",
                       "ERR tavrel_addrlabel_nlmsg_parse(): address/label is missing in NEWADDRLABEL message\n",
                       "ERR tavrel_addrlabel_modify(): modifying address label failed\n",
                       "ERR tavrel_addrlabel_purge_label_dump_cb(): Purging address with label 100 failed\n",
                   }));
}

TEST_F(AddrlabelTest, PurgeFailures)
{
    struct case_ {
        uint32_t version;
        std::vector<fk::bytes> query_replies;  // no query socket when empty
        bool dump;
        const char *error;
    } cases[] = {
        {0x2a, {}, false, "ERR tavrel_addrlabel_purge_label(): invalid addr type 0x2a\n"},
        {6, {fk::ack(-EINVAL)}, false, "ERR tavrel_addrlabel_purge_label(): querying label failed\n"},
        {6, {fk::datagram({entry("2001:db8::", 64, 3, 100)})}, true,
         "ERR tavrel_addrlabel_purge_label(): dumping labels failed\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.error);
        fk::reset();
        logcap::start();
        tavrel_ip_addr a = ip("2001:db8::5");
        a.family = c.version;
        if (!c.query_replies.empty())
            fk::expect_socket().replies = c.query_replies;
        if (c.dump)
            fk::expect_socket().recv_errno = EIO;
        EXPECT_EQ(tavrel_addrlabel_purge_label(&a, 64, 3), -1);
        EXPECT_EQ(fk::sockets().size(), c.query_replies.size() + c.dump);
        const lines diag = logcap::diag_lines();
        EXPECT_EQ(diag.empty() ? "" : diag.back(), c.error);
    }
}

}  // namespace
