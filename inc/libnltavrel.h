/*
 * libnltavrel: kernel network configuration over NETLINK for the mobile-data
 * network manager.
 *
 * Every function returns 0 on success and -1 on failure unless its comment
 * says otherwise; callers test for exactly -1. The library keeps no state:
 * each call opens its own socket and closes it before it returns.
 *
 * Pointer arguments: a pointer that a function needs (a request, a record,
 * a callback, an output) must not be NULL. Given NULL, the function makes
 * no system call, logs one ERR line naming the argument ("<function>(): <name>
 * is NULL") and returns -1; a void function returns. The comments below say
 * which pointers may be NULL. Compilers are not told that they are non-NULL
 * (no nonnull attribute), so these checks cannot be optimized away.
 *
 * This header compiles as C11 and as C++17.
 */
#ifndef LIBNLTAVREL_H
#define LIBNLTAVREL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#include <android/log.h>
#include <linux/netlink.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TAVREL_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define TAVREL_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define TAVREL_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ------------------------------------------------------------------------ */
/* Records shared with the daemon                                           */
/* ------------------------------------------------------------------------ */

/* The daemon's IP address: IPv4 uses the first 4 bytes of addr, already in
 * network byte order. */
typedef struct tavrel_ip_addr {
    uint32_t family; /* IP version, 4 or 6 */
    uint32_t length; /* valid bytes in addr */
    uint8_t addr[16];
} tavrel_ip_addr;

/* The address form handed out by the modem's IPsec configuration library.
 * Same shape as tavrel_ip_addr, but an IPv4 address is a 32-bit integer in
 * host byte order. */
typedef struct tavrel_modem_ip_addr {
    uint32_t family; /* IP version, 4 or 6 */
    uint32_t length; /* valid bytes in addr (IPv6) */
    uint8_t addr[16];
} tavrel_modem_ip_addr;

/* Identity of one SA pair. Packed: the daemon stores it without tail
 * padding inside tavrel_xfrm_addr_set (bytes 840-897 there). */
typedef struct __attribute__((packed)) tavrel_xfrm_sa_addrs {
    tavrel_ip_addr local_addr;  /* device side */
    tavrel_ip_addr remote_addr; /* peer */
    uint32_t spi_tx;            /* host byte order */
    uint32_t spi_rx;            /* host byte order */
    uint8_t proto;              /* IPPROTO_ESP (50) or IPPROTO_AH (51) */
    uint8_t mode;               /* 1 tunnel, otherwise transport */
} tavrel_xfrm_sa_addrs;

/* One SA pair as the daemon keeps it for re-installation. The layout is a
 * binary contract with the daemon; the reserved bytes are the daemon's. */
typedef struct tavrel_xfrm_addr_set {
    uint8_t reserved0[840];
    tavrel_ip_addr local_addr;
    tavrel_ip_addr remote_addr;
    uint32_t spi_tx;
    uint32_t spi_rx;
    uint8_t proto;
    uint8_t mode;
    char crypto_alg_name[64];
    uint32_t crypto_key_len_tx;
    uint32_t crypto_key_len_rx;
    uint8_t crypto_key_tx[32];
    uint8_t crypto_key_rx[32];
    char auth_alg_name[64];
    uint32_t auth_key_len_tx;
    uint32_t auth_key_len_rx;
    uint32_t auth_trunc_len; /* bits, both directions */
    uint8_t auth_key_tx[1024];
    uint8_t auth_key_rx[1024];
    uint32_t udp_encap;       /* non-zero: ESP in UDP */
    uint16_t udp_encap_port;  /* network byte order */
    uint8_t reserved1[10];
    uint8_t is_valid;
    uint8_t reserved2[3];
} tavrel_xfrm_addr_set;

