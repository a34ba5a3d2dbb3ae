/* IPsec: XFRM security associations and policies. */
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <linux/xfrm.h>

#include "tavrel_internal.h"

static_assert(sizeof(xfrm_address_t) == 16, "xfrm_address_t layout");

/* ---- address helpers -------------------------------------------------------
 * Addresses reach this file as text ("fe80::/64"), as the modem's records
 * (IPv4 as a host-order integer) and as the daemon's tavrel_ip_addr (IPv4
 * already in network order). These helpers write only the bytes an address
 * needs: callers hand in zeroed fields. */

int tavrel_xfrm_set_address(xfrm_address_t *addr, uint8_t *prefix_len, uint16_t *family, const char *text)
{
    char buffer[64] = {0};
    memcpy(buffer, text, strnlen(text, sizeof buffer - 1));

    const char *prefix_text = nullptr;
    char *slash = strchr(buffer, '/');
    if (slash != nullptr) {
        *slash = '\0';
        prefix_text = slash + 1;
    }

    const bool is_v6 = strchr(buffer, ':') != nullptr;
    if (inet_pton(is_v6 ? AF_INET6 : AF_INET, buffer, addr) <= 0) {
        if (is_v6)
            TAVREL_LOG(ERR, "%s(): invalid IPv6 address %s\n", __func__, buffer);
        else
            TAVREL_LOG(ERR, "%s(): invalid IPv4 address %s\n", __func__, buffer);
        return -1;
    }
    *family = is_v6 ? AF_INET6 : AF_INET;
    /* Any base strtoul understands, cut to a byte: the daemon's texts have
     * always been read this way. */
    if (prefix_text != nullptr)
        *prefix_len = static_cast<uint8_t>(strtoul(prefix_text, nullptr, 0));
    else
        *prefix_len = is_v6 ? 128 : 32;
    return 0;
}

int tavrel_xfrm_addr_cmp(const xfrm_address_t *addr, unsigned int family, const tavrel_ip_addr *element)
{
    if (family == AF_INET6) {
        if (element->family != 6)
            return 1;
        return memcmp(addr, element->addr, 16) != 0 ? 1 : 0;
    }
    if (family == AF_INET) {
        if (element->family != 4)
            return 1;
        return memcmp(addr, element->addr, 4) != 0 ? 1 : 0;
    }
    /* Entries of other families are matched by protocol and SPI alone. */
    return 0;
}

void tavrel_xfrm_set_addr_from_config(xfrm_address_t *addr, const tavrel_modem_ip_addr *rec)
{
    if (rec->family == 6) {
        /* The modem states how many bytes are valid; more than the address
         * holds would overwrite the request around it. */
        tavrel_bounded_copy(addr, sizeof *addr, rec->addr, rec->length);
    } else if (rec->family == 4) {
        uint32_t host_order;
        memcpy(&host_order, rec->addr, sizeof host_order);
        const uint32_t network_order = htonl(host_order);
        memcpy(addr, &network_order, sizeof network_order);
    } else {
        TAVREL_LOG(ERR, "%s(): invalid addr family %u\n", __func__, rec->family);
    }
}

void tavrel_xfrm_set_addr_from_recovery(xfrm_address_t *addr, const tavrel_ip_addr *element)
{
    if (element->family == 6)
        memcpy(addr, element->addr, 16);
    else if (element->family == 4)
        memcpy(addr, element->addr, 4);
    else
        TAVREL_LOG(ERR, "%s(): invalid addr family %u\n", __func__, element->family);
}

/* ---- adding security associations ------------------------------------------ */

/* ---- removing security associations ---------------------------------------- */

/* The daemon keeps no kernel handles for its SAs, only the pair's identity:
 * the whole SA table is dumped and the entries of the pair are deleted from
 * inside the dump callback, each with a transaction of its own. */

