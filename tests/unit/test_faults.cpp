// Every export against every call it makes failing in turn: each socket's
// socket(), setsockopt(), bind(), sendto() (an error, and a short send) and
// each of its receives, and each allocation of the label list. Checked: the
// result, the ERR lines, no descriptor left open (/proc/self/fd), and no
// label-list node left but those a failed dump leaves behind on purpose,
// which are identified by their labels and freed (LSan sees the rest in the
// sanitizer tree).
#include <arpa/inet.h>
#include <dirent.h>
#include <linux/genetlink.h>
#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>

#include <functional>

#include "heap_rand_interpose.h"
#include "tavrel_host_xfrm.h"
#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

using fk::bytes;
using fk::operator+;
using P = fk::socket_plan;

template <typename T>
bytes raw(const T &v) { return bytes(reinterpret_cast<const uint8_t *>(&v), reinterpret_cast<const uint8_t *>(&v + 1)); }

int open_fds()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (readdir(d) != nullptr)
        n++;
    closedir(d);
    return n;
}

// How a socket is used: acknowledged transaction, dump, query, transaction
// without acknowledgement, or the route socket of traffic control.
enum path : char { T, D, Q, N, R };
enum fault : int { SOCKET, SETSOCKOPT, BIND, SEND, SHORT_SEND, RECV /* RECV + n - 1: the n-th receive */ };

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

struct step {
    path p;
    P plan;      // its answers when nothing fails
    int result;  // of the call when this socket fails
    lines err;   // the callers' ERR lines then
};

struct row {
    const char *name;
    std::function<int()> call;
    std::vector<step> sockets;
    std::vector<uint32_t> labels = {};  // of the label list, in the order the dump delivers them
};

const P ok = P().reply(fk::ack(0));
const std::string kKey(32, '1'), kHash(64, '3');

tavrel_ip_addr ip(const char *text)
{
    tavrel_ip_addr a{strchr(text, ':') ? 6u : 4u, 0, {}};
    inet_pton(a.family == 6 ? AF_INET6 : AF_INET, text, a.addr);
    return a;
}

fk::msg label_entry(uint32_t label)
{
    const tavrel_ip_addr a = ip("2001:db8::5");
    return {RTM_NEWADDRLABEL, NLM_F_MULTI, raw(ifaddrlblmsg{AF_INET6, 0, 64, 0, 3, 0}) +
                                               fk::attr(IFAL_ADDRESS, bytes(a.addr, a.addr + 16)) +
                                               fk::attr(IFAL_LABEL, fk::u32_bytes(label))};
}

void nothing(const nlmsghdr *, void *) {}
uint32_t take(const nlmsghdr *, void *) { return 1; }

class Faults : public TavrelTest {};