TAVREL_STATIC_ASSERT(sizeof(tavrel_ip_addr) == 24, "tavrel_ip_addr layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_ip_addr, length) == 4, "tavrel_ip_addr layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_ip_addr, addr) == 8, "tavrel_ip_addr layout");
TAVREL_STATIC_ASSERT(sizeof(tavrel_modem_ip_addr) == 24, "modem address layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_modem_ip_addr, addr) == 8, "modem address layout");
TAVREL_STATIC_ASSERT(sizeof(tavrel_xfrm_sa_addrs) == 58, "tavrel_xfrm_sa_addrs layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_sa_addrs, remote_addr) == 24, "tavrel_xfrm_sa_addrs layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_sa_addrs, spi_tx) == 48, "tavrel_xfrm_sa_addrs layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_sa_addrs, spi_rx) == 52, "tavrel_xfrm_sa_addrs layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_sa_addrs, proto) == 56, "tavrel_xfrm_sa_addrs layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_sa_addrs, mode) == 57, "tavrel_xfrm_sa_addrs layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, local_addr) == 840, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, remote_addr) == 864, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, spi_tx) == 888, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, spi_rx) == 892, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, proto) == 896, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, mode) == 897, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, crypto_alg_name) == 898, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, crypto_key_len_tx) == 964, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, crypto_key_len_rx) == 968, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, crypto_key_tx) == 972, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, crypto_key_rx) == 1004, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, auth_alg_name) == 1036, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, auth_key_len_tx) == 1100, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, auth_key_len_rx) == 1104, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, auth_trunc_len) == 1108, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, auth_key_tx) == 1112, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, auth_key_rx) == 2136, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, udp_encap) == 3160, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, udp_encap_port) == 3164, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, is_valid) == 3176, "tavrel_xfrm_addr_set layout");
TAVREL_STATIC_ASSERT(sizeof(tavrel_xfrm_addr_set) == 3180, "tavrel_xfrm_addr_set layout");
/* A pointer to local_addr of an address set is passed as an SA block. */
TAVREL_STATIC_ASSERT(offsetof(tavrel_xfrm_addr_set, mode) - offsetof(tavrel_xfrm_addr_set, local_addr) ==
                         offsetof(tavrel_xfrm_sa_addrs, mode),
                     "address set embeds the SA block");

/* ------------------------------------------------------------------------ */
/* Callbacks                                                                */
/* ------------------------------------------------------------------------ */

/* Called for every message of a dump; message is valid during the call. */
typedef void (*tavrel_dump_cb)(const struct nlmsghdr *message, void *context);

/* Called for the messages of a query answer: 1 taken, 0 bad answer (the query
 * fails), anything else (2 by convention) not this message. */
typedef uint32_t (*tavrel_query_cb)(const struct nlmsghdr *message, void *context);

/* ------------------------------------------------------------------------ */
/* Netlink transport                                                        */
/* ------------------------------------------------------------------------ */

/* Sends a request buffer on a new socket of the given NETLINK protocol and,
 * when the request carries NLM_F_ACK, waits for the acknowledgement. The
 * kernel's error code goes to *kernel_error when that is not NULL
 * (kernel_error may be NULL). */
TAVREL_API int tavrel_netlink_transact(const struct nlmsghdr *request, int protocol, int *kernel_error);

/* Appends one attribute at the 4-byte aligned end of the request. The
 * caller's buffer must have room for it. data may be NULL when length is 0. */
TAVREL_API void tavrel_nla_put(struct nlmsghdr *request, uint16_t type, int length, const void *data);

/* Appends an IPv4 or IPv6 address given as text (IPv6 when it holds ':'). */
TAVREL_API int tavrel_nla_put_ip_addr(struct nlmsghdr *request, uint16_t type, const char *address_text);

/* Indexes a run of attributes by type into table[0..max_type]; the last
 * occurrence of a type wins, a malformed attribute ends the walk. first may
 * be NULL when length is below 4 (nothing to walk). */
TAVREL_API void tavrel_nla_parse(const struct nlattr *first, const struct nlattr **table, uint32_t length,
                                 uint32_t max_type);

