// Adding security associations: the XFRM_MSG_NEWSA requests built from the
// modem's configuration record and from the daemon's address set.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <linux/udp.h>

#include <map>
#include <optional>

#include "tavrel_host_xfrm.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

// The family step fetches the direction's own address a second time; a
// budget of 1 makes that second fetch come back empty.
static int addr_budget[2] = {-1, -1};  // local, dest

static const tavrel_modem_ip_addr *budgeted(int which, const char *name, const tavrel_xfrm_sa_cfg *c)
{
    if (addr_budget[which] == 0)
        return nullptr;
    if (addr_budget[which] > 0)
        addr_budget[which]--;
    using accessor = const tavrel_modem_ip_addr *(*)(const tavrel_xfrm_sa_cfg *, uint32_t, uint32_t);
    return reinterpret_cast<accessor>(dlsym(RTLD_NEXT, name))(c, 0, 0);
}

extern "C" const tavrel_modem_ip_addr *tavrel_xfrm_utils_get_local_addr(const tavrel_xfrm_sa_cfg *c, uint32_t, uint32_t)
{
    return budgeted(0, "tavrel_xfrm_utils_get_local_addr", c);
}

extern "C" const tavrel_modem_ip_addr *tavrel_xfrm_utils_get_dest_addr(const tavrel_xfrm_sa_cfg *c, uint32_t, uint32_t)
{
    return budgeted(1, "tavrel_xfrm_utils_get_dest_addr", c);
}

