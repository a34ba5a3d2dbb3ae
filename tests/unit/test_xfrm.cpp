// The XFRM requests against the fake kernel: SAs from the modem's configuration record and from the
// daemon's address set, their removal by dump, selectors and policies, and the address conversions.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/udp.h>

#include <functional>
#include <map>
#include <optional>
#include <sstream>

#include "tavrel_host_xfrm.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

// Address fetches left before one comes back empty (-1: no limit); 2 fails the family step's own fetch after the ID step's two.
static int addr_budget = -1;
#define BUDGETED(name) extern "C" const tavrel_modem_ip_addr *name(const tavrel_xfrm_sa_cfg *c, uint32_t a2, uint32_t a3) { \
        const auto next = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name));                                       \
        return addr_budget >= 0 && addr_budget-- == 0 ? nullptr : next(c, a2, a3); }
BUDGETED(tavrel_xfrm_utils_get_local_addr)
BUDGETED(tavrel_xfrm_utils_get_dest_addr)

namespace {

// The 16 address bytes of an address text, all zero for none.
bytes addr(const char *text) { return raw(ip(text).addr); }

// The kernel's structures field by field, padding included. xfrm_usersa_info: selector; id (daddr, spi, proto, padding);
// saddr; no byte or packet limit, no expiry; current lifetime, statistics, seq, reqid; family, mode, replay window, flags.
bytes usersa(const char *src, const char *dst, uint32_t spi, uint16_t fam, uint8_t proto = 50, uint8_t mode = 0, uint8_t fl = 0)
{
    return bytes(56) + addr(dst) + raw(htonl(spi)) + bytes{proto, 0, 0, 0} + addr(src) + bytes(32, 0xff) + bytes(84) + raw(fam) +
           bytes{mode, 0, fl} + bytes(7);
}

// xfrm_algo: name in 64 bytes, key length in bits, key; xfrm_algo_auth has the truncation length before the key.
bytes crypt(const char *name, const bytes &key, uint16_t type = XFRMA_ALG_CRYPT, const bytes &trunc = {})
{
    const std::string n = name + std::string(64 - strlen(name), '\0');
    return fk::attr(type, bytes(n.begin(), n.end()) + fk::u32_bytes(static_cast<uint32_t>(key.size() * 8)) + trunc + key);
}
bytes auth(const char *name, const bytes &key, uint32_t trunc = 128)
{ return crypt(name, key, XFRMA_ALG_AUTH_TRUNC, fk::u32_bytes(trunc)); }

// One direction of the base pair below: algorithms, ESP in UDP (type, ports, padding, original address), output mark if
// any. An attribute given `instead` takes the place of the one of its type; one without payload removes it.
bytes request(bool tx, std::optional<uint32_t> mark = {}, const std::vector<bytes> &instead = {}, const char *local = "10.1.0.1",
              const char *remote = "10.2.0.1", uint16_t family = AF_INET, uint8_t mode = XFRM_MODE_TUNNEL)
{
    const uint16_t encap[] = {UDP_ENCAP_ESPINUDP, htons(tx ? 4501 : 4500), htons(tx ? 4500 : 4501), 0};
    bytes all = usersa(tx ? local : remote, tx ? remote : local, tx ? 0x1000 : 0x2000, family, IPPROTO_ESP, mode,
                       tx ? XFRM_STATE_NOPMTUDISC | XFRM_STATE_AF_UNSPEC : XFRM_STATE_AF_UNSPEC);
    for (bytes a : {crypt("cbc(aes)", bytes(16, tx ? 0x11 : 0x22)), auth("hmac(sha256)", bytes(32, tx ? 0x33 : 0x44)),
                    fk::attr(XFRMA_ENCAP, raw(encap) + bytes(16))}) {
        for (const bytes &other : instead)
            if (other.size() >= NLA_HDRLEN && memcmp(&a[2], &other[2], 2) == 0)
                a = other.size() > NLA_HDRLEN ? other : bytes{};
        all = all + a;
    }
    const bytes marked = mark ? fk::attr(XFRMA_SET_MARK, fk::u32_bytes(*mark)) : bytes{};
    return fk::datagram({{XFRM_MSG_NEWSA, NLM_F_REQUEST | NLM_F_ACK, all + marked}});
}

// xfrm_selector: daddr, saddr, ports and masks, family, prefix lengths, proto, padding, ifindex, user.
bytes sel(const char *src, uint8_t plen_s, const char *dst, uint8_t plen_d, uint16_t family, uint8_t proto)
{ return addr(dst) + addr(src) + bytes(8) + raw(family) + bytes{plen_d, plen_s, proto, 0, 0, 0} + bytes(8); }

// xfrm_userpolicy_info: selector; no byte or packet limit, no expiry; current lifetime; priority, index, dir, action,
// flags, share, padding. A tunnel policy (priority 100) has a template.
bytes newpolicy(uint8_t dir, uint32_t priority, const bytes &sel, const bytes &tmpl = {})
{
    const bytes info = sel + bytes(32, 0xff) + bytes(64) + raw(priority) + bytes(4) + bytes{dir, 0, 0, 0, 0, 0, 0, 0};
    return fk::datagram({{XFRM_MSG_NEWPOLICY, NLM_F_REQUEST | NLM_F_ACK, info + tmpl}});
}

// xfrm_user_tmpl: id (daddr, spi, proto, padding), family, padding, saddr, reqid, mode, share, optional, padding, algorithms.
bytes tmpl(const char *saddr, const char *daddr, uint32_t spi, uint8_t proto, uint16_t family, uint8_t mode)
{
    return fk::attr(XFRMA_TMPL, addr(daddr) + raw(htonl(spi)) + bytes{proto, 0, 0, 0} + raw(family) + bytes(2) +
                                    addr(saddr) + bytes(4) + bytes{mode, 0, 0, 0} + bytes(12, 0xff));
}

// xfrm_userpolicy_id: selector, index, dir, padding.
bytes delpolicy(uint8_t dir, const bytes &sel)
{ return fk::datagram({{XFRM_MSG_DELPOLICY, NLM_F_REQUEST | NLM_F_ACK, sel + bytes(4) + bytes{dir, 0, 0, 0}}}); }

// Per row, one call against a dump socket (if `dump` is given), then a socket per acknowledgement code: its result, its
// requests (all to NETLINK_XFRM), the log lines of the tavrel_xfrm_ functions (all, or those at HIGH and ERR) without
// that prefix. The sinks agree and no socket stays open.
struct xcall {
    std::function<int()> call;
    std::vector<int32_t> acks;
    int result;
    std::vector<bytes> requests;
    std::string log;
    bool all_levels = false;
    std::vector<bytes> dump = {};
};

template <size_t N>
void check(const xcall (&rows)[N])
{
    for (const xcall &c : rows) {
        SCOPED_TRACE("row " + std::to_string(&c - rows));
        fk::reset(), logcap::start();
        if (!c.dump.empty())
            fk::expect_socket().replies = c.dump;
        for (int32_t code : c.acks)
            fk::expect_socket().reply(fk::ack(code));
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(fk::requests_on(NETLINK_XFRM), c.requests);
        std::string log;
        for (const auto &l : logcap::diag_lines())
            if ((c.all_levels || l[0] == 'H' || l[0] == 'E') && l.find(" tavrel_xfrm_") != std::string::npos)
                log += l.substr(0, l.find(' ') + 1) + l.substr(l.find(' ') + 13);
        EXPECT_EQ(log, c.log);
        logcap::expect_sinks_agree();
        EXPECT_EQ(fk::open_descriptors(), 0);
    }
}

// Keys of one repeated byte, as hex in the texts: 0x11 and 0x22 encrypt, 0x33 and 0x44 authenticate, TX and RX.
const std::string kKeyTx(32, '1'), kKeyRx(32, '2'), kHashTx(64, '3'), kHashRx(64, '4');

// One ESP tunnel pair, cbc(aes), hmac(sha256), ESP in UDP from port 4501, in both text formats.
const std::string kBaseCfg = "local=10.1.0.1;dest=10.2.0.1;protocol=esp;mode=tunnel;spi_tx=0x1000;spi_rx=0x2000;crypto_algo=12;"
                             "aes_mode=cbc;hash_algo=6;udp_encap=1;udp_encap_port=4501;crypto_key_tx=" + kKeyTx +
                             ";crypto_key_rx=" + kKeyRx + ";hash_key_tx=" + kHashTx + ";hash_key_rx=" + kHashRx;
const std::string kBaseSet = "local=10.1.0.1;remote=10.2.0.1;spi_tx=0x1000;spi_rx=0x2000;proto=esp;mode=tunnel;udp_encap=1;"
                             "udp_encap_port=4501;crypto_alg_name=cbc(aes);auth_alg_name=hmac(sha256);auth_trunc_len=128;"
                             "crypto_key_tx=" + kKeyTx + ";crypto_key_rx=" + kKeyRx + ";auth_key_tx=" + kHashTx +
                             ";auth_key_rx=" + kHashRx;

// "MED function():\t..text\n" for each text of "text|text|...".
std::string med(const std::string &function, const std::string &texts)
{
    std::string out;
    std::istringstream in(texts);
    for (std::string t; std::getline(in, t, '|');)
        out += "MED " + function + "():\t.." + t + "\n";
    return out;
}

// A record from a "key=value;..." text; a key given twice takes the later value, an empty value removes it.
template <typename T>
T parsed(int (*parse)(const char *, T *, char *, size_t), const std::string &changes)
{
    std::map<std::string, std::string> values;
    std::istringstream in(changes);
    for (std::string kv; std::getline(in, kv, ';');)
        values[kv.substr(0, kv.find('='))] = kv.substr(kv.find('=') + 1);
    std::string text;
    for (const auto &[key, value] : values)
        text += value.empty() ? "" : key + " = " + value + "\n";
    T record;
    char error[256] = "";
    EXPECT_EQ(parse(text.c_str(), &record, error, sizeof error), 0) << error;
    return record;
}
tavrel_xfrm_sa_cfg cfg(const std::string &c = "") { return parsed(tavrel_host_sa_cfg_parse, kBaseCfg + ";" + c); }
tavrel_xfrm_addr_set set(const std::string &c = "") { return parsed(tavrel_host_addr_set_parse, kBaseSet + ";" + c); }

std::function<int()> add_state(const tavrel_xfrm_sa_cfg &c, int tx, int32_t link = 0)
{ return [&c, tx, link] { return tavrel_xfrm_add_state(&c, 0, 0, tx, link); }; }
std::function<int()> from_set(const tavrel_xfrm_addr_set *s, int tx, int32_t link = 0)
{ return [s, tx, link] { return tavrel_xfrm_add_state_from_addr_set(s, tx, link); }; }

const char *const L = "192.0.2.1", *const R = "198.51.100.2", *const V6 = "2001:db8::2";

class Xfrm : public TavrelTest {};

TEST_F(Xfrm, StatesRequestsResultsAndLogs)
{
    // The whole log of a pair from the configuration, per direction.
    const auto side = [](bool tx) {
        const std::string a = tx ? "1" : "2", b = tx ? "2" : "1", key = tx ? kKeyTx : kKeyRx, hash = tx ? kHashTx : kHashRx;
        return std::string("HIGH add_states(): inserting ") + (tx ? "outgoing" : "incoming") + " XFRM state\n" +
               med("set_id_from_config", "id.proto = esp|saddr = 10." + a + ".0.1|id.daddr = 10." + b + ".0.1|id.spi = 0x" + a +
                                             "000") + med("set_mode", "mode = tunnel") +
               med("set_crypto_alg", "crypt.alg_name = cbc(aes)|crypt.alg_key_len = 128|crypt.alg_key = 0x" + key) +
               med("set_auth_alg", "auth.algo = hmac(sha256)|auth.trunc_len = 128|auth.key_len = 256|auth.key = 0x" + hash) +
               med("set_encap", tx ? "encap = 4501 -> 4500" : "encap = 4500 -> 4501") +
               med("add_state", std::string("sinfo.flags = 0x2") + (tx ? "4|sinfo.family = AF_INET|output_mark = 0x20000"
                                                                          : "0|sinfo.family = AF_INET"));
    };
    const auto pair = [](const auto &c, int32_t link) { return [&c, link] { return tavrel_xfrm_add_states(&c, 7, 9, link); }; };
    auto &mark_switch = tavrel_main_cfg.output_mark_enabled;
    // A call with a global set for its duration: the address budget or the output-mark switch.
    const auto with = [](auto &global, auto value, const std::function<int()> &call) {
        return [&global, value, call] { const auto old = global; global = value; const int r = call(); global = old; return r; };
    };
    const tavrel_xfrm_sa_cfg base = cfg(), no_tx_key = cfg("crypto_key_tx_valid=0"), odd = cfg("local_family=5");
    const tavrel_xfrm_sa_cfg mixed = cfg("dest=2001:db8::2;mode=transport;udp_encap=0");
    const tavrel_xfrm_addr_set plain = set(), zero = set("local_family=0"), unfilled = set("is_valid=0");
    const tavrel_xfrm_addr_set rx = set("udp_encap=0;remote=2001:db8::2");
    const bytes no_encap = fk::attr(XFRMA_ENCAP, {});
    // Both paths with the output-mark switch and link technology given: the address set builds the same request.
    const auto marks = [&](int tx, uint32_t on, int32_t link, std::optional<uint32_t> mark) {
        const auto both = [&base, &plain, tx, link] { return add_state(base, tx, link)() + from_set(&plain, tx, link)(); };
        return xcall{with(mark_switch, on, both), {0, 0}, 0, std::vector<bytes>(2, request(tx, mark)), ""};
    };
    // One SA from the configuration with changes; empty `instead`: nothing is sent.
    const auto step = [](const std::string &changes, int tx, const bytes &instead, const std::string &log = "", int result = 0) {
        const std::function<int()> call = [c = cfg(changes), tx] { return tavrel_xfrm_add_state(&c, 0, 0, tx, 0); };
        return xcall{call, {0}, result, std::vector<bytes>(!instead.empty(), request(tx, {}, {instead})), log};
    };
    const std::string P(32, 'a'), E(80, 'e');  // E: more than a primary slot holds
    const bytes k1(16, 0x11), k4(32, 0x44), aa(16, 0xaa), ee(40, 0xee);
    const auto sha256 = [](const bytes &key) { return auth("hmac(sha256)", key); };
    const auto fails = [](const char *step, const std::string &function, const std::string &text) {
        return "ERR " + function + "(): " + text + "\nERR add_state(): setting XFRM state " + step + " failed\n";
    };
    const auto id = [&](const char *t) { return fails("ID", "set_id_from_config", t); };
    const auto crypto = [&](const char *t) { return fails("crypto", "set_crypto_alg", t); };
    const auto hash = [&](const char *t) { return fails("auth", "set_auth_alg", t); };
    const char *invalid = "IPSEC addresses or protocol is marked as invalid";
    // The address set's key is cut at 444 bytes (here into the authentication key behind it in the record); its length is not.
    const tavrel_xfrm_addr_set longer = set("crypto_key_len_tx=500;auth_key_tx=" + std::string(800, '7'));
    const auto *from = reinterpret_cast<const uint8_t *>(&longer) + offsetof(tavrel_xfrm_addr_set, crypto_key_tx);
    const bytes cut = bytes(from, from + 444) + bytes(56);
    const xcall cases[] = {
        {with(mark_switch, 1u, pair(base, -32735)), {0, 0}, 0, {request(true, 0x20000), request(false)}, side(1) + side(0), true},
        // A TX SA that fails before it is sent answers 0: the pair goes on (the fault matrix has the refused SAs).
        {pair(no_tx_key, 0), {0}, 0, {request(false)},
         "HIGH add_states(): inserting outgoing XFRM state\nERR set_crypto_alg(): TX crypto key marked as invalid\n"
         "ERR add_state(): setting XFRM state crypto failed\nHIGH add_states(): inserting incoming XFRM state\n"},
        // No known version in the modem's record leaves address and family 0, yet the SA is sent.
        {add_state(odd, 1), {0}, 0, {request(1, {}, {}, nullptr, "10.2.0.1", 0)},
         "ERR set_addr_from_config(): invalid addr family 5\n"},
        // The family step's own fetch of the address coming back empty answers 0 and sends nothing.
        {with(addr_budget, 2, add_state(base, 1)), {0}, 0, {}, "ERR add_state(): Retrieving local addr failed\n"},
        {with(addr_budget, 2, add_state(base, 0)), {0}, 0, {}, "ERR add_state(): Retrieving dest addr failed\n"},
        // An RX SA runs from the peer to the device and takes its family from the peer's address.
        {add_state(mixed, 0), {0}, 0, {request(0, {}, {no_encap}, "10.1.0.1", "2001:db8::2", AF_INET6, XFRM_MODE_TRANSPORT)},
         "HIGH set_encap(): not setting encapsulation params\n"},
        // The address set takes anything but 4 for AF_INET6.
        {from_set(&zero, 1), {0}, 0, {request(1, {}, {}, nullptr, "10.2.0.1", AF_INET6)},
         "ERR set_addr_from_recovery(): invalid addr family 0\n"},
        // No encapsulation although the port is filled in; the RX labels differ from the TX ones; the local address
        // decides the family.
        {from_set(&rx, 0), {0}, 0, {request(false, {}, {no_encap}, "10.1.0.1", V6)},
         med("add_state_from_addr_set", "daddr = 10.1.0.1|id.saddr = 2001:db8::2|id.spi = 0x2000|crypt.alg_key = 0x" + kKeyRx +
                                            "|crypt.alg_key_len = 128|auth.key_len = 256|auth.key = 0x" + kHashRx +
                                            "|sinfo.flags = 0x20|sinfo.family = AF_INET"), true},
        {from_set(&unfilled, 1), {}, -1, {}, "", true},
        {from_set(nullptr, 1), {}, -1, {}, "ERR add_state_from_addr_set(): invalid input\n"},
        {from_set(&longer, 1), {0}, 0, {request(true, {}, {crypt("cbc(aes)", cut), auth("hmac(sha256)", bytes(400, 0x77))})}, ""},
        // TX SAs are marked by link technology while the switch is exactly 1 (-32735 in the first row); otherwise only
        // -32640 is marked.
        marks(1, 1, -32640, 0x20001), marks(1, 0, -32640, 0x20002), marks(1, 2, -32735, {}), marks(0, 1, -32640, 0x20002),
        // The algorithm tables.
        step("crypto_algo=9", 1, crypt("cbc(des)", k1)), step("crypto_algo=10", 1, crypt("cbc(des3_ede)", k1)),
        step("crypto_algo=19;aes_mode=3;aes_mode_valid=0", 1, crypt("cbc(aes)", k1)),
        step("crypto_algo=19;aes_mode=ctr", 1, crypt("rfc3686(ctr(aes))", k1)),
        step("aes_mode=3", 1, {}, crypto("invalid AES mode 3")), step("crypto_algo=11", 1, {}, crypto("invalid crypto algo 11")),
        step("hash_algo=5", 0, auth("hmac(sha1)", k4, 96)), step("hash_algo=7", 0, auth("hmac(md5)", k4, 96)),
        step("hash_algo=12", 0, auth("xcbc(aes)", k4, 96)), step("hash_algo=20", 0, auth("hmac(sha384)", k4, 192)),
        step("hash_algo=21", 0, auth("hmac(sha512)", k4, 256)), step("hash_algo=8", 1, {}, hash("invalid auth algo 8")),
        // The hash key: the extended slot before the primary one before the accessors; a slot's
        // flag alone makes the key valid; the other direction's slots do not count.
        step("hash_key_tx_primary=" + P, 1, sha256(aa)), step("hash_key_rx_valid=0;hash_key_rx_primary=" + P, 0, sha256(aa)),
        step("hash_key_tx_primary=" + P + ";hash_key_tx_extended=" + E, 1, sha256(ee)),
        step("hash_key_rx=;hash_key_rx_extended=" + E, 0, sha256(ee)),
        step("hash_key_tx_extended=" + E + ";hash_key_rx_primary=" + P + ";hash_key_rx_primary_valid=0", 0, sha256(k4)),
        step("crypto_key_tx=" + std::string(888, '1'), 1, crypt("cbc(aes)", bytes(444, 0x11))),
        step("hash_key_tx_extended=" + std::string(880, '1'), 1, sha256(bytes(440, 0x11))),
        step("hash_key_tx_valid=0", 1, {}, hash("TX hash key merked as invalid")),
        step("hash_key_rx=;hash_key_rx_valid=1", 0, {}, hash("Retrieving RX key failed")),
        // The ID and mode steps answer -1, the algorithm steps 0; nothing is sent either way.
        step("dest_valid=0", 1, {}, id(invalid), -1), step("protocol=", 1, {}, id(invalid), -1),
        step("spi_rx_valid=0", 0, {}, id("RX SPI value is marked as invalid"), -1),
        step("protocol=7", 1, {}, id("Invalid IPSEC protocol 7"), -1),
        step("local=;local_valid=1", 0, {}, id("Retrieving local/dest addresses failed"), -1),
        step("mode_valid=0", 1, {}, fails("mode", "set_mode", "encapsulation mode marked as invalid"), -1),
        step("mode=3", 1, {}, fails("mode", "set_mode", "invalid XFRM mode 0x3"), -1),
        step("crypto_algo_valid=0", 1, {}, crypto("crypto algorithm marked as invalid")),
        step("crypto_key_rx_valid=0", 0, {}, crypto("RX crypto key marked as invalid")),
        step("crypto_key_tx=;crypto_key_tx_valid=1", 1, {}, crypto("Retrieving TX key failed")),
        step("hash_algo_valid=0", 0, {}, hash("hash algo marked as invalid")),
    };
    check(cases);
}

TEST_F(Xfrm, KeyLengthsBeyondTheirRoomStopTheProcess)
{
    // One byte more than the configuration holds (444 crypto, 440 authentication bytes fit, see above), a length whose bits
    // overflow; from the address set bits or the payload length overflowing, an attribute beyond the request.
    for (const std::string &c : {"crypto_key_tx=" + std::string(890, '1'), "hash_key_tx_extended=" + std::string(882, '1'),
                                 std::string("hash_key_tx_primary=00;hash_key_tx_primary_len=0xffffffff")}) {
        const tavrel_xfrm_sa_cfg over = cfg(c);
        EXPECT_DEATH(tavrel_xfrm_add_state(&over, 0, 0, 1, 0), "") << c;
    }
    for (const char *lengths : {"crypto_key_len_tx=0x20000000", "auth_key_len_tx=0xffffffc0", "crypto_key_len_tx=2000"}) {
        const tavrel_xfrm_addr_set s = set(lengths);
        EXPECT_DEATH(tavrel_xfrm_add_state_from_addr_set(&s, 1, 0), "") << lengths;
    }
}

TEST_F(Xfrm, RemoveStatesDeletesThePairsEntriesOnly)
{
    struct sa { const char *src, *dst; uint32_t spi; uint8_t proto; uint16_t family = AF_INET; };
    const auto dumped = [](const sa &e, uint32_t len = 0, uint16_t type = XFRM_MSG_NEWSA) {
        return fk::msg{type, NLM_F_MULTI, usersa(e.src, e.dst, e.spi, e.family, e.proto), len};
    };
    // Deleted by the entry's own key, xfrm_usersa_id (daddr, spi, family, proto, padding), and source.
    const auto delsa = [](const sa &e) {
        const bytes id = addr(e.dst) + raw(htonl(e.spi)) + raw(e.family) + bytes{e.proto, 0};
        return fk::datagram({{XFRM_MSG_DELSA, NLM_F_REQUEST | NLM_F_ACK, id + fk::attr(XFRMA_SRCADDR, addr(e.src))}});
    };
    // The texts come from the block, the SPI from the kernel in host order.
    const auto removed = [](const char *dir, const std::string &src, const std::string &dst, const char *spi) {
        return "HIGH remove_state_cb(): removing " + std::string(dir) + " XFRM state\n" +
               med("remove_state_cb", "src " + src + "|dst " + dst + "|proto 50|spi " + spi);
    };
    const std::string low = "LOW remove_state_cb(): ignoring non-";
    static const tavrel_xfrm_sa_addrs pair = {ip(L), ip(R), 0x1000, 0x2000, 50, 1}, same = {ip(L), ip(R), 9, 9, 51, 1};
    const bytes getsa = fk::datagram({{XFRM_MSG_GETSA, NLM_F_REQUEST | NLM_F_DUMP, {}}});
    // Only protocol and SPI decide for a family that is neither IPv4 nor IPv6.
    const sa tx{L, R, 0x1000, 50}, rx{R, L, 0x2000, 50}, any{V6, "::1", 0x2000, 50, 0};
    const xcall cases[] = {
        // (The fault matrix has a refused deletion and a failed dump.)
        {[] { return tavrel_xfrm_remove_states(&pair); }, {0, 0, 0}, 0, {getsa, delsa(tx), delsa(rx), delsa(any)},
         removed("TX", L, R, "0x1000") + low + "matching TX address\n" + low + "matching RX address\n" +
             removed("RX", R, L, "0x2000") + removed("RX", R, L, "0x2000") + low + "matching SPI\n" + low +
             "XFRM state message\nERR remove_state_cb(): invalid XFRM state message received\n", true,
         {fk::datagram({dumped(tx), dumped({R, L, 0x1000, 50}), dumped({L, R, 0x2000, 50}), dumped(rx), dumped(any)}),
          fk::datagram({dumped({L, R, 0x3000, 50}), dumped(tx, 0, XFRM_MSG_NEWPOLICY), dumped(tx, 239)}) + fk::done()}},
        // With equal SPIs an entry is never tried as RX.
        {[] { return tavrel_xfrm_remove_states(&same); }, {}, 0, {getsa},
         low + "matching TX address\n" + low + "matching protocol\n", true,
         {fk::datagram({dumped({R, L, 9, 51}), dumped({L, R, 9, 50})}) + fk::done()}},
    };
    check(cases);
}

TEST_F(Xfrm, PolicyRequestsResultsAndLogs)
{
    // Mixed versions show where each template field comes from.
    static const tavrel_xfrm_sa_addrs pair = {ip(L), ip(V6), 0x1000, 0x2000, 50, 0};
    static const tavrel_xfrm_sa_addrs ah = {ip(L), ip(R), 0x1000, 0x2000, 51, 1}, odd = {ip(R), {}, 1, 2, 17, 4};
    const bytes s10 = sel(nullptr, 0, "10.0.0.0", 8, AF_INET, 6), fe80 = sel(nullptr, 0, "fe80::", 64, AF_INET6, 58);
    const uint8_t IN = XFRM_POLICY_IN, OUT = XFRM_POLICY_OUT, FWD = XFRM_POLICY_FWD;
    const auto in = [&](uint8_t dir) { return newpolicy(dir, 100, s10, tmpl(V6, L, 0x2000, 50, AF_INET6, 0)); };
    const auto add = [](int tx) { return [=] { return tavrel_xfrm_add_policies(&pair, nullptr, "10.0.0.0/8", "6", tx); }; };
    const auto del = [](int tx) { return [=] { return tavrel_xfrm_remove_policies(nullptr, "10.0.0.0/8", "6", tx); }; };
    const std::string ins = "HIGH add_policies(): Inserting ", rem = "HIGH remove_policies(): Removing ";
    const std::string unsel = "ERR set_sel(): setting selector ", id = "set_id_from_recovery";
    // Address texts: a prefix is read in any base and cut to a byte, an empty one is 0; a text is cut to 63 characters
    // (here the prefix reads octal 01 instead of 012); a colon makes it IPv6.
    const std::string cut = "1.2.3.4/" + std::string(54, '0') + "12";
    const auto texts = [](const char *src, const char *dst, const bytes &selector) {
        return xcall{[=] { return tavrel_xfrm_remove_policy(src, dst, nullptr, XFRM_POLICY_OUT); }, {0}, 0,
                     {delpolicy(XFRM_POLICY_OUT, selector)}, ""};
    };
    const xcall cases[] = {
        // Texts are logged as given, so a prefix shows twice; the destination's family wins; the
        // protocol is read in any base and cut to a byte.
        {[] { return tavrel_xfrm_add_policy(&ah, "10.0.0.0/8", "2001:db8::1", "0x12c", XFRM_POLICY_OUT); }, {0}, 0,
         {newpolicy(OUT, 100, sel("10.0.0.0", 8, "2001:db8::1", 128, AF_INET6, 44), tmpl(L, R, 0x1000, 51, AF_INET, 1))},
         med("set_sel", "sel.saddr = 10.0.0.0/8/8|sel.daddr = 2001:db8::1/128|sel.proto = 0x12c") +
             med(id, "id.proto = ah|saddr = 192.0.2.1|id.daddr = 198.51.100.2|id.spi = 0x1000") +
             med("set_tmpl", "tmpl.mode = tunnel|tmpl.family = AF_INET"), true},
        // A protocol that converts to 0 is logged as a failure, yet succeeds. An unknown version
        // leaves the address and the family 0; the policy is still sent.
        {[] { return tavrel_xfrm_add_policy(&odd, L, nullptr, "256", XFRM_POLICY_FWD); }, {0}, 0,
         {newpolicy(FWD, 100, sel(L, 32, nullptr, 0, AF_INET, 0), tmpl(nullptr, R, 2, 17, 0, 4))},
         med("set_sel", "sel.saddr = 192.0.2.1/32") + unsel + "protocol to 256 failed\n" +
             med(id, "id.proto = esp|saddr = <invalid family 0>|id.daddr = 198.51.100.2") +
             "ERR set_addr_from_recovery(): invalid addr family 0\n" + med(id, "id.spi = 0x2") +
             med("set_tmpl", "tmpl.mode = transport|tmpl.family = AF_INET6"), true},
        // The pairs' directions (the fault matrix has the refused input and forward policies).
        {add(1), {0}, 0, {newpolicy(OUT, 100, s10, tmpl(L, V6, 0x1000, 50, AF_INET, 0))}, ins + "output XFRM policy\n"},
        {add(0), {0, 0}, 0, {in(IN), in(FWD)}, ins + "input XFRM policy\n" + ins + "forward XFRM policy\n"},
        {del(1), {0}, 0, {delpolicy(OUT, s10)}, rem + "output XFRM policy\n"},
        {del(0), {0, 0}, 0, {delpolicy(IN, s10), delpolicy(FWD, s10)},
         rem + "input XFRM policy\n" + rem + "forward XFRM policy\n"},
        {[] { return tavrel_xfrm_add_policies(&pair, nullptr, nullptr, "6", 1); }, {}, -1, {},
         ins + "output XFRM policy\nERR set_sel(): selector must have either source or destination\n"
               "ERR add_policy(): setting policy selector failed\nERR add_policies(): Setting outgoing XFRM policy failed\n"},
        texts("10.0.0.1/", "10.0.0.1/0x18", sel("10.0.0.1", 0, "10.0.0.1", 24, AF_INET, 0)),
        texts("1.2.3.4/8x", "10.0.0.1/300", sel("1.2.3.4", 8, "10.0.0.1", 44, AF_INET, 0)),
        texts(cut.c_str(), "::ffff:1.2.3.4", sel("1.2.3.4", 1, "::ffff:1.2.3.4", 128, AF_INET6, 0)),
        // An invalid address is logged without its prefix.
        {[] { return tavrel_xfrm_remove_policies("fe80::g/64", "x", nullptr, 1); }, {}, -1, {},
         rem + "output XFRM policy\nERR set_address(): invalid IPv6 address fe80::g\n" + unsel + "source address failed\n"
             "ERR remove_policy(): Setting selector failed\nERR remove_policies(): removing outgoing XFRM policy failed\n"},
        {[] { return tavrel_xfrm_remove_policy(L, "x", nullptr, 0); }, {}, -1, {},
         "ERR set_address(): invalid IPv4 address x\n" + unsel +
             "destination address failed\nERR remove_policy(): Setting selector failed\n"},
        {[] { return tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT); }, {0}, 0, {newpolicy(OUT, 10, fe80)}, ""},
        {[] { return tavrel_xfrm_remove_policy_ex(XFRM_POLICY_FWD); }, {0}, 0, {delpolicy(FWD, fe80)}, ""},
    };
    check(cases);
}