/* Sends a dump request and hands every answer message to callback until
 * NLMSG_DONE. Returns 0 when the dump ran to its end. context may be NULL. */
TAVREL_API int tavrel_netlink_dump(const struct nlmsghdr *request, int protocol, tavrel_dump_cb callback,
                                   void *context);

/* Sends a request and reads exactly one answer datagram, letting callback
 * pick the answer. response_required == 1 makes a missing answer a failure.
 * context may be NULL. */
TAVREL_API int tavrel_netlink_query(const struct nlmsghdr *request, int protocol, tavrel_query_cb callback,
                                    void *context, int response_required);

/* Looks up the id of a generic-netlink family by name. */
TAVREL_API int tavrel_netlink_query_genl(const char *family_name, uint8_t version, uint16_t *family_id);

/* ------------------------------------------------------------------------ */
/* Routing rules, interface configuration, traffic control                  */
/* ------------------------------------------------------------------------ */

/* IPv4 rule: packets whose mark under mask equals mark look up table, at
 * priority. Sent without acknowledgement: success means the request was
 * written whole. */
TAVREL_API int tavrel_rtnetlink_add_ip_rule(uint32_t mark, uint32_t mask, uint32_t table, uint32_t priority);
TAVREL_API int tavrel_rtnetlink_del_ip_rule(uint32_t mark, uint32_t mask, uint32_t table, uint32_t priority);
TAVREL_API int tavrel_rtnetlink_del_ip_rule_by_prio(uint32_t priority);

/* Adds or replaces an interface address. operation: 0 add forever, 1 replace
 * deprecated with valid lifetime, 2 replace forever, 3 add deprecated with
 * valid lifetime; others as 2. lifetime is in seconds. */
TAVREL_API int tavrel_rtnetlink_addr_cfg(const char *interface_name, const tavrel_ip_addr *address,
                                         uint32_t prefix_length, uint32_t operation, uint32_t lifetime);
TAVREL_API int tavrel_rtnetlink_gso_max_size(const char *interface_name, uint32_t size);

/* Queueing disciplines. operation: 0 add, 1 delete, 2 change (flow control
 * only). parent 0 means the root. A NULL interface name or kind returns -1
 * without a log line, as these functions always have. */
TAVREL_API int tavrel_rtnetlink_tc_qdisc(const char *interface_name, const char *kind, uint32_t parent,
                                         uint32_t handle, int operation);
TAVREL_API int tavrel_rtnetlink_tc_prio(const char *interface_name, uint32_t parent, uint32_t handle,
                                        int operation);
TAVREL_API int tavrel_rtnetlink_flow_control(const char *interface_name, uint32_t parent, uint32_t handle,
                                             uint32_t enable, int operation);

/* ------------------------------------------------------------------------ */
/* IPsec                                                                    */
/* ------------------------------------------------------------------------ */

/* The modem's SA configuration record, owned by its configuration library. */
typedef struct tavrel_xfrm_sa_cfg tavrel_xfrm_sa_cfg;

/* Installs the TX then the RX SA of a pair from the modem's configuration;
 * cfg_arg2 and cfg_arg3 are passed through to its accessors, link_tech
 * selects the output mark. */
TAVREL_API int tavrel_xfrm_add_states(const tavrel_xfrm_sa_cfg *sa_cfg, uint32_t cfg_arg2, uint32_t cfg_arg3,
                                      int32_t link_tech);
/* Installs one SA (is_tx non-zero: outgoing) from a daemon-filled set. A
 * NULL set logs "invalid input" and returns -1. */
TAVREL_API int tavrel_xfrm_add_state_from_addr_set(const tavrel_xfrm_addr_set *set, int is_tx, int32_t link_tech);
/* Deletes the kernel's SAs that belong to the pair. */
TAVREL_API int tavrel_xfrm_remove_states(const tavrel_xfrm_sa_addrs *addrs);