TEST_F(Faults, EveryExportEveryFailingCall)
{
    tavrel_xfrm_sa_cfg cfg;
    tavrel_xfrm_addr_set set;
    char error[128];
    ASSERT_EQ(tavrel_host_sa_cfg_parse(("local = 10.1.0.1\ndest = 10.2.0.1\nprotocol = esp\nmode = tunnel\nspi_tx = 1\n"
                                        "spi_rx = 2\ncrypto_algo = 12\nhash_algo = 6\ncrypto_key_tx = " + kKey +
                                        "\ncrypto_key_rx = " + kKey + "\nhash_key_tx = " + kHash + "\nhash_key_rx = " + kHash)
                                           .c_str(), &cfg, error, sizeof error), 0) << error;
    ASSERT_EQ(tavrel_host_addr_set_parse(("local = 10.1.0.1\nremote = 10.2.0.1\nproto = esp\ncrypto_alg_name = cbc(aes)\n"
                                          "auth_alg_name = hmac(sha256)\ncrypto_key_tx = " + kKey + "\nauth_key_tx = " + kHash)
                                             .c_str(), &set, error, sizeof error), 0) << error;
    static const tavrel_xfrm_sa_addrs pair = {ip("10.1.0.1"), ip("10.2.0.1"), 1, 2, IPPROTO_ESP, 1};
    xfrm_usersa_info sa{};
    sa.id.spi = htonl(1);
    sa.id.proto = IPPROTO_ESP;
    sa.family = AF_INET;
    memcpy(&sa.saddr, pair.local_addr.addr, 4);
    memcpy(&sa.id.daddr, pair.remote_addr.addr, 4);
    static const tavrel_ip_addr v4 = ip("10.1.2.3"), v6 = ip("2001:db8::5");
    static const struct {
        nlmsghdr h;
        uint8_t body[64];  // room for the attributes the put rows add
    } request = {{28, RTM_NEWRULE, NLM_F_REQUEST | NLM_F_ACK, 0, 0}, {AF_INET}};
    const P record = P().reply(fk::datagram({label_entry(7)}));
    const P genl = P().reply(fk::datagram({{GENL_ID_CTRL, 0, bytes(4) + fk::attr(CTRL_ATTR_FAMILY_ID, {0x1c, 0})}}));
    const P dump_sa = P().reply(fk::datagram({{XFRM_MSG_NEWSA, NLM_F_MULTI, raw(sa)}})).reply(fk::done());
    const P dump_labels = P().reply(fk::datagram({label_entry(40), label_entry(21)})).reply(fk::done());
    const P one_label = P().reply(fk::datagram({label_entry(100)})).reply(fk::done());
    const std::string xfrm = "ERR tavrel_xfrm_", rule = "ERR tavrel_rtnetlink_", modify = "ERR tavrel_addrlabel_modify(): modifying address label failed\n",
                      sent = xfrm + "add_state(): Sending XFRM state failed\n", policy = xfrm + "add_policy(): Sending XFRM policy failed\n",
                      unpolicy = xfrm + "remove_policy(): Sending XFRM policy delete failed\n", tc = "(): tc qdisc transaction failed!";
    const row rows[] = {
        {"transact", [] { return tavrel_netlink_transact(&request.h, NETLINK_ROUTE, nullptr); }, {{T, ok, -1, {}}}},
        {"nla_put", [] { auto r = request; return tavrel_nla_put(&r.h, 1, 0, nullptr), 0; }, {}},
        {"nla_put_ip_addr", [] { auto r = request; return tavrel_nla_put_ip_addr(&r.h, 1, "10.0.0.1"); }, {}},
        {"nla_parse", [] { const nlattr *t[2]; return tavrel_nla_parse(nullptr, t, 0, 1), 0; }, {}},
        {"dump", [] { return tavrel_netlink_dump(&request.h, NETLINK_ROUTE, nothing, nullptr); },
         {{D, P(record).reply(fk::done()), -1, {}}}},
        {"query", [] { return tavrel_netlink_query(&request.h, NETLINK_ROUTE, take, nullptr, 1); }, {{Q, record, -1, {}}}},
        {"query_genl", [] { uint16_t id; return tavrel_netlink_query_genl("nlctrl", 2, &id); },
         {{Q, genl, -1, {"ERR tavrel_netlink_query_genl(): Netlink query failed\n"}}}},
        {"add_ip_rule", [] { return tavrel_rtnetlink_add_ip_rule(1, 1, 1, 1); }, {{N, P(), -1, {rule + "add_ip_rule(): Failed to install ip rule\n"}}}},
        {"del_ip_rule", [] { return tavrel_rtnetlink_del_ip_rule(1, 1, 1, 1); }, {{N, P(), -1, {rule + "del_ip_rule(): Failed to remove ip rule\n"}}}},
        {"del_ip_rule_by_prio", [] { return tavrel_rtnetlink_del_ip_rule_by_prio(1); },
         {{N, P(), -1, {rule + "del_ip_rule_by_prio(): Failed to remove ip rule\n"}}}},
        {"addr_cfg", [] { return tavrel_rtnetlink_addr_cfg("eth0", &v4, 24, 0, 0); },
         {{T, ok, -1, {rule + "addr_cfg(): configuring address failed\n"}}}},
        {"gso_max_size", [] { return tavrel_rtnetlink_gso_max_size("eth0", 0); },
         {{T, ok, -1, {rule + "gso_max_size(): configuring gso max size failed for dev eth0\n"}}}},
        {"tc_qdisc", [] { return tavrel_rtnetlink_tc_qdisc("eth0", "pfifo", 0, 0x10000, 0); }, {{R, ok, -1, {rule + "tc_qdisc" + tc}}}},
        {"tc_prio", [] { return tavrel_rtnetlink_tc_prio("eth0", 0, 0x10000, 0); }, {{R, ok, -1, {rule + "tc_prio" + tc}}}},
        {"flow_control", [] { return tavrel_rtnetlink_flow_control("eth0", 0, 0x10000, 1, 0); },
         {{R, ok, -1, {rule + "flow_control" + tc}}}},
        {"add_states", [&] { return tavrel_xfrm_add_states(&cfg, 0, 0, 0); },
         {{T, ok, -1, {sent, xfrm + "add_states(): Setting TX XFRM state failed\n"}},
          {T, ok, -1, {sent, xfrm + "add_states(): Setting RX XFRM state failed\n"}}}},
        {"add_state_from_addr_set", [&] { return tavrel_xfrm_add_state_from_addr_set(&set, 1, 0); },
         {{T, ok, -1, {xfrm + "add_state_from_addr_set(): Sending XFRM state failed\n"}}}},
        // A refused deletion does not stop the dump.
        {"remove_states", [] { return tavrel_xfrm_remove_states(&pair); },
         {{D, dump_sa, -1, {xfrm + "remove_states(): removing XFRM states failed\n"}},
          {T, ok, 0, {xfrm + "remove_state_cb(): deleting XFRM state failed\n"}}}},
        {"add_policies", [] { return tavrel_xfrm_add_policies(&pair, nullptr, "10.0.0.0/8", "6", 0); },
         {{T, ok, -1, {policy, xfrm + "add_policies(): Setting incoming XFRM policy failed\n"}},
          {T, ok, -1, {policy, xfrm + "add_policies(): Setting forwarding XFRM policy failed\n"}}}},
        // Removal goes on after the input policy; only the forward one counts.
        {"remove_policies", [] { return tavrel_xfrm_remove_policies(nullptr, "10.0.0.0/8", "6", 0); },
         {{T, ok, 0, {unpolicy, xfrm + "remove_policies(): removing incoming XFRM policy failed\n"}},
          {T, ok, -1, {unpolicy, xfrm + "remove_policies(): removing forwarding XFRM policy failed\n"}}}},
        {"add_policy_ex", [] { return tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT); },
         {{T, ok, -1, {xfrm + "add_policy_ex(): Sending XFRM policy failed\n"}}}},
        {"remove_policy_ex", [] { return tavrel_xfrm_remove_policy_ex(XFRM_POLICY_OUT); }, {{T, ok, -1, {unpolicy}}}},
        {"addrlabel_add", [] { return tavrel_addrlabel_add(&v6, 64, 100, 3); }, {{T, ok, -1, {modify}}}},
        {"addrlabel_del", [] { return tavrel_addrlabel_del(&v6, 64, 100, 3); }, {{T, ok, -1, {modify}}}},
        {"addrlabel_generate", [] { uint32_t label; return tavrel_addrlabel_generate(6, 0, &label); },
         {{D, dump_labels, -1, {"ERR tavrel_addrlabel_generate(): gathering list of current labels failed\n"}}}, {40, 21}},
        {"addrlabel_purge_label", [] { return tavrel_addrlabel_purge_label(&v6, 64, 3); },
         {{Q, P().reply(fk::datagram({label_entry(100)})), -1, {"ERR tavrel_addrlabel_purge_label(): querying label failed\n"}},
          {D, one_label, -1, {"ERR tavrel_addrlabel_purge_label(): dumping labels failed\n"}},
          {T, ok, 0, {modify, "ERR tavrel_addrlabel_purge_label_dump_cb(): Purging address with label 100 failed\n"}}}},
    };
    size_t count = 0;
    const auto run = [&](const row &r, size_t at, int f, size_t fail_node) {
        SCOPED_TRACE(std::string(r.name) + " socket " + std::to_string(at) + " fault " + std::to_string(f) + " node " +
                     std::to_string(fail_node));
        count++;
        fk::reset();
        logcap::start();
        fk::set_interface("eth0", 7);
        for (size_t i = 0; i < r.sockets.size(); i++) {
            P p = r.sockets[i].plan;
            if (i == at) {
                (f == SOCKET ? p.socket_errno : f == SETSOCKOPT ? p.setsockopt_errno : f == BIND ? p.bind_errno
                 : f == SEND ? p.send_errno : p.recv_errno) = f == SOCKET ? EMFILE : f == SETSOCKOPT ? ENOPROTOOPT
                                                                 : f == BIND ? EADDRINUSE : f == SEND ? EPERM : ENOBUFS;
                p.send_short_by = f == SHORT_SEND;
                p.replies.resize(f >= RECV ? f - RECV : p.replies.size());
            }
            fk::expect_socket() = p;
        }
        const int fds = open_fds();
        node_heap::start(fail_node);
        const int result = r.call();
        std::vector<uint32_t> left;
        for (void *node : node_heap::stop()) {
            left.push_back(static_cast<tavrel_addrlabel_node *>(node)->label);
            free(node);
        }
        lines err;
        for (const std::string &l : logcap::diag_lines())
            if (l.rfind("ERR ", 0) == 0)
                err.push_back(l);
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
        if (r.sockets.empty())
            run(r, 0, 0, 0);
    }
    EXPECT_EQ(count, 180u);
}

}  // namespace
