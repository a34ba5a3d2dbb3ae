/* Route and traffic-control configuration: policy rules by firewall mark,
 * interface addresses and the GSO limit over the shared transport, and
 * queueing disciplines over a route socket of their own. */
#include <errno.h>
#include <net/if.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>

#include "tavrel_internal.h"

namespace {

constexpr uint32_t kLifetimeForever = 0xFFFFFFFFu;

static_assert(sizeof(struct nlmsghdr) == 16, "nlmsghdr layout");
static_assert(sizeof(struct nlattr) == 4, "nlattr layout");
static_assert(sizeof(struct nlmsgerr) == 20, "nlmsgerr layout");
static_assert(sizeof(struct sockaddr_nl) == 12, "sockaddr_nl layout");

/* ---- rules ------------------------------------------------------------------ */

/* Rule requests are filled in the route-message layout the daemon has always
 * used; the kernel reads the same twelve bytes as its rule header, so
 * rtm_protocol and rtm_scope land on reserved bytes and rtm_type on the rule
 * action (RTN_UNICAST == FR_ACT_TO_TBL). */
static_assert(sizeof(struct rtmsg) == 12 && sizeof(struct fib_rule_hdr) == 12, "rule header size");
static_assert(offsetof(struct rtmsg, rtm_family) == offsetof(struct fib_rule_hdr, family), "rule family");
static_assert(offsetof(struct rtmsg, rtm_table) == offsetof(struct fib_rule_hdr, table), "rule table");
static_assert(offsetof(struct rtmsg, rtm_protocol) == offsetof(struct fib_rule_hdr, res1), "rule res1");
static_assert(offsetof(struct rtmsg, rtm_scope) == offsetof(struct fib_rule_hdr, res2), "rule res2");
static_assert(offsetof(struct rtmsg, rtm_type) == offsetof(struct fib_rule_hdr, action), "rule action");
static_assert(offsetof(struct rtmsg, rtm_flags) == offsetof(struct fib_rule_hdr, flags), "rule flags");
static_assert(int(RTN_UNICAST) == int(FR_ACT_TO_TBL) && int(RTN_UNSPEC) == int(FR_ACT_UNSPEC), "rule action through rtm_type");

struct rule_request {
    struct nlmsghdr header;
    struct rtmsg rule;
    uint8_t attributes[1024];
};
static_assert(sizeof(rule_request) - offsetof(rule_request, header.nlmsg_seq) == 1044, "rule request size");

void rule_init(rule_request &r, uint16_t type, uint16_t flags, uint8_t rtm_type)
{
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = NLMSG_LENGTH(sizeof r.rule);
    r.header.nlmsg_type = type;
    r.header.nlmsg_flags = flags;
    r.rule.rtm_family = AF_INET;
    r.rule.rtm_table = RT_TABLE_UNSPEC; /* the table travels in FRA_TABLE */
    r.rule.rtm_protocol = RTPROT_BOOT;
    r.rule.rtm_scope = RT_SCOPE_UNIVERSE;
    r.rule.rtm_type = rtm_type;
}

void put_u32(struct nlmsghdr *request, uint16_t type, uint32_t value)
{
    tavrel_nla_put(request, type, sizeof value, &value);
}

void rule_put_match(rule_request &r, uint32_t mark, uint32_t mask, uint32_t table, uint32_t priority)
{
    put_u32(&r.header, FRA_PRIORITY, priority);
    put_u32(&r.header, FRA_FWMARK, mark);
    put_u32(&r.header, FRA_FWMASK, mask);
    put_u32(&r.header, FRA_TABLE, table);
}

/* Rules go without NLM_F_ACK, so the transport does not wait for the
 * kernel: success means the request was written whole, and a refusal (a
 * duplicate rule, a rule that is not there) is never seen. Kept so on
 * purpose. */
bool rule_send(const rule_request &r)
{
    return tavrel_netlink_transact(&r.header, NETLINK_ROUTE, nullptr) != -1;
}

/* ---- addresses and links ------------------------------------------------------ */

struct addr_request {
    struct nlmsghdr header;
    struct ifaddrmsg ifa;
    uint8_t attributes[256];
};
static_assert(sizeof(struct ifaddrmsg) == 8, "ifaddrmsg layout");
static_assert(sizeof(struct ifa_cacheinfo) == 16 && offsetof(struct ifa_cacheinfo, ifa_valid) == 4,
              "ifa_cacheinfo layout");
static_assert(sizeof(addr_request) - offsetof(addr_request, header.nlmsg_seq) == 272, "address request size");

struct link_request {
    struct nlmsghdr header;
    struct ifinfomsg ifi;
    uint8_t attributes[1024];
};
static_assert(sizeof(struct ifinfomsg) == 16, "ifinfomsg layout");
static_assert(sizeof(link_request) - offsetof(link_request, header.nlmsg_seq) == 1048, "link request size");

/* ---- traffic control ------------------------------------------------------------ */

struct tc_request {
    struct nlmsghdr header;
    struct tcmsg tc;
    uint8_t attributes[500];
};
static_assert(sizeof(struct tcmsg) == 20 && offsetof(struct tcmsg, tcm_ifindex) == 4 &&
                  offsetof(struct tcmsg, tcm_parent) == 12,
              "tcmsg layout");
constexpr size_t kTcZeroFrom = offsetof(tc_request, header.nlmsg_type);
static_assert(sizeof(tc_request) - kTcZeroFrom == 532, "traffic-control request size");
/* Room for the kind string behind the headers and the TCA_KIND header. */
constexpr size_t kTcKindAt = offsetof(tc_request, attributes) + NLA_HDRLEN;
constexpr size_t kTcKindRoom = sizeof(tc_request) - kTcKindAt;
static_assert(kTcKindRoom == 496, "traffic-control kind room");

/* The target kernel's prio scheduler reads one byte behind the standard
 * options: whether the qdisc lets traffic flow. Other kernels ignore it. */
struct prio_options {
    struct tc_prio_qopt qopt;
    uint8_t flow_enable;
    uint8_t reserved[3];
};
static_assert(sizeof(struct tc_prio_qopt) == 20 && offsetof(struct tc_prio_qopt, priomap) == 4,
              "tc_prio_qopt layout");
static_assert(sizeof(prio_options) == 24 && offsetof(prio_options, flow_enable) == 20, "prio options layout");

enum tc_operation : int { TC_ADD = 0, TC_DELETE = 1, TC_CHANGE = 2 };

const char *tc_operation_word(int operation)
{
    return operation == TC_ADD ? "add" : operation == TC_DELETE ? "delete" : "change";
}

/* Header, tcmsg and TCA_KIND; the caller has checked the operation. */
void tc_fill(tc_request &r, int ifindex, const char *kind, uint32_t parent, uint32_t handle, int operation)
{
    r.header.nlmsg_len = NLMSG_LENGTH(sizeof r.tc);
    memset(reinterpret_cast<uint8_t *>(&r) + kTcZeroFrom, 0, sizeof r - kTcZeroFrom);
    r.header.nlmsg_type = operation == TC_DELETE ? RTM_DELQDISC : RTM_NEWQDISC;
    r.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    if (operation == TC_ADD)
        r.header.nlmsg_flags |= NLM_F_EXCL | NLM_F_CREATE;
    r.tc.tcm_family = AF_UNSPEC;
    r.tc.tcm_ifindex = ifindex;
    r.tc.tcm_handle = handle;
    r.tc.tcm_parent = parent == 0 ? TC_H_ROOT : parent;

    const size_t kind_size = strlen(kind) + 1;
    auto *base = reinterpret_cast<uint8_t *>(&r);
    tavrel_bounded_copy(base + kTcKindAt, kTcKindRoom, kind, kind_size);
    /* kind_size <= 496 here, so the lengths below cannot wrap. */
    const struct nlattr kind_attr = {static_cast<uint16_t>(kind_size + NLA_HDRLEN), TCA_KIND};
    memcpy(base + offsetof(tc_request, attributes), &kind_attr, sizeof kind_attr);
    r.header.nlmsg_len = tavrel_ck_add<uint32_t>(r.header.nlmsg_len, tavrel_ck_align4<uint32_t>(kind_attr.nla_len));
}

/* TCA_OPTIONS in the old compat shape: the fixed record, then an empty nest
 * of the same type that the outer attribute's length takes in. Called only
 * behind the four-byte kind "prio", so everything fits. */
void tc_put_prio_options(tc_request &r, int bands, const uint8_t (&priomap)[TC_PRIO_MAX + 1], uint8_t flow_enable)
{
    auto *base = reinterpret_cast<uint8_t *>(&r);
    const uint32_t options_at = r.header.nlmsg_len;

    prio_options record;
    memset(&record, 0, sizeof record);
    record.qopt.bands = bands;
    memcpy(record.qopt.priomap, priomap, sizeof record.qopt.priomap);
    record.flow_enable = flow_enable;
    memcpy(base + options_at + NLA_HDRLEN, &record, sizeof record);

    const uint32_t nest_at = options_at + NLA_HDRLEN + sizeof record;
    const struct nlattr nest = {NLA_HDRLEN, TCA_OPTIONS};
    memcpy(base + nest_at, &nest, sizeof nest);
    r.header.nlmsg_len = nest_at + NLA_HDRLEN;

    const struct nlattr options = {static_cast<uint16_t>(r.header.nlmsg_len - options_at), TCA_OPTIONS};
    memcpy(base + options_at, &options, sizeof options);
}

/* if_nametoindex's unsigned index as the signed tcm_ifindex. */
int tc_ifindex(const char *interface_name)
{
    return static_cast<int>(if_nametoindex(interface_name));
}

/* What every qdisc request checks before it is built: a name, its index (an
 * unknown name goes on as index 0 and is left to the kernel) and an
 * operation the function knows. */
bool tc_begin(const char *interface_name, int operation, int last_operation, const char *function, int *ifindex)
{
    if (interface_name == nullptr)
        return false;
    *ifindex = tc_ifindex(interface_name);
    if (*ifindex < 0)
        return false;
    if (operation < TC_ADD || operation > last_operation) {
        TAVREL_LOG_NOFILE(ERR, "%s(): tc qdisc invalid flag operation", function);
        return false;
    }
    return true;
}

int tc_send(const tc_request &r, const char *function)
{
    if (tavrel_rtnetlink_transaction(&r.header, static_cast<int>(r.header.nlmsg_len)) < 0) {
        TAVREL_LOG_NOFILE(ERR, "%s(): tc qdisc transaction failed!", function);
        return -1;
    }
    return 0;
}

/* Band per packet priority 0-15 (TC_PRIO_*). */
constexpr uint8_t kFlowControlPriomap[TC_PRIO_MAX + 1] = {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1};
constexpr uint8_t kPrioPriomap[TC_PRIO_MAX + 1] = {3, 4, 4, 4, 3, 4, 2, 2, 4, 3, 2, 1, 0, 0, 0, 0};

} // namespace