/* Tunnel policies: is_tx non-zero installs the output policy, otherwise the
 * input and forward policies. Selector texts may carry "/prefix"; proto is
 * a number as text; each may be NULL, but not both src and dst (-1 with the
 * selector's own message). addrs must not be NULL. */
TAVREL_API int tavrel_xfrm_add_policies(const tavrel_xfrm_sa_addrs *addrs, const char *src, const char *dst,
                                        const char *proto, int is_tx);
TAVREL_API int tavrel_xfrm_remove_policies(const char *src, const char *dst, const char *proto, int is_tx);
/* Bypass policy for ICMPv6 to link-local destinations in direction dir. */
TAVREL_API int tavrel_xfrm_add_policy_ex(uint32_t dir);
TAVREL_API int tavrel_xfrm_remove_policy_ex(uint32_t dir);

/* ------------------------------------------------------------------------ */
/* IPv6 address labels                                                      */
/* ------------------------------------------------------------------------ */

TAVREL_API int tavrel_addrlabel_add(const tavrel_ip_addr *address, uint32_t prefix_length, uint32_t label,
                                    uint32_t interface_index);
TAVREL_API int tavrel_addrlabel_del(const tavrel_ip_addr *address, uint32_t prefix_length, uint32_t label,
                                    uint32_t interface_index);
/* Picks a label that no entry uses (mode 1: label 1). version is 4 or 6. */
TAVREL_API int tavrel_addrlabel_generate(uint32_t version, uint32_t mode, uint32_t *label);
/* Removes the entry of the address and the entries sharing its label. */
TAVREL_API int tavrel_addrlabel_purge_label(const tavrel_ip_addr *address, uint32_t prefix_length,
                                            uint32_t interface_index);

/* ------------------------------------------------------------------------ */
/* Log statement                                                            */
/* ------------------------------------------------------------------------ */

/* Switches owned by the daemon. */
extern unsigned char log_to_file; /* non-zero: file sink on (with logging_fd) */
extern FILE *logging_fd;
extern uint32_t kv_log_mask; /* bit 0: diagnostics sink, bit 1: Android log */

/* Constant descriptor of one log call site, as the diagnostics channel
 * expects it. */
typedef struct tavrel_log_site {
    uint16_t line;       /* source line of the call site */
    uint16_t subsys_id;  /* always TAVREL_LOG_SUBSYS_ID */
    uint32_t level_mask; /* 1 LOW, 2 MED, 4 HIGH, 8 ERR */
    const char *format;  /* always "%s" */
    const char *file;    /* compile-time path of the source file */
} tavrel_log_site;

#if UINTPTR_MAX == 0xffffffffu
TAVREL_STATIC_ASSERT(sizeof(tavrel_log_site) == 16, "tavrel_log_site layout (32-bit)");
TAVREL_STATIC_ASSERT(offsetof(tavrel_log_site, file) == 12, "tavrel_log_site layout (32-bit)");
#else
TAVREL_STATIC_ASSERT(sizeof(tavrel_log_site) == 24, "tavrel_log_site layout (64-bit)");
TAVREL_STATIC_ASSERT(offsetof(tavrel_log_site, file) == 16, "tavrel_log_site layout (64-bit)");
#endif
TAVREL_STATIC_ASSERT(offsetof(tavrel_log_site, subsys_id) == 2, "tavrel_log_site layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_log_site, level_mask) == 4, "tavrel_log_site layout");
TAVREL_STATIC_ASSERT(offsetof(tavrel_log_site, format) == 8, "tavrel_log_site layout");

/* Formats like snprintf. */
int kv_format_log_msg(char *buffer, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));
/* Emits one preformatted message; the site's format is "%s". */
void kv_diag_emit_msg(const tavrel_log_site *site, ...);

#define TAVREL_LOG_SUBSYS_ID 65
#define TAVREL_LOG_TAG "ZR-TAVREL-LIB"
#define TAVREL_LOG_DIAG_BUFSZ 512

