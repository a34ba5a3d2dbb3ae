/* IPv6 address labels: adding and deleting entries of the kernel's label
 * table, choosing a label that no entry uses yet, and purging the entries of
 * an address or of its label. The label list of the generator is the only
 * heap memory of the library. */
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <linux/if_addrlabel.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "tavrel_internal.h"

namespace {

constexpr uint32_t kHeaderLen = sizeof(struct nlmsghdr) + sizeof(struct ifaddrlblmsg); /* 28 */
constexpr uint32_t kMaxAttr = IFAL_LABEL;
constexpr uint32_t kLabelSize = sizeof(uint32_t);

/* Labels below this are the system's; 1 is the one the daemon may ask for. */
constexpr uint32_t kFirstDaemonLabel = 20;
/* The gap search only looks at labels above the first daemon label. */
constexpr uint32_t kFirstSearchedLabel = 21;
/* rand() never exceeds 2^31 - 1, so a base below 2^31 cannot wrap. */
constexpr uint32_t kLabelBaseLimit = 0x80000000u;

struct modify_request {
    struct nlmsghdr header;
    struct ifaddrlblmsg ifal;
    uint8_t attributes[256];
};

struct generate_request {
    struct nlmsghdr header;
    struct ifaddrlblmsg ifal;
};

struct purge_request {
    struct nlmsghdr header;
    struct ifaddrlblmsg ifal;
    uint8_t attributes[64];
};

static_assert(sizeof(struct nlmsghdr) == 16, "nlmsghdr layout");
static_assert(sizeof(struct nlattr) == 4, "nlattr layout");
static_assert(sizeof(struct ifaddrlblmsg) == 12, "ifaddrlblmsg layout");
static_assert(offsetof(struct ifaddrlblmsg, ifal_prefixlen) == 2, "ifaddrlblmsg layout");
static_assert(offsetof(struct ifaddrlblmsg, ifal_index) == 4, "ifaddrlblmsg layout");
static_assert(IFAL_MAX == IFAL_LABEL, "address-label attribute table");
static_assert(offsetof(modify_request, ifal) == 16 && offsetof(modify_request, attributes) == kHeaderLen,
              "address-label request layout");
static_assert(sizeof(modify_request) - offsetof(struct nlmsghdr, nlmsg_seq) == 276, "address-label request size");
static_assert(sizeof(generate_request) == kHeaderLen, "label dump request size");
static_assert(offsetof(purge_request, attributes) == kHeaderLen &&
                  sizeof(purge_request) - offsetof(struct nlmsghdr, nlmsg_seq) == 84,
              "label query request size");

/* Family, full prefix width and address bytes of an IP version; false for
 * anything but 4 and 6. */
bool version_layout(uint32_t version, uint8_t *family, uint8_t *width, int *address_len)
{
    if (version == 4) {
        *family = AF_INET;
        *width = 32;
        *address_len = 4;
        return true;
    }
    if (version == 6) {
        *family = AF_INET6;
        *width = 128;
        *address_len = 16;
        return true;
    }
    return false;
}

const struct ifaddrlblmsg *ifal_of(const struct nlmsghdr *message)
{
    return reinterpret_cast<const struct ifaddrlblmsg *>(reinterpret_cast<const uint8_t *>(message) +
                                                         sizeof(struct nlmsghdr));
}

const struct nlattr *attributes_of(const struct nlmsghdr *message)
{
    return reinterpret_cast<const struct nlattr *>(reinterpret_cast<const uint8_t *>(message) + kHeaderLen);
}

uint32_t payload_len(const struct nlattr *attr)
{
    return tavrel_ck_sub<uint32_t>(tavrel_attr_len(attr), NLA_HDRLEN);
}

/* Copies at most room bytes of an attribute's payload into dst, which the
 * caller zeroed. A short payload must not make us read past the attribute:
 * it may end the receive buffer. */
void read_payload(const struct nlattr *attr, void *dst, size_t room)
{
    const size_t available = payload_len(attr);
    memcpy(dst, reinterpret_cast<const uint8_t *>(attr) + NLA_HDRLEN, available < room ? available : room);
}

uint32_t read_label(const struct nlattr *attr)
{
    uint32_t label = 0;
    read_payload(attr, &label, sizeof label);
    return label;
}

bool is_system_label(uint32_t label)
{
    return label < kFirstDaemonLabel && label != 1;
}

/* The match lines name no function and have no newline: the daemon's log
 * readers match them as they stand. */
#define TAVREL_IPV6_TEXT "[%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x:%.2x%.2x]"
#define TAVREL_IPV6_BYTES(a)                                                                                     \
    unsigned(a[0]), unsigned(a[1]), unsigned(a[2]), unsigned(a[3]), unsigned(a[4]), unsigned(a[5]), unsigned(a[6]), \
        unsigned(a[7]), unsigned(a[8]), unsigned(a[9]), unsigned(a[10]), unsigned(a[11]), unsigned(a[12]),           \
        unsigned(a[13]), unsigned(a[14]), unsigned(a[15])

void log_match(const tavrel_ip_addr *address, bool by_label)
{
    const uint8_t *a = address->addr;
    if (address->family == 6 && by_label)
        TAVREL_LOG_NOFILE(MED, "Label match forIPv6 addr " TAVREL_IPV6_TEXT, TAVREL_IPV6_BYTES(a));
    else if (address->family == 6)
        TAVREL_LOG_NOFILE(MED, "Matches AddressIPv6 addr " TAVREL_IPV6_TEXT, TAVREL_IPV6_BYTES(a));
    else if (by_label)
        TAVREL_LOG_NOFILE(MED, "Label match forIPv4 addr [%d.%d.%d.%d]", a[0], a[1], a[2], a[3]);
    else
        TAVREL_LOG_NOFILE(MED, "Matches AddressIPv4 addr [%d.%d.%d.%d]", a[0], a[1], a[2], a[3]);
}

#undef TAVREL_IPV6_BYTES
#undef TAVREL_IPV6_TEXT

void free_list(tavrel_addrlabel_node *head)
{
    while (head->next != head) {
        tavrel_addrlabel_node *node = head->next;
        head->next = node->next;
        node->next->prev = head;
        free(node);
    }
}

} // namespace