/* ---- rules ------------------------------------------------------------------ */

extern "C" int tavrel_rtnetlink_add_ip_rule(uint32_t mark, uint32_t mask, uint32_t table, uint32_t priority)
{
    rule_request r;
    rule_init(r, RTM_NEWRULE, NLM_F_REQUEST | NLM_F_EXCL | NLM_F_CREATE, RTN_UNICAST);
    rule_put_match(r, mark, mask, table, priority);
    if (!rule_send(r)) {
        TAVREL_LOG_NOFILE(ERR, "%s(): Failed to install ip rule\n", __func__);
        return -1;
    }
    TAVREL_LOG_NOFILE(LOW, "%s(): Successfully set up ip rule\n", __func__);
    return 0;
}

extern "C" int tavrel_rtnetlink_del_ip_rule(uint32_t mark, uint32_t mask, uint32_t table, uint32_t priority)
{
    rule_request r;
    rule_init(r, RTM_DELRULE, NLM_F_REQUEST, RTN_UNSPEC);
    rule_put_match(r, mark, mask, table, priority);
    if (!rule_send(r)) {
        TAVREL_LOG_NOFILE(ERR, "%s(): Failed to remove ip rule\n", __func__);
        return -1;
    }
    TAVREL_LOG_NOFILE(LOW, "%s(): Successfully removed ip rule\n", __func__);
    return 0;
}

