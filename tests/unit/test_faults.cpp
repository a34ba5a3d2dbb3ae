// The exports under failure: every call they make failing in turn, a NULL
// for each pointer they need, and no key material left behind on the stack.
#include <arpa/inet.h>
#include <linux/genetlink.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <pthread.h>
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else
#define VALGRIND_MAKE_MEM_DEFINED(address, size) ((void)(address), (void)(size))
#endif

#include <filesystem>
#include <functional>

#include "heap_rand_interpose.h"
#include "tavrel_host_xfrm.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

bytes key(uint8_t first, size_t size)
{
    bytes k(size);
    for (size_t i = 0; i < size; i++)
        k[i] = static_cast<uint8_t>(first + i);
    return k;
}

std::string hex(const bytes &b)
{
    std::string text;
    for (uint8_t v : b)
        text += "0123456789abcdef"[v >> 4], text += "0123456789abcdef"[v & 15];
    return text;
}

// A request with room behind it for the attributes a put adds.
struct request_buffer {
    nlmsghdr h;
    uint8_t body[64];
};
const tavrel_ip_addr kV4 = ip("10.1.2.3"), kV6 = ip("2001:db8::5");

// Encryption TX and RX, authentication TX and RX: each byte in one key only.
const std::vector<bytes> kKeys = {key(0xc1, 16), key(0xe1, 16), key(0x81, 32), key(0xa1, 32)};

// Both SA configurations, as the daemon's parsers make them from its files.
class Faults : public TavrelTest {
protected:
    tavrel_xfrm_sa_cfg cfg;
    tavrel_xfrm_addr_set set;
    void SetUp() override
    {
        TavrelTest::SetUp();
        char error[128];
        ASSERT_EQ(tavrel_host_sa_cfg_parse(("local = 10.1.0.1\ndest = 10.2.0.1\nprotocol = esp\nmode = tunnel\nspi_tx = 1\n"
                                            "spi_rx = 2\ncrypto_algo = 12\nhash_algo = 6\ncrypto_key_tx = " + hex(kKeys[0]) +
                                            "\ncrypto_key_rx = " + hex(kKeys[1]) + "\nhash_key_tx = " + hex(kKeys[2]) +
                                            "\nhash_key_rx = " + hex(kKeys[3])).c_str(), &cfg, error, sizeof error), 0) << error;
        ASSERT_EQ(tavrel_host_addr_set_parse(("local = 10.1.0.1\nremote = 10.2.0.1\nproto = esp\ncrypto_alg_name = cbc(aes)\n"
                                              "auth_alg_name = hmac(sha256)\ncrypto_key_tx = " + hex(kKeys[0]) +
                                              "\nauth_key_tx = " + hex(kKeys[2])).c_str(), &set, error, sizeof error), 0) << error;
    }
};
using KeyHygiene = Faults;
using Arguments = TavrelTest;

// How a socket is used: acknowledged transaction, dump, query, transaction
// without acknowledgement, or the route socket of traffic control.
enum path : char { T, D, Q, N, R };
enum fault : int { SOCKET, SETSOCKOPT, BIND, SEND, SHORT_SEND, RECV /* RECV + n - 1: the n-th receive */ };
// Where a fault puts its errno; a short send, and a failed receive, fail the receives past the replies kept.
int P::*const kErrnoField[] = {&P::socket_errno, &P::setsockopt_errno, &P::bind_errno, &P::send_errno, &P::recv_errno};
const int kErrno[] = {EMFILE, ENOPROTOOPT, EADDRINUSE, EPERM, ENOBUFS};