namespace {

using fk::bytes;
using fk::operator+;
using changes = std::map<std::string, std::string>;  // key -> value; "" removes the key
using keyvals = std::vector<std::pair<std::string, std::string>>;

const char *const kKeyTx = "000102030405060708090a0b0c0d0e0f";
const char *const kKeyRx = "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff";
const char *const kHashTx = "202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f";
const char *const kHashRx = "404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f";

// One ESP tunnel pair, cbc(aes), hmac(sha256), ESP in UDP from port 4501, in
// both text formats.
const keyvals kBaseCfg = {
    {"local", "10.1.0.1"},     {"dest", "10.2.0.1"},         {"protocol", "esp"},   {"mode", "tunnel"},
    {"spi_tx", "0x1000"},      {"spi_rx", "0x2000"},         {"crypto_algo", "12"}, {"aes_mode", "cbc"},
    {"crypto_key_tx", kKeyTx}, {"crypto_key_rx", kKeyRx},    {"hash_algo", "6"},    {"hash_key_tx", kHashTx},
    {"hash_key_rx", kHashRx},  {"udp_encap", "1"},           {"udp_encap_port", "4501"},
};
const keyvals kBaseSet = {
    {"local", "10.1.0.1"},       {"remote", "10.2.0.1"},         {"spi_tx", "0x1000"},
    {"spi_rx", "0x2000"},        {"proto", "esp"},               {"mode", "tunnel"},
    {"crypto_alg_name", "cbc(aes)"}, {"crypto_key_tx", kKeyTx},  {"crypto_key_rx", kKeyRx},
    {"auth_alg_name", "hmac(sha256)"}, {"auth_trunc_len", "128"}, {"auth_key_tx", kHashTx},
    {"auth_key_rx", kHashRx},    {"udp_encap", "1"},             {"udp_encap_port", "4501"},
};

std::string text_of(const keyvals &base, const changes &c)
{
    std::string text;
    for (const auto &[key, value] : base)
        if (!c.count(key))
            text += key + " = " + value + "\n";
    for (const auto &[key, value] : c)
        if (!value.empty())
            text += key + " = " + value + "\n";
    return text;
}

tavrel_xfrm_sa_cfg make_cfg(const changes &c = {})
{
    tavrel_xfrm_sa_cfg cfg;
    char error[256];
    EXPECT_EQ(tavrel_host_sa_cfg_parse(text_of(kBaseCfg, c).c_str(), &cfg, error, sizeof error), 0) << error;
    return cfg;
}

tavrel_xfrm_addr_set make_set(const changes &c = {})
{
    tavrel_xfrm_addr_set set;
    char error[256];
    EXPECT_EQ(tavrel_host_addr_set_parse(text_of(kBaseSet, c).c_str(), &set, error, sizeof error), 0) << error;
    return set;
}

bytes hex(const std::string &h)
{
    bytes b;
    for (size_t i = 0; i + 1 < h.size(); i += 2)
        b.push_back(static_cast<uint8_t>(std::stoul(h.substr(i, 2), nullptr, 16)));
    return b;
}

template <typename T>
bytes raw(const T &v)
{
    return bytes(reinterpret_cast<const uint8_t *>(&v), reinterpret_cast<const uint8_t *>(&v) + sizeof v);
}

bytes crypt_attr(const char *name, const bytes &key)
{
    xfrm_algo a;
    memset(&a, 0, sizeof a);
    strcpy(a.alg_name, name);
    a.alg_key_len = static_cast<uint32_t>(key.size() * 8);
    return fk::attr(XFRMA_ALG_CRYPT, raw(a) + key);
}

bytes auth_attr(const char *name, const bytes &key, uint32_t trunc)
{
    xfrm_algo_auth a;
    memset(&a, 0, sizeof a);
    strcpy(a.alg_name, name);
    a.alg_key_len = static_cast<uint32_t>(key.size() * 8);
    a.alg_trunc_len = trunc;
    return fk::attr(XFRMA_ALG_AUTH_TRUNC, raw(a) + key);
}

xfrm_usersa_info sa_info(bool tx)
{
    xfrm_usersa_info info;
    memset(&info, 0, sizeof info);
    info.lft.soft_byte_limit = info.lft.hard_byte_limit = XFRM_INF;
    info.lft.soft_packet_limit = info.lft.hard_packet_limit = XFRM_INF;
    info.id.proto = IPPROTO_ESP;
    inet_pton(AF_INET, tx ? "10.1.0.1" : "10.2.0.1", &info.saddr);
    inet_pton(AF_INET, tx ? "10.2.0.1" : "10.1.0.1", &info.id.daddr);
    info.id.spi = htonl(tx ? 0x1000 : 0x2000);
    info.mode = XFRM_MODE_TUNNEL;
    info.flags = tx ? XFRM_STATE_NOPMTUDISC | XFRM_STATE_AF_UNSPEC : XFRM_STATE_AF_UNSPEC;
    info.family = AF_INET;
    return info;
}

// The whole request of one direction of the base pair.
bytes base_request(bool tx, std::optional<uint32_t> mark)
{
    xfrm_encap_tmpl encap;
    memset(&encap, 0, sizeof encap);
    encap.encap_type = UDP_ENCAP_ESPINUDP;
    encap.encap_sport = htons(tx ? 4501 : 4500);
    encap.encap_dport = htons(tx ? 4500 : 4501);
    bytes attrs = crypt_attr("cbc(aes)", hex(tx ? kKeyTx : kKeyRx)) +
                  auth_attr("hmac(sha256)", hex(tx ? kHashTx : kHashRx), 128) + fk::attr(XFRMA_ENCAP, raw(encap));
    if (mark)
        attrs = attrs + fk::attr(XFRMA_SET_MARK, fk::u32_bytes(*mark));
    nlmsghdr h{};
    h.nlmsg_len = static_cast<uint32_t>(sizeof h + sizeof(xfrm_usersa_info) + attrs.size());
    h.nlmsg_type = XFRM_MSG_NEWSA;
    h.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    return raw(h) + raw(sa_info(tx)) + attrs;
}

// One attribute of a sent request, header included; empty when absent.
bytes attr_of(const bytes &request, uint16_t type)
{
    for (size_t at = sizeof(nlmsghdr) + sizeof(xfrm_usersa_info); at + 4 <= request.size();) {
        nlattr a;
        memcpy(&a, &request[at], sizeof a);
        if (a.nla_type == type)
            return fk::attr(type, bytes(request.begin() + at + 4, request.begin() + at + a.nla_len));
        at += NLA_ALIGN(a.nla_len);
    }
    return {};
}

lines errors()
{
    lines out;
    for (const auto &l : logcap::diag_lines())
        if (l.rfind("ERR ", 0) == 0)
            out.push_back(l);
    return out;
}

void expect_acks(int count)
{
    for (int i = 0; i < count; i++)
        fk::expect_socket().replies = {fk::ack(0)};
}

}  // namespace