/* ---- entries ---------------------------------------------------------------- */

int tavrel_addrlabel_modify(uint16_t type, const tavrel_ip_addr *address, uint32_t prefix_length, uint32_t label,
                            uint32_t interface_index)
{
    modify_request request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = kHeaderLen;
    request.header.nlmsg_type = type;
    /* Anything that is not an addition goes out as a deletion. */
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    if (type == RTM_NEWADDRLABEL)
        request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE;
    request.ifal.ifal_prefixlen = static_cast<uint8_t>(prefix_length);
    request.ifal.ifal_index = interface_index;

    uint8_t width;
    int address_len;
    if (!version_layout(address->family, &request.ifal.ifal_family, &width, &address_len)) {
        TAVREL_LOG(ERR, "%s(): invalid addr family %u\n", __func__, address->family);
        return -1;
    }
    tavrel_nla_put(&request.header, IFAL_LABEL, kLabelSize, &label);
    tavrel_nla_put(&request.header, IFAL_ADDRESS, address_len, address->addr);

    const int result = tavrel_netlink_transact(&request.header, NETLINK_ROUTE, nullptr);
    if (result == -1) {
        TAVREL_LOG(ERR, "%s(): modifying address label failed\n", __func__);
        return -1;
    }
    return result;
}

extern "C" int tavrel_addrlabel_add(const tavrel_ip_addr *address, uint32_t prefix_length, uint32_t label,
                                    uint32_t interface_index)
{
    if (address == nullptr) {
        tavrel_null_arg(__func__, "address");
        return -1;
    }
    return tavrel_addrlabel_modify(RTM_NEWADDRLABEL, address, prefix_length, label, interface_index);
}

extern "C" int tavrel_addrlabel_del(const tavrel_ip_addr *address, uint32_t prefix_length, uint32_t label,
                                    uint32_t interface_index)
{
    if (address == nullptr) {
        tavrel_null_arg(__func__, "address");
        return -1;
    }
    return tavrel_addrlabel_modify(RTM_DELADDRLABEL, address, prefix_length, label, interface_index);
}

int tavrel_addrlabel_nlmsg_parse(const struct nlmsghdr *message, const struct nlattr **table,
                                 const tavrel_addrlabel_filter *filter)
{
    if (message->nlmsg_type != RTM_NEWADDRLABEL) {
        TAVREL_LOG(LOW, "%s(): ignoring non-NEWADDRLABEL message\n", __func__);
        return -1;
    }
    if (message->nlmsg_len < kHeaderLen) {
        TAVREL_LOG(ERR, "%s(): invalid NEADDRLABEL message received\n", __func__);
        return -1;
    }
    const struct ifaddrlblmsg *ifal = ifal_of(message);
    const uint32_t version = filter->address->family;
    if (!((ifal->ifal_family == AF_INET6 && version == 6) || (ifal->ifal_family == AF_INET && version == 4)))
        return -1;
    if (ifal->ifal_prefixlen != filter->prefix_length || ifal->ifal_index != filter->interface_index)
        return -1;

    tavrel_nla_parse(attributes_of(message), table, message->nlmsg_len - kHeaderLen, kMaxAttr);
    if (table[IFAL_ADDRESS] == nullptr || table[IFAL_LABEL] == nullptr) {
        TAVREL_LOG(ERR, "%s(): address/label is missing in NEWADDRLABEL message\n", __func__);
        return -1;
    }
    return 0;
}

