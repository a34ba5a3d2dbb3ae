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

/* ---- selectors and policies ------------------------------------------------- */