class XfrmSa : public TavrelTest {
protected:
    void SetUp() override
    {
        TavrelTest::SetUp();
        tavrel_main_cfg.output_mark_enabled = 0;
    }
    void TearDown() override
    {
        tavrel_main_cfg.output_mark_enabled = 0;
        addr_budget[0] = addr_budget[1] = -1;
        TavrelTest::TearDown();
    }
    static void restart()
    {
        fk::reset();
        logcap::start();
    }
    static const bytes &sent(size_t socket) { return fk::sockets().at(socket).sent.at(0); }
};

TEST_F(XfrmSa, PairFromConfigurationIsSentWholeAndLogged)
{
    tavrel_main_cfg.output_mark_enabled = 1;
    const tavrel_xfrm_sa_cfg cfg = make_cfg();
    expect_acks(2);
    ASSERT_EQ(tavrel_xfrm_add_states(&cfg, 7, 9, -32735), 0);
    ASSERT_EQ(fk::sockets().size(), 2u);
    EXPECT_EQ(fk::sockets()[0].protocol, NETLINK_XFRM);
    EXPECT_EQ(sent(0), base_request(true, 0x20000));
    EXPECT_EQ(sent(1), base_request(false, std::nullopt));

    lines expected;
    for (const bool tx : {true, false}) {
        const std::string id = "MED tavrel_xfrm_set_id_from_config():\t..";
        const std::string crypt = "MED tavrel_xfrm_set_crypto_alg():\t..crypt.";
        const std::string auth = "MED tavrel_xfrm_set_auth_alg():\t..auth.";
        const std::string sa = "MED tavrel_xfrm_add_state():\t..";
        const std::string fd = fd_text(fk::sockets()[tx ? 0 : 1].fd);
        const lines side = {
            std::string("HIGH tavrel_xfrm_add_states(): inserting ") + (tx ? "outgoing" : "incoming") + " XFRM state\n",
            id + "id.proto = esp\n",
            id + "saddr = " + (tx ? "10.1.0.1" : "10.2.0.1") + "\n",
            id + "id.daddr = " + (tx ? "10.2.0.1" : "10.1.0.1") + "\n",
            id + "id.spi = " + (tx ? "0x1000" : "0x2000") + "\n",
            "MED tavrel_xfrm_set_mode():\t..mode = tunnel\n",
            crypt + "alg_name = cbc(aes)\n",
            crypt + "alg_key_len = 128\n",
            crypt + "alg_key = 0x" + (tx ? kKeyTx : kKeyRx) + "\n",
            auth + "algo = hmac(sha256)\n",
            auth + "trunc_len = 128\n",
            auth + "key_len = 256\n",
            auth + "key = 0x" + (tx ? kHashTx : kHashRx) + "\n",
            std::string("MED tavrel_xfrm_set_encap():\t..encap = ") + (tx ? "4501 -> 4500\n" : "4500 -> 4501\n"),
            sa + "sinfo.flags = " + (tx ? "0x24\n" : "0x20\n"),
            sa + "sinfo.family = AF_INET\n"};
        expected.insert(expected.end(), side.begin(), side.end());
        if (tx)
            expected.push_back(sa + "output_mark = 0x20000\n");
        expected.push_back("LOW tavrel_netlink_open(): opened file descriptor " + fd + "\n");
        expected.push_back("HIGH tavrel_netlink_transact(): NL ACK received from kernel\n");
        expected.push_back("LOW tavrel_netlink_transact(): closing file descriptor " + fd + "\n");
    }
    EXPECT_EQ(logcap::diag_lines(), expected);
    logcap::expect_sinks_agree();
}