// The transport's ERR lines for a fault.
lines transport(path p, int f)
{
    if (p == R)
        return {"ERR tavrel_rtnetlink_transaction(): route nl " +
                std::string(f == SOCKET ? "socket creation failed![24:Too many open files]"
                            : f == BIND ? "bind failed![98:Address already in use]"
                            : f == SEND ? "send failed![1:Operation not permitted]" : "recv failed! rc:-1 errno 105")};
    const std::string e = std::string("ERR tavrel_netlink_") + (p == D ? "dump(): " : p == Q ? "query(): " : "transact(): ");
    if (f == SOCKET || f == BIND)
        return {f == SOCKET ? "ERR tavrel_netlink_open(): opening NL socket failed: errno=[24, Too many open files]\n"
                            : "ERR tavrel_netlink_open(): binding NL socket failed: errno=[98, Address already in use]\n",
                e + "opening NL socket failed\n"};
    if (f == SEND)
        return {e + "sending NL message failed" + (p == D ? ". " : ": ") + "errno=[1, Operation not permitted]\n"};
    if (f == SHORT_SEND)
        return {e + (p == D ? "unable to send full message\n" : "Unable to send full NL messge to kernel\n")};
    return {e + (p == D ? "receiving NL dump failed. " : p == Q ? "Receiving query response from kernel failed: "
                                                                : "Receiving NL ACK from kernel failed: ") +
            "errno=[105, No buffer space available]\n"};
}

const P ok = P().reply(fk::ack(0));

struct step {
    path p;
    lines err;        // the callers' ERR lines when this socket fails
    P plan = ok;      // its answers when nothing fails
    int result = -1;  // of the call when this socket fails
};

struct row {
    const char *name;
    std::function<int()> call;
    std::vector<step> sockets;
    std::vector<uint32_t> labels = {};  // of the label list, in the order the dump delivers them
};

fk::msg label_entry(uint32_t label)
{
    return {RTM_NEWADDRLABEL, NLM_F_MULTI, raw(ifaddrlblmsg{AF_INET6, 0, 64, 0, 3, 0}) +
                                               fk::attr(IFAL_ADDRESS, bytes(kV6.addr, kV6.addr + 16)) +
                                               fk::attr(IFAL_LABEL, fk::u32_bytes(label))};
}

void nothing(const nlmsghdr *, void *) {}
uint32_t take(const nlmsghdr *, void *) { return 1; }

