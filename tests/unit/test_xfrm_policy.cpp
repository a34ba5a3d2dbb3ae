// Removing a pair's SAs by dump, selectors from texts, and the tunnel and bypass policies, against the fake kernel.
#include <arpa/inet.h>

#include <functional>

#include "tavrel_internal.h"
#include "tavrel_test.h"

using fk::operator+;

namespace {

template <typename T>
fk::bytes as_bytes(const T &v)
{
    return fk::bytes(reinterpret_cast<const uint8_t *>(&v), reinterpret_cast<const uint8_t *>(&v) + sizeof v);
}

// The daemon's record of an address text (all zero for none), and its 16 address bytes.
tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{};
    if (text && inet_pton(AF_INET, text, a.addr) == 1)
        a.family = 4;
    else if (text && inet_pton(AF_INET6, text, a.addr) == 1)
        a.family = 6;
    return a;
}

fk::bytes addr(const char *text)
{
    const tavrel_ip_addr a = ip(text);
    return fk::bytes(a.addr, a.addr + sizeof a.addr);
}

// The kernel's structures field by field, padding included.
// xfrm_selector: daddr, saddr, ports and masks, family, prefix lengths, proto, padding, ifindex, user.
fk::bytes sel(const char *src, uint8_t plen_s, const char *dst, uint8_t plen_d, uint16_t family, uint8_t proto)
{
    return addr(dst) + addr(src) + fk::bytes(8) + as_bytes(family) + fk::bytes{plen_d, plen_s, proto, 0, 0, 0} +
           fk::bytes(8);
}

// xfrm_userpolicy_info: selector; no byte or packet limit, no expiry; current lifetime; priority,
// index, dir, action, flags, share, padding. A tunnel policy (priority 100) has a template.
fk::bytes newpolicy(uint8_t dir, uint32_t priority, const fk::bytes &sel, const fk::bytes &tmpl = {})
{
    const fk::bytes info = sel + fk::bytes(32, 0xff) + fk::bytes(64) + as_bytes(priority) + fk::bytes(4);
    return fk::datagram({{XFRM_MSG_NEWPOLICY, NLM_F_REQUEST | NLM_F_ACK, info + fk::bytes{dir, 0, 0, 0, 0, 0, 0, 0} + tmpl}});
}

// xfrm_user_tmpl: id (daddr, spi, proto, padding), family, padding, saddr, reqid, mode, share,
// optional, padding, and every algorithm allowed.
fk::bytes tmpl(const char *saddr, const char *daddr, uint32_t spi, uint8_t proto, uint16_t family, uint8_t mode)
{
    return fk::attr(XFRMA_TMPL, addr(daddr) + as_bytes(htonl(spi)) + fk::bytes{proto, 0, 0, 0} + as_bytes(family) +
                                    fk::bytes(2) + addr(saddr) + fk::bytes(4) + fk::bytes{mode, 0, 0, 0} + fk::bytes(12, 0xff));
}

// xfrm_userpolicy_id: selector, index, dir, padding.
fk::bytes delpolicy(uint8_t dir, const fk::bytes &sel)
{
    return fk::datagram({{XFRM_MSG_DELPOLICY, NLM_F_REQUEST | NLM_F_ACK, sel + fk::bytes(4) + fk::bytes{dir, 0, 0, 0}}});
}

// One call against a socket per acknowledgement code, after a dump socket when replies are given:
// its result, its requests (all to NETLINK_XFRM) and the log lines of the tavrel_xfrm_ functions at
// a level ("" for all), their names shortened by that prefix. The sinks agree and no socket stays open.
struct xfrm_call {
    std::function<int()> call;
    std::vector<fk::bytes> dump;
    std::vector<int32_t> acks;
    int result;
    std::vector<fk::bytes> requests;
    const char *level;
    std::string log;
};

