// IPv6 address labels against the fake kernel: requests, filter, label list and its heap blocks, purges, logs.
#include <arpa/inet.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <functional>

#include "heap_rand_interpose.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

uint8_t family(const tavrel_ip_addr &a) { return a.family == 6 ? AF_INET6 : AF_INET; }
bytes address(const tavrel_ip_addr &a) { return fk::attr(IFAL_ADDRESS, bytes(a.addr, a.addr + (a.family == 6 ? 16 : 4))); }
bytes label(uint32_t value) { return fk::attr(IFAL_LABEL, fk::u32_bytes(value)); }
P answer(const std::vector<fk::msg> &entries) { return P().reply(fk::datagram(entries)); }
P dump(const std::vector<fk::msg> &entries) { return answer(entries).reply(fk::done()); }

// A request of struct ifaddrlblmsg and the attributes.
bytes message(uint16_t type, uint16_t flags, uint8_t family, uint8_t prefixlen, uint32_t index, const bytes &attributes)
{
    return fk::request(type, flags, raw(ifaddrlblmsg{family, 0, prefixlen, 0, index, 0}) + attributes);
}

bytes del(const tavrel_ip_addr &a, uint8_t len, uint32_t value, uint32_t index)
{
    return message(RTM_DELADDRLABEL, NLM_F_REQUEST | NLM_F_ACK, family(a), len, index, label(value) + address(a));
}

// The purge's label query, or with the dump flags its dump: the address at its full width.
bytes lookup(const tavrel_ip_addr &a, uint16_t flags, uint32_t index)
{
    return message(RTM_GETADDRLABEL, flags, family(a), a.family == 6 ? 128 : 32, index, address(a));
}

// An entry of the kernel's label table: the given attributes, or a prefix with its label.
fk::msg entry(uint32_t index, const bytes &attrs, uint8_t af = AF_INET6, uint8_t len = 64, uint16_t type = RTM_NEWADDRLABEL)
{
    return {type, NLM_F_MULTI, raw(ifaddrlblmsg{af, 0, len, 0, index, 0}) + attrs};
}

fk::msg entry(const char *prefix, uint8_t len, uint32_t index, uint32_t value)
{
    return entry(index, address(ip(prefix)) + label(value), family(ip(prefix)), len);
}

// The rows name all but the transport's lines; of all lines only the match messages, which name no function, skip
// the log file.
bool no_file(const std::string &t) { return t.rfind("tavrel_", 0) != 0; }
bool own(const std::string &t) { return no_file(t) || t.rfind("tavrel_addrlabel_", 0) == 0; }

// A generation over a table of these labels that must store out (1234: untouched), ask for nodes list nodes, call
// rand() once per scripted value and free all nodes; the fail_at-th node cannot be had.
Call generate(uint32_t version, uint32_t mode, std::vector<uint32_t> in_use, uint32_t out, size_t nodes,
              std::vector<int> rand = {}, size_t fail_at = 0)
{
    return [=] {
        std::vector<fk::msg> entries;
        for (uint32_t value : in_use)
            entries.push_back(entry(static_cast<uint32_t>(entries.size()), address(ip("2001:db8::")) + label(value)));
        fk::expect_socket() = dump(entries);
        scripted_rand::set(rand);
        node_heap::start(fail_at);
        uint32_t got = 1234;
        const int result = tavrel_addrlabel_generate(version, mode, &got);
        std::vector<uint32_t> left;
        for (void *node : node_heap::stop()) {
            left.push_back(static_cast<tavrel_addrlabel_node *>(node)->label);
            free(node);
        }
        EXPECT_EQ(std::make_tuple(got, node_heap::allocations(), scripted_rand::calls(), left),
                  std::make_tuple(out, nodes, rand.size(), std::vector<uint32_t>{}));
        return result;
    };
}

class Addrlabel : public TavrelTest {};

