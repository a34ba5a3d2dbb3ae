// Removing a pair's SAs by dump, selectors from texts, and the tunnel and
// bypass policies, against the fake kernel.
#include <arpa/inet.h>

#include <functional>

#include "tavrel_internal.h"
#include "tavrel_test.h"

using fk::operator+;

namespace {

tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{};
    if (inet_pton(AF_INET, text, a.addr) == 1)
        a.family = a.length = 4;
    else if (inet_pton(AF_INET6, text, a.addr) == 1)
        a.family = 6, a.length = 16;
    return a;
}

tavrel_xfrm_sa_addrs block(const char *local, const char *remote, uint32_t tx, uint32_t rx, uint8_t proto = 50,
                           uint8_t mode = 1)
{
    return {ip(local), ip(remote), tx, rx, proto, mode};
}

template <typename T>
fk::bytes as_bytes(const T &v)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&v);
    return fk::bytes(p, p + sizeof v);
}

xfrm_address_t xaddr(const char *text)
{
    xfrm_address_t a{};
    if (text)
        memcpy(&a, ip(text).addr, 16);
    return a;
}

// A dumped SA; its family follows the source text unless given.
xfrm_usersa_info sa(const char *src, const char *dst, uint32_t spi, uint8_t proto = 50, int family = -1)
{
    xfrm_usersa_info e{};
    e.saddr = xaddr(src);
    e.id.daddr = xaddr(dst);
    e.id.spi = htonl(spi);
    e.id.proto = proto;
    e.family = family >= 0 ? family : ip(src).family == 4 ? AF_INET : AF_INET6;
    e.reqid = 7;
    return e;
}

