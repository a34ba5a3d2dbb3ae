// Adding security associations: the XFRM_MSG_NEWSA requests built from the modem's configuration
// record and from the daemon's address set; the host model's text format.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/udp.h>

#include <functional>
#include <map>
#include <optional>

#include "tavrel_host_xfrm.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

// After the ID step's two address fetches the family step fetches the direction's own address
// again; a budget of 2 makes that third fetch come back empty (-1: no limit).
static int addr_budget = -1;
#define BUDGETED_ACCESSOR(name)                                                                           \
    extern "C" const tavrel_modem_ip_addr *name(const tavrel_xfrm_sa_cfg *c, uint32_t arg2, uint32_t arg3) \
    {                                                                                                     \
        if (addr_budget >= 0 && addr_budget-- == 0)                                                       \
            return nullptr;                                                                               \
        return reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))(c, arg2, arg3);                  \
    }
BUDGETED_ACCESSOR(tavrel_xfrm_utils_get_local_addr)
BUDGETED_ACCESSOR(tavrel_xfrm_utils_get_dest_addr)

namespace {

using fk::bytes;
using fk::operator+;

// Keys of one repeated byte, as hex in the texts: 0x11 and 0x22 encrypt, 0x33 and 0x44 authenticate, TX and RX.
const std::string kKeyTx(32, '1'), kKeyRx(32, '2'), kHashTx(64, '3'), kHashRx(64, '4');

// One ESP tunnel pair, cbc(aes), hmac(sha256), ESP in UDP from port 4501, in both text formats, as
// "key=value;...".
const std::string kBaseCfg = "local=10.1.0.1;dest=10.2.0.1;protocol=esp;mode=tunnel;spi_tx=0x1000;spi_rx=0x2000;crypto_algo=12;"
                             "aes_mode=cbc;hash_algo=6;udp_encap=1;udp_encap_port=4501;crypto_key_tx=" + kKeyTx +
                             ";crypto_key_rx=" + kKeyRx + ";hash_key_tx=" + kHashTx + ";hash_key_rx=" + kHashRx;
const std::string kBaseSet = "local=10.1.0.1;remote=10.2.0.1;spi_tx=0x1000;spi_rx=0x2000;proto=esp;mode=tunnel;udp_encap=1;"
                             "udp_encap_port=4501;crypto_alg_name=cbc(aes);auth_alg_name=hmac(sha256);auth_trunc_len=128;"
                             "crypto_key_tx=" + kKeyTx + ";crypto_key_rx=" + kKeyRx + ";auth_key_tx=" + kHashTx +
                             ";auth_key_rx=" + kHashRx;

// A record from the base text with changes in the same form; a key given twice takes the later
// value, and an empty value removes it.
template <typename T>
T parsed(int (*parse)(const char *, T *, char *, size_t), const std::string &changes)
{
    std::map<std::string, std::string> values;
    for (size_t at = 0, end; at < changes.size(); at = end + 1) {
        end = std::min(changes.find(';', at), changes.size());
        const size_t eq = changes.find('=', at);
        values[changes.substr(at, eq - at)] = changes.substr(eq + 1, end - eq - 1);
    }
    std::string text;
    for (const auto &[key, value] : values)
        text += value.empty() ? "" : key + " = " + value + "\n";
    T record;
    char error[256];
    EXPECT_EQ(parse(text.c_str(), &record, error, sizeof error), 0) << error;
    return record;
}

tavrel_xfrm_sa_cfg cfg(const std::string &c = "") { return parsed(tavrel_host_sa_cfg_parse, kBaseCfg + ";" + c); }
tavrel_xfrm_addr_set set(const std::string &c = "") { return parsed(tavrel_host_addr_set_parse, kBaseSet + ";" + c); }

template <typename T>
bytes raw(const T &v)
{
    return bytes(reinterpret_cast<const uint8_t *>(&v), reinterpret_cast<const uint8_t *>(&v) + sizeof v);
}

bytes addr(const char *text)  // all zero for none
{
    bytes a(16);
    if (text && inet_pton(AF_INET, text, a.data()) != 1)
        inet_pton(AF_INET6, text, a.data());
    return a;
}

// xfrm_algo: name in 64 bytes, key length in bits, key; xfrm_algo_auth has the truncation length before the key.
bytes crypt(const char *name, const bytes &key, uint16_t type = XFRMA_ALG_CRYPT, const bytes &trunc = {})
{
    bytes n(64);
    memcpy(n.data(), name, strlen(name));
    return fk::attr(type, n + fk::u32_bytes(static_cast<uint32_t>(key.size() * 8)) + trunc + key);
}

bytes auth(const char *name, const bytes &key, uint32_t trunc = 128)
{
    return crypt(name, key, XFRMA_ALG_AUTH_TRUNC, fk::u32_bytes(trunc));
}

// The request of one direction of the base pair, field by field. xfrm_usersa_info: selector; id
// (daddr, spi, proto, padding); saddr; no byte or packet limit, no expiry; current lifetime,
// statistics, seq, reqid; family, mode, replay window, flags, padding. Then the algorithms, ESP in
// UDP (type, ports, padding, original address) and the output mark if any. An attribute given
// `instead` takes the place of the one of its type; one without payload removes it.
bytes request(bool tx, std::optional<uint32_t> mark = {}, const std::vector<bytes> &instead = {},
              const char *local = "10.1.0.1", const char *remote = "10.2.0.1", uint16_t family = AF_INET,
              uint8_t mode = XFRM_MODE_TUNNEL)
{
    const uint8_t flags = tx ? XFRM_STATE_NOPMTUDISC | XFRM_STATE_AF_UNSPEC : XFRM_STATE_AF_UNSPEC;
    const uint16_t encap[] = {UDP_ENCAP_ESPINUDP, htons(tx ? 4501 : 4500), htons(tx ? 4500 : 4501), 0};
    std::vector<bytes> attrs = {crypt("cbc(aes)", bytes(16, tx ? 0x11 : 0x22)),
                                auth("hmac(sha256)", bytes(32, tx ? 0x33 : 0x44)),
                                fk::attr(XFRMA_ENCAP, raw(encap) + bytes(16))};
    if (mark)
        attrs.push_back(fk::attr(XFRMA_SET_MARK, fk::u32_bytes(*mark)));
    bytes all = bytes(56) + addr(tx ? remote : local) + raw(htonl(tx ? 0x1000 : 0x2000)) + bytes{IPPROTO_ESP, 0, 0, 0} +
                addr(tx ? local : remote) + bytes(32, 0xff) + bytes(84) + raw(family) + bytes{mode, 0, flags} + bytes(7);
    for (bytes a : attrs) {
        for (const bytes &other : instead)
            if (other.size() >= NLA_HDRLEN && memcmp(&a[2], &other[2], 2) == 0)
                a = other.size() > NLA_HDRLEN ? other : bytes{};
        all = all + a;
    }
    return fk::datagram({{XFRM_MSG_NEWSA, NLM_F_REQUEST | NLM_F_ACK, all}});
}

// One call against a socket per acknowledgement code, with the output-mark switch as given: its
// result, its requests (all to NETLINK_XFRM) and the log lines of the tavrel_xfrm_ functions (all,
// or those at HIGH and ERR), their names shortened by that prefix. The sinks agree and no socket
// stays open.
struct sa_call {
    std::function<int()> call;
    std::vector<int32_t> acks;
    int result;
    std::vector<bytes> requests;
    bool all_levels;
    std::string log;
    uint32_t mark_switch = 0;
};

void check(const sa_call &c)
{
    fk::reset();
    logcap::start();
    for (int32_t code : c.acks)
        fk::expect_socket().reply(fk::ack(code));
    tavrel_main_cfg.output_mark_enabled = c.mark_switch;
    EXPECT_EQ(c.call(), c.result);
    tavrel_main_cfg.output_mark_enabled = 0;
    EXPECT_EQ(fk::requests_on(NETLINK_XFRM), c.requests);
    std::string log;
    for (const auto &l : logcap::diag_lines())
        if ((c.all_levels || l[0] == 'H' || l[0] == 'E') && l.find(" tavrel_xfrm_") != std::string::npos)
            log += l.substr(0, l.find(' ') + 1) + l.substr(l.find(' ') + 13);
    EXPECT_EQ(log, c.log);
    logcap::expect_sinks_agree();
    EXPECT_EQ(fk::open_descriptors(), 0);
}

// The calls under test, for the tables.
std::function<int()> add_state(const tavrel_xfrm_sa_cfg &c, int tx, int32_t link = 0)
{
    return [&c, tx, link] { return tavrel_xfrm_add_state(&c, 0, 0, tx, link); };
}

std::function<int()> from_set(const tavrel_xfrm_addr_set *s, int tx, int32_t link = 0)
{
    return [s, tx, link] { return tavrel_xfrm_add_state_from_addr_set(s, tx, link); };
}

}  // namespace