TEST_F(XfrmSa, OutputMarkRulesOnBothPaths)
{
    const struct {
        int is_tx;
        uint32_t mark_switch;
        int32_t link_tech;
        std::optional<uint32_t> mark;
    } cases[] = {
        {1, 1, -32735, 0x20000}, {1, 1, 0, 0x20001}, {1, 1, -32640, 0x20001}, {1, 0, -32640, 0x20002},
        {1, 0, -32735, {}},      {1, 2, -32735, {}}, {0, 1, -32735, {}},      {0, 1, -32640, 0x20002},
        {0, 0, 5, {}},
    };
    const tavrel_xfrm_sa_cfg cfg = make_cfg();
    const tavrel_xfrm_addr_set set = make_set();
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.is_tx << " " << c.mark_switch << " " << c.link_tech);
        fk::reset();
        tavrel_main_cfg.output_mark_enabled = c.mark_switch;
        expect_acks(2);
        EXPECT_EQ(tavrel_xfrm_add_state(&cfg, 0, 0, c.is_tx, c.link_tech), 0);
        EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&set, c.is_tx, c.link_tech), 0);
        ASSERT_EQ(fk::sockets().size(), 2u);
        EXPECT_EQ(sent(0), base_request(c.is_tx, c.mark));
        EXPECT_EQ(sent(1), sent(0));  // the address set builds the same request
    }
}

TEST_F(XfrmSa, AlgorithmTables)
{
    const struct {
        changes c;
        bytes attr;         // expected attribute; empty: the step fails
        const char *error;  // the step's own message then
    } cases[] = {
        {{{"crypto_algo", "9"}}, crypt_attr("cbc(des)", hex(kKeyTx)), nullptr},
        {{{"crypto_algo", "10"}}, crypt_attr("cbc(des3_ede)", hex(kKeyTx)), nullptr},
        {{{"crypto_algo", "12"}, {"aes_mode", ""}}, crypt_attr("cbc(aes)", hex(kKeyTx)), nullptr},
        {{{"crypto_algo", "19"}, {"aes_mode", "3"}, {"aes_mode_valid", "0"}}, crypt_attr("cbc(aes)", hex(kKeyTx)), nullptr},
        {{{"crypto_algo", "19"}, {"aes_mode", "ctr"}}, crypt_attr("rfc3686(ctr(aes))", hex(kKeyTx)), nullptr},
        {{{"aes_mode", "3"}}, {}, "tavrel_xfrm_set_crypto_alg(): invalid AES mode 3"},
        {{{"crypto_algo", "11"}}, {}, "tavrel_xfrm_set_crypto_alg(): invalid crypto algo 11"},
        {{{"hash_algo", "5"}}, auth_attr("hmac(sha1)", hex(kHashTx), 96), nullptr},
        {{{"hash_algo", "7"}}, auth_attr("hmac(md5)", hex(kHashTx), 96), nullptr},
        {{{"hash_algo", "12"}}, auth_attr("xcbc(aes)", hex(kHashTx), 96), nullptr},
        {{{"hash_algo", "20"}}, auth_attr("hmac(sha384)", hex(kHashTx), 192), nullptr},
        {{{"hash_algo", "21"}}, auth_attr("hmac(sha512)", hex(kHashTx), 256), nullptr},
        {{{"hash_algo", "8"}}, {}, "tavrel_xfrm_set_auth_alg(): invalid auth algo 8"},
        {{{"hash_algo", "9"}}, {}, "tavrel_xfrm_set_auth_alg(): invalid auth algo 9"},
        {{{"hash_algo", "10"}}, {}, "tavrel_xfrm_set_auth_alg(): invalid auth algo 10"},
        {{{"hash_algo", "11"}}, {}, "tavrel_xfrm_set_auth_alg(): invalid auth algo 11"},
        {{{"hash_algo", "22"}}, {}, "tavrel_xfrm_set_auth_alg(): invalid auth algo 22"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.c.begin()->first + " " + c.c.begin()->second);
        restart();
        const tavrel_xfrm_sa_cfg cfg = make_cfg(c.c);
        expect_acks(1);
        EXPECT_EQ(tavrel_xfrm_add_state(&cfg, 0, 0, 1, 0), 0);
        if (!c.attr.empty()) {
            ASSERT_EQ(fk::sockets().size(), 1u);
            uint16_t type;
            memcpy(&type, &c.attr[2], sizeof type);
            EXPECT_EQ(attr_of(sent(0), type), c.attr);
        } else {
            const std::string step = strstr(c.error, "auth") ? "auth" : "crypto";
            EXPECT_EQ(fk::sockets().size(), 0u);
            EXPECT_EQ(errors(), (lines{"ERR " + std::string(c.error) + "\n",
                                       "ERR tavrel_xfrm_add_state(): setting XFRM state " + step + " failed\n"}));
        }
    }
}