#define TAVREL_LOG_MASK_LOW 1u
#define TAVREL_LOG_MASK_MED 2u
#define TAVREL_LOG_MASK_HIGH 4u
#define TAVREL_LOG_MASK_ERR 8u
#define TAVREL_LOG_PRIO_LOW ANDROID_LOG_DEBUG
#define TAVREL_LOG_PRIO_MED ANDROID_LOG_INFO
#define TAVREL_LOG_PRIO_HIGH ANDROID_LOG_INFO
#define TAVREL_LOG_PRIO_ERR ANDROID_LOG_ERROR

/* The log statement's out-of-line part. It belongs to the library (hidden,
 * never exported). The call site tests the switches first, so with every
 * sink off a statement costs a few loads and tests and no call. */
#define TAVREL_LOG_HIDDEN __attribute__((visibility("hidden")))

/* A sink that prints a whole message: __android_log_print, or the file
 * record's tavrel_log_file_print below. */
typedef int (*tavrel_log_print_fn)(int priority, const char *tag, const char *format, ...);

/* A call site's formatter: formats the statement into buffer (the
 * diagnostics channel's) when buffer is not NULL, else prints it with print.
 * It evaluates the statement's arguments afresh on every call. */
typedef void (*tavrel_log_format_fn)(char *buffer, tavrel_log_print_fn print, void *closure);

/* Runs the sinks that are on, in their order: the file record (prefix, the
 * message, an empty line; only when file_function is not NULL), the
 * diagnostics channel (a zeroed buffer of its own, handed over with the site
 * and then wiped, since the text may carry key material) and the Android
 * log, each through the call site's formatter. */
TAVREL_LOG_HIDDEN void tavrel_log_emit(const tavrel_log_site *site, const char *file_function,
                                       tavrel_log_format_fn format, void *closure);

/* The file record's message, behind its prefix: written to logging_fd as
 * fprintf would. Its first two parameters are unused; it has the Android
 * log's signature so that a call site formats for both with one call. */
TAVREL_LOG_HIDDEN int tavrel_log_file_print(int unused_priority, const char *unused_tag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));


#define TAVREL_LOG_SITE_(mask)                                                                                \
    static const tavrel_log_site tavrel_log_site_ = {(uint16_t)__LINE__, TAVREL_LOG_SUBSYS_ID, (mask), "%s", __FILE__}

#if defined(__cplusplus) && defined(TAVREL_LOG_OUT_OF_LINE)
/* The library's own form (its sources and tests define
 * TAVREL_LOG_OUT_OF_LINE): one call to the out-of-line part per statement. */
extern "C++" {
template <typename Closure>
inline void tavrel_log_(const tavrel_log_site *site, const char *file_function, Closure &closure)
{
    tavrel_log_emit(
        site, file_function,
        [](char *buffer, tavrel_log_print_fn print, void *context) {
            (*static_cast<Closure *>(context))(buffer, print);
        },
        &closure);
}
}

/* The first argument (the logging function's name) is taken outside the
 * formatter: inside it __func__ would name the formatter. */
#define TAVREL_LOG_FILE_FUNCTION_1 tavrel_log_first_
#define TAVREL_LOG_FILE_FUNCTION_0 NULL