extern "C" int tavrel_rtnetlink_del_ip_rule_by_prio(uint32_t priority)
{
    /* Action, mark, mask and table left out match any rule at priority. */
    rule_request r;
    rule_init(r, RTM_DELRULE, NLM_F_REQUEST, RTN_UNSPEC);
    put_u32(&r.header, FRA_PRIORITY, priority);
    if (!rule_send(r)) {
        TAVREL_LOG_NOFILE(ERR, "%s(): Failed to remove ip rule\n", __func__);
        return -1;
    }
    TAVREL_LOG_NOFILE(LOW, "%s(): Successfully removed ip rule\n", __func__);
    return 0;
}

/* ---- addresses and links ------------------------------------------------------ */

extern "C" int tavrel_rtnetlink_addr_cfg(const char *interface_name, const tavrel_ip_addr *address,
                                         uint32_t prefix_length, uint32_t operation, uint32_t lifetime)
{
    if (interface_name == nullptr || address == nullptr) {
        tavrel_null_arg(__func__, interface_name == nullptr ? "interface_name" : "address");
        return -1;
    }
    addr_request r;
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = NLMSG_LENGTH(sizeof r.ifa);
    r.header.nlmsg_type = RTM_NEWADDR;
    r.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;

    const unsigned int ifindex = if_nametoindex(interface_name);
    if (ifindex == 0) {
        TAVREL_LOG(ERR, "%s(): no such device %s\n", __func__, interface_name);
        return -1;
    }
    r.ifa.ifa_index = ifindex;

    int address_size;
    if (address->family == 4) {
        r.ifa.ifa_family = AF_INET;
        address_size = 4;
    } else if (address->family == 6) {
        r.ifa.ifa_family = AF_INET6;
        address_size = 16;
    } else {
        TAVREL_LOG(ERR, "%s(): invalid addr family %u\n", __func__, address->family);
        return -1;
    }
    r.ifa.ifa_prefixlen = static_cast<uint8_t>(prefix_length);
    tavrel_nla_put(&r.header, IFA_LOCAL, address_size, address->addr);

    /* Only 0 and 3 add without replacing. 1 and 3 (the codes that are 1
     * with bit 1 cleared) deprecate the address at once and keep it valid
     * for lifetime seconds; every other code, unknown ones included, keeps
     * it forever. The daemon's codes are decoded exactly so. */
    if (operation != 0 && operation != 3)
        r.header.nlmsg_flags |= NLM_F_REPLACE;
    struct ifa_cacheinfo cache;
    memset(&cache, 0, sizeof cache);
    if ((operation & ~2u) == 1) {
        cache.ifa_prefered = 0;
        cache.ifa_valid = lifetime;
    } else {
        cache.ifa_prefered = kLifetimeForever;
        cache.ifa_valid = kLifetimeForever;
    }
    tavrel_nla_put(&r.header, IFA_CACHEINFO, sizeof cache, &cache);

    const int result = tavrel_netlink_transact(&r.header, NETLINK_ROUTE, nullptr);
    if (result == -1) {
        TAVREL_LOG(ERR, "%s(): configuring address failed\n", __func__);
        return -1;
    }
    return result;
}