static_assert(sizeof(struct xfrm_usersa_info) == 224, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, id) == 56, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, saddr) == 80, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, family) == 212, "xfrm_usersa_info layout");
static_assert(sizeof(struct xfrm_usersa_id) == 24, "xfrm_usersa_id layout");
static_assert(offsetof(struct xfrm_usersa_id, spi) == 16, "xfrm_usersa_id layout");
static_assert(offsetof(struct xfrm_usersa_id, family) == 20, "xfrm_usersa_id layout");
static_assert(offsetof(struct xfrm_usersa_id, proto) == 22, "xfrm_usersa_id layout");

namespace {

constexpr uint32_t kSaEntryLen = NLMSG_HDRLEN + sizeof(struct xfrm_usersa_info); /* 240 */

struct delsa_request {
    struct nlmsghdr header;
    struct xfrm_usersa_id id;
    uint8_t attributes[64];
};
static_assert(sizeof(delsa_request) == 104, "delete-SA request layout");
static_assert(offsetof(delsa_request, id) == NLMSG_HDRLEN, "delete-SA request layout");

/* Deletes the dumped entry itself, not what the block describes: the kernel
 * needs the exact key it holds. */
int delete_state(const struct xfrm_usersa_info &entry)
{
    delsa_request request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.id);
    request.header.nlmsg_type = XFRM_MSG_DELSA;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request.id.daddr = entry.id.daddr;
    request.id.spi = entry.id.spi;
    request.id.family = entry.family;
    request.id.proto = entry.id.proto;
    tavrel_nla_put(&request.header, XFRMA_SRCADDR, sizeof entry.saddr, &entry.saddr);
    return tavrel_netlink_transact(&request.header, NETLINK_XFRM, nullptr);
}

} // namespace

void tavrel_xfrm_remove_state_cb(const struct nlmsghdr *nlh, void *addrs)
{
    if (nlh->nlmsg_type != XFRM_MSG_NEWSA) {
        TAVREL_LOG(LOW, "%s(): ignoring non-XFRM state message\n", __func__);
        return;
    }
    if (nlh->nlmsg_len < kSaEntryLen) {
        TAVREL_LOG(ERR, "%s(): invalid XFRM state message received\n", __func__);
        return;
    }
    /* The entry holds 64-bit counters; the receive buffer only promises the
     * netlink alignment of 4. */
    struct xfrm_usersa_info entry;
    memcpy(&entry, reinterpret_cast<const uint8_t *>(nlh) + NLMSG_HDRLEN, sizeof entry);

    const auto *block = static_cast<const tavrel_xfrm_sa_addrs *>(addrs);
    const tavrel_ip_addr local = block->local_addr;
    const tavrel_ip_addr remote = block->remote_addr;
    const uint8_t proto = block->proto;

    if (entry.id.proto != proto) {
        TAVREL_LOG(LOW, "%s(): ignoring non-matching protocol\n", __func__);
        return;
    }

    const tavrel_ip_addr *src;
    const tavrel_ip_addr *dst;
    /* The TX SPI decides alone: an entry with it is never tried as RX, even
     * when both SPIs are equal. */
    if (entry.id.spi == htonl(block->spi_tx)) {
        if (tavrel_xfrm_addr_cmp(&entry.saddr, entry.family, &local) != 0 ||
            tavrel_xfrm_addr_cmp(&entry.id.daddr, entry.family, &remote) != 0) {
            TAVREL_LOG(LOW, "%s(): ignoring non-matching TX address\n", __func__);
            return;
        }
        TAVREL_LOG(HIGH, "%s(): removing TX XFRM state\n", __func__);
        src = &local;
        dst = &remote;
    } else if (entry.id.spi != htonl(block->spi_rx)) {
        TAVREL_LOG(LOW, "%s(): ignoring non-matching SPI\n", __func__);
        return;
    } else {
        if (tavrel_xfrm_addr_cmp(&entry.saddr, entry.family, &remote) != 0 ||
            tavrel_xfrm_addr_cmp(&entry.id.daddr, entry.family, &local) != 0) {
            TAVREL_LOG(LOW, "%s(): ignoring non-matching RX address\n", __func__);
            return;
        }
        TAVREL_LOG(HIGH, "%s(): removing RX XFRM state\n", __func__);
        src = &remote;
        dst = &local;
    }

    char src_text[64] = {0};
    char dst_text[64] = {0};
    tavrel_util_convert_ip_addr_to_str(src, 0, src_text, sizeof src_text);
    tavrel_util_convert_ip_addr_to_str(dst, 0, dst_text, sizeof dst_text);
    TAVREL_LOG(MED, "%s():\t..src %s\n", __func__, src_text);
    TAVREL_LOG(MED, "%s():\t..dst %s\n", __func__, dst_text);
    TAVREL_LOG(MED, "%s():\t..proto %u\n", __func__, proto);
    TAVREL_LOG(MED, "%s():\t..spi 0x%x\n", __func__, ntohl(entry.id.spi));

    /* A refused deletion leaves that SA alone; the rest of the dump is still
     * worth cleaning up. */
    if (delete_state(entry) == -1)
        TAVREL_LOG(ERR, "%s(): deleting XFRM state failed\n", __func__);
}