TEST_F(Xfrm, AddressComparisonAndModemRecords)
{
    const tavrel_ip_addr v4{4, 4, {10, 0, 0, 1}}, other{4, 4, {10, 0, 0, 2}}, v6{6, 16, {0xfe, 0x80, 0, 1}};
    const tavrel_ip_addr v6_marked_v4{4, 16, {0xfe, 0x80, 0, 1}}, v4_tail{4, 4, {10, 0, 0, 1, 7}};
    const auto cmp = [](const tavrel_ip_addr &a, unsigned family, const tavrel_ip_addr &element) {
        return tavrel_xfrm_addr_cmp(reinterpret_cast<const xfrm_address_t *>(a.addr), family, &element);
    };
    // Per version: equal (IPv4 by its 4 bytes only), another address, an element of the other version; IPv6 bytes in an
    // element marked IPv4; families other than 2 and 10.
    EXPECT_EQ((std::vector<int>{cmp(v4, AF_INET, v4_tail), cmp(other, AF_INET, v4), cmp(v4, AF_INET, v6), cmp(v6, AF_INET6, v6),
                                cmp(v4, AF_INET6, v6), cmp(v6, AF_INET6, v4), cmp(v6, AF_INET6, v6_marked_v4), cmp(other, 0, v4),
                                cmp(other, 7, v6)}),
              (std::vector<int>{0, 1, 1, 0, 1, 1, 1, 0, 0}));
    // The modem's IPv6 record counts its valid bytes (the daemon's always gives 16, as the policies show); more than an
    // address holds would overwrite the request around it. Invalid families: see the SA and policy rows.
    xfrm_address_t a;
    memset(&a, 0xAB, sizeof a);
    const tavrel_modem_ip_addr m6{6, 8, {1, 2, 3, 4, 5, 6, 7, 8, 9, 9}}, m17{6, 17, {}};
    tavrel_xfrm_set_addr_from_config(&a, &m6);
    EXPECT_EQ(raw(a), (bytes{1, 2, 3, 4, 5, 6, 7, 8} + bytes(8, 0xAB)));
    EXPECT_DEATH(tavrel_xfrm_set_addr_from_config(&a, &m17), "");
}

}  // namespace
