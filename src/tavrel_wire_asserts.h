/* Layouts the library relies on, checked on every ABI it is built for.
 *
 * The XFRM requests are built field by field from the kernel's headers, but
 * their lengths (nlmsg_len 240, the 2232-byte policy buffer, the 64-byte
 * template, the length checks on dumped states) are fixed numbers, and the
 * kernel of a 32-bit ARM device reads these structures with 64-bit fields
 * aligned to 8. An ABI that aligns u64 to 4 (i386) shrinks xfrm_usersa_info
 * to 220 bytes and moves everything behind its lifetimes; such a build must
 * not compile. The daemon's records and the log-site descriptor are checked
 * next to their definitions in the public header. */
#ifndef TAVREL_WIRE_ASSERTS_H
#define TAVREL_WIRE_ASSERTS_H

#include <stddef.h>

#include <linux/xfrm.h>

#include "libnltavrel.h"

static_assert(sizeof(xfrm_address_t) == 16, "xfrm_address_t layout");
static_assert(sizeof(struct xfrm_selector) == 56, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, saddr) == 16, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, family) == 40, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, prefixlen_d) == 42, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, prefixlen_s) == 43, "xfrm_selector layout");
static_assert(offsetof(struct xfrm_selector, proto) == 44, "xfrm_selector layout");
static_assert(sizeof(struct xfrm_id) == 24, "xfrm_id layout");
static_assert(sizeof(struct xfrm_lifetime_cfg) == 64, "xfrm_lifetime_cfg layout");
static_assert(sizeof(struct xfrm_lifetime_cur) == 32, "xfrm_lifetime_cur layout");

static_assert(sizeof(struct xfrm_usersa_info) == 224, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, id) == 56, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, saddr) == 80, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, lft) == 96, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, curlft) == 160, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, stats) == 192, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, seq) == 204, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, reqid) == 208, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, family) == 212, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, mode) == 214, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, replay_window) == 215, "xfrm_usersa_info layout");
static_assert(offsetof(struct xfrm_usersa_info, flags) == 216, "xfrm_usersa_info layout");

static_assert(sizeof(struct xfrm_usersa_id) == 24, "xfrm_usersa_id layout");
static_assert(offsetof(struct xfrm_usersa_id, spi) == 16, "xfrm_usersa_id layout");
static_assert(offsetof(struct xfrm_usersa_id, family) == 20, "xfrm_usersa_id layout");
static_assert(offsetof(struct xfrm_usersa_id, proto) == 22, "xfrm_usersa_id layout");

static_assert(sizeof(struct xfrm_userpolicy_info) == 168, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, lft) == 56, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, curlft) == 120, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, priority) == 152, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, index) == 156, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, dir) == 160, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, action) == 161, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, flags) == 162, "xfrm_userpolicy_info layout");
static_assert(offsetof(struct xfrm_userpolicy_info, share) == 163, "xfrm_userpolicy_info layout");

static_assert(sizeof(struct xfrm_userpolicy_id) == 64, "xfrm_userpolicy_id layout");
static_assert(offsetof(struct xfrm_userpolicy_id, index) == 56, "xfrm_userpolicy_id layout");
static_assert(offsetof(struct xfrm_userpolicy_id, dir) == 60, "xfrm_userpolicy_id layout");

static_assert(sizeof(struct xfrm_user_tmpl) == 64, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, family) == 24, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, saddr) == 28, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, reqid) == 44, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, mode) == 48, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, share) == 49, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, optional) == 50, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, aalgos) == 52, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, ealgos) == 56, "xfrm_user_tmpl layout");
static_assert(offsetof(struct xfrm_user_tmpl, calgos) == 60, "xfrm_user_tmpl layout");

/* Key room behind the algorithm headers in the 512-byte scratch areas:
 * 444 bytes for a cipher key, 440 for an authentication key. */
static_assert(sizeof(struct xfrm_algo) == 68, "xfrm_algo layout");
static_assert(sizeof(struct xfrm_algo_auth) == 72, "xfrm_algo_auth layout");
static_assert(offsetof(struct xfrm_algo, alg_key_len) == 64, "xfrm_algo layout");
static_assert(offsetof(struct xfrm_algo_auth, alg_key_len) == 64, "xfrm_algo_auth layout");
static_assert(offsetof(struct xfrm_algo_auth, alg_trunc_len) == 68, "xfrm_algo_auth layout");
static_assert(sizeof(struct xfrm_encap_tmpl) == 24, "xfrm_encap_tmpl layout");
static_assert(offsetof(struct xfrm_encap_tmpl, encap_oa) == 8, "xfrm_encap_tmpl layout");

/* The diagnostics library reads the descriptor by these offsets; the header
 * checks the size and the pointer fields for both pointer widths. */
static_assert(offsetof(tavrel_log_site, line) == 0, "tavrel_log_site layout");
static_assert(sizeof(tavrel_log_site::line) == 2 && sizeof(tavrel_log_site::subsys_id) == 2 &&
                  sizeof(tavrel_log_site::level_mask) == 4,
              "tavrel_log_site layout");

#endif /* TAVREL_WIRE_ASSERTS_H */