// Every export that talks to the kernel against every call it makes failing
// in turn: each socket's socket(), setsockopt(), bind(), sendto() (an error,
// and a short send) and each of its receives, and each allocation of the
// label list. Checked: the result, the ERR lines, no descriptor left open
// (/proc/self/fd), and no label-list node left but those a failed dump leaves
// behind on purpose, which are identified by their labels and freed (LSan
// sees the rest in the sanitizer tree).
TEST_F(Faults, EveryExportEveryFailingCall)
{
    static const tavrel_xfrm_sa_addrs pair = {ip("10.1.0.1"), ip("10.2.0.1"), 1, 2, IPPROTO_ESP, 1};
    xfrm_usersa_info sa{};
    sa.id.spi = htonl(1);
    sa.id.proto = IPPROTO_ESP;
    sa.family = AF_INET;
    memcpy(&sa.saddr, pair.local_addr.addr, 4);
    memcpy(&sa.id.daddr, pair.remote_addr.addr, 4);
    static const request_buffer request = {{28, RTM_NEWRULE, NLM_F_REQUEST | NLM_F_ACK, 0, 0}, {AF_INET}};
    const P record = P().reply(fk::datagram({label_entry(7)}));
    const P genl = P().reply(fk::datagram({{GENL_ID_CTRL, 0, bytes(4) + fk::attr(CTRL_ATTR_FAMILY_ID, {0x1c, 0})}}));
    const P dump_sa = P().reply(fk::datagram({{XFRM_MSG_NEWSA, NLM_F_MULTI, raw(sa)}})).reply(fk::done());
    const P dump_labels = P().reply(fk::datagram({label_entry(40), label_entry(21)})).reply(fk::done());
    const P one_label = P().reply(fk::datagram({label_entry(100)})).reply(fk::done());
    const std::string xfrm = "ERR tavrel_xfrm_", rule = "ERR tavrel_rtnetlink_", modify = "ERR tavrel_addrlabel_modify(): modifying address label failed\n",
                      sent = xfrm + "add_state(): Sending XFRM state failed\n", policy = xfrm + "add_policy(): Sending XFRM policy failed\n",
                      unpolicy = xfrm + "remove_policy(): Sending XFRM policy delete failed\n", tc = "(): tc qdisc transaction failed!";
    const row rows[] = {
        {"transact", [] { return tavrel_netlink_transact(&request.h, NETLINK_ROUTE, nullptr); }, {{T, {}}}},
        {"dump", [] { return tavrel_netlink_dump(&request.h, NETLINK_ROUTE, nothing, nullptr); }, {{D, {}, P(record).reply(fk::done())}}},
        {"query", [] { return tavrel_netlink_query(&request.h, NETLINK_ROUTE, take, nullptr, 1); }, {{Q, {}, record}}},
        {"query_genl", [] { uint16_t id; return tavrel_netlink_query_genl("nlctrl", 2, &id); },
         {{Q, {"ERR tavrel_netlink_query_genl(): Netlink query failed\n"}, genl}}},
        {"add_ip_rule", [] { return tavrel_rtnetlink_add_ip_rule(1, 1, 1, 1); }, {{N, {rule + "add_ip_rule(): Failed to install ip rule\n"}, P()}}},
        {"del_ip_rule", [] { return tavrel_rtnetlink_del_ip_rule(1, 1, 1, 1); }, {{N, {rule + "del_ip_rule(): Failed to remove ip rule\n"}, P()}}},
        {"del_ip_rule_by_prio", [] { return tavrel_rtnetlink_del_ip_rule_by_prio(1); },
         {{N, {rule + "del_ip_rule_by_prio(): Failed to remove ip rule\n"}, P()}}},
        {"addr_cfg", [] { return tavrel_rtnetlink_addr_cfg("eth0", &kV4, 24, 0, 0); }, {{T, {rule + "addr_cfg(): configuring address failed\n"}}}},
        {"gso_max_size", [] { return tavrel_rtnetlink_gso_max_size("eth0", 0); },
         {{T, {rule + "gso_max_size(): configuring gso max size failed for dev eth0\n"}}}},
        {"tc_qdisc", [] { return tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0x10000, 0); }, {{R, {rule + "tc_qdisc" + tc}}}},
        {"tc_prio", [] { return tavrel_rtnetlink_tc_prio("eth0", 0, 0x10000, 0); }, {{R, {rule + "tc_prio" + tc}}}},
        {"flow_control", [] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 1, 0); }, {{R, {rule + "flow_control" + tc}}}},
        {"add_states", [&] { return tavrel_xfrm_add_states(&cfg, 0, 0, 0); },
         {{T, {sent, xfrm + "add_states(): Setting TX XFRM state failed\n"}},
          {T, {sent, xfrm + "add_states(): Setting RX XFRM state failed\n"}}}},
        {"add_state_from_addr_set", [&] { return tavrel_xfrm_add_state_from_addr_set(&set, 1, 0); },
         {{T, {xfrm + "add_state_from_addr_set(): Sending XFRM state failed\n"}}}},
        // A refused deletion does not stop the dump.
        {"remove_states", [] { return tavrel_xfrm_remove_states(&pair); },
         {{D, {xfrm + "remove_states(): removing XFRM states failed\n"}, dump_sa},
          {T, {xfrm + "remove_state_cb(): deleting XFRM state failed\n"}, ok, 0}}},
        {"add_policies", [] { return tavrel_xfrm_add_policies(&pair, nullptr, "10.0.0.0/8", "6", 0); },
         {{T, {policy, xfrm + "add_policies(): Setting incoming XFRM policy failed\n"}},
          {T, {policy, xfrm + "add_policies(): Setting forwarding XFRM policy failed\n"}}}},
        // Removal goes on after the input policy; only the forward one counts.
        {"remove_policies", [] { return tavrel_xfrm_remove_policies(nullptr, "10.0.0.0/8", "6", 0); },
         {{T, {unpolicy, xfrm + "remove_policies(): removing incoming XFRM policy failed\n"}, ok, 0},
          {T, {unpolicy, xfrm + "remove_policies(): removing forwarding XFRM policy failed\n"}}}},
        {"add_policy_ex", [] { return tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT); }, {{T, {xfrm + "add_policy_ex(): Sending XFRM policy failed\n"}}}},
        {"remove_policy_ex", [] { return tavrel_xfrm_remove_policy_ex(XFRM_POLICY_OUT); }, {{T, {unpolicy}}}},
        {"addrlabel_add", [] { return tavrel_addrlabel_add(&kV6, 64, 100, 3); }, {{T, {modify}}}},
        {"addrlabel_del", [] { return tavrel_addrlabel_del(&kV6, 64, 100, 3); }, {{T, {modify}}}},
        {"addrlabel_generate", [] { uint32_t label; return tavrel_addrlabel_generate(6, 0, &label); },
         {{D, {"ERR tavrel_addrlabel_generate(): gathering list of current labels failed\n"}, dump_labels}}, {40, 21}},
        {"addrlabel_purge_label", [] { return tavrel_addrlabel_purge_label(&kV6, 64, 3); },
         {{Q, {"ERR tavrel_addrlabel_purge_label(): querying label failed\n"}, P().reply(fk::datagram({label_entry(100)}))},
          {D, {"ERR tavrel_addrlabel_purge_label(): dumping labels failed\n"}, one_label},
          {T, {modify, "ERR tavrel_addrlabel_purge_label_dump_cb(): Purging address with label 100 failed\n"}, ok, 0}}},
    };
    // Every descriptor, not only the fake kernel's sockets.
    const auto open_fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    size_t count = 0;
    const auto run = [&](const row &r, size_t at, int f, size_t fail_node) {
        SCOPED_TRACE(testing::Message() << r.name << " socket " << at << " fault " << f << " node " << fail_node);
        count++;
        fk::reset();
        logcap::start();
        fk::set_interface("eth0", 7);
        for (size_t i = 0; i < r.sockets.size(); i++) {
            P p = r.sockets[i].plan;
            if (i == at) {
                p.*kErrnoField[std::min<int>(f, SHORT_SEND)] = kErrno[std::min<int>(f, SHORT_SEND)];
                p.send_short_by = f == SHORT_SEND;
                p.replies.resize(f >= RECV ? f - RECV : p.replies.size());
            }
            fk::expect_socket() = p;
        }
        const auto fds = open_fds();
        node_heap::start(fail_node);
        const int result = r.call();
        std::vector<uint32_t> left;
        for (void *node : node_heap::stop()) {
            left.push_back(static_cast<tavrel_addrlabel_node *>(node)->label);
            free(node);
        }
        lines err = logcap::diag_lines();
        err.erase(std::remove_if(err.begin(), err.end(), [](const std::string &l) { return l.rfind("ERR ", 0) != 0; }), err.end());
        // Unnoticed: a refused extended acknowledgement, a short send on the route socket.
        const bool harmless = at == r.sockets.size() || f == SETSOCKOPT || (r.sockets[at].p == R && f == SHORT_SEND);
        lines expected = harmless ? lines{} : transport(r.sockets[at].p, f);
        if (!harmless)
            expected.insert(expected.end(), r.sockets[at].err.begin(), r.sockets[at].err.end());
        if (fail_node != 0)
            expected = {"ERR tavrel_addrlabel_list_insert(): adding node to label list failed\n",
                        "ERR tavrel_addrlabel_generate_cb(): Inserting label " + std::to_string(r.labels[fail_node - 1]) + " failed\n"};
        EXPECT_EQ(result, harmless ? 0 : r.sockets[at].result);
        EXPECT_EQ(err, expected);
        // A dump that fails after the first datagram leaves the labels gathered from it.
        EXPECT_EQ(left, f == RECV + 1 && !r.labels.empty() ? r.labels : std::vector<uint32_t>{});
        EXPECT_EQ(fk::open_descriptors(), 0);
        EXPECT_EQ(open_fds(), fds);
    };
    for (const row &r : rows) {
        for (size_t at = 0; at < r.sockets.size(); at++)
            for (int f = SOCKET; f < RECV + static_cast<int>(r.sockets[at].plan.replies.size()); f++)
                run(r, at, f, 0);
        for (size_t node = 1; node <= r.labels.size(); node++)
            run(r, r.sockets.size(), 0, node);
    }
    EXPECT_EQ(count, 177u);
}