TEST_F(XfrmSa, HashKeySlotPrecedence)
{
    const std::string primary = "a1a2a3a4a5a6a7a8a9aaabacadaeafb0";
    const std::string extended(80, 'e');  // 40 bytes, more than a primary slot holds
    const struct {
        changes c;        // X: this direction, Y: the other one
        const char *key;  // "accessor", "primary", "extended", or the step's error
    } cases[] = {
        {{}, "accessor"},
        {{{"hash_key_X_primary", primary}}, "primary"},
        {{{"hash_key_X_primary", primary}, {"hash_key_X_extended", extended}}, "extended"},
        {{{"hash_key_X_valid", "0"}, {"hash_key_X_primary", primary}}, "primary"},
        {{{"hash_key_X_primary", primary}, {"hash_key_X_primary_valid", "0"}}, "accessor"},
        {{{"hash_key_X", ""}, {"hash_key_X_extended", extended}}, "extended"},
        {{{"hash_key_Y_extended", extended}}, "accessor"},
        {{{"hash_key_X_valid", "0"}}, "%s hash key merked as invalid"},
        {{{"hash_key_X", ""}, {"hash_key_X_valid", "1"}}, "Retrieving %s key failed"},
    };
    for (const bool tx : {true, false}) {
        for (const auto &c : cases) {
            changes named;
            for (const auto &[pattern, value] : c.c) {
                std::string key = pattern;
                const size_t x = key.find_first_of("XY");
                key.replace(x, 1, (key[x] == 'X') == tx ? "tx" : "rx");
                named[key] = value;
            }
            SCOPED_TRACE(text_of({}, named) + (tx ? "TX" : "RX"));
            restart();
            const tavrel_xfrm_sa_cfg cfg = make_cfg(named);
            expect_acks(1);
            EXPECT_EQ(tavrel_xfrm_add_state(&cfg, 0, 0, tx, 0), 0);
            const std::string which = c.key;
            if (which.find('%') == std::string::npos) {
                const std::string k = which == "primary" ? primary : which == "extended" ? extended : tx ? kHashTx : kHashRx;
                ASSERT_EQ(fk::sockets().size(), 1u);
                EXPECT_EQ(attr_of(sent(0), XFRMA_ALG_AUTH_TRUNC), auth_attr("hmac(sha256)", hex(k), 128));
            } else {
                char error[128];
                snprintf(error, sizeof error, c.key, tx ? "TX" : "RX");
                EXPECT_EQ(fk::sockets().size(), 0u);
                EXPECT_EQ(errors(), (lines{"ERR tavrel_xfrm_set_auth_alg(): " + std::string(error) + "\n",
                                           "ERR tavrel_xfrm_add_state(): setting XFRM state auth failed\n"}));
            }
        }
    }
}