extern "C" int tavrel_rtnetlink_gso_max_size(const char *interface_name, uint32_t size)
{
    /* Like every message of this function, not for the log file. */
    if (interface_name == nullptr) {
        TAVREL_LOG_NOFILE(ERR, "%s(): %s is NULL\n", __func__, "interface_name");
        return -1;
    }
    link_request r;
    memset(&r, 0, sizeof r);
    r.header.nlmsg_len = NLMSG_LENGTH(sizeof r.ifi);
    r.header.nlmsg_type = RTM_NEWLINK;
    r.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    r.ifi.ifi_family = AF_UNSPEC;

    const unsigned int ifindex = if_nametoindex(interface_name);
    if (ifindex == 0) {
        TAVREL_LOG_NOFILE(ERR, "%s(): no such device %s\n", __func__, interface_name);
        return -1;
    }
    r.ifi.ifi_index = static_cast<int>(ifindex);
    put_u32(&r.header, IFLA_GSO_MAX_SIZE, size);

    if (tavrel_netlink_transact(&r.header, NETLINK_ROUTE, nullptr) == -1) {
        TAVREL_LOG_NOFILE(ERR, "%s(): configuring gso max size failed for dev %s\n", __func__, interface_name);
        return -1;
    }
    TAVREL_LOG_NOFILE(LOW, "%s(): configured gso max size %u for dev %s\n", __func__, size, interface_name);
    return 0;
}

/* ---- route-socket transaction ----------------------------------------------------- */