// Exported calls given a NULL where they need a pointer: -1 (or nothing, for
// the void ones) after one ERR line naming the argument, and no socket.
TEST_F(Arguments, NullPointersAreRefusedByName)
{
    request_buffer buffer = {{NLMSG_HDRLEN, 0, 0, 0, 0}, {}};
    nlmsghdr &request = buffer.h;
    const nlattr *table[4];
    uint32_t label = 0;
    uint16_t id = 0;
    const struct {
        const char *function, *argument;
        std::function<int()> call;
    } cases[] = {
        {"tavrel_netlink_transact", "request", [] { return tavrel_netlink_transact(nullptr, 0, nullptr); }},
        {"tavrel_nla_put", "request", [] { return tavrel_nla_put(nullptr, 1, 0, nullptr), -1; }},
        {"tavrel_nla_put", "data", [&] { return tavrel_nla_put(&request, 1, 4, nullptr), -1; }},
        {"tavrel_nla_put_ip_addr", "request", [] { return tavrel_nla_put_ip_addr(nullptr, 1, "::1"); }},
        {"tavrel_nla_put_ip_addr", "address_text", [&] { return tavrel_nla_put_ip_addr(&request, 1, nullptr); }},
        {"tavrel_nla_parse", "table", [] { return tavrel_nla_parse(nullptr, nullptr, 8, 3), -1; }},
        {"tavrel_nla_parse", "first", [&] { return tavrel_nla_parse(nullptr, table, 8, 3), -1; }},
        {"tavrel_netlink_dump", "request", [] { return tavrel_netlink_dump(nullptr, 0, nothing, nullptr); }},
        {"tavrel_netlink_dump", "callback", [&] { return tavrel_netlink_dump(&request, 0, nullptr, nullptr); }},
        {"tavrel_netlink_query", "request", [] { return tavrel_netlink_query(nullptr, 0, take, nullptr, 1); }},
        {"tavrel_netlink_query", "callback", [&] { return tavrel_netlink_query(&request, 0, nullptr, nullptr, 1); }},
        {"tavrel_netlink_query_genl", "family_name", [&] { return tavrel_netlink_query_genl(nullptr, 1, &id); }},
        {"tavrel_netlink_query_genl", "family_id", [] { return tavrel_netlink_query_genl("nlctrl", 1, nullptr); }},
        {"tavrel_rtnetlink_addr_cfg", "interface_name", [] { return tavrel_rtnetlink_addr_cfg(nullptr, &kV6, 64, 0, 0); }},
        {"tavrel_rtnetlink_addr_cfg", "address", [] { return tavrel_rtnetlink_addr_cfg("lo", nullptr, 64, 0, 0); }},
        {"tavrel_rtnetlink_gso_max_size", "interface_name", [] { return tavrel_rtnetlink_gso_max_size(nullptr, 1); }},
        {"tavrel_xfrm_add_states", "sa_cfg", [] { return tavrel_xfrm_add_states(nullptr, 0, 0, 0); }},
        {"tavrel_xfrm_remove_states", "addrs", [] { return tavrel_xfrm_remove_states(nullptr); }},
        {"tavrel_xfrm_add_policies", "addrs", [] { return tavrel_xfrm_add_policies(nullptr, nullptr, "10.0.0.1", nullptr, 1); }},
        {"tavrel_addrlabel_add", "address", [] { return tavrel_addrlabel_add(nullptr, 64, 20, 1); }},
        {"tavrel_addrlabel_del", "address", [] { return tavrel_addrlabel_del(nullptr, 64, 20, 1); }},
        {"tavrel_addrlabel_generate", "label", [] { return tavrel_addrlabel_generate(4, 0, nullptr); }},
        {"tavrel_addrlabel_generate", "label", [] { return tavrel_addrlabel_generate(6, 1, nullptr); }},
        {"tavrel_addrlabel_purge_label", "address", [] { return tavrel_addrlabel_purge_label(nullptr, 64, 1); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.function) + " " + c.argument);
        logcap::start();
        EXPECT_EQ(c.call(), -1);
        const std::string line = std::string(c.function) + "(): " + c.argument + " is NULL\n";
        EXPECT_EQ(logcap::diag_lines(), lines{"ERR " + line});
        // The gso line alone stays out of the log file.
        EXPECT_EQ(logcap::sinks_of(line), strstr(c.function, "gso") ? logcap::NO_FILE : logcap::ALL_SINKS);
        EXPECT_TRUE(fk::sockets().empty());
        EXPECT_EQ(request.nlmsg_len, NLMSG_HDRLEN);
    }
    // Where the pointer is not needed, NULL is fine: no data for an empty
    // payload, nothing to walk in an empty run.
    logcap::start();
    tavrel_nla_put(&request, 1, 0, nullptr);
    EXPECT_EQ(request.nlmsg_len, NLMSG_HDRLEN + 4u);
    table[0] = reinterpret_cast<const nlattr *>(&label);
    tavrel_nla_parse(nullptr, table, 0, 3);
    EXPECT_EQ(table[0], nullptr);
    EXPECT_TRUE(logcap::diag_lines().empty());
}

