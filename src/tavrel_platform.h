/*
 * Interfaces of the daemon and of its closed libraries that libnltavrel
 * calls. On the device they come from the daemon process (libkvutils,
 * libtavrel, libtavrel_common, libtavrelxfrmutils); host builds link the
 * stand-ins of platform/. libnltavrel.so leaves all of them undefined.
 */
#ifndef TAVREL_PLATFORM_H
#define TAVREL_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include "libnltavrel.h"

#ifdef __cplusplus
extern "C" {
#endif

/* libkvutils: copies min(dst_size, src_size) bytes; returns the count. */
size_t kv_memscpy(void *dst, size_t dst_size, const void *src, size_t src_size);

/* libtavrel: the daemon's global configuration record. The library reads one
 * 32-bit field of it, the output-mark switch. */
struct tavrel_main_cfg_record;
extern struct tavrel_main_cfg_record tavrel_main_cfg;
#define TAVREL_MAIN_CFG_OUTPUT_MARK_OFFSET 2332

/* libtavrel_common: text forms for log lines. */
int tavrel_util_convert_ip_addr_to_str(const tavrel_ip_addr *addr, int flags, char *out, size_t out_size);
int tavrel_util_convert_bxo_ip_addr_to_str(const tavrel_modem_ip_addr *addr, char *out, size_t out_size);
int tavrel_util_convert_bxo_ipsec_key_to_str(const uint8_t *key, uint32_t key_len, char *out, size_t out_size);

/* libtavrelxfrmutils: the modem's SA configuration record, reached only
 * through these accessors and the inline hash-key slots below. */
#define TAVREL_XFRM_CFG_ARGS const tavrel_xfrm_sa_cfg *sa_cfg, uint32_t cfg_arg2, uint32_t cfg_arg3
int tavrel_xfrm_utils_get_dest_addr_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_local_addr_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_ipsec_sa_protocol(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_spi_tx_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_spi_rx_valid(TAVREL_XFRM_CFG_ARGS);
const tavrel_modem_ip_addr *tavrel_xfrm_utils_get_local_addr(TAVREL_XFRM_CFG_ARGS);
const tavrel_modem_ip_addr *tavrel_xfrm_utils_get_dest_addr(TAVREL_XFRM_CFG_ARGS);
uint32_t tavrel_xfrm_utils_get_spi_tx(TAVREL_XFRM_CFG_ARGS);
uint32_t tavrel_xfrm_utils_get_spi_rx(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_encapsulation_mode_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_encapsulation_mode(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_crypto_algo_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_crypto_key_tx_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_crypto_key_rx_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_crypto_algo(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_aes_mode_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_aes_mode(TAVREL_XFRM_CFG_ARGS);
const uint8_t *tavrel_xfrm_utils_get_crypto_key_tx(TAVREL_XFRM_CFG_ARGS);
const uint8_t *tavrel_xfrm_utils_get_crypto_key_rx(TAVREL_XFRM_CFG_ARGS);
uint32_t tavrel_xfrm_utils_get_crypto_key_tx_len(TAVREL_XFRM_CFG_ARGS);
uint32_t tavrel_xfrm_utils_get_crypto_key_rx_len(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_hash_algo_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_hash_key_tx_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_hash_key_rx_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_hash_algo(TAVREL_XFRM_CFG_ARGS);
const uint8_t *tavrel_xfrm_utils_get_hash_key_tx(TAVREL_XFRM_CFG_ARGS);
const uint8_t *tavrel_xfrm_utils_get_hash_key_rx(TAVREL_XFRM_CFG_ARGS);
uint32_t tavrel_xfrm_utils_get_hash_key_tx_len(TAVREL_XFRM_CFG_ARGS);
uint32_t tavrel_xfrm_utils_get_hash_key_rx_len(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_udp_encap_src_port_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_is_udp_encaps_valid(TAVREL_XFRM_CFG_ARGS);
int tavrel_xfrm_utils_get_is_udp_encaps(TAVREL_XFRM_CFG_ARGS);
uint16_t tavrel_xfrm_utils_get_udp_encap_src_port(TAVREL_XFRM_CFG_ARGS); /* network byte order */

/* Inline hash-key slots of the SA configuration record, read directly:
 * a one-byte valid flag, a u32 length in bytes, then the key bytes. */
#define TAVREL_SA_CFG_RX_PRIMARY_HASH_KEY 1668
#define TAVREL_SA_CFG_TX_PRIMARY_HASH_KEY 1708
#define TAVREL_SA_CFG_RX_EXTENDED_HASH_KEY 1752
#define TAVREL_SA_CFG_TX_EXTENDED_HASH_KEY 2784
#define TAVREL_SA_CFG_SLOT_LEN_OFFSET 4
#define TAVREL_SA_CFG_SLOT_KEY_OFFSET 8

#ifdef __cplusplus
}
#endif

#endif /* TAVREL_PLATFORM_H */