class XfrmSa : public TavrelTest {};

TEST_F(XfrmSa, RequestsResultsAndLogs)
{
    // The whole log of a pair from the configuration, per direction.
    const auto side = [](bool tx) {
        char text[1024];
        snprintf(text, sizeof text,
                 "HIGH add_states(): inserting %s XFRM state\nMED set_id_from_config():\t..id.proto = esp\n"
                 "MED set_id_from_config():\t..saddr = 10.%d.0.1\nMED set_id_from_config():\t..id.daddr = 10.%d.0.1\n"
                 "MED set_id_from_config():\t..id.spi = 0x%x\nMED set_mode():\t..mode = tunnel\n"
                 "MED set_crypto_alg():\t..crypt.alg_name = cbc(aes)\nMED set_crypto_alg():\t..crypt.alg_key_len = 128\n"
                 "MED set_crypto_alg():\t..crypt.alg_key = 0x%s\nMED set_auth_alg():\t..auth.algo = hmac(sha256)\n"
                 "MED set_auth_alg():\t..auth.trunc_len = 128\nMED set_auth_alg():\t..auth.key_len = 256\n"
                 "MED set_auth_alg():\t..auth.key = 0x%s\nMED set_encap():\t..encap = %s\n"
                 "MED add_state():\t..sinfo.flags = 0x%x\nMED add_state():\t..sinfo.family = AF_INET\n%s",
                 tx ? "outgoing" : "incoming", tx ? 1 : 2, tx ? 2 : 1, tx ? 0x1000 : 0x2000, (tx ? kKeyTx : kKeyRx).c_str(),
                 (tx ? kHashTx : kHashRx).c_str(), tx ? "4501 -> 4500" : "4500 -> 4501", tx ? 0x24 : 0x20,
                 tx ? "MED add_state():\t..output_mark = 0x20000\n" : "");
        return std::string(text);
    };
    const auto pair = [](const tavrel_xfrm_sa_cfg &c, int32_t link) {
        return [&c, link] { return tavrel_xfrm_add_states(&c, 7, 9, link); };
    };
    const tavrel_xfrm_sa_cfg base = cfg(), no_tx_key = cfg("crypto_key_tx_valid=0"), odd = cfg("local_family=5");
    const tavrel_xfrm_sa_cfg mixed = cfg("dest=2001:db8::2;mode=transport;udp_encap=0");
    const tavrel_xfrm_addr_set plain = set(), zero = set("local_family=0"), rx = set("udp_encap=0");
    const tavrel_xfrm_addr_set unfilled = set("is_valid=0");
    const std::string out = "HIGH add_states(): inserting outgoing XFRM state\n", p = "MED add_state_from_addr_set():\t..";
    const std::string refused = "ERR add_state(): Sending XFRM state failed\n";
    const bytes no_encap = fk::attr(XFRMA_ENCAP, {});
    const auto third_fetch_fails = [](const std::function<int()> &call) {
        return std::function<int()>([call] {
            addr_budget = 2;
            const int result = call();
            addr_budget = -1;
            return result;
        });
    };
    // Both paths with the output-mark switch and link technology given: the address set builds the same request.
    const auto marks = [&](int tx, uint32_t mark_switch, int32_t link, std::optional<uint32_t> mark) {
        const std::function<int()> both = [&base, &plain, tx, link] {
            return add_state(base, tx, link)() + from_set(&plain, tx, link)();
        };
        return sa_call{both, {0, 0}, 0, std::vector<bytes>(2, request(tx, mark)), false, "", mark_switch};
    };
    // One SA from the configuration with changes; empty `instead`: nothing is sent.
    const auto step = [](const std::string &changes, int tx, int result, const bytes &instead, const std::string &log) {
        const std::function<int()> call = [c = cfg(changes), tx] { return tavrel_xfrm_add_state(&c, 0, 0, tx, 0); };
        return sa_call{call, {0}, result, std::vector<bytes>(!instead.empty(), request(tx, {}, {instead})), false, log};
    };
    const std::string P(32, 'a'), E(80, 'e');  // E: more than a primary slot holds
    const bytes tx_key(16, 0x11), rx_hash(32, 0x44), aa(16, 0xaa), ee(40, 0xee);
    const auto sha256 = [](const bytes &key) { return auth("hmac(sha256)", key); };
    const auto fails = [](const char *step, const std::string &function, const std::string &text) {
        return "ERR " + function + "(): " + text + "\nERR add_state(): setting XFRM state " + step + " failed\n";
    };
    const auto id = [&](const char *t) { return fails("ID", "set_id_from_config", t); };
    const auto crypto = [&](const char *t) { return fails("crypto", "set_crypto_alg", t); };
    const auto hash = [&](const char *t) { return fails("auth", "set_auth_alg", t); };
    const char *invalid = "IPSEC addresses or protocol is marked as invalid";
    const sa_call cases[] = {
        {pair(base, -32735), {0, 0}, 0, {request(true, 0x20000), request(false)}, true, side(true) + side(false), 1},
        // The pair stops at a TX result of -1 only, and leaves a TX SA when the RX SA fails.
        {pair(base, 0), {-EEXIST}, -1, {request(true)}, false,
         out + refused + "ERR add_states(): Setting TX XFRM state failed\n"},
        {pair(base, 0), {0, -EEXIST}, -1, {request(true), request(false)}, false,
         out + "HIGH add_states(): inserting incoming XFRM state\n" + refused +
             "ERR add_states(): Setting RX XFRM state failed\n"},
        {pair(no_tx_key, 0), {0}, 0, {request(false)}, false,
         out + "ERR set_crypto_alg(): TX crypto key marked as invalid\nERR add_state(): setting XFRM state crypto failed\n"
              "HIGH add_states(): inserting incoming XFRM state\n"},
        // No known version in the modem's record leaves address and family 0, yet the SA is sent.
        {add_state(odd, 1), {0}, 0, {request(true, {}, {}, nullptr, "10.2.0.1", 0)}, false,
         "ERR set_addr_from_config(): invalid addr family 5\n"},
        // The family step's own fetch of the address coming back empty answers 0 and sends nothing.
        {third_fetch_fails(add_state(base, 1)), {0}, 0, {}, false, "ERR add_state(): Retrieving local addr failed\n"},
        {third_fetch_fails(add_state(base, 0)), {0}, 0, {}, false, "ERR add_state(): Retrieving dest addr failed\n"},
        // An RX SA runs from the peer to the device and takes its family from the peer's address.
        {add_state(mixed, 0), {0}, 0,
         {request(false, {}, {no_encap}, "10.1.0.1", "2001:db8::2", AF_INET6, XFRM_MODE_TRANSPORT)}, false,
         "HIGH set_encap(): not setting encapsulation params\n"},
        // The address set takes anything but 4 for AF_INET6.
        {from_set(&zero, 1), {0}, 0, {request(true, {}, {}, nullptr, "10.2.0.1", AF_INET6)}, false,
         "ERR set_addr_from_recovery(): invalid addr family 0\n"},
        // No encapsulation although the port is filled in; the RX labels differ from the TX ones.
        {from_set(&rx, 0), {0}, 0, {request(false, {}, {no_encap})}, true,
         p + "daddr = 10.1.0.1\n" + p + "id.saddr = 10.2.0.1\n" + p + "id.spi = 0x2000\n" + p + "crypt.alg_key = 0x" + kKeyRx +
             "\n" + p + "crypt.alg_key_len = 128\n" + p + "auth.key_len = 256\n" + p + "auth.key = 0x" + kHashRx + "\n" + p +
             "sinfo.flags = 0x20\n" + p + "sinfo.family = AF_INET\n"},
        {from_set(&unfilled, 1), {}, -1, {}, true, ""},
        {from_set(nullptr, 1), {}, -1, {}, true, "ERR add_state_from_addr_set(): invalid input\n"},
        // TX SAs are marked by link technology while the switch is 1; otherwise only -32640 is marked.
        marks(1, 1, -32735, 0x20000), marks(1, 1, -32640, 0x20001), marks(1, 0, -32640, 0x20002), marks(1, 0, -32735, {}),
        marks(1, 2, -32735, {}), marks(0, 1, -32735, {}), marks(0, 1, -32640, 0x20002), marks(0, 0, 5, {}),
        // The algorithm tables.
        step("crypto_algo=9", 1, 0, crypt("cbc(des)", tx_key), ""),
        step("crypto_algo=10", 1, 0, crypt("cbc(des3_ede)", tx_key), ""),
        step("crypto_algo=19;aes_mode=3;aes_mode_valid=0", 1, 0, crypt("cbc(aes)", tx_key), ""),
        step("crypto_algo=19;aes_mode=ctr", 1, 0, crypt("rfc3686(ctr(aes))", tx_key), ""),
        step("aes_mode=3", 1, 0, {}, crypto("invalid AES mode 3")),
        step("crypto_algo=11", 1, 0, {}, crypto("invalid crypto algo 11")),
        step("hash_algo=5", 0, 0, auth("hmac(sha1)", rx_hash, 96), ""),
        step("hash_algo=7", 0, 0, auth("hmac(md5)", rx_hash, 96), ""),
        step("hash_algo=12", 0, 0, auth("xcbc(aes)", rx_hash, 96), ""),
        step("hash_algo=20", 0, 0, auth("hmac(sha384)", rx_hash, 192), ""),
        step("hash_algo=21", 0, 0, auth("hmac(sha512)", rx_hash, 256), ""),
        step("hash_algo=8", 1, 0, {}, hash("invalid auth algo 8")),
        step("hash_algo=11", 1, 0, {}, hash("invalid auth algo 11")),
        // The hash key: the extended slot before the primary one before the accessors; a slot's
        // flag alone makes the key valid; the other direction's slots do not count.
        step("hash_key_tx_primary=" + P, 1, 0, sha256(aa), ""),
        step("hash_key_rx_valid=0;hash_key_rx_primary=" + P, 0, 0, sha256(aa), ""),
        step("hash_key_tx_primary=" + P + ";hash_key_tx_extended=" + E, 1, 0, sha256(ee), ""),
        step("hash_key_rx=;hash_key_rx_extended=" + E, 0, 0, sha256(ee), ""),
        step("hash_key_tx_extended=" + E + ";hash_key_rx_primary=" + P + ";hash_key_rx_primary_valid=0", 0, 0,
         sha256(rx_hash), ""),
        step("hash_key_tx_valid=0", 1, 0, {}, hash("TX hash key merked as invalid")),
        step("hash_key_rx=;hash_key_rx_valid=1", 0, 0, {}, hash("Retrieving RX key failed")),
        step("udp_encap=0", 1, 0, fk::attr(XFRMA_ENCAP, {}), "HIGH set_encap(): not setting encapsulation params\n"),
        // The ID and mode steps answer -1, the algorithm steps 0; nothing is sent either way.
        step("dest_valid=0", 1, -1, {}, id(invalid)), step("protocol=", 1, -1, {}, id(invalid)),
        step("spi_rx_valid=0", 0, -1, {}, id("RX SPI value is marked as invalid")),
        step("protocol=7", 1, -1, {}, id("Invalid IPSEC protocol 7")),
        step("local=;local_valid=1", 0, -1, {}, id("Retrieving local/dest addresses failed")),
        step("mode_valid=0", 1, -1, {}, fails("mode", "set_mode", "encapsulation mode marked as invalid")),
        step("mode=3", 1, -1, {}, fails("mode", "set_mode", "invalid XFRM mode 0x3")),
        step("crypto_algo_valid=0", 1, 0, {}, crypto("crypto algorithm marked as invalid")),
        step("crypto_key_rx_valid=0", 0, 0, {}, crypto("RX crypto key marked as invalid")),
        step("crypto_key_tx=;crypto_key_tx_valid=1", 1, 0, {}, crypto("Retrieving TX key failed")),
        step("hash_algo_valid=0", 0, 0, {}, hash("hash algo marked as invalid")),
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        check(c);
    }
}

