// Route and traffic control against the fake kernel: request bytes, results, log texts and their sinks.
#include <linux/fib_rules.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>  // with if_addr.h and if_link.h

#include <cerrno>
#include <functional>

#include "tavrel_internal.h"
#include "tavrel_test.h"

namespace {

using fk::request;
constexpr uint32_t kRoot = TC_H_ROOT, F = 0xffffffff /* lifetime: forever */;
constexpr auto qdisc = tavrel_rtnetlink_tc_qdisc;
constexpr auto prio = tavrel_rtnetlink_tc_prio;
constexpr auto flow = tavrel_rtnetlink_flow_control;

const nlmsghdr *as_message(const bytes &b) { return reinterpret_cast<const nlmsghdr *>(b.data()); }
bytes u32(uint16_t type, uint32_t value) { return fk::attr(type, fk::u32_bytes(value)); }

// Rules are filled as struct rtmsg, whose protocol RTPROT_BOOT lands on res1.
bytes rule_request(uint16_t type, uint16_t flags, uint8_t action, const bytes &attributes)
{
    return request(type, flags, raw(fib_rule_hdr{AF_INET, 0, 0, 0, 0, RTPROT_BOOT, 0, action, 0}) + attributes);
}

bytes address_request(uint16_t flags, const tavrel_ip_addr &a, uint8_t prefix, uint32_t preferred, uint32_t valid)
{
    const uint8_t family = a.family == 6 ? AF_INET6 : AF_INET, size = a.family == 6 ? 16 : 4;
    return request(RTM_NEWADDR, flags, raw(ifaddrmsg{family, prefix, 0, 0, 7}) +
                                           fk::attr(IFA_LOCAL, bytes(a.addr, a.addr + size)) +
                                           fk::attr(IFA_CACHEINFO, raw(ifa_cacheinfo{preferred, valid, 0, 0})));
}

// tcmsg and TCA_KIND; for the prio qdiscs also TCA_OPTIONS: bands, priomap
// and the flow-enable byte, then an empty nest of the same type.
bytes tc(uint16_t type, uint16_t flags, int ifindex, uint32_t parent, uint32_t handle, const std::string &kind,
         int bands = 0, uint8_t flow_enable = 0)
{
    const bytes priomap = bands == 5 ? bytes{3, 4, 4, 4, 3, 4, 2, 2, 4, 3, 2, 1, 0, 0, 0, 0}
                                     : bytes{1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
    const bytes options = raw(bands) + priomap + bytes{flow_enable, 0, 0, 0} + fk::attr(TCA_OPTIONS, {});
    return request(type, flags, raw(tcmsg{AF_UNSPEC, 0, 0, ifindex, handle, parent, 0}) +
                                    fk::attr(TCA_KIND, fk::str_bytes(kind)) +
                                    (bands != 0 ? fk::attr(TCA_OPTIONS, options) : bytes{}));
}

// The rows name this file's functions' lines but the descriptor lines; of them only addr_cfg's and the descriptor
// lines reach the log file.
bool own(const std::string &t) { return t.rfind("tavrel_rtnetlink_", 0) == 0 && t.find(" file descriptor ") == std::string::npos; }
bool no_file(const std::string &t) { return own(t) && t.rfind("tavrel_rtnetlink_addr_cfg(", 0) != 0; }

// The route socket (no extended acknowledgement) is bound to the kernel, logs its descriptor, reads 36 bytes, closes
// and logs all but descriptor 0.
void route_sockets()
{
    lines descriptors, expected;
    for (const std::string &l : logcap::diag_lines())
        if (l.rfind("LOW tavrel_rtnetlink_", 0) == 0 && l.find(" file descriptor ") != std::string::npos)
            descriptors.push_back(l);
    for (const auto &s : fk::sockets()) {
        EXPECT_EQ(s.closed, s.fd > 0) << "descriptor " << s.fd;
        EXPECT_EQ(std::make_tuple(s.protocol, s.type, s.bind_length, s.bind_address.nl_family,
                                  s.bind_address.nl_pid | s.bind_address.nl_groups),
                  std::make_tuple(NETLINK_ROUTE, SOCK_RAW | SOCK_CLOEXEC, s.bound ? 12u : 0u, s.bound ? AF_NETLINK : 0, 0u));
        EXPECT_TRUE(s.ext_ack_requested || s.recv_sizes.empty() || s.recv_sizes == std::vector<size_t>{36});
        for (const std::string event : {"opened", "closing"})
            if (!s.ext_ack_requested && (event == "opened" || s.fd > 0))
                expected.push_back("LOW tavrel_rtnetlink_transaction(): " + event + " file descriptor " + fd_text(s.fd) + "\n");
    }
    EXPECT_EQ(descriptors, expected);
}

// A row with eth0 as interface 7, one route socket, acknowledging unless told otherwise, and at most one request.
struct row {
    Call call;
    bytes sent;
    line_matchers own;
    int result = 0;
    P plan = P().reply(fk::ack(0));
    operator call_row() const
    {
        const Call with_eth0 = [c = call] { return fk::set_interface("eth0", 7), c(); };
        return {with_eth0, {plan}, sent.empty() ? std::vector<bytes>{} : std::vector<bytes>{sent}, own, result};
    }
};

class Rtnetlink : public TavrelTest {};

TEST_F(Rtnetlink, RequestsResultsAndMessages)
{
    const tavrel_ip_addr v4{4, 4, {10, 1, 0, 1}}, bad{5, 4, {10, 1, 0, 1}};
    const tavrel_ip_addr v6{6, 16, {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    auto cfg = [&](uint32_t operation) -> Call {  // only the low 8 bits of the prefix length go out
        return [&, operation] { return tavrel_rtnetlink_addr_cfg("eth0", &v4, 0x118, operation, 600); };
    };
    const Call add = [] { return tavrel_rtnetlink_add_ip_rule(0x10, 0, 0xfffffffe, 1000); },
               del = [] { return tavrel_rtnetlink_del_ip_rule(0x10, 0, 0xfffffffe, 1000); },
               by_prio = [] { return tavrel_rtnetlink_del_ip_rule_by_prio(0); },
               gso_eth0 = [] { return tavrel_rtnetlink_gso_max_size("eth0", 0); },
               pfifo = [] { return qdisc("eth0", "pfifo", 0, 0x10000, 0); };
    const bytes match = u32(FRA_PRIORITY, 1000) + u32(FRA_FWMARK, 0x10) + u32(FRA_FWMASK, 0) + u32(FRA_TABLE, 0xfffffffe);
    const bytes add_rule = rule_request(RTM_NEWRULE, 0x0601, FR_ACT_TO_TBL, match),
                del_rule = rule_request(RTM_DELRULE, 0x0001, FR_ACT_UNSPEC, match),
                del_prio = rule_request(RTM_DELRULE, 0x0001, FR_ACT_UNSPEC, u32(FRA_PRIORITY, 0)),
                gso = request(RTM_NEWLINK, 0x0005, raw(ifinfomsg{AF_UNSPEC, 0, 0, 7, 0, 0}) + u32(IFLA_GSO_MAX_SIZE, 0)),
                pfifo_add = tc(RTM_NEWQDISC, 0x0605, 7, kRoot, 0x10000, "pfifo");
    const std::string fn = "tavrel_rtnetlink_", kind(495, 'k'), invalid = "(): tc qdisc invalid flag operation",
                      cfg_ = "ERR tavrel_rtnetlink_addr_cfg(): ", gso_ = "tavrel_rtnetlink_gso_max_size(): ",
                      sending = "LOW tavrel_rtnetlink_flow_control(): sending nlmsg \"tc qdisc ",
                      tx = "ERR tavrel_rtnetlink_transaction(): ",
                      nothing = "invalid parameter failed![2:No such file or directory]",
                      failed = "ERR tavrel_rtnetlink_tc_qdisc(): tc qdisc transaction failed!";
    const row rows[] = {
        // Rules go without NLM_F_ACK: a whole send is success.
        {add, add_rule, {"LOW " + fn + "add_ip_rule(): Successfully set up ip rule\n"}, 0, P()},
        {del, del_rule, {"LOW " + fn + "del_ip_rule(): Successfully removed ip rule\n"}, 0, P()},
        {by_prio, del_prio, {"LOW " + fn + "del_ip_rule_by_prio(): Successfully removed ip rule\n"}, 0, P()},
        // Only 0 and 3 add without replacing; only 1 and 3 use the lifetime.
        {cfg(0), address_request(0x0005, v4, 24, F, F), {}}, {cfg(1), address_request(0x0105, v4, 24, 0, 600), {}},
        {cfg(2), address_request(0x0105, v4, 24, F, F), {}}, {cfg(3), address_request(0x0005, v4, 24, 0, 600), {}},
        {cfg(5), address_request(0x0105, v4, 24, F, F), {}},
        {[&] { return tavrel_rtnetlink_addr_cfg("eth0", &v6, 64, 3, 30); }, address_request(0x0005, v6, 64, 0, 30), {}},
        // The interface is resolved before the record is looked at.
        {[&] { return tavrel_rtnetlink_addr_cfg("nope", &bad, 24, 0, 0); }, {}, {cfg_ + "no such device nope\n"}, -1},
        {[&] { return tavrel_rtnetlink_addr_cfg("eth0", &bad, 24, 0, 0); }, {}, {cfg_ + "invalid addr family 5\n"}, -1},
        {cfg(0), address_request(0x0005, v4, 24, F, F), {cfg_ + "configuring address failed\n"}, -1,
         P().reply(fk::ack(-EEXIST))},
        {gso_eth0, gso, {"LOW " + gso_ + "configured gso max size 0 for dev eth0\n"}},
        {[] { return tavrel_rtnetlink_gso_max_size("nope", 0); }, {}, {"ERR " + gso_ + "no such device nope\n"}, -1},
        {gso_eth0, gso, {"ERR " + gso_ + "configuring gso max size failed for dev eth0\n"}, -1, P().reply(fk::ack(-EINVAL))},
        // An unknown interface goes on as index 0; the kind may fill its room.
        {[&] { return qdisc("nope", kind.c_str(), 0, 0, 1); }, tc(RTM_DELQDISC, 0x0005, 0, kRoot, 0, kind), {}},
        {[] { return prio("eth0", 0, 0x10000, 0); }, tc(RTM_NEWQDISC, 0x0605, 7, kRoot, 0x10000, "prio", 5, 1), {}},
        {[] { return prio("eth0", 0x10000, 0x20000, 1); }, tc(RTM_DELQDISC, 0x0005, 7, 0x10000, 0x20000, "prio"), {}},
        {[] { return flow("eth0", 0, 0x10000, 1, 0); }, tc(RTM_NEWQDISC, 0x0605, 7, kRoot, 0x10000, "prio", 3, 1),
         {sending + "add dev eth0 parent:0xffffffff hndl:0x10000 prio flow enable"}},
        {[] { return flow("eth0", 0, 0x10000, 0, 2); }, tc(RTM_NEWQDISC, 0x0005, 7, kRoot, 0x10000, "prio", 3, 0),
         {sending + "change dev eth0 parent:0xffffffff hndl:0x10000 prio flow disable"}},
        // Only the low byte of enable is sent; the word reflects the whole value.
        {[] { return flow("eth0", 0x30000, 0x10000, 0x100, 0); }, tc(RTM_NEWQDISC, 0x0605, 7, 0x30000, 0x10000, "prio", 3, 0),
         {sending + "add dev eth0 parent:0x30000 hndl:0x10000 prio flow enable"}},
        {[] { return flow("eth0", 0, 0x10000, 1, 1); }, tc(RTM_DELQDISC, 0x0005, 7, kRoot, 0x10000, "prio"),
         {sending + "delete dev eth0 parent:0xffffffff hndl:0x10000 prio flow enable"}},
        // Refused before any socket.
        {[] { return qdisc(nullptr, "pfifo", 0, 0, 0); }, {}, {}, -1}, {[] { return prio(nullptr, 0, 0, 0); }, {}, {}, -1},
        {[] { return qdisc("eth0", nullptr, 0, 0, 0); }, {}, {}, -1}, {[] { return flow(nullptr, 0, 0, 1, 0); }, {}, {}, -1},
        {[] { return fk::set_interface("huge", 0x80000000u), flow("huge", 0, 0, 1, 0); }, {}, {}, -1},  // index < 0
        {[] { return qdisc("eth0", "pfifo", 0, 0, 2); }, {}, {"ERR " + fn + "tc_qdisc" + invalid}, -1},
        {[] { return prio("eth0", 0, 0, 2); }, {}, {"ERR " + fn + "tc_prio" + invalid}, -1},
        {[] { return flow("nope", 0, 0, 1, 3); }, {}, {"ERR " + fn + "flow_control" + invalid}, -1},
        {[] { return flow("eth0", 0, 0, 1, -1); }, {}, {"ERR " + fn + "flow_control" + invalid}, -1},
        {[] { return errno = ENOENT, tavrel_rtnetlink_transaction(nullptr, 16); }, {}, {tx + nothing}, -1},
        {[&] { return errno = ENOENT, tavrel_rtnetlink_transaction(as_message(pfifo_add), 0); }, {}, {tx + nothing}, -1},
        // The route socket's answers: one acknowledgement, of which only 36 bytes are read.
        {pfifo, pfifo_add, {tx + "netlink message error rc:-22 (Unknown error -22)", failed}, -1,
         P().reply(fk::ack(-EINVAL, pfifo_add))},
        {pfifo, pfifo_add, {testing::StartsWith(tx + "route nl recv failed! rc:20 errno "), failed}, -1,
         P().reply(fk::datagram({{NLMSG_ERROR, 0, bytes(4)}}))},
        {pfifo, pfifo_add, {failed}, -1, P().reply(fk::datagram({{RTM_NEWQDISC, 0, bytes(20)}}))},
        {pfifo, pfifo_add, {}, 0, P().fd(0).reply(fk::ack(0))},  // descriptor 0 stays open, and unlogged
    };
    check_rows({std::begin(rows), std::end(rows)}, {own, no_file}, route_sockets);
    EXPECT_DEATH(qdisc("eth0", std::string(496, 'k').c_str(), 0, 0, 0), "");
}

}  // namespace