int tavrel_rtnetlink_transaction(const struct nlmsghdr *message, int length)
{
    if (message == nullptr || length < 1) {
        TAVREL_LOG_NOFILE(ERR, "%s(): invalid parameter failed![%d:%s]", __func__, errno, strerror(errno));
        return -1;
    }

    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    TAVREL_LOG(LOW, "%s(): opened file descriptor %p\n", __func__, TAVREL_FD_PTR(fd));
    if (fd < 0) {
        TAVREL_LOG_NOFILE(ERR, "%s(): route nl socket creation failed![%d:%s]", __func__, errno, strerror(errno));
        return -1;
    }

    int result = -1;
    struct sockaddr_nl local;
    memset(&local, 0, sizeof local);
    local.nl_family = AF_NETLINK;

    /* Only an acknowledgement is expected: one header and the error record
     * (code and echoed request header). A longer answer is cut to it. */
    struct {
        struct nlmsghdr header;
        struct nlmsgerr error;
    } answer;
    static_assert(sizeof answer == 36, "acknowledgement size");
    memset(&answer, 0, sizeof answer);

    if (bind(fd, reinterpret_cast<const struct sockaddr *>(&local), sizeof local) < 0) {
        TAVREL_LOG_NOFILE(ERR, "%s(): route nl bind failed![%d:%s]", __func__, errno, strerror(errno));
    } else if (sendto(fd, message, static_cast<size_t>(length), 0, nullptr, 0) < 0) {
        TAVREL_LOG_NOFILE(ERR, "%s(): route nl send failed![%d:%s]", __func__, errno, strerror(errno));
    } else {
        const ssize_t received = recvfrom(fd, &answer, sizeof answer, 0, nullptr, nullptr);
        if (received < static_cast<ssize_t>(sizeof answer)) {
            TAVREL_LOG_NOFILE(ERR, "%s(): route nl recv failed! rc:%ld errno %d", __func__,
                              static_cast<long>(received), errno);
        } else if (answer.header.nlmsg_type == NLMSG_ERROR) {
            const int code = answer.error.error;
            if (code == 0)
                result = 0;
            else
                TAVREL_LOG_NOFILE(ERR, "%s(): netlink message error rc:%d (%s)", __func__, code, strerror(code));
        }
    }

    /* A descriptor 0 is neither logged nor closed; long-standing behaviour,
     * kept on purpose. */
    if (fd != 0) {
        TAVREL_LOG(LOW, "%s(): closing file descriptor %p\n", __func__, TAVREL_FD_PTR(fd));
        close(fd);
    }
    return result;
}

/* ---- traffic control ------------------------------------------------------------- */

extern "C" int tavrel_rtnetlink_tc_qdisc(const char *interface_name, const char *kind, uint32_t parent,
                                         uint32_t handle, int operation)
{
    int ifindex;
    if (kind == nullptr || !tc_begin(interface_name, operation, TC_DELETE, __func__, &ifindex))
        return -1;
    tc_request r;
    tc_fill(r, ifindex, kind, parent, handle, operation);
    return tc_send(r, __func__);
}

extern "C" int tavrel_rtnetlink_tc_prio(const char *interface_name, uint32_t parent, uint32_t handle, int operation)
{
    int ifindex;
    if (!tc_begin(interface_name, operation, TC_DELETE, __func__, &ifindex))
        return -1;
    tc_request r;
    tc_fill(r, ifindex, "prio", parent, handle, operation);
    if (operation != TC_DELETE)
        tc_put_prio_options(r, 5, kPrioPriomap, 1);
    return tc_send(r, __func__);
}

extern "C" int tavrel_rtnetlink_flow_control(const char *interface_name, uint32_t parent, uint32_t handle,
                                             uint32_t enable, int operation)
{
    int ifindex;
    if (!tc_begin(interface_name, operation, TC_CHANGE, __func__, &ifindex))
        return -1;
    tc_request r;
    tc_fill(r, ifindex, "prio", parent, handle, operation);
    if (operation != TC_DELETE)
        tc_put_prio_options(r, 3, kFlowControlPriomap, static_cast<uint8_t>(enable));
    TAVREL_LOG_NOFILE(LOW, "%s(): sending nlmsg \"tc qdisc %s dev %s parent:0x%x hndl:0x%x prio flow %s", __func__,
                      tc_operation_word(operation), interface_name, r.tc.tcm_parent, handle,
                      enable != 0 ? "enable" : "disable");
    return tc_send(r, __func__);
}