fk::bytes delsa(const xfrm_usersa_info &e)
{
    struct {
        nlmsghdr h;
        xfrm_usersa_id id;
        nlattr a;
        xfrm_address_t saddr;
    } r{};
    r.h = {static_cast<uint32_t>(sizeof r), XFRM_MSG_DELSA, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    r.id.daddr = e.id.daddr;
    r.id.spi = e.id.spi;
    r.id.family = e.family;
    r.id.proto = e.id.proto;
    r.a = {static_cast<uint16_t>(sizeof r.a + sizeof r.saddr), XFRMA_SRCADDR};
    r.saddr = e.saddr;
    return as_bytes(r);
}

xfrm_selector sel(const char *src, uint8_t plen_s, const char *dst, uint8_t plen_d, uint16_t family, uint8_t proto)
{
    xfrm_selector s{};
    s.saddr = xaddr(src);
    s.daddr = xaddr(dst);
    s.prefixlen_s = plen_s;
    s.prefixlen_d = plen_d;
    s.family = family;
    s.proto = proto;
    return s;
}

fk::bytes newpolicy(uint8_t dir, uint32_t priority, const xfrm_selector &s, const xfrm_user_tmpl *tmpl)
{
    struct {
        nlmsghdr h;
        xfrm_userpolicy_info info;
    } r{};
    r.h = {static_cast<uint32_t>(sizeof r), XFRM_MSG_NEWPOLICY, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    r.info.sel = s;
    r.info.lft.soft_byte_limit = r.info.lft.hard_byte_limit = XFRM_INF;
    r.info.lft.soft_packet_limit = r.info.lft.hard_packet_limit = XFRM_INF;
    r.info.priority = priority;
    r.info.dir = dir;
    if (tmpl)
        r.h.nlmsg_len += NLA_HDRLEN + sizeof *tmpl;
    return tmpl ? as_bytes(r) + fk::attr(XFRMA_TMPL, as_bytes(*tmpl)) : as_bytes(r);
}

fk::bytes delpolicy(uint8_t dir, const xfrm_selector &s)
{
    struct {
        nlmsghdr h;
        xfrm_userpolicy_id id;
    } r{};
    r.h = {static_cast<uint32_t>(sizeof r), XFRM_MSG_DELPOLICY, NLM_F_REQUEST | NLM_F_ACK, 0, 0};
    r.id.sel = s;
    r.id.dir = dir;
    return as_bytes(r);
}

// The log lines of the XFRM functions at a level, without the transport's.
lines xfrm_lines(const std::string &level = "")
{
    lines out;
    for (const auto &l : logcap::diag_lines())
        if (l.compare(0, level.size(), level) == 0 && l.find(" tavrel_xfrm_") != std::string::npos)
            out.push_back(l);
    return out;
}

// "LEVEL function(): text\n", or "LEVEL function():\t..text\n" for a field.
std::string msg(const char *level, const char *function, const std::string &text)
{
    return std::string(level) + " " + function + "():" + (text.compare(0, 2, "..") == 0 ? "\t" : " ") + text + "\n";
}

void expect_acks(const std::vector<int32_t> &codes)
{
    for (int32_t code : codes)
        fk::expect_socket().reply(fk::ack(code));
}

const fk::bytes kDumpRequest = as_bytes(nlmsghdr{16, XFRM_MSG_GETSA, NLM_F_REQUEST | NLM_F_DUMP, 0, 0});
const char *const L = "192.0.2.1";
const char *const R = "198.51.100.2";
const tavrel_xfrm_sa_addrs kPair = block(L, R, 0x1000, 0x2000);

}  // namespace

class XfrmRemove : public TavrelTest {};
class XfrmPolicy : public TavrelTest {};

TEST_F(XfrmRemove, WhichDumpedEntriesAreDeleted)
{
    const char *cb = "tavrel_xfrm_remove_state_cb";
    const struct {
        tavrel_xfrm_sa_addrs pair;
        xfrm_usersa_info entry;
        uint16_t type;
        uint32_t len;  // nlmsg_len when not the true one
        const char *level, *first_log;
        bool deleted;
    } cases[] = {
        {kPair, sa(L, R, 0x1000), XFRM_MSG_NEWSA, 0, "HIGH", "removing TX XFRM state", true},
        {kPair, sa(R, L, 0x2000), XFRM_MSG_NEWSA, 0, "HIGH", "removing RX XFRM state", true},
        {block("2001:db8::1", "2001:db8::2", 5, 6, 51), sa("2001:db8::1", "2001:db8::2", 5, 51), XFRM_MSG_NEWSA, 0,
         "HIGH", "removing TX XFRM state", true},
        // Only protocol and SPI decide for a family that is neither IPv4 nor IPv6.
        {kPair, sa("1.1.1.1", "2.2.2.2", 0x2000, 50, 0), XFRM_MSG_NEWSA, 0, "HIGH", "removing RX XFRM state", true},
        {kPair, sa(R, L, 0x1000), XFRM_MSG_NEWSA, 0, "LOW", "ignoring non-matching TX address", false},
        {kPair, sa(L, R, 0x2000), XFRM_MSG_NEWSA, 0, "LOW", "ignoring non-matching RX address", false},
        // With equal SPIs an entry is never tried as RX.
        {block(L, R, 9, 9), sa(R, L, 9), XFRM_MSG_NEWSA, 0, "LOW", "ignoring non-matching TX address", false},
        {kPair, sa(L, R, 0x1000, 51), XFRM_MSG_NEWSA, 0, "LOW", "ignoring non-matching protocol", false},
        {kPair, sa(L, R, 0x3000), XFRM_MSG_NEWSA, 0, "LOW", "ignoring non-matching SPI", false},
        {kPair, sa(L, R, 0x1000), XFRM_MSG_NEWPOLICY, 0, "LOW", "ignoring non-XFRM state message", false},
        {kPair, sa(L, R, 0x1000), XFRM_MSG_NEWSA, 239, "ERR", "invalid XFRM state message received", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.first_log + std::string(" ") + std::to_string(ntohl(c.entry.id.spi)));
        fk::reset();
        logcap::start();
        fk::expect_socket().reply(fk::datagram({{c.type, NLM_F_MULTI, as_bytes(c.entry), c.len}})).reply(fk::done());
        if (c.deleted)
            expect_acks({0});
        EXPECT_EQ(tavrel_xfrm_remove_states(&c.pair), 0);
        ASSERT_EQ(fk::sockets().size(), c.deleted ? 2u : 1u);
        EXPECT_EQ(fk::sockets()[0].protocol, NETLINK_XFRM);
        EXPECT_EQ(fk::sockets()[0].sent, std::vector<fk::bytes>{kDumpRequest});
        if (c.deleted) {
            EXPECT_EQ(fk::sockets()[1].protocol, NETLINK_XFRM);
            EXPECT_EQ(fk::sockets()[1].sent, std::vector<fk::bytes>{delsa(c.entry)});
        }
        ASSERT_FALSE(xfrm_lines().empty());
        EXPECT_EQ(xfrm_lines()[0], msg(c.level, cb, c.first_log));
    }
}

TEST_F(XfrmRemove, PairAcrossDatagramsGoesOnAfterARefusedDeletion)
{
    const char *cb = "tavrel_xfrm_remove_state_cb";
    fk::expect_socket()
        .reply(fk::datagram({{XFRM_MSG_NEWSA, NLM_F_MULTI, as_bytes(sa(L, R, 0x1000))}}))
        .reply(fk::datagram({{XFRM_MSG_NEWSA, NLM_F_MULTI, as_bytes(sa(R, L, 0x2000))}}) + fk::done());
    expect_acks({-ESRCH, 0});
    EXPECT_EQ(tavrel_xfrm_remove_states(&kPair), 0);
    EXPECT_EQ(fk::sockets().size(), 3u);
    // The kernel's SPI is logged in host order, as the block holds it.
    EXPECT_EQ(xfrm_lines(), (lines{msg("HIGH", cb, "removing TX XFRM state"), msg("MED", cb, "..src 192.0.2.1"),
                                   msg("MED", cb, "..dst 198.51.100.2"), msg("MED", cb, "..proto 50"),
                                   msg("MED", cb, "..spi 0x1000"), msg("ERR", cb, "deleting XFRM state failed"),
                                   msg("HIGH", cb, "removing RX XFRM state"), msg("MED", cb, "..src 198.51.100.2"),
                                   msg("MED", cb, "..dst 192.0.2.1"), msg("MED", cb, "..proto 50"),
                                   msg("MED", cb, "..spi 0x2000")}));
    logcap::expect_sinks_agree();
}

TEST_F(XfrmRemove, FailedDumpFails)
{
    fk::expect_socket().reply(fk::done(-EPERM));
    EXPECT_EQ(tavrel_xfrm_remove_states(&kPair), -1);
    EXPECT_EQ(xfrm_lines(), lines{msg("ERR", "tavrel_xfrm_remove_states", "removing XFRM states failed")});
}

TEST_F(XfrmPolicy, SelectorFromTexts)
{
    const char *fn = "tavrel_xfrm_set_sel";
    const struct {
        const char *src, *dst, *proto;
        int result;
        xfrm_selector sel;
        lines log;
    } cases[] = {
        {nullptr, "fe80::/64", "58", 0, sel(nullptr, 0, "fe80::", 64, AF_INET6, 58),
         {msg("MED", fn, "..sel.daddr = fe80::/64/64"), msg("MED", fn, "..sel.proto = 58")}},
        {L, nullptr, nullptr, 0, sel(L, 32, nullptr, 0, AF_INET, 0), {msg("MED", fn, "..sel.saddr = 192.0.2.1/32")}},
        // The destination's family wins over the source's.
        {"10.0.0.0/8", "2001:db8::1", "0x11", 0, sel("10.0.0.0", 8, "2001:db8::1", 128, AF_INET6, 17),
         {msg("MED", fn, "..sel.saddr = 10.0.0.0/8/8"), msg("MED", fn, "..sel.daddr = 2001:db8::1/128"),
          msg("MED", fn, "..sel.proto = 0x11")}},
        {nullptr, L, "300", 0, sel(nullptr, 0, L, 32, AF_INET, 44),
         {msg("MED", fn, "..sel.daddr = 192.0.2.1/32"), msg("MED", fn, "..sel.proto = 300")}},
        // A protocol that converts to 0 is logged as a failure, yet succeeds.
        {nullptr, L, "256", 0, sel(nullptr, 0, L, 32, AF_INET, 0),
         {msg("MED", fn, "..sel.daddr = 192.0.2.1/32"), msg("ERR", fn, "setting selector protocol to 256 failed")}},
        {nullptr, L, "esp", 0, sel(nullptr, 0, L, 32, AF_INET, 0),
         {msg("MED", fn, "..sel.daddr = 192.0.2.1/32"), msg("ERR", fn, "setting selector protocol to esp failed")}},
        {nullptr, nullptr, "6", -1, {}, {msg("ERR", fn, "selector must have either source or destination")}},
        {"10.0.0.1/24", "nowhere", "6", -1, sel("10.0.0.1", 24, nullptr, 0, AF_INET, 0),
         {msg("MED", fn, "..sel.saddr = 10.0.0.1/24/24"),
          msg("ERR", "tavrel_xfrm_set_address", "invalid IPv4 address nowhere"),
          msg("ERR", fn, "setting selector destination address failed")}},
        {"fe80::g", L, nullptr, -1, {},
         {msg("ERR", "tavrel_xfrm_set_address", "invalid IPv6 address fe80::g"),
          msg("ERR", fn, "setting selector source address failed")}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.src ? c.src : "-") + " " + (c.dst ? c.dst : "-"));
        logcap::start();
        // Ports and interface are the caller's and stay as they were.
        xfrm_selector s{}, expected = c.sel;
        s.sport = expected.sport = 0x1234;
        s.ifindex = expected.ifindex = 9;
        EXPECT_EQ(tavrel_xfrm_set_sel(&s, c.src, c.dst, c.proto), c.result);
        EXPECT_EQ(as_bytes(s), as_bytes(expected));
        EXPECT_EQ(logcap::diag_lines(), c.log);
        logcap::expect_sinks_agree();
    }
}