TEST_F(XfrmSa, FailedStepsAnswerByStep)
{
    const std::string id = "tavrel_xfrm_set_id_from_config(): ";
    const struct {
        changes c;
        int is_tx, result;
        std::string error, step;
    } cases[] = {
        {{{"dest_valid", "0"}}, 1, -1, id + "IPSEC addresses or protocol is marked as invalid", "ID"},
        {{{"protocol", ""}}, 1, -1, id + "IPSEC addresses or protocol is marked as invalid", "ID"},
        {{{"spi_rx_valid", "0"}}, 0, -1, id + "RX SPI value is marked as invalid", "ID"},
        {{{"protocol", "7"}}, 1, -1, id + "Invalid IPSEC protocol 7", "ID"},
        {{{"local", ""}, {"local_valid", "1"}}, 0, -1, id + "Retrieving local/dest addresses failed", "ID"},
        {{{"mode_valid", "0"}}, 1, -1, "tavrel_xfrm_set_mode(): encapsulation mode marked as invalid", "mode"},
        {{{"mode", "3"}}, 1, -1, "tavrel_xfrm_set_mode(): invalid XFRM mode 0x3", "mode"},
        {{{"crypto_algo_valid", "0"}}, 1, 0, "tavrel_xfrm_set_crypto_alg(): crypto algorithm marked as invalid", "crypto"},
        {{{"crypto_key_rx_valid", "0"}}, 0, 0, "tavrel_xfrm_set_crypto_alg(): RX crypto key marked as invalid", "crypto"},
        {{{"crypto_key_tx", ""}, {"crypto_key_tx_valid", "1"}}, 1, 0, "tavrel_xfrm_set_crypto_alg(): Retrieving TX key failed", "crypto"},
        {{{"hash_algo_valid", "0"}}, 0, 0, "tavrel_xfrm_set_auth_alg(): hash algo marked as invalid", "auth"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.error);
        restart();
        const tavrel_xfrm_sa_cfg cfg = make_cfg(c.c);
        EXPECT_EQ(tavrel_xfrm_add_state(&cfg, 0, 0, c.is_tx, 0), c.result);
        EXPECT_EQ(fk::sockets().size(), 0u);
        EXPECT_EQ(errors(), (lines{"ERR " + c.error + "\n",
                                   "ERR tavrel_xfrm_add_state(): setting XFRM state " + c.step + " failed\n"}));
    }
    // The family step's own fetch of the address comes back empty: 0.
    for (const int tx : {1, 0}) {
        restart();
        addr_budget[0] = addr_budget[1] = -1;
        addr_budget[tx ? 0 : 1] = 1;
        const tavrel_xfrm_sa_cfg cfg = make_cfg();
        EXPECT_EQ(tavrel_xfrm_add_state(&cfg, 0, 0, tx, 0), 0);
        EXPECT_EQ(fk::sockets().size(), 0u);
        EXPECT_EQ(errors(), lines{std::string("ERR tavrel_xfrm_add_state(): Retrieving ") + (tx ? "local" : "dest") +
                                  " addr failed\n"});
    }
}

TEST_F(XfrmSa, PairStopsAtTxFailureOnlyWhenItIsMinusOne)
{
    const tavrel_xfrm_sa_cfg cfg = make_cfg();
    fk::expect_socket().replies = {fk::ack(-EEXIST)};
    EXPECT_EQ(tavrel_xfrm_add_states(&cfg, 0, 0, 0), -1);
    EXPECT_EQ(fk::sockets().size(), 1u);
    EXPECT_EQ(errors(), (lines{"ERR tavrel_netlink_transact(): Kernel reports error -17\n",
                               "ERR tavrel_xfrm_add_state(): Sending XFRM state failed\n",
                               "ERR tavrel_xfrm_add_states(): Setting TX XFRM state failed\n"}));
    EXPECT_EQ(logcap::sinks_of("tavrel_xfrm_add_states(): inserting incoming XFRM state\n"), 0u);

    restart();
    expect_acks(1);
    fk::expect_socket().replies = {fk::ack(-EEXIST)};
    EXPECT_EQ(tavrel_xfrm_add_states(&cfg, 0, 0, 0), -1);
    EXPECT_EQ(fk::sockets().size(), 2u);
    EXPECT_EQ(errors().back(), "ERR tavrel_xfrm_add_states(): Setting RX XFRM state failed\n");

    // A TX SA whose cipher key is invalid answers 0 without a request.
    restart();
    const tavrel_xfrm_sa_cfg no_tx_key = make_cfg({{"crypto_key_tx_valid", "0"}});
    expect_acks(1);
    EXPECT_EQ(tavrel_xfrm_add_states(&no_tx_key, 0, 0, 0), 0);
    ASSERT_EQ(fk::sockets().size(), 1u);
    EXPECT_EQ(sent(0), base_request(false, std::nullopt));
}