/* ---- unique label ----------------------------------------------------------- */

int tavrel_addrlabel_list_insert(tavrel_addrlabel_node *head, uint32_t label)
{
    /* The kernel dumps labels mostly in ascending order: a label above the
     * tail goes behind it at once, which keeps generation linear. */
    tavrel_addrlabel_node *place = head;
    if (head->prev == head || head->prev->label > label) {
        place = head->next;
        while (place != head) {
            if (place->label == label)
                return 0;
            if (place->label > label)
                break;
            place = place->next;
        }
    } else if (head->prev->label == label) {
        return 0;
    }
    auto *node = static_cast<tavrel_addrlabel_node *>(malloc(sizeof(tavrel_addrlabel_node)));
    if (node == nullptr) {
        TAVREL_LOG(ERR, "%s(): adding node to label list failed\n", "tavrel_addrlabel_list_insert");
        return -1;
    }
    node->label = label;
    node->next = place;
    node->prev = place->prev;
    place->prev->next = node;
    place->prev = node;
    return 0;
}

void tavrel_addrlabel_generate_cb(const struct nlmsghdr *message, void *context)
{
    if (message->nlmsg_type != RTM_NEWADDRLABEL) {
        TAVREL_LOG(LOW, "%s(): ignoring non-NEWADDRLABEL message\n", __func__);
        return;
    }
    if (message->nlmsg_len < kHeaderLen) {
        TAVREL_LOG(ERR, "%s(): invalid NEADDRLABEL message received\n", __func__);
        return;
    }
    const struct nlattr *table[kMaxAttr + 1];
    tavrel_nla_parse(attributes_of(message), table, message->nlmsg_len - kHeaderLen, kMaxAttr);
    const struct nlattr *label_attr = table[IFAL_LABEL];
    if (label_attr == nullptr) {
        TAVREL_LOG(ERR, "%s(): label attribute is missing in NEWADDRLABEL message\n", __func__);
        return;
    }
    if (payload_len(label_attr) != kLabelSize) {
        TAVREL_LOG(ERR, "%s(): label attribute is malformed\n", __func__);
        return;
    }
    const uint32_t label = read_label(label_attr);
    if (tavrel_addrlabel_list_insert(static_cast<tavrel_addrlabel_node *>(context), label) == -1)
        TAVREL_LOG(ERR, "%s(): Inserting label %u failed\n", __func__, label);
}

extern "C" int tavrel_addrlabel_generate(uint32_t version, uint32_t mode, uint32_t *label)
{
    if (label == nullptr) {
        tavrel_null_arg(__func__, "label");
        return -1;
    }
    if (mode == 1) {
        *label = 1;
        return 0;
    }
    generate_request request;
    memset(&request, 0, sizeof request);
    uint8_t width;
    int address_len;
    if (!version_layout(version, &request.ifal.ifal_family, &width, &address_len)) {
        TAVREL_LOG(ERR, "%s(): invalid addr type 0x%x\n", __func__, version);
        return -1;
    }
    request.header.nlmsg_len = kHeaderLen;
    request.header.nlmsg_type = RTM_GETADDRLABEL;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;

    tavrel_addrlabel_node head;
    head.next = &head;
    head.prev = &head;
    head.label = 0;
    if (tavrel_netlink_dump(&request.header, NETLINK_ROUTE, tavrel_addrlabel_generate_cb, &head) == -1) {
        /* Deliberately no walk of the list here: the nodes gathered before
         * the failure stay allocated, a known and accepted leak of this one
         * path. The unit tests count exactly these blocks. */
        TAVREL_LOG(ERR, "%s(): gathering list of current labels failed\n", __func__);
        return -1;
    }

    /* The head's label 0 is the predecessor of the first node. */
    int result = -1;
    uint32_t chosen = 0;
    bool found = false;
    for (const tavrel_addrlabel_node *node = head.next; node != &head; node = node->next) {
        if (node->label < kFirstSearchedLabel)
            continue;
        if (tavrel_ck_sub<uint32_t>(node->label, node->prev->label) >= 2) {
            chosen = node->label - 1;
            found = true;
            break;
        }
    }
    if (found) {
        result = 0;
    } else {
        /* An empty list leaves head.prev at the head, whose label is 0. */
        const uint32_t largest = head.prev->label;
        const uint32_t base = largest > kFirstDaemonLabel ? largest : kFirstDaemonLabel;
        if (base >= kLabelBaseLimit) {
            TAVREL_LOG(ERR, "%s(): generating unique label failed\n", __func__);
        } else {
            /* Not checked against the table: with rand() at 0 this is the
             * largest label in use. */
            chosen = tavrel_ck_add<uint32_t>(static_cast<uint32_t>(rand()), base);
            result = 0;
        }
    }
    free_list(&head);
    if (result == 0)
        *label = chosen;
    return result;
}