TEST_F(XfrmPolicy, TunnelPolicyTemplate)
{
    const char *id = "tavrel_xfrm_set_id_from_recovery";
    const char *tm = "tavrel_xfrm_set_tmpl";
    const char *v6 = "2001:db8::2";
    const tavrel_xfrm_sa_addrs unknown_local = {{0, 4, {1, 2, 3, 4}}, ip(R), 1, 2, 50, 1};
    // Mixed families show where each template field comes from.
    const struct {
        uint8_t dir;
        tavrel_xfrm_sa_addrs pair;
        const char *saddr, *daddr;
        uint32_t spi;
        uint16_t family;
        const char *proto_text, *saddr_text, *mode_text, *family_text;
    } cases[] = {
        {XFRM_POLICY_OUT, block(L, v6, 0x1000, 0x2000, 50, 1), L, v6, 0x1000, AF_INET, "esp", L, "tunnel", ""},
        {XFRM_POLICY_FWD, block(L, v6, 0x1000, 0x2000, 51, 0), v6, L, 0x2000, AF_INET6, "ah", v6, "transport", "6"},
        {XFRM_POLICY_IN, block(L, R, 0x1000, 0x2000, 17, 4), R, L, 0x2000, AF_INET, "esp", R, "transport", ""},
        // An unknown version leaves address and family 0; the policy is still sent.
        {XFRM_POLICY_OUT, unknown_local, nullptr, R, 1, 0, "esp", "<invalid family 0>", "tunnel", "6"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.dir) + " " + c.saddr_text);
        fk::reset();
        logcap::start();
        expect_acks({0});
        EXPECT_EQ(tavrel_xfrm_add_policy(&c.pair, "10.0.0.0/8", "192.0.2.0/24", "6", c.dir), 0);
        xfrm_user_tmpl t{};
        t.saddr = xaddr(c.saddr);
        t.id.daddr = xaddr(c.daddr);
        t.id.spi = htonl(c.spi);
        t.id.proto = c.pair.proto;
        t.family = c.family;
        t.mode = c.pair.mode;
        t.aalgos = t.ealgos = t.calgos = ~0u;
        ASSERT_EQ(fk::sockets().size(), 1u);
        EXPECT_EQ(fk::sockets()[0].protocol, NETLINK_XFRM);
        EXPECT_EQ(fk::sockets()[0].sent, std::vector<fk::bytes>{newpolicy(
                                             c.dir, 100, sel("10.0.0.0", 8, "192.0.2.0", 24, AF_INET, 6), &t)});
        lines expected = {msg("MED", id, std::string("..id.proto = ") + c.proto_text),
                          msg("MED", id, std::string("..saddr = ") + c.saddr_text),
                          msg("MED", id, std::string("..id.daddr = ") + c.daddr)};
        if (!c.saddr)
            expected.push_back(msg("ERR", "tavrel_xfrm_set_addr_from_recovery", "invalid addr family 0"));
        char spi[32];
        snprintf(spi, sizeof spi, "..id.spi = 0x%x", c.spi);
        expected.push_back(msg("MED", id, spi));
        expected.push_back(msg("MED", tm, std::string("..tmpl.mode = ") + c.mode_text));
        expected.push_back(msg("MED", tm, std::string("..tmpl.family = AF_INET") + c.family_text));
        lines log = xfrm_lines();
        log.erase(log.begin(), log.begin() + 3);  // the selector's
        EXPECT_EQ(log, expected);
    }
}