#define TAVREL_LOG_(to_file, mask, prio, format, first, ...)                                                  \
    do {                                                                                                      \
        TAVREL_LOG_SITE_(mask);                                                                               \
        if ((to_file && log_to_file) || (kv_log_mask & 3u)) {                                                 \
            const auto &tavrel_log_first_ = (first);                                                          \
            auto tavrel_log_format_ = [&](char *tavrel_log_buffer_, tavrel_log_print_fn tavrel_log_print_) {  \
                if (tavrel_log_buffer_ != NULL)                                                               \
                    kv_format_log_msg(tavrel_log_buffer_, TAVREL_LOG_DIAG_BUFSZ, format, tavrel_log_first_,   \
                                      ##__VA_ARGS__);                                                         \
                else                                                                                          \
                    tavrel_log_print_((prio), TAVREL_LOG_TAG, format, tavrel_log_first_, ##__VA_ARGS__);      \
            };                                                                                                \
            tavrel_log_(&tavrel_log_site_, TAVREL_LOG_FILE_FUNCTION_##to_file, tavrel_log_format_);           \
        }                                                                                                     \
    } while (0)
#else
/* Everyone else's form, C included: the same sinks written out at the call
 * site, with nothing of the library's hidden part. */
static inline void tavrel_log_inline_prefix_(FILE *out, const tavrel_log_site *site, const char *function)
{
    struct timeval now;
    char clock_text[10];
    char time_text[25];
    time_t seconds;
    const char *level = site->level_mask == TAVREL_LOG_MASK_LOW    ? "(LOW):"
                        : site->level_mask == TAVREL_LOG_MASK_MED  ? "(MED):"
                        : site->level_mask == TAVREL_LOG_MASK_HIGH ? "(HIGH):"
                                                                   : "(ERR):";

    gettimeofday(&now, NULL);
    seconds = now.tv_sec;
    /* Strict C11 has no localtime_r; the library's own form uses it. */
    strftime(clock_text, sizeof clock_text, "%T", localtime(&seconds));
    snprintf(time_text, sizeof time_text, "%s.%u", clock_text, (unsigned)(now.tv_usec / 1000));
    fprintf(out, "%25s %70s %40s():%3u %s", time_text, site->file, function, (unsigned)site->line, level);
}

#define TAVREL_LOG_ARG2_(format, function, ...) function
#define TAVREL_LOG_C_FILE_0(...)
#define TAVREL_LOG_C_FILE_1(...)                                                                              \
    if (log_to_file && logging_fd != NULL) {                                                                  \
        tavrel_log_inline_prefix_(logging_fd, &tavrel_log_site_, TAVREL_LOG_ARG2_(__VA_ARGS__, 0));           \
        fprintf(logging_fd, __VA_ARGS__);                                                                     \
        fputc('\n', logging_fd);                                                                              \
        fflush(logging_fd);                                                                                   \
    }
#define TAVREL_LOG_(to_file, mask, prio, ...)                                                                 \
    do {                                                                                                      \
        TAVREL_LOG_SITE_(mask);                                                                               \
        TAVREL_LOG_C_FILE_##to_file(__VA_ARGS__)                                                              \
        if (kv_log_mask & 1u) {                                                                               \
            char tavrel_log_buffer_[TAVREL_LOG_DIAG_BUFSZ] = {0};                                             \
            kv_format_log_msg(tavrel_log_buffer_, sizeof tavrel_log_buffer_, __VA_ARGS__);                    \
            kv_diag_emit_msg(&tavrel_log_site_, tavrel_log_buffer_);                                          \
        }                                                                                                     \
        if (kv_log_mask & 2u)                                                                                 \
            __android_log_print((prio), TAVREL_LOG_TAG, __VA_ARGS__);                                         \
    } while (0)
#endif

/* TAVREL_LOG(LOW|MED|HIGH|ERR, format, function_name, ...): format begins
 * with "%s(): " and its first argument is the logging function's name. Each
 * call site keeps its own constant descriptor, line and file. Every sink is
 * tested before anything is formatted, and the arguments are evaluated once
 * per sink on purpose, so errno and strerror(errno) are read afresh for
 * each. */
#define TAVREL_LOG(level, ...) TAVREL_LOG_(1, TAVREL_LOG_MASK_##level, TAVREL_LOG_PRIO_##level, __VA_ARGS__)

/* The same statement without the log-file sink. */
#define TAVREL_LOG_NOFILE(level, ...) TAVREL_LOG_(0, TAVREL_LOG_MASK_##level, TAVREL_LOG_PRIO_##level, __VA_ARGS__)

#ifdef __cplusplus
}
#endif

#endif /* LIBNLTAVREL_H */