// Key bytes and their hex text: runs of `window` of a needle found in the stack.
template <typename Needle>
size_t residue(const bytes &stack, const std::vector<Needle> &needles, size_t window)
{
    size_t found = 0;
    for (const Needle &needle : needles)
        for (size_t i = 0; i + window <= needle.size(); i++)
            for (auto at = stack.begin(); (at = std::search(at, stack.end(), &needle[i], &needle[i] + window)) != stack.end(); at++)
                found++;
    return found;
}

// The call on a thread of its own whose stack was zeroed: its result, and that stack afterwards.
std::pair<int, bytes> on_zeroed_stack(const std::function<int()> &call)
{
    static uint8_t stack[256 * 1024] __attribute__((aligned(4096)));
    // valgrind takes a dead thread's stack for inaccessible; this test means to look at it.
    VALGRIND_MAKE_MEM_DEFINED(stack, sizeof stack);
    memset(stack, 0, sizeof stack);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, stack, sizeof stack);
    pthread_t thread;
    auto run = [](void *f) -> void * { return reinterpret_cast<void *>(intptr_t{(*static_cast<std::function<int()> *>(f))()}); };
    EXPECT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<int()> *>(&call)), 0);
    void *result = nullptr;
    pthread_join(thread, &result);
    pthread_attr_destroy(&attr);
    VALGRIND_MAKE_MEM_DEFINED(stack, sizeof stack);
    return {static_cast<int>(reinterpret_cast<intptr_t>(result)), bytes(stack, stack + sizeof stack)};
}