TEST_F(XfrmPolicy, BypassAndRemovalRequests)
{
    const xfrm_selector bypass = sel(nullptr, 0, "fe80::", 64, AF_INET6, 58);
    expect_acks({0, 0, 0});
    EXPECT_EQ(tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT), 0);
    EXPECT_EQ(tavrel_xfrm_remove_policy_ex(XFRM_POLICY_FWD), 0);
    EXPECT_EQ(tavrel_xfrm_remove_policy(L, "10.0.0.0/8", nullptr, XFRM_POLICY_IN), 0);
    ASSERT_EQ(fk::sockets().size(), 3u);
    EXPECT_EQ(fk::sockets()[0].sent, std::vector<fk::bytes>{newpolicy(XFRM_POLICY_OUT, 10, bypass, nullptr)});
    EXPECT_EQ(fk::sockets()[1].sent, std::vector<fk::bytes>{delpolicy(XFRM_POLICY_FWD, bypass)});
    EXPECT_EQ(fk::sockets()[2].sent,
              std::vector<fk::bytes>{delpolicy(XFRM_POLICY_IN, sel(L, 32, "10.0.0.0", 8, AF_INET, 0))});
}

TEST_F(XfrmPolicy, FailureFlows)
{
    const auto add = [](int is_tx) {
        return [is_tx] { return tavrel_xfrm_add_policies(&kPair, nullptr, "10.0.0.0/8", "6", is_tx); };
    };
    const auto del = [](int is_tx) {
        return [is_tx] { return tavrel_xfrm_remove_policies(nullptr, "10.0.0.0/8", "6", is_tx); };
    };
    const char *adds = "tavrel_xfrm_add_policies", *dels = "tavrel_xfrm_remove_policies";
    const std::string sent = msg("ERR", "tavrel_xfrm_add_policy", "Sending XFRM policy failed");
    const std::string unsent = msg("ERR", "tavrel_xfrm_remove_policy", "Sending XFRM policy delete failed");
    const uint8_t IN = XFRM_POLICY_IN, OUT = XFRM_POLICY_OUT, FWD = XFRM_POLICY_FWD;
    const struct {
        std::function<int()> call;
        std::vector<int32_t> acks;  // one socket each, in order
        int result;
        std::vector<uint8_t> dirs;
        lines errors;
    } cases[] = {
        {add(1), {0}, 0, {OUT}, {}},
        {add(1), {-EEXIST}, -1, {OUT}, {sent, msg("ERR", adds, "Setting outgoing XFRM policy failed")}},
        {add(0), {0, 0}, 0, {IN, FWD}, {}},
        // Adding stops at a refused input policy; a refused forward one leaves the input one.
        {add(0), {-EEXIST}, -1, {IN}, {sent, msg("ERR", adds, "Setting incoming XFRM policy failed")}},
        {add(0), {0, -EEXIST}, -1, {IN, FWD}, {sent, msg("ERR", adds, "Setting forwarding XFRM policy failed")}},
        {[] { return tavrel_xfrm_add_policies(&kPair, nullptr, nullptr, "6", 1); }, {}, -1, {},
         {msg("ERR", "tavrel_xfrm_set_sel", "selector must have either source or destination"),
          msg("ERR", "tavrel_xfrm_add_policy", "setting policy selector failed"),
          msg("ERR", adds, "Setting outgoing XFRM policy failed")}},
        {del(1), {0}, 0, {OUT}, {}},
        {del(1), {-ENOENT}, -1, {OUT}, {unsent, msg("ERR", dels, "removing outgoing XFRM policy failed")}},
        // Removal goes on after a refused input policy; only the forward result counts.
        {del(0), {-ENOENT, 0}, 0, {IN, FWD}, {unsent, msg("ERR", dels, "removing incoming XFRM policy failed")}},
        {del(0), {0, -ENOENT}, -1, {IN, FWD}, {unsent, msg("ERR", dels, "removing forwarding XFRM policy failed")}},
        {[] { return tavrel_xfrm_remove_policies("10.0.0.0/8", "x", nullptr, 1); }, {}, -1, {},
         {msg("ERR", "tavrel_xfrm_set_address", "invalid IPv4 address x"),
          msg("ERR", "tavrel_xfrm_set_sel", "setting selector destination address failed"),
          msg("ERR", "tavrel_xfrm_remove_policy", "Setting selector failed"),
          msg("ERR", dels, "removing outgoing XFRM policy failed")}},
        {[] { return tavrel_xfrm_add_policy_ex(XFRM_POLICY_IN); }, {-EEXIST}, -1, {IN},
         {msg("ERR", "tavrel_xfrm_add_policy_ex", "Sending XFRM policy failed")}},
        {[] { return tavrel_xfrm_remove_policy_ex(XFRM_POLICY_FWD); }, {-ENOENT}, -1, {FWD}, {unsent}},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(n++));
        fk::reset();
        logcap::start();
        expect_acks(c.acks);
        EXPECT_EQ(c.call(), c.result);
        std::vector<uint8_t> dirs;
        for (const auto &s : fk::sockets()) {
            ASSERT_EQ(s.sent.size(), 1u);
            const bool add_request = reinterpret_cast<const nlmsghdr *>(s.sent[0].data())->nlmsg_type ==
                                     XFRM_MSG_NEWPOLICY;
            dirs.push_back(s.sent[0][NLMSG_HDRLEN + (add_request ? offsetof(xfrm_userpolicy_info, dir)
                                                                  : offsetof(xfrm_userpolicy_id, dir))]);
        }
        EXPECT_EQ(dirs, c.dirs);
        EXPECT_EQ(xfrm_lines("ERR"), c.errors);
        logcap::expect_sinks_agree();
    }
}
