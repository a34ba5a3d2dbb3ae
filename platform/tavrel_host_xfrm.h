/*
 * Host stand-in for the modem's IPsec configuration library
 * (libtavrelxfrmutils): the SA configuration record, its accessors
 * tavrel_xfrm_utils_get_* (defined in tavrel_host_xfrm.cpp) and readers of
 * two plain text formats, one for the record and one for the daemon's
 * address set (tavrel_xfrm_addr_set). docs/xfrm-sa.md describes both
 * formats.
 *
 * The accessors read only this record; the two further values the library
 * passes them (cfg_arg2, cfg_arg3) are ignored on a host.
 */
#ifndef TAVREL_HOST_XFRM_H
#define TAVREL_HOST_XFRM_H

#include <stddef.h>
#include <stdint.h>

#include "libnltavrel.h"
#include "tavrel_host.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The daemon's configuration record; its output_mark_enabled switch decides
 * the output mark of TX SAs. */
extern struct tavrel_main_cfg_record tavrel_main_cfg;

/* An inline hash-key slot header: the modem sets valid when the slot holds
 * the key; length counts key bytes. */
typedef struct tavrel_host_key_slot {
    uint8_t valid;
    uint8_t reserved[3];
    uint32_t length;
} tavrel_host_key_slot;

#define TAVREL_HOST_SA_CRYPTO_KEY_ROOM 512
#define TAVREL_HOST_SA_HASH_KEY_ROOM 256
#define TAVREL_HOST_SA_EXTENDED_KEY_ROOM 1024

/* The SA configuration record of one SA pair. Everything up to byte 1668 is
 * this host model's own choice; the four inline hash-key slots from 1668 on
 * sit where the library reads them on the device. */
struct tavrel_xfrm_sa_cfg {
    /* Validity flags, non-zero = valid, one per *_valid accessor. */
    uint8_t local_addr_valid;
    uint8_t dest_addr_valid;
    uint8_t spi_tx_valid;
    uint8_t spi_rx_valid;
    uint8_t encapsulation_mode_valid;
    uint8_t crypto_algo_valid;
    uint8_t crypto_key_tx_valid;
    uint8_t crypto_key_rx_valid;
    uint8_t aes_mode_valid;
    uint8_t hash_algo_valid;
    uint8_t hash_key_tx_valid;
    uint8_t hash_key_rx_valid;
    uint8_t udp_encap_src_port_valid;
    uint8_t is_udp_encaps_valid;
    /* Availability: the pointer accessors return NULL while these are 0. */
    uint8_t local_addr_present;
    uint8_t dest_addr_present;
    uint8_t crypto_key_tx_present;
    uint8_t crypto_key_rx_present;
    uint8_t hash_key_tx_present;
    uint8_t hash_key_rx_present;
    uint8_t reserved0[4];

    tavrel_modem_ip_addr local_addr; /* IPv4 as a host-order integer */
    tavrel_modem_ip_addr dest_addr;
    uint32_t spi_tx; /* host byte order */
    uint32_t spi_rx;
    int32_t ipsec_sa_protocol;   /* 2 AH, 3 ESP */
    int32_t encapsulation_mode;  /* 1 tunnel, 2 transport */
    int32_t crypto_algo;         /* modem cipher code */
    int32_t aes_mode;            /* 1 CBC, 2 counter mode */
    int32_t hash_algo;           /* modem hash code */
    int32_t is_udp_encaps;       /* non-zero: ESP in UDP */
    uint16_t udp_encap_src_port; /* network byte order */
    uint8_t reserved1[2];
    uint32_t crypto_key_tx_len; /* bytes */
    uint32_t crypto_key_rx_len;
    uint32_t hash_key_tx_len;
    uint32_t hash_key_rx_len;
    uint8_t reserved2[4];
    uint8_t crypto_key_tx[TAVREL_HOST_SA_CRYPTO_KEY_ROOM];
    uint8_t crypto_key_rx[TAVREL_HOST_SA_CRYPTO_KEY_ROOM];
    uint8_t hash_key_tx[TAVREL_HOST_SA_HASH_KEY_ROOM];
    uint8_t hash_key_rx[TAVREL_HOST_SA_HASH_KEY_ROOM];
    uint8_t reserved3[4];

    /* Inline hash-key slots, read by the library at these byte offsets. */
    tavrel_host_key_slot rx_primary_hash; /* 1668 */
    uint8_t rx_primary_hash_key[32];
    tavrel_host_key_slot tx_primary_hash; /* 1708 */
    uint8_t tx_primary_hash_key[36];
    tavrel_host_key_slot rx_extended_hash; /* 1752 */
    uint8_t rx_extended_hash_key[TAVREL_HOST_SA_EXTENDED_KEY_ROOM];
    tavrel_host_key_slot tx_extended_hash; /* 2784 */
    uint8_t tx_extended_hash_key[TAVREL_HOST_SA_EXTENDED_KEY_ROOM];
};

TAVREL_STATIC_ASSERT(sizeof(tavrel_host_key_slot) == 8, "hash-key slot header");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, rx_primary_hash) == 1668, "RX primary hash-key slot");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, rx_primary_hash_key) == 1676, "RX primary hash key");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, tx_primary_hash) == 1708, "TX primary hash-key slot");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, tx_primary_hash_key) == 1716, "TX primary hash key");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, rx_extended_hash) == 1752, "RX extended hash-key slot");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, rx_extended_hash_key) == 1760, "RX extended hash key");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, tx_extended_hash) == 2784, "TX extended hash-key slot");
TAVREL_STATIC_ASSERT(offsetof(struct tavrel_xfrm_sa_cfg, tx_extended_hash_key) == 2792, "TX extended hash key");
TAVREL_STATIC_ASSERT(sizeof(struct tavrel_xfrm_sa_cfg) == 3816, "SA configuration record size");

/* Reads the key = value text of one SA pair's configuration into *cfg (which
 * is zeroed first). Returns 0, or -1 with a one-line reason naming the line
 * in error[error_size]. */
int tavrel_host_sa_cfg_parse(const char *text, tavrel_xfrm_sa_cfg *cfg, char *error, size_t error_size);
/* The same for a file; the reason names the file too. */
int tavrel_host_sa_cfg_load(const char *path, tavrel_xfrm_sa_cfg *cfg, char *error, size_t error_size);

/* Reads the key = value text of an address set into *set (zeroed first;
 * is_valid defaults to 1). Returns 0, or -1 with a reason as above. */
int tavrel_host_addr_set_parse(const char *text, tavrel_xfrm_addr_set *set, char *error, size_t error_size);
int tavrel_host_addr_set_load(const char *path, tavrel_xfrm_addr_set *set, char *error, size_t error_size);

#ifdef __cplusplus
}
#endif

#endif /* TAVREL_HOST_XFRM_H */