/* ---- purge ------------------------------------------------------------------ */

uint32_t tavrel_addrlabel_purge_label_query_cb(const struct nlmsghdr *message, void *context)
{
    auto *filter = static_cast<tavrel_addrlabel_filter *>(context);
    const struct nlattr *table[kMaxAttr + 1];
    if (tavrel_addrlabel_nlmsg_parse(message, table, filter) != 0)
        return 2;
    if (table[IFAL_LABEL] == nullptr) {
        TAVREL_LOG(LOW, "%s(): No label attribute returned from kernel\n", __func__);
        return 2;
    }
    const uint32_t label = read_label(table[IFAL_LABEL]);
    if (is_system_label(label))
        return 2;
    filter->label = label;
    return 1;
}

void tavrel_addrlabel_purge_label_dump_cb(const struct nlmsghdr *message, void *context)
{
    const auto *filter = static_cast<const tavrel_addrlabel_filter *>(context);
    const struct nlattr *table[kMaxAttr + 1];
    if (tavrel_addrlabel_nlmsg_parse(message, table, filter) != 0)
        return;
    if (table[IFAL_ADDRESS] == nullptr || table[IFAL_LABEL] == nullptr) {
        TAVREL_LOG(LOW, "%s(): Malformed addrlabel message received\n", __func__);
        return;
    }
    const uint32_t entry_label = read_label(table[IFAL_LABEL]);
    uint8_t entry_address[16] = {0};
    read_payload(table[IFAL_ADDRESS], entry_address, sizeof entry_address);

    const bool v6 = filter->address->family == 6;
    /* IPv6 compares whole prefix bytes only; IPv4 entries must match all
     * four bytes whatever their prefix. */
    size_t compared = 4;
    if (v6) {
        compared = filter->prefix_length / 8;
        if (compared > sizeof entry_address)
            compared = sizeof entry_address;
    }

    uint32_t used_label;
    int result;
    if (memcmp(entry_address, filter->address->addr, compared) == 0) {
        log_match(filter->address, false);
        const tavrel_ip_addr address = *filter->address;
        used_label = entry_label;
        result = tavrel_addrlabel_modify(RTM_DELADDRLABEL, &address, filter->prefix_length, used_label,
                                         filter->interface_index);
    } else {
        if (filter->label == 0 || entry_label != filter->label)
            return;
        tavrel_ip_addr address;
        memset(&address, 0, sizeof address);
        address.family = filter->address->family;
        memcpy(address.addr, entry_address, v6 ? 16 : 4);
        log_match(&address, true);
        used_label = filter->label;
        result = tavrel_addrlabel_modify(RTM_DELADDRLABEL, &address, filter->prefix_length, used_label,
                                         filter->interface_index);
    }
    if (result != 0)
        TAVREL_LOG(ERR, "%s(): Purging address with label %u failed\n", __func__, used_label);
}

extern "C" int tavrel_addrlabel_purge_label(const tavrel_ip_addr *address, uint32_t prefix_length,
                                            uint32_t interface_index)
{
    if (address == nullptr) {
        tavrel_null_arg(__func__, "address");
        return -1;
    }
    purge_request request;
    memset(&request, 0, sizeof request);
    int address_len;
    if (!version_layout(address->family, &request.ifal.ifal_family, &request.ifal.ifal_prefixlen, &address_len)) {
        TAVREL_LOG(ERR, "%s(): invalid addr type 0x%x\n", __func__, address->family);
        return -1;
    }
    request.header.nlmsg_len = kHeaderLen;
    request.header.nlmsg_type = RTM_GETADDRLABEL;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.ifal.ifal_index = interface_index;
    tavrel_nla_put(&request.header, IFAL_ADDRESS, address_len, address->addr);

    tavrel_addrlabel_filter filter = {address, prefix_length, 0, interface_index};
    if (tavrel_netlink_query(&request.header, NETLINK_ROUTE, tavrel_addrlabel_purge_label_query_cb, &filter, 0) ==
        -1) {
        TAVREL_LOG(ERR, "%s(): querying label failed\n", __func__);
        return -1;
    }
    if (is_system_label(filter.label))
        return 0;

    request.header.nlmsg_flags |= NLM_F_ROOT | NLM_F_MATCH;
    const int result =
        tavrel_netlink_dump(&request.header, NETLINK_ROUTE, tavrel_addrlabel_purge_label_dump_cb, &filter);
    if (result == -1) {
        TAVREL_LOG(ERR, "%s(): dumping labels failed\n", __func__);
        return -1;
    }
    return result;
}