void check(const xfrm_call &c, long row)
{
    SCOPED_TRACE("row " + std::to_string(row));
    fk::reset();
    logcap::start();
    if (!c.dump.empty())
        fk::expect_socket().replies = c.dump;
    for (int32_t code : c.acks)
        fk::expect_socket().reply(fk::ack(code));
    EXPECT_EQ(c.call(), c.result);
    EXPECT_EQ(fk::requests_on(NETLINK_XFRM), c.requests);
    std::string log;
    for (const auto &l : logcap::diag_lines())
        if (l.compare(0, strlen(c.level), c.level) == 0 && l.find(" tavrel_xfrm_") != std::string::npos)
            log += l.substr(0, l.find(' ') + 1) + l.substr(l.find(' ') + 13);
    EXPECT_EQ(log, c.log);
    logcap::expect_sinks_agree();
    EXPECT_EQ(fk::open_descriptors(), 0);
}

const char *const L = "192.0.2.1", *const R = "198.51.100.2", *const V6 = "2001:db8::2";

}  // namespace

class XfrmRemove : public TavrelTest {};
class XfrmPolicy : public TavrelTest {};

TEST_F(XfrmRemove, DeletesThePairsEntriesOnly)
{
    struct sa { const char *src, *dst; uint32_t spi; uint8_t proto; uint16_t family; };
    // A dumped xfrm_usersa_info: selector, id (daddr, spi, proto, padding), saddr, lifetimes, statistics,
    // seq, reqid, family, mode, replay window, flags, padding.
    const auto dumped = [](const sa &e, uint16_t type = XFRM_MSG_NEWSA, uint32_t len = 0) {
        const fk::bytes id = addr(e.dst) + as_bytes(htonl(e.spi)) + fk::bytes{e.proto, 0, 0, 0};
        const fk::bytes tail = fk::bytes(116) + as_bytes(e.family) + fk::bytes(10);
        return fk::msg{type, NLM_F_MULTI, fk::bytes(56) + id + addr(e.src) + tail, len};
    };
    // Deleted by the entry's own key, xfrm_usersa_id (daddr, spi, family, proto, padding), and source.
    const auto delsa = [](const sa &e) {
        const fk::bytes id = addr(e.dst) + as_bytes(htonl(e.spi)) + as_bytes(e.family) + fk::bytes{e.proto, 0};
        return fk::datagram({{XFRM_MSG_DELSA, NLM_F_REQUEST | NLM_F_ACK, id + fk::attr(XFRMA_SRCADDR, addr(e.src))}});
    };
    // The texts come from the block, the SPI from the kernel in host order.
    const auto removed = [](const std::string &dir, const std::string &src, const std::string &dst, const char *spi) {
        return "HIGH remove_state_cb(): removing " + dir + " XFRM state\nMED remove_state_cb():\t..src " + src +
               "\nMED remove_state_cb():\t..dst " + dst + "\nMED remove_state_cb():\t..proto 50\n" +
               "MED remove_state_cb():\t..spi " + spi + "\n";
    };
    static const tavrel_xfrm_sa_addrs pair = {ip(L), ip(R), 0x1000, 0x2000, 50, 1}, same = {ip(L), ip(R), 9, 9, 51, 1};
    const auto remove = [](const tavrel_xfrm_sa_addrs &p) { return [&p] { return tavrel_xfrm_remove_states(&p); }; };
    const fk::bytes getsa = fk::datagram({{XFRM_MSG_GETSA, NLM_F_REQUEST | NLM_F_DUMP, {}}});
    // Only protocol and SPI decide for a family that is neither IPv4 nor IPv6.
    const sa tx{L, R, 0x1000, 50, AF_INET}, rx{R, L, 0x2000, 50, AF_INET}, any{V6, "::1", 0x2000, 50, 0};
    const xfrm_call cases[] = {
        // A refused deletion is logged and the dump goes on.
        {remove(pair),
         {fk::datagram({dumped(tx), dumped({R, L, 0x1000, 50, AF_INET}), dumped({L, R, 0x2000, 50, AF_INET}),
                        dumped(rx), dumped(any)}),
          fk::datagram({dumped({L, R, 0x3000, 50, AF_INET}), dumped(tx, XFRM_MSG_NEWPOLICY), dumped(tx, XFRM_MSG_NEWSA, 239)}) +
              fk::done()},
         {-ESRCH, 0, 0}, 0, {getsa, delsa(tx), delsa(rx), delsa(any)}, "",
         removed("TX", L, R, "0x1000") + "ERR remove_state_cb(): deleting XFRM state failed\n"
             "LOW remove_state_cb(): ignoring non-matching TX address\n"
             "LOW remove_state_cb(): ignoring non-matching RX address\n" +
             removed("RX", R, L, "0x2000") + removed("RX", R, L, "0x2000") +
             "LOW remove_state_cb(): ignoring non-matching SPI\nLOW remove_state_cb(): ignoring non-XFRM state message\n"
             "ERR remove_state_cb(): invalid XFRM state message received\n"},
        // With equal SPIs an entry is never tried as RX.
        {remove(same), {fk::datagram({dumped({R, L, 9, 51, AF_INET}), dumped({L, R, 9, 50, AF_INET})}) + fk::done()}, {}, 0,
         {getsa}, "",
         "LOW remove_state_cb(): ignoring non-matching TX address\nLOW remove_state_cb(): ignoring non-matching protocol\n"},
        {remove(pair), {fk::done(-EPERM)}, {}, -1, {getsa}, "", "ERR remove_states(): removing XFRM states failed\n"},
    };
    for (const auto &c : cases)
        check(c, &c - cases);
}

