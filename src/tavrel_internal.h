/* Declarations shared between the library's source files; nothing here is
 * exported. */
#ifndef TAVREL_INTERNAL_H
#define TAVREL_INTERNAL_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <linux/netlink.h>
#include <linux/xfrm.h>

#include "libnltavrel.h"
#include "tavrel_platform.h"
#include "tavrel_wire_asserts.h"

/* ---- arithmetic checks ---------------------------------------------------
 * Length and offset arithmetic on request and answer buffers must never wrap:
 * a wrapped length would read or write outside the buffer. A failed check
 * stops the process; it is never reported as an error result. */

extern "C" [[noreturn]] void tavrel_check_failed(void);

template <typename T>
inline T tavrel_ck_add(T a, T b)
{
    T r;
    if (__builtin_add_overflow(a, b, &r))
        tavrel_check_failed();
    return r;
}

template <typename T>
inline T tavrel_ck_sub(T a, T b)
{
    T r;
    if (__builtin_sub_overflow(a, b, &r))
        tavrel_check_failed();
    return r;
}

template <typename T>
inline T tavrel_ck_mul(T a, T b)
{
    T r;
    if (__builtin_mul_overflow(a, b, &r))
        tavrel_check_failed();
    return r;
}

template <typename T>
inline T tavrel_ck_neg(T a)
{
    T r;
    if (__builtin_sub_overflow(T(0), a, &r))
        tavrel_check_failed();
    return r;
}

/* Rounds up to the netlink alignment of 4, checked. */
template <typename T>
inline T tavrel_ck_align4(T a)
{
    return tavrel_ck_add<T>(a, T(3)) & ~T(3);
}

/* Copy into fixed room that must hold the whole source. */
inline void tavrel_bounded_copy(void *dst, size_t room, const void *src, size_t n)
{
    if (n > room)
        tavrel_check_failed();
    memcpy(dst, src, n);
}

/* Clears a buffer that held key material, with a store the compiler may not
 * drop as dead: the buffer is about to go out of scope. */
inline void tavrel_wipe(void *buffer, size_t size)
{
    memset(buffer, 0, size);
    __asm__ __volatile__("" : : "r"(buffer) : "memory");
}

/* Whether a log statement that goes to every sink would print anywhere:
 * text made only for log lines is not made otherwise. */
inline bool tavrel_log_on(void)
{
    return (log_to_file && logging_fd != NULL) || (kv_log_mask & 3u) != 0;
}

/* A required pointer argument that is NULL: one ERR line naming it. */
void tavrel_null_arg(const char *function, const char *name);

/* Received attributes may sit at any byte offset. */
inline uint16_t tavrel_attr_len(const struct nlattr *attr)
{
    uint16_t len;
    memcpy(&len, reinterpret_cast<const uint8_t *>(attr) + offsetof(struct nlattr, nla_len), sizeof len);
    return len;
}

/* Descriptors are logged in pointer notation. */
#define TAVREL_FD_PTR(fd) ((void *)(intptr_t)(fd))

/* ---- transport ---------------------------------------------------------- */

int tavrel_netlink_open(int protocol);
void tavrel_nla_extack(const struct nlmsghdr *error_message);
uint32_t tavrel_netlink_query_genl_cb(const struct nlmsghdr *message, void *context);

/* ---- route and traffic control ------------------------------------------ */

int tavrel_rtnetlink_transaction(const struct nlmsghdr *message, int length);

/* ---- IPsec --------------------------------------------------------------- */

int tavrel_xfrm_set_address(xfrm_address_t *addr, uint8_t *prefix_len, uint16_t *family, const char *text);
int tavrel_xfrm_addr_cmp(const xfrm_address_t *addr, unsigned int family, const tavrel_ip_addr *element);
void tavrel_xfrm_set_addr_from_config(xfrm_address_t *addr, const tavrel_modem_ip_addr *rec);
void tavrel_xfrm_set_addr_from_recovery(xfrm_address_t *addr, const tavrel_ip_addr *element);
int tavrel_xfrm_add_state(const tavrel_xfrm_sa_cfg *sa_cfg, uint32_t cfg_arg2, uint32_t cfg_arg3, int is_tx,
                          int32_t link_tech);
void tavrel_xfrm_remove_state_cb(const struct nlmsghdr *nlh, void *addrs);
int tavrel_xfrm_set_sel(struct xfrm_selector *sel, const char *src, const char *dst, const char *proto);
int tavrel_xfrm_add_policy(const tavrel_xfrm_sa_addrs *addrs, const char *src, const char *dst, const char *proto,
                           uint32_t dir);
int tavrel_xfrm_remove_policy(const char *src, const char *dst, const char *proto, uint32_t dir);

/* ---- IPv6 address labels -------------------------------------------------- */

/* Filter of received address-label entries, shared by the purge and its
 * callbacks. */
struct tavrel_addrlabel_filter {
    const tavrel_ip_addr *address;
    uint32_t prefix_length;
    uint32_t label; /* 0 until the query found one */
    uint32_t interface_index;
};

struct tavrel_addrlabel_node {
    tavrel_addrlabel_node *next;
    tavrel_addrlabel_node *prev;
    uint32_t label;
};

int tavrel_addrlabel_modify(uint16_t type, const tavrel_ip_addr *address, uint32_t prefix_length, uint32_t label,
                            uint32_t interface_index);
int tavrel_addrlabel_nlmsg_parse(const struct nlmsghdr *message, const struct nlattr **table,
                                 const tavrel_addrlabel_filter *filter);
void tavrel_addrlabel_generate_cb(const struct nlmsghdr *message, void *context);
int tavrel_addrlabel_list_insert(tavrel_addrlabel_node *head, uint32_t label);
uint32_t tavrel_addrlabel_purge_label_query_cb(const struct nlmsghdr *message, void *context);
void tavrel_addrlabel_purge_label_dump_cb(const struct nlmsghdr *message, void *context);

#endif /* TAVREL_INTERNAL_H */