// Both SA exports run on a zeroed stack: afterwards no run of 4 key bytes and
// no run of 8 characters of a key's hex text may be left on it, with the sinks
// off and on, whether the kernel accepts the SA or refuses it echoing the
// whole request.
TEST_F(KeyHygiene, NoKeyBytesOrKeyTextLeftOnTheStack)
{
    std::vector<std::string> texts(kKeys.size());
    std::transform(kKeys.begin(), kKeys.end(), texts.begin(), hex);
    const std::pair<const char *, std::function<int()>> calls[] = {
        {"add_states", [&] { return tavrel_xfrm_add_states(&cfg, 0, 0, 0); }},
        {"add_state_from_addr_set", [&] { return tavrel_xfrm_add_state_from_addr_set(&set, 1, 0); }},
    };
    for (const auto &[name, function] : calls)
        for (bool sinks : {false, true}) {
            std::vector<bytes> requests;
            for (bool refuse : {false, true}) {
                SCOPED_TRACE(std::string(name) + (sinks ? ", sinks on, " : ", sinks off, ") + (refuse ? "refused" : "accepted"));
                fk::reset();
                logcap::start(sinks, sinks ? 3 : 0);
                for (size_t i = 0; i < 2; i++)
                    fk::expect_socket().reply(refuse ? fk::ack(-EEXIST, requests.at(i)) : fk::ack(0));
                const auto [result, stack] = on_zeroed_stack(function);
                EXPECT_EQ(result, refuse ? -1 : 0);
                if (!refuse)
                    requests = fk::requests_on(NETLINK_XFRM), requests.resize(2, requests[0]);
                EXPECT_EQ(residue(stack, kKeys, 4), 0u);
                EXPECT_EQ(residue(stack, texts, 8), 0u);
            }
        }
}

}  // namespace