TEST_F(XfrmSa, KeyLengthsBeyondTheirRoom)
{
    // The address set's key is cut at 444 bytes (here into the authentication key behind it in the
    // record); the lengths are not.
    const tavrel_xfrm_addr_set longer = set("crypto_key_len_tx=500;auth_key_tx=" + std::string(800, '7'));
    const auto *from = reinterpret_cast<const uint8_t *>(&longer) + offsetof(tavrel_xfrm_addr_set, crypto_key_tx);
    bytes key(from, from + 444);
    key.resize(500, 0);
    check({from_set(&longer, 1), {0}, 0, {request(true, {}, {crypt("cbc(aes)", key), auth("hmac(sha256)", bytes(400, 0x77))})},
           false, ""});
    // From the configuration 444 crypto and 440 authentication bytes fit and one more stops the
    // process, as does a length whose bits overflow.
    for (const auto &[k, len] : {std::pair<std::string, int>{"crypto_key_tx", 444}, {"hash_key_tx_extended", 440}}) {
        const tavrel_xfrm_sa_cfg fits = cfg(k + "=" + std::string(2 * len, '1'));
        const tavrel_xfrm_sa_cfg over = cfg(k + "=" + std::string(2 * len + 2, '1'));
        fk::expect_socket().reply(fk::ack(0));
        EXPECT_EQ(tavrel_xfrm_add_state(&fits, 0, 0, 1, 0), 0);
        EXPECT_DEATH(tavrel_xfrm_add_state(&over, 0, 0, 1, 0), "") << k;
    }
    const tavrel_xfrm_sa_cfg bits = cfg("hash_key_tx_primary=00;hash_key_tx_primary_len=0xffffffff");
    EXPECT_DEATH(tavrel_xfrm_add_state(&bits, 0, 0, 1, 0), "");
    // From the address set: bits overflowing, the payload length overflowing, an attribute beyond the request.
    for (const char *lengths : {"crypto_key_len_tx=0x20000000", "auth_key_len_tx=0xffffffc0", "crypto_key_len_tx=2000"}) {
        const tavrel_xfrm_addr_set s = set(lengths);
        EXPECT_DEATH(tavrel_xfrm_add_state_from_addr_set(&s, 1, 0), "") << lengths;
    }
}