TEST_F(XfrmSa, AddressFamilies)
{
    // The modem's record of no known family: address and family stay 0, the
    // SA is sent. The address set takes anything but 4 as AF_INET6.
    xfrm_usersa_info expected = sa_info(true);
    memset(&expected.saddr, 0, sizeof expected.saddr);
    for (const bool from_set : {false, true}) {
        restart();
        expect_acks(1);
        const tavrel_xfrm_sa_cfg cfg = make_cfg({{"local_family", "5"}});
        const tavrel_xfrm_addr_set set = make_set({{"local_family", "0"}});
        EXPECT_EQ(from_set ? tavrel_xfrm_add_state_from_addr_set(&set, 1, 0) : tavrel_xfrm_add_state(&cfg, 0, 0, 1, 0), 0);
        expected.family = from_set ? AF_INET6 : 0;
        EXPECT_EQ(bytes(sent(0).begin() + 16, sent(0).begin() + 240), raw(expected));
        EXPECT_EQ(errors(), lines{from_set ? "ERR tavrel_xfrm_set_addr_from_recovery(): invalid addr family 0\n"
                                           : "ERR tavrel_xfrm_set_addr_from_config(): invalid addr family 5\n"});
    }
    EXPECT_EQ(logcap::sinks_of("tavrel_xfrm_add_state_from_addr_set():\t..sinfo.family = AF_INET6\n"),
              logcap::ALL_SINKS);

    restart();
    const tavrel_xfrm_sa_cfg v6 = make_cfg({{"local", "2001:db8::1"}, {"dest", "2001:db8::2"}});
    expect_acks(1);
    EXPECT_EQ(tavrel_xfrm_add_state(&v6, 0, 0, 0, 0), 0);
    xfrm_usersa_info info;
    memcpy(&info, sent(0).data() + 16, sizeof info);
    char s[64], d[64];
    EXPECT_STREQ(inet_ntop(AF_INET6, &info.saddr, s, sizeof s), "2001:db8::2");
    EXPECT_STREQ(inet_ntop(AF_INET6, &info.id.daddr, d, sizeof d), "2001:db8::1");
    EXPECT_EQ(info.family, AF_INET6);
}

TEST_F(XfrmSa, AddressSetLabelsChecksAndLongKeys)
{
    const tavrel_xfrm_addr_set set = make_set({{"udp_encap", "0"}});
    expect_acks(1);
    EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&set, 0, 0), 0);
    EXPECT_TRUE(attr_of(sent(0), XFRMA_ENCAP).empty());  // although the port is filled in
    const std::string p = "MED tavrel_xfrm_add_state_from_addr_set():\t..";
    const lines all = logcap::diag_lines();
    EXPECT_EQ(lines(all.begin(), all.begin() + 7),
              (lines{p + "daddr = 10.1.0.1\n", p + "id.saddr = 10.2.0.1\n", p + "id.spi = 0x2000\n",
                     p + "crypt.alg_key = 0x" + kKeyRx + "\n", p + "crypt.alg_key_len = 128\n",
                     p + "auth.key_len = 256\n", p + "auth.key = 0x" + kHashRx + "\n"}));
    logcap::expect_sinks_agree();

    restart();
    EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(nullptr, 1, 0), -1);
    EXPECT_EQ(logcap::diag_lines(), lines{"ERR tavrel_xfrm_add_state_from_addr_set(): invalid input\n"});
    restart();
    const tavrel_xfrm_addr_set invalid = make_set({{"is_valid", "0"}});
    EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&invalid, 1, 0), -1);
    EXPECT_TRUE(logcap::diag_lines().empty());
    EXPECT_EQ(fk::sockets().size(), 0u);

    // A declared key longer than the room: the copy is cut, the lengths are not.
    const tavrel_xfrm_addr_set longer = make_set({{"crypto_key_len_tx", "500"}});
    expect_acks(1);
    EXPECT_EQ(tavrel_xfrm_add_state_from_addr_set(&longer, 1, 0), 0);
    const auto *from = reinterpret_cast<const uint8_t *>(&longer) + offsetof(tavrel_xfrm_addr_set, crypto_key_tx);
    bytes key(from, from + 444);
    key.resize(500, 0);
    EXPECT_EQ(attr_of(sent(0), XFRMA_ALG_CRYPT), crypt_attr("cbc(aes)", key));
}