extern "C" int tavrel_xfrm_remove_states(const tavrel_xfrm_sa_addrs *addrs)
{
    /* No body and no filter: the kernel returns every SA. */
    struct nlmsghdr request;
    memset(&request, 0, sizeof request);
    request.nlmsg_len = NLMSG_HDRLEN;
    request.nlmsg_type = XFRM_MSG_GETSA;
    request.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;

    const int result = tavrel_netlink_dump(&request, NETLINK_XFRM, tavrel_xfrm_remove_state_cb,
                                           const_cast<tavrel_xfrm_sa_addrs *>(addrs));
    if (result == -1) {
        TAVREL_LOG(ERR, "%s(): removing XFRM states failed\n", __func__);
        return -1;
    }
    return result;
}

/* ---- selectors and policies ------------------------------------------------- */

static_assert(sizeof(struct xfrm_selector) == 56, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, saddr) == 16, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, family) == 40, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, prefixlen_d) == 42, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, prefixlen_s) == 43, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, proto) == 44, "xfrm_selector layout");
static_assert(sizeof(struct xfrm_userpolicy_info) == 168, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, lft) == 56, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, priority) == 152, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, dir) == 160, "xfrm_userpolicy_info layout");
static_assert(sizeof(struct xfrm_userpolicy_id) == 64, "xfrm_userpolicy_id layout");
static_assert(offsetof(struct xfrm_userpolicy_id, dir) == 60, "xfrm_userpolicy_id layout");
static_assert(sizeof(struct xfrm_user_tmpl) == 64, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, family) == 24, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, saddr) == 28, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, mode) == 48, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, aalgos) == 52, "xfrm_user_tmpl layout");

int tavrel_xfrm_set_sel(struct xfrm_selector *sel, const char *src, const char *dst, const char *proto)
{
    if (src == nullptr && dst == nullptr) {
        TAVREL_LOG(ERR, "%s(): selector must have either source or destination\n", __func__);
        return -1;
    }
    /* The texts are logged as the daemon gave them, so one that carries a
     * prefix shows it twice (10.0.0.0/8/8); the daemon's log readers know
     * this form. */
    if (src != nullptr) {
        if (tavrel_xfrm_set_address(&sel->saddr, &sel->prefixlen_s, &sel->family, src) == -1) {
            TAVREL_LOG(ERR, "%s(): setting selector source address failed\n", __func__);
            return -1;
        }
        TAVREL_LOG(MED, "%s():\t..sel.saddr = %s/%u\n", __func__, src, sel->prefixlen_s);
    }
    /* With both texts the destination's family wins; mixed families are the
     * caller's business. */
    if (dst != nullptr) {
        if (tavrel_xfrm_set_address(&sel->daddr, &sel->prefixlen_d, &sel->family, dst) == -1) {
            TAVREL_LOG(ERR, "%s(): setting selector destination address failed\n", __func__);
            return -1;
        }
        TAVREL_LOG(MED, "%s():\t..sel.daddr = %s/%u\n", __func__, dst, sel->prefixlen_d);
    }
    if (proto == nullptr)
        return 0;

    sel->proto = static_cast<uint8_t>(strtoul(proto, nullptr, 0));
    /* A protocol that does not convert leaves a selector for every protocol.
     * That is still a usable policy, so it is reported but not refused. */
    if (sel->proto == 0) {
        TAVREL_LOG(ERR, "%s(): setting selector protocol to %s failed\n", __func__, proto);
        return 0;
    }
    TAVREL_LOG(MED, "%s():\t..sel.proto = %s\n", __func__, proto);
    return 0;
}