TEST_F(XfrmPolicy, Calls)
{
    // Mixed versions show where each template field comes from.
    static const tavrel_xfrm_sa_addrs pair = {ip(L), ip(V6), 0x1000, 0x2000, 50, 0};
    static const tavrel_xfrm_sa_addrs ah = {ip(L), ip(R), 0x1000, 0x2000, 51, 1}, odd = {ip(R), {}, 1, 2, 17, 4};
    const auto add = [](int tx) { return [=] { return tavrel_xfrm_add_policies(&pair, nullptr, "10.0.0.0/8", "6", tx); }; };
    const auto del = [](int tx) { return [=] { return tavrel_xfrm_remove_policies(nullptr, "10.0.0.0/8", "6", tx); }; };
    const fk::bytes s10 = sel(nullptr, 0, "10.0.0.0", 8, AF_INET, 6), fe80 = sel(nullptr, 0, "fe80::", 64, AF_INET6, 58);
    const uint8_t IN = XFRM_POLICY_IN, OUT = XFRM_POLICY_OUT, FWD = XFRM_POLICY_FWD;
    const fk::bytes out = newpolicy(OUT, 100, s10, tmpl(L, V6, 0x1000, 50, AF_INET, 0));
    const auto in = [&](uint8_t dir) { return newpolicy(dir, 100, s10, tmpl(V6, L, 0x2000, 50, AF_INET6, 0)); };
    const auto D = [&](uint8_t dir) { return delpolicy(dir, s10); };
    const std::string sent = "ERR add_policy(): Sending XFRM policy failed\n";
    const std::string unsent = "ERR remove_policy(): Sending XFRM policy delete failed\n";
    const xfrm_call cases[] = {
        // Texts are logged as given, so a prefix shows twice; the destination's family wins; the
        // protocol is read in any base and cut to a byte.
        {[] { return tavrel_xfrm_add_policy(&ah, "10.0.0.0/8", "2001:db8::1", "0x12c", XFRM_POLICY_OUT); }, {}, {0}, 0,
         {newpolicy(OUT, 100, sel("10.0.0.0", 8, "2001:db8::1", 128, AF_INET6, 44), tmpl(L, R, 0x1000, 51, AF_INET, 1))},
         "",
         "MED set_sel():\t..sel.saddr = 10.0.0.0/8/8\nMED set_sel():\t..sel.daddr = 2001:db8::1/128\n"
         "MED set_sel():\t..sel.proto = 0x12c\nMED set_id_from_recovery():\t..id.proto = ah\n"
         "MED set_id_from_recovery():\t..saddr = 192.0.2.1\nMED set_id_from_recovery():\t..id.daddr = 198.51.100.2\n"
         "MED set_id_from_recovery():\t..id.spi = 0x1000\nMED set_tmpl():\t..tmpl.mode = tunnel\n"
         "MED set_tmpl():\t..tmpl.family = AF_INET\n"},
        // A protocol that converts to 0 is logged as a failure, yet succeeds. An unknown version
        // leaves the address and the family 0; the policy is still sent.
        {[] { return tavrel_xfrm_add_policy(&odd, L, nullptr, "256", XFRM_POLICY_FWD); }, {}, {0}, 0,
         {newpolicy(FWD, 100, sel(L, 32, nullptr, 0, AF_INET, 0), tmpl(nullptr, R, 2, 17, 0, 4))}, "",
         "MED set_sel():\t..sel.saddr = 192.0.2.1/32\nERR set_sel(): setting selector protocol to 256 failed\n"
         "MED set_id_from_recovery():\t..id.proto = esp\nMED set_id_from_recovery():\t..saddr = <invalid family 0>\n"
         "MED set_id_from_recovery():\t..id.daddr = 198.51.100.2\nERR set_addr_from_recovery(): invalid addr family 0\n"
         "MED set_id_from_recovery():\t..id.spi = 0x2\nMED set_tmpl():\t..tmpl.mode = transport\n"
         "MED set_tmpl():\t..tmpl.family = AF_INET6\n"},
        {add(1), {}, {0}, 0, {out}, "ERR", ""},
        {add(1), {}, {-EEXIST}, -1, {out}, "ERR", sent + "ERR add_policies(): Setting outgoing XFRM policy failed\n"},
        {add(0), {}, {0, 0}, 0, {in(IN), in(FWD)}, "ERR", ""},
        // Adding stops at a refused input policy; a refused forward one leaves the input one.
        {add(0), {}, {-EEXIST}, -1, {in(IN)}, "ERR", sent + "ERR add_policies(): Setting incoming XFRM policy failed\n"},
        {add(0), {}, {0, -EEXIST}, -1, {in(IN), in(FWD)}, "ERR",
         sent + "ERR add_policies(): Setting forwarding XFRM policy failed\n"},
        {[] { return tavrel_xfrm_add_policies(&pair, nullptr, nullptr, "6", 1); }, {}, {}, -1, {}, "ERR",
         "ERR set_sel(): selector must have either source or destination\n"
         "ERR add_policy(): setting policy selector failed\nERR add_policies(): Setting outgoing XFRM policy failed\n"},
        {del(1), {}, {0}, 0, {D(OUT)}, "ERR", ""},
        {del(1), {}, {-ENOENT}, -1, {D(OUT)}, "ERR", unsent + "ERR remove_policies(): removing outgoing XFRM policy failed\n"},
        // Removal goes on after a refused input policy; only the forward result counts.
        {del(0), {}, {-ENOENT, 0}, 0, {D(IN), D(FWD)}, "ERR",
         unsent + "ERR remove_policies(): removing incoming XFRM policy failed\n"},
        {del(0), {}, {0, -ENOENT}, -1, {D(IN), D(FWD)}, "ERR",
         unsent + "ERR remove_policies(): removing forwarding XFRM policy failed\n"},
        {[] { return tavrel_xfrm_remove_policies("fe80::g", "x", nullptr, 1); }, {}, {}, -1, {}, "ERR",
         "ERR set_address(): invalid IPv6 address fe80::g\nERR set_sel(): setting selector source address failed\n"
         "ERR remove_policy(): Setting selector failed\nERR remove_policies(): removing outgoing XFRM policy failed\n"},
        {[] { return tavrel_xfrm_remove_policy(L, "x", nullptr, 0); }, {}, {}, -1, {}, "ERR",
         "ERR set_address(): invalid IPv4 address x\nERR set_sel(): setting selector destination address failed\n"
         "ERR remove_policy(): Setting selector failed\n"},
        {[] { return tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT); }, {}, {0}, 0, {newpolicy(OUT, 10, fe80)}, "ERR", ""},
        {[] { return tavrel_xfrm_add_policy_ex(XFRM_POLICY_IN); }, {}, {-EEXIST}, -1, {newpolicy(IN, 10, fe80)}, "ERR",
         "ERR add_policy_ex(): Sending XFRM policy failed\n"},
        {[] { return tavrel_xfrm_remove_policy_ex(XFRM_POLICY_FWD); }, {}, {-ENOENT}, -1, {delpolicy(FWD, fe80)}, "ERR",
         unsent},
    };
    for (const auto &c : cases)
        check(c, &c - cases);
}