TEST_F(XfrmSa, TextFormatRejectsBadInputWithTheLine)
{
    tavrel_xfrm_sa_cfg c;
    char error[256];
    const std::pair<const char *, const char *> cases[] = {
        {"# comment\n\nlocal 10.0.0.1\n", "line 3: expected key = value: local 10.0.0.1"},
        {"spi_tx = 1\nspi_tx = 2\n", "line 2: spi_tx given twice"},
        {"spi_tx = 0x100000000\n", "line 1: spi_tx: not an unsigned 32-bit number: 0x100000000"},
        {"hash_key_rx_primary = 0x" "000000000000000000000000000000000000000000000000000000000000000000\n",
         "line 1: hash_key_rx_primary: key of 33 bytes, room for 32"},
    };
    for (const auto &[text, reason] : cases) {
        EXPECT_EQ(tavrel_host_sa_cfg_parse(text, &c, error, sizeof error), -1);
        EXPECT_STREQ(error, reason);
    }
    // Overrides win wherever they stand; a value switches its flag on.
    ASSERT_EQ(tavrel_host_sa_cfg_parse("spi_rx_valid = 0\nspi_rx = 5\nspi_tx = 6\n", &c, error, sizeof error), 0);
    EXPECT_EQ(c.spi_rx_valid, 0);
    EXPECT_EQ(c.spi_tx_valid, 1);
}