namespace {

constexpr uint32_t kTunnelPolicyPriority = 100;
/* Below the tunnel policies' priority, so the kernel prefers it. */
constexpr uint32_t kBypassPolicyPriority = 10;
/* ICMPv6 to link-local destinations (neighbour discovery) stays outside the
 * tunnel. */
constexpr const char *kBypassDestination = "fe80::/64";
constexpr const char *kBypassProtocol = "58";

struct newpolicy_request {
    struct nlmsghdr header;
    struct xfrm_userpolicy_info info;
    uint8_t attributes[2048];
};
static_assert(sizeof(newpolicy_request) == 2232, "add-policy request layout");
static_assert(offsetof(newpolicy_request, info) == NLMSG_HDRLEN, "add-policy request layout");

struct delpolicy_request {
    struct nlmsghdr header;
    struct xfrm_userpolicy_id id;
};
static_assert(sizeof(delpolicy_request) == 80, "delete-policy request layout");
static_assert(offsetof(delpolicy_request, id) == NLMSG_HDRLEN, "delete-policy request layout");

void init_newpolicy(newpolicy_request *request, uint32_t priority, uint32_t dir)
{
    memset(request, 0, sizeof *request);
    request->header.nlmsg_len = NLMSG_LENGTH(sizeof request->info);
    request->header.nlmsg_type = XFRM_MSG_NEWPOLICY;
    request->header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request->info.lft.soft_byte_limit = XFRM_INF;
    request->info.lft.hard_byte_limit = XFRM_INF;
    request->info.lft.soft_packet_limit = XFRM_INF;
    request->info.lft.hard_packet_limit = XFRM_INF;
    request->info.priority = priority;
    request->info.dir = static_cast<uint8_t>(dir);
    request->info.action = XFRM_POLICY_ALLOW;
    request->info.share = XFRM_SHARE_ANY;
}

/* The template names the SA by addresses, SPI and protocol; the output
 * policy points at the TX SA, input and forward at the RX SA. */
void tavrel_xfrm_set_id_from_recovery(struct xfrm_user_tmpl *tmpl, const tavrel_xfrm_sa_addrs *addrs, uint32_t dir)
{
    const tavrel_ip_addr local = addrs->local_addr;
    const tavrel_ip_addr remote = addrs->remote_addr;

    TAVREL_LOG(MED, "%s():\t..id.proto = %s\n", __func__, addrs->proto == IPPROTO_AH ? "ah" : "esp");
    tmpl->id.proto = addrs->proto;

    char local_text[64] = {0};
    char remote_text[64] = {0};
    tavrel_util_convert_ip_addr_to_str(&local, 0, local_text, sizeof local_text);
    tavrel_util_convert_ip_addr_to_str(&remote, 0, remote_text, sizeof remote_text);

    const tavrel_ip_addr *saddr;
    const tavrel_ip_addr *daddr;
    uint32_t spi;
    if (dir == XFRM_POLICY_OUT) {
        TAVREL_LOG(MED, "%s():\t..saddr = %s\n", __func__, local_text);
        TAVREL_LOG(MED, "%s():\t..id.daddr = %s\n", __func__, remote_text);
        saddr = &local;
        daddr = &remote;
        spi = addrs->spi_tx;
    } else {
        TAVREL_LOG(MED, "%s():\t..saddr = %s\n", __func__, remote_text);
        TAVREL_LOG(MED, "%s():\t..id.daddr = %s\n", __func__, local_text);
        saddr = &remote;
        daddr = &local;
        spi = addrs->spi_rx;
    }
    tavrel_xfrm_set_addr_from_recovery(&tmpl->saddr, saddr);
    tavrel_xfrm_set_addr_from_recovery(&tmpl->id.daddr, daddr);
    TAVREL_LOG(MED, "%s():\t..id.spi = 0x%x\n", __func__, spi);
    tmpl->id.spi = htonl(spi);
}

void tavrel_xfrm_set_tmpl(struct xfrm_user_tmpl *tmpl, const tavrel_xfrm_sa_addrs *addrs, uint32_t dir)
{
    tmpl->mode = addrs->mode;
    TAVREL_LOG(MED, "%s():\t..tmpl.mode = %s\n", __func__, tmpl->mode == XFRM_MODE_TUNNEL ? "tunnel" : "transport");

    /* The family follows the template's source address. An unknown version
     * leaves it 0 and the kernel decides; the address copy has already
     * logged it. */
    const uint32_t version = dir == XFRM_POLICY_OUT ? addrs->local_addr.family : addrs->remote_addr.family;
    if (version == 4)
        tmpl->family = AF_INET;
    else if (version == 6)
        tmpl->family = AF_INET6;
    TAVREL_LOG(MED, "%s():\t..tmpl.family = AF_INET%s\n", __func__, tmpl->family == AF_INET ? "" : "6");
}

} // namespace