TEST_F(XfrmSa, KeysBeyondTheirRoomStopTheProcess)
{
    const std::string crypto444(888, '1');
    const struct {
        changes c;
        bool dies;
    } cases[] = {
        {{{"crypto_key_tx", crypto444}}, false},
        {{{"crypto_key_tx", crypto444 + "22"}}, true},
        {{{"hash_key_tx_extended", std::string(880, '3')}}, false},
        {{{"hash_key_tx_extended", std::string(882, '3')}}, true},
        {{{"hash_key_tx_primary", "00"}, {"hash_key_tx_primary_len", "0xffffffff"}}, true},
    };
    for (const auto &c : cases) {
        const tavrel_xfrm_sa_cfg cfg = make_cfg(c.c);
        if (c.dies) {
            EXPECT_DEATH(tavrel_xfrm_add_state(&cfg, 0, 0, 1, 0), "");
        } else {
            fk::reset();
            expect_acks(1);
            EXPECT_EQ(tavrel_xfrm_add_state(&cfg, 0, 0, 1, 0), 0);
        }
    }
    // The address set's lengths: bits overflowing, the payload length
    // overflowing, an attribute beyond the request.
    for (const char *c : {"crypto_key_len_tx = 0x20000000", "auth_key_len_tx = 0xffffffc0", "crypto_key_len_tx = 2000"}) {
        const std::string key(c, strchr(c, ' '));
        const tavrel_xfrm_addr_set set = make_set({{key, strrchr(c, ' ') + 1}});
        EXPECT_DEATH(tavrel_xfrm_add_state_from_addr_set(&set, 1, 0), "") << c;
    }
}

TEST_F(XfrmSa, TextFormatsRejectBadInputWithTheLine)
{
    tavrel_xfrm_sa_cfg cfg;
    tavrel_xfrm_addr_set set;
    char error[256];
    const struct {
        bool sa;
        const char *text, *error;
    } cases[] = {
        {true, "# comment\n\nlocal 10.0.0.1\n", "line 3: expected key = value: local 10.0.0.1"},
        {true, "spi_tx = 1\nspi_tx = 2\n", "line 2: spi_tx given twice"},
        {true, "spi_tx = 0x100000000\n", "line 1: spi_tx: not an unsigned 32-bit number: 0x100000000"},
        {true, "hash_key_rx_primary = 0x" "000000000000000000000000000000000000000000000000000000000000000000\n",
         "line 1: hash_key_rx_primary: key of 33 bytes, room for 32"},
        {false, "mode = beet\n", "line 1: mode: expected tunnel, transport or a number from 0 to 255: beet"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.sa ? tavrel_host_sa_cfg_parse(c.text, &cfg, error, sizeof error)
                       : tavrel_host_addr_set_parse(c.text, &set, error, sizeof error), -1);
        EXPECT_STREQ(error, c.error);
    }
    // Overrides win wherever they stand; a value switches its flag on.
    ASSERT_EQ(tavrel_host_sa_cfg_parse("spi_rx_valid = 0\nspi_rx = 5\nspi_tx = 6\nlocal = 10.0.0.1\n", &cfg, error,
                                       sizeof error), 0);
    EXPECT_EQ(cfg.spi_rx_valid, 0);
    EXPECT_EQ(cfg.spi_tx_valid, 1);
    EXPECT_EQ(cfg.local_addr.addr[0], 1);  // a host-order integer on a little-endian host
}