TEST_F(Addrlabel, RequestsFilterGenerationAndPurge)
{
    const tavrel_ip_addr v6 = ip("2001:db8::"), v4 = ip("192.0.2.0"), bad{10, 0, {}}, p1 = ip("2001:db8:0:1234::5"),
                         p2 = ip("fd00::1"), p3 = ip("10.1.2.3"), p4 = ip("2001:db8::5");
    const bytes both = address(v6) + label(100), all = message(RTM_GETADDRLABEL, 0x0301, AF_INET6, 0, 0, {}),
                added = message(RTM_NEWADDRLABEL, 0x0605, AF_INET6, 44, 3, label(100) + address(v6));
    const P ok = P().reply(fk::ack(0));
    auto purge = [](tavrel_ip_addr a, uint32_t len, uint32_t index) -> Call {
        return [=] { return tavrel_addrlabel_purge_label(&a, len, index); };
    };
    const std::string fn = "ERR tavrel_addrlabel_", purge_label = fn + "purge_label", filter = "tavrel_addrlabel_nlmsg_parse(): ",
                      missing = "ERR " + filter + "address/label is missing in NEWADDRLABEL message\n",
                      cb = "ERR tavrel_addrlabel_generate_cb(): ", match = "MED Matches AddressIPv6 addr [";
    check_rows({
        // Only the low 8 bits of the prefix length go out; any type but an addition goes with the delete flags.
        {[&] { return tavrel_addrlabel_add(&v6, 300, 100, 3); }, {ok}, {added}},
        {[&] { return tavrel_addrlabel_del(&v4, 24, 21, 0); }, {ok}, {del(v4, 24, 21, 0)}},
        {[&] { return tavrel_addrlabel_modify(99, &v6, 64, 5, 1); }, {ok},
         {message(99, NLM_F_REQUEST | NLM_F_ACK, AF_INET6, 64, 1, label(5) + address(v6))}},
        {[&] { return tavrel_addrlabel_add(&bad, 64, 100, 3); }, {}, {}, {fn + "modify(): invalid addr family 10\n"}, -1},
        {[&] { return tavrel_addrlabel_add(&v6, 300, 100, 3); }, {P().reply(fk::ack(-EEXIST))}, {added},
         {fn + "modify(): modifying address label failed\n"}, -1},
        // Generation: one below the lowest label >= 21 with a free number beneath, else rand() above the largest (>= 20).
        {generate(0, 1, {}, 1, 0), {}, {}},  // mode 1 looks at nothing
        {generate(5, 0, {}, 1234, 0), {}, {}, {fn + "generate(): invalid addr type 0x5\n"}, -1},
        {generate(4, 0, {}, 23, 0, {3}), {}, {message(RTM_GETADDRLABEL, 0x0301, AF_INET, 0, 0, {})}},
        {generate(6, 0, {0, 3, 12, 19}, 27, 4, {7}), {}, {all}},
        {generate(6, 0, {30, 22, 20, 21}, 29, 4), {}, {all}},     // gathered in order
        {generate(6, 0, {25, 25, 24, 25, 24}, 23, 2), {}, {all}},  // each label once
        {generate(6, 0, {19, 20, 21}, 0x80000014, 3, {0x7fffffff}), {}, {all}},
        // Bad entries are skipped (28 bytes are long enough); a lost node loses its label (30), so 40 has a gap beneath it.
        {generate(6, 0, {}, 39, 3, {}, 2),
         {dump({{NLMSG_NOOP, 0, {}}, {RTM_NEWADDRLABEL, 0, bytes(8)}, entry(1, {}), entry(1, address(v6)),
                entry(1, fk::attr(IFAL_LABEL, {3, 0})), entry(1, fk::attr(IFAL_LABEL, bytes(8))), entry(1, label(40)),
                entry(1, address(v6) + label(30)), entry(1, label(50))})}, {all},
         {"LOW tavrel_addrlabel_generate_cb(): ignoring non-NEWADDRLABEL message\n",
          cb + "invalid NEADDRLABEL message received\n", cb + "label attribute is missing in NEWADDRLABEL message\n",
          cb + "label attribute is missing in NEWADDRLABEL message\n",
          cb + "label attribute is malformed\n", cb + "label attribute is malformed\n",
          fn + "list_insert(): adding node to label list failed\n", cb + "Inserting label 30 failed\n"}},
        // Purge. The query takes whole entries of the address's family, prefix length and interface only.
        {purge(p4, 64, 3), {answer({entry(3, both, AF_INET6, 64, RTM_DELADDRLABEL), {RTM_NEWADDRLABEL, 0, bytes(11)},
                                    entry(3, {}), entry(3, label(100)), entry(3, address(v6)), entry(3, both, AF_INET),
                                    entry(3, both, AF_INET6, 48), entry(4, both)})}, {lookup(p4, 1, 3)},
         {"LOW " + filter + "ignoring non-NEWADDRLABEL message\n", "ERR " + filter + "invalid NEADDRLABEL message received\n",
          missing, missing, missing}},  // 28 bytes pass the length check
        // /60 compares 7 bytes; a system label is passed over for a later one, whose label finds the rest.
        {purge(p1, 60, 3), {answer({entry("2001:db8:0:1230::", 60, 3, 7), entry("2001:db8:0:1230::", 60, 3, 100)}),
          dump({entry("2001:db8:0:1230::", 60, 3, 100), entry("2001:db8:0:123f::", 60, 3, 55), entry("2001:db8:1::", 60, 3, 100),
                entry("2001:db8:2::", 60, 3, 101)}), ok, ok, ok},
         {lookup(p1, 1, 3), lookup(p1, 0x0301, 3), del(p1, 60, 100, 3), del(p1, 60, 55, 3), del(ip("2001:db8:1::"), 60, 100, 3)},
         {match + "2001:0db8:0000:1234:0000:0000:0000:0005]", match + "2001:0db8:0000:1234:0000:0000:0000:0005]",
          "MED Label match forIPv6 addr [2001:0db8:0001:0000:0000:0000:0000:0000]"}},
        // Label 1 is purgeable and /0 matches every address; a refused delete does not fail the purge.
        {purge(p2, 0, 2), {answer({entry("::", 0, 2, 1)}), dump({entry("::", 0, 2, 1), entry("2001:db8::", 0, 2, 33)}),
          P().reply(fk::ack(-ENOENT)), ok},
         {lookup(p2, 1, 2), lookup(p2, 0x0301, 2), del(p2, 0, 1, 2), del(p2, 0, 33, 2)},
         {match + "fd00:0000:0000:0000:0000:0000:0000:0001]", fn + "modify(): modifying address label failed\n",
          purge_label + "_dump_cb(): Purging address with label 1 failed\n", match + "fd00:0000:0000:0000:0000:0000:0000:0001]"}},
        // IPv4 matches on all four bytes whatever the prefix length.
        {purge(p3, 24, 2), {answer({entry("10.1.2.0", 24, 2, 20)}),
          dump({entry("10.1.2.0", 24, 2, 20), entry("10.1.2.3", 24, 2, 21), entry("10.1.3.0", 24, 2, 22)}), ok, ok},
         {lookup(p3, 1, 2), lookup(p3, 0x0301, 2), del(ip("10.1.2.0"), 24, 20, 2), del(p3, 24, 21, 2)},
         {"MED Label match forIPv4 addr [10.1.2.0]", "MED Matches AddressIPv4 addr [10.1.2.3]"}},
        {purge(bad, 64, 3), {}, {}, {purge_label + "(): invalid addr type 0xa\n"}, -1},
        {purge(p4, 64, 3), {P().reply(fk::ack(-EINVAL))}, {lookup(p4, 1, 3)}, {purge_label + "(): querying label failed\n"}, -1},
    }, {own, no_file});
}

}  // namespace