int tavrel_xfrm_add_policy(const tavrel_xfrm_sa_addrs *addrs, const char *src, const char *dst, const char *proto,
                           uint32_t dir)
{
    newpolicy_request request;
    init_newpolicy(&request, kTunnelPolicyPriority, dir);
    if (tavrel_xfrm_set_sel(&request.info.sel, src, dst, proto) == -1) {
        TAVREL_LOG(ERR, "%s(): setting policy selector failed\n", __func__);
        return -1;
    }

    struct xfrm_user_tmpl tmpl;
    memset(&tmpl, 0, sizeof tmpl);
    tavrel_xfrm_set_id_from_recovery(&tmpl, addrs, dir);
    tavrel_xfrm_set_tmpl(&tmpl, addrs, dir);
    /* reqid 0 and every algorithm: any SA with the template's identity
     * will do. */
    tmpl.aalgos = ~0u;
    tmpl.ealgos = ~0u;
    tmpl.calgos = ~0u;
    tavrel_nla_put(&request.header, XFRMA_TMPL, sizeof tmpl, &tmpl);

    const int result = tavrel_netlink_transact(&request.header, NETLINK_XFRM, nullptr);
    if (result != -1)
        return result;
    TAVREL_LOG(ERR, "%s(): Sending XFRM policy failed\n", __func__);
    return -1;
}

int tavrel_xfrm_remove_policy(const char *src, const char *dst, const char *proto, uint32_t dir)
{
    delpolicy_request request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.id);
    request.header.nlmsg_type = XFRM_MSG_DELPOLICY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    /* Index 0: the kernel finds the policy by selector and direction. */
    request.id.dir = static_cast<uint8_t>(dir);
    if (tavrel_xfrm_set_sel(&request.id.sel, src, dst, proto) == -1) {
        TAVREL_LOG(ERR, "%s(): Setting selector failed\n", __func__);
        return -1;
    }

    const int result = tavrel_netlink_transact(&request.header, NETLINK_XFRM, nullptr);
    if (result != -1)
        return result;
    TAVREL_LOG(ERR, "%s(): Sending XFRM policy delete failed\n", __func__);
    return -1;
}

extern "C" int tavrel_xfrm_add_policies(const tavrel_xfrm_sa_addrs *addrs, const char *src, const char *dst,
                                        const char *proto, int is_tx)
{
    if (is_tx != 0) {
        TAVREL_LOG(HIGH, "%s(): Inserting output XFRM policy\n", __func__);
        const int result = tavrel_xfrm_add_policy(addrs, src, dst, proto, XFRM_POLICY_OUT);
        if (result != -1)
            return result;
        TAVREL_LOG(ERR, "%s(): Setting outgoing XFRM policy failed\n", __func__);
        return -1;
    }

    /* A refused input policy usually means the tunnel is already set up:
     * the forward policy is not tried then. */
    TAVREL_LOG(HIGH, "%s(): Inserting input XFRM policy\n", __func__);
    if (tavrel_xfrm_add_policy(addrs, src, dst, proto, XFRM_POLICY_IN) == -1) {
        TAVREL_LOG(ERR, "%s(): Setting incoming XFRM policy failed\n", __func__);
        return -1;
    }
    TAVREL_LOG(HIGH, "%s(): Inserting forward XFRM policy\n", __func__);
    const int result = tavrel_xfrm_add_policy(addrs, src, dst, proto, XFRM_POLICY_FWD);
    if (result != -1)
        return result;
    /* The input policy stays: the caller tears the tunnel down as a whole. */
    TAVREL_LOG(ERR, "%s(): Setting forwarding XFRM policy failed\n", __func__);
    return -1;
}

extern "C" int tavrel_xfrm_remove_policies(const char *src, const char *dst, const char *proto, int is_tx)
{
    if (is_tx != 0) {
        TAVREL_LOG(HIGH, "%s(): Removing output XFRM policy\n", __func__);
        const int result = tavrel_xfrm_remove_policy(src, dst, proto, XFRM_POLICY_OUT);
        if (result != -1)
            return result;
        TAVREL_LOG(ERR, "%s(): removing outgoing XFRM policy failed\n", __func__);
        return -1;
    }

    /* Unlike adding, removal goes on after a failure so that as much of the
     * tunnel as possible is cleaned up; only the forward result counts. */
    TAVREL_LOG(HIGH, "%s(): Removing input XFRM policy\n", __func__);
    if (tavrel_xfrm_remove_policy(src, dst, proto, XFRM_POLICY_IN) == -1)
        TAVREL_LOG(ERR, "%s(): removing incoming XFRM policy failed\n", __func__);
    TAVREL_LOG(HIGH, "%s(): Removing forward XFRM policy\n", __func__);
    const int result = tavrel_xfrm_remove_policy(src, dst, proto, XFRM_POLICY_FWD);
    if (result != -1)
        return result;
    TAVREL_LOG(ERR, "%s(): removing forwarding XFRM policy failed\n", __func__);
    return -1;
}

extern "C" int tavrel_xfrm_add_policy_ex(uint32_t dir)
{
    newpolicy_request request;
    init_newpolicy(&request, kBypassPolicyPriority, dir);
    if (tavrel_xfrm_set_sel(&request.info.sel, nullptr, kBypassDestination, kBypassProtocol) == -1) {
        TAVREL_LOG(ERR, "%s(): setting policy selector failed\n", __func__);
        return -1;
    }
    /* No template: matching traffic passes untransformed. */
    const int result = tavrel_netlink_transact(&request.header, NETLINK_XFRM, nullptr);
    if (result != -1)
        return result;
    TAVREL_LOG(ERR, "%s(): Sending XFRM policy failed\n", __func__);
    return -1;
}

extern "C" int tavrel_xfrm_remove_policy_ex(uint32_t dir)
{
    return tavrel_xfrm_remove_policy(nullptr, kBypassDestination, kBypassProtocol, dir);
}
