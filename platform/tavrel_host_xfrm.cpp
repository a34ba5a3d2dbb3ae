/* Host stand-in for the modem's IPsec configuration library: the accessors of
 * the SA configuration record, and readers for the text forms of that record
 * and of the daemon's address set. */
#include "tavrel_host_xfrm.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tavrel_platform.h"

static_assert(offsetof(tavrel_xfrm_sa_cfg, rx_primary_hash) == TAVREL_SA_CFG_RX_PRIMARY_HASH_KEY,
              "RX primary slot where the library reads it");
static_assert(offsetof(tavrel_xfrm_sa_cfg, tx_primary_hash) == TAVREL_SA_CFG_TX_PRIMARY_HASH_KEY,
              "TX primary slot where the library reads it");
static_assert(offsetof(tavrel_xfrm_sa_cfg, rx_extended_hash) == TAVREL_SA_CFG_RX_EXTENDED_HASH_KEY,
              "RX extended slot where the library reads it");
static_assert(offsetof(tavrel_xfrm_sa_cfg, tx_extended_hash) == TAVREL_SA_CFG_TX_EXTENDED_HASH_KEY,
              "TX extended slot where the library reads it");
static_assert(offsetof(tavrel_host_key_slot, length) == TAVREL_SA_CFG_SLOT_LEN_OFFSET, "slot length");
static_assert(sizeof(tavrel_host_key_slot) == TAVREL_SA_CFG_SLOT_KEY_OFFSET, "slot key");

/* ---- accessors ------------------------------------------------------------ */

extern "C" {

#define HOST_ACCESSOR(type, name, expression)                                                                 \
    type tavrel_xfrm_utils_get_##name(const tavrel_xfrm_sa_cfg *sa_cfg, uint32_t, uint32_t)                   \
    {                                                                                                          \
        return (expression);                                                                                   \
    }

HOST_ACCESSOR(int, dest_addr_valid, sa_cfg->dest_addr_valid)
HOST_ACCESSOR(int, local_addr_valid, sa_cfg->local_addr_valid)
HOST_ACCESSOR(int, ipsec_sa_protocol, sa_cfg->ipsec_sa_protocol)
HOST_ACCESSOR(int, spi_tx_valid, sa_cfg->spi_tx_valid)
HOST_ACCESSOR(int, spi_rx_valid, sa_cfg->spi_rx_valid)
HOST_ACCESSOR(const tavrel_modem_ip_addr *, local_addr, sa_cfg->local_addr_present ? &sa_cfg->local_addr : nullptr)
HOST_ACCESSOR(const tavrel_modem_ip_addr *, dest_addr, sa_cfg->dest_addr_present ? &sa_cfg->dest_addr : nullptr)
HOST_ACCESSOR(uint32_t, spi_tx, sa_cfg->spi_tx)
HOST_ACCESSOR(uint32_t, spi_rx, sa_cfg->spi_rx)
HOST_ACCESSOR(int, encapsulation_mode_valid, sa_cfg->encapsulation_mode_valid)
HOST_ACCESSOR(int, encapsulation_mode, sa_cfg->encapsulation_mode)
HOST_ACCESSOR(int, crypto_algo_valid, sa_cfg->crypto_algo_valid)
HOST_ACCESSOR(int, crypto_key_tx_valid, sa_cfg->crypto_key_tx_valid)
HOST_ACCESSOR(int, crypto_key_rx_valid, sa_cfg->crypto_key_rx_valid)
HOST_ACCESSOR(int, crypto_algo, sa_cfg->crypto_algo)
HOST_ACCESSOR(int, aes_mode_valid, sa_cfg->aes_mode_valid)
HOST_ACCESSOR(int, aes_mode, sa_cfg->aes_mode)
HOST_ACCESSOR(const uint8_t *, crypto_key_tx, sa_cfg->crypto_key_tx_present ? sa_cfg->crypto_key_tx : nullptr)
HOST_ACCESSOR(const uint8_t *, crypto_key_rx, sa_cfg->crypto_key_rx_present ? sa_cfg->crypto_key_rx : nullptr)
HOST_ACCESSOR(uint32_t, crypto_key_tx_len, sa_cfg->crypto_key_tx_len)
HOST_ACCESSOR(uint32_t, crypto_key_rx_len, sa_cfg->crypto_key_rx_len)
HOST_ACCESSOR(int, hash_algo_valid, sa_cfg->hash_algo_valid)
HOST_ACCESSOR(int, hash_key_tx_valid, sa_cfg->hash_key_tx_valid)
HOST_ACCESSOR(int, hash_key_rx_valid, sa_cfg->hash_key_rx_valid)
HOST_ACCESSOR(int, hash_algo, sa_cfg->hash_algo)
HOST_ACCESSOR(const uint8_t *, hash_key_tx, sa_cfg->hash_key_tx_present ? sa_cfg->hash_key_tx : nullptr)
HOST_ACCESSOR(const uint8_t *, hash_key_rx, sa_cfg->hash_key_rx_present ? sa_cfg->hash_key_rx : nullptr)
HOST_ACCESSOR(uint32_t, hash_key_tx_len, sa_cfg->hash_key_tx_len)
HOST_ACCESSOR(uint32_t, hash_key_rx_len, sa_cfg->hash_key_rx_len)
HOST_ACCESSOR(int, udp_encap_src_port_valid, sa_cfg->udp_encap_src_port_valid)
HOST_ACCESSOR(int, is_udp_encaps_valid, sa_cfg->is_udp_encaps_valid)
HOST_ACCESSOR(int, is_udp_encaps, sa_cfg->is_udp_encaps)
HOST_ACCESSOR(uint16_t, udp_encap_src_port, sa_cfg->udp_encap_src_port)

#undef HOST_ACCESSOR

} /* extern "C" */

/* ---- text formats ---------------------------------------------------------
 * One "key = value" per line; blank lines and lines starting with '#' are
 * skipped. Keys are read in two rounds: values first, then the overrides
 * (validity flags, families, lengths), so that an override wins wherever it
 * stands in the file. A value key switches its validity flag (or presence)
 * on; its override can switch it off again. */

namespace {

enum value_kind {
    MODEM_ADDR, /* tavrel_modem_ip_addr: IPv4 as a host-order integer */
    DAEMON_ADDR, /* tavrel_ip_addr: IPv4 in network order */
    U32,
    I32,
    U8,
    PORT, /* host-order number in the text, stored in network order */
    CFG_PROTOCOL, /* esp 3, ah 2 */
    CFG_MODE,     /* tunnel 1, transport 2 */
    AES_MODE,     /* cbc 1, ctr 2 */
    SET_PROTO,    /* esp 50, ah 51 */
    SET_MODE,     /* tunnel 1, transport 0 */
    ALG_NAME,     /* text of at most 63 characters */
    KEY,          /* hex bytes; the length goes to len_offset */
};

constexpr long kNone = -1;

struct key_def {
    const char *name;
    value_kind kind;
    bool override_round;
    size_t offset;
    long len_offset;  /* KEY: u32 byte count */
    size_t room;      /* KEY: bytes available */
    long switch_on;   /* byte set to 1 by a value key (validity or presence) */
    long switch_on2;  /* a second such byte */
};

#define CFG_AT(field) offsetof(tavrel_xfrm_sa_cfg, field)
#define SET_AT(field) offsetof(tavrel_xfrm_addr_set, field)
#define CFG_LONG(field) static_cast<long>(CFG_AT(field))
#define SET_LONG(field) static_cast<long>(SET_AT(field))

const key_def kSaCfgKeys[] = {
    {"local", MODEM_ADDR, false, CFG_AT(local_addr), kNone, 0, CFG_LONG(local_addr_valid), CFG_LONG(local_addr_present)},
    {"dest", MODEM_ADDR, false, CFG_AT(dest_addr), kNone, 0, CFG_LONG(dest_addr_valid), CFG_LONG(dest_addr_present)},
    {"spi_tx", U32, false, CFG_AT(spi_tx), kNone, 0, CFG_LONG(spi_tx_valid), kNone},
    {"spi_rx", U32, false, CFG_AT(spi_rx), kNone, 0, CFG_LONG(spi_rx_valid), kNone},
    {"protocol", CFG_PROTOCOL, false, CFG_AT(ipsec_sa_protocol), kNone, 0, kNone, kNone},
    {"mode", CFG_MODE, false, CFG_AT(encapsulation_mode), kNone, 0, CFG_LONG(encapsulation_mode_valid), kNone},
    {"crypto_algo", I32, false, CFG_AT(crypto_algo), kNone, 0, CFG_LONG(crypto_algo_valid), kNone},
    {"aes_mode", AES_MODE, false, CFG_AT(aes_mode), kNone, 0, CFG_LONG(aes_mode_valid), kNone},
    {"crypto_key_tx", KEY, false, CFG_AT(crypto_key_tx), CFG_LONG(crypto_key_tx_len), TAVREL_HOST_SA_CRYPTO_KEY_ROOM,
     CFG_LONG(crypto_key_tx_valid), CFG_LONG(crypto_key_tx_present)},
    {"crypto_key_rx", KEY, false, CFG_AT(crypto_key_rx), CFG_LONG(crypto_key_rx_len), TAVREL_HOST_SA_CRYPTO_KEY_ROOM,
     CFG_LONG(crypto_key_rx_valid), CFG_LONG(crypto_key_rx_present)},
    {"hash_algo", I32, false, CFG_AT(hash_algo), kNone, 0, CFG_LONG(hash_algo_valid), kNone},
    {"hash_key_tx", KEY, false, CFG_AT(hash_key_tx), CFG_LONG(hash_key_tx_len), TAVREL_HOST_SA_HASH_KEY_ROOM,
     CFG_LONG(hash_key_tx_valid), CFG_LONG(hash_key_tx_present)},
    {"hash_key_rx", KEY, false, CFG_AT(hash_key_rx), CFG_LONG(hash_key_rx_len), TAVREL_HOST_SA_HASH_KEY_ROOM,
     CFG_LONG(hash_key_rx_valid), CFG_LONG(hash_key_rx_present)},
    {"hash_key_tx_primary", KEY, false, CFG_AT(tx_primary_hash_key), CFG_LONG(tx_primary_hash.length),
     sizeof(((tavrel_xfrm_sa_cfg *)nullptr)->tx_primary_hash_key), CFG_LONG(tx_primary_hash.valid), kNone},
    {"hash_key_rx_primary", KEY, false, CFG_AT(rx_primary_hash_key), CFG_LONG(rx_primary_hash.length),
     sizeof(((tavrel_xfrm_sa_cfg *)nullptr)->rx_primary_hash_key), CFG_LONG(rx_primary_hash.valid), kNone},
    {"hash_key_tx_extended", KEY, false, CFG_AT(tx_extended_hash_key), CFG_LONG(tx_extended_hash.length),
     TAVREL_HOST_SA_EXTENDED_KEY_ROOM, CFG_LONG(tx_extended_hash.valid), kNone},
    {"hash_key_rx_extended", KEY, false, CFG_AT(rx_extended_hash_key), CFG_LONG(rx_extended_hash.length),
     TAVREL_HOST_SA_EXTENDED_KEY_ROOM, CFG_LONG(rx_extended_hash.valid), kNone},
    {"udp_encap", I32, false, CFG_AT(is_udp_encaps), kNone, 0, CFG_LONG(is_udp_encaps_valid), kNone},
    {"udp_encap_port", PORT, false, CFG_AT(udp_encap_src_port), kNone, 0, CFG_LONG(udp_encap_src_port_valid), kNone},

    {"local_valid", U8, true, CFG_AT(local_addr_valid), kNone, 0, kNone, kNone},
    {"dest_valid", U8, true, CFG_AT(dest_addr_valid), kNone, 0, kNone, kNone},
    {"local_family", U32, true, CFG_AT(local_addr.family), kNone, 0, kNone, kNone},
    {"dest_family", U32, true, CFG_AT(dest_addr.family), kNone, 0, kNone, kNone},
    {"local_length", U32, true, CFG_AT(local_addr.length), kNone, 0, kNone, kNone},
    {"dest_length", U32, true, CFG_AT(dest_addr.length), kNone, 0, kNone, kNone},
    {"spi_tx_valid", U8, true, CFG_AT(spi_tx_valid), kNone, 0, kNone, kNone},
    {"spi_rx_valid", U8, true, CFG_AT(spi_rx_valid), kNone, 0, kNone, kNone},
    {"mode_valid", U8, true, CFG_AT(encapsulation_mode_valid), kNone, 0, kNone, kNone},
    {"crypto_algo_valid", U8, true, CFG_AT(crypto_algo_valid), kNone, 0, kNone, kNone},
    {"aes_mode_valid", U8, true, CFG_AT(aes_mode_valid), kNone, 0, kNone, kNone},
    {"crypto_key_tx_valid", U8, true, CFG_AT(crypto_key_tx_valid), kNone, 0, kNone, kNone},
    {"crypto_key_rx_valid", U8, true, CFG_AT(crypto_key_rx_valid), kNone, 0, kNone, kNone},
    {"crypto_key_tx_len", U32, true, CFG_AT(crypto_key_tx_len), kNone, 0, kNone, kNone},
    {"crypto_key_rx_len", U32, true, CFG_AT(crypto_key_rx_len), kNone, 0, kNone, kNone},
    {"hash_algo_valid", U8, true, CFG_AT(hash_algo_valid), kNone, 0, kNone, kNone},
    {"hash_key_tx_valid", U8, true, CFG_AT(hash_key_tx_valid), kNone, 0, kNone, kNone},
    {"hash_key_rx_valid", U8, true, CFG_AT(hash_key_rx_valid), kNone, 0, kNone, kNone},
    {"hash_key_tx_len", U32, true, CFG_AT(hash_key_tx_len), kNone, 0, kNone, kNone},
    {"hash_key_rx_len", U32, true, CFG_AT(hash_key_rx_len), kNone, 0, kNone, kNone},
    {"hash_key_tx_primary_valid", U8, true, CFG_AT(tx_primary_hash.valid), kNone, 0, kNone, kNone},
    {"hash_key_rx_primary_valid", U8, true, CFG_AT(rx_primary_hash.valid), kNone, 0, kNone, kNone},
    {"hash_key_tx_extended_valid", U8, true, CFG_AT(tx_extended_hash.valid), kNone, 0, kNone, kNone},
    {"hash_key_rx_extended_valid", U8, true, CFG_AT(rx_extended_hash.valid), kNone, 0, kNone, kNone},
    {"hash_key_tx_primary_len", U32, true, CFG_AT(tx_primary_hash.length), kNone, 0, kNone, kNone},
    {"hash_key_rx_primary_len", U32, true, CFG_AT(rx_primary_hash.length), kNone, 0, kNone, kNone},
    {"hash_key_tx_extended_len", U32, true, CFG_AT(tx_extended_hash.length), kNone, 0, kNone, kNone},
    {"hash_key_rx_extended_len", U32, true, CFG_AT(rx_extended_hash.length), kNone, 0, kNone, kNone},
    {"udp_encap_valid", U8, true, CFG_AT(is_udp_encaps_valid), kNone, 0, kNone, kNone},
    {"udp_encap_port_valid", U8, true, CFG_AT(udp_encap_src_port_valid), kNone, 0, kNone, kNone},
};

const key_def kAddrSetKeys[] = {
    {"local", DAEMON_ADDR, false, SET_AT(local_addr), kNone, 0, kNone, kNone},
    {"remote", DAEMON_ADDR, false, SET_AT(remote_addr), kNone, 0, kNone, kNone},
    {"spi_tx", U32, false, SET_AT(spi_tx), kNone, 0, kNone, kNone},
    {"spi_rx", U32, false, SET_AT(spi_rx), kNone, 0, kNone, kNone},
    {"proto", SET_PROTO, false, SET_AT(proto), kNone, 0, kNone, kNone},
    {"mode", SET_MODE, false, SET_AT(mode), kNone, 0, kNone, kNone},
    {"crypto_alg_name", ALG_NAME, false, SET_AT(crypto_alg_name), kNone, 0, kNone, kNone},
    {"crypto_key_tx", KEY, false, SET_AT(crypto_key_tx), SET_LONG(crypto_key_len_tx),
     sizeof(((tavrel_xfrm_addr_set *)nullptr)->crypto_key_tx), kNone, kNone},
    {"crypto_key_rx", KEY, false, SET_AT(crypto_key_rx), SET_LONG(crypto_key_len_rx),
     sizeof(((tavrel_xfrm_addr_set *)nullptr)->crypto_key_rx), kNone, kNone},
    {"auth_alg_name", ALG_NAME, false, SET_AT(auth_alg_name), kNone, 0, kNone, kNone},
    {"auth_trunc_len", U32, false, SET_AT(auth_trunc_len), kNone, 0, kNone, kNone},
    {"auth_key_tx", KEY, false, SET_AT(auth_key_tx), SET_LONG(auth_key_len_tx),
     sizeof(((tavrel_xfrm_addr_set *)nullptr)->auth_key_tx), kNone, kNone},
    {"auth_key_rx", KEY, false, SET_AT(auth_key_rx), SET_LONG(auth_key_len_rx),
     sizeof(((tavrel_xfrm_addr_set *)nullptr)->auth_key_rx), kNone, kNone},
    {"udp_encap", U32, false, SET_AT(udp_encap), kNone, 0, kNone, kNone},
    {"udp_encap_port", PORT, false, SET_AT(udp_encap_port), kNone, 0, kNone, kNone},

    {"is_valid", U8, true, SET_AT(is_valid), kNone, 0, kNone, kNone},
    {"local_family", U32, true, SET_AT(local_addr.family), kNone, 0, kNone, kNone},
    {"remote_family", U32, true, SET_AT(remote_addr.family), kNone, 0, kNone, kNone},
    {"crypto_key_len_tx", U32, true, SET_AT(crypto_key_len_tx), kNone, 0, kNone, kNone},
    {"crypto_key_len_rx", U32, true, SET_AT(crypto_key_len_rx), kNone, 0, kNone, kNone},
    {"auth_key_len_tx", U32, true, SET_AT(auth_key_len_tx), kNone, 0, kNone, kNone},
    {"auth_key_len_rx", U32, true, SET_AT(auth_key_len_rx), kNone, 0, kNone, kNone},
};

#undef CFG_AT
#undef SET_AT
#undef CFG_LONG
#undef SET_LONG

constexpr size_t kMaxKeys = 64;
static_assert(sizeof kSaCfgKeys / sizeof kSaCfgKeys[0] <= kMaxKeys, "duplicate tracking");
static_assert(sizeof kAddrSetKeys / sizeof kAddrSetKeys[0] <= kMaxKeys, "duplicate tracking");

struct word {
    const char *name;
    int value;
};

constexpr word kCfgProtocols[] = {{"esp", 3}, {"ah", 2}};
constexpr word kCfgModes[] = {{"tunnel", 1}, {"transport", 2}};
constexpr word kAesModes[] = {{"cbc", 1}, {"ctr", 2}};
constexpr word kSetProtos[] = {{"esp", 50}, {"ah", 51}};
constexpr word kSetModes[] = {{"tunnel", 1}, {"transport", 0}};

struct parse_state {
    char *error;
    size_t error_size;
    unsigned line;
};

__attribute__((format(printf, 2, 3))) int fail(parse_state *st, const char *format, ...)
{
    if (st->error == nullptr || st->error_size == 0)
        return -1;
    int n = snprintf(st->error, st->error_size, "line %u: ", st->line);
    if (n < 0 || static_cast<size_t>(n) >= st->error_size)
        return -1;
    va_list args;
    va_start(args, format);
    vsnprintf(st->error + n, st->error_size - static_cast<size_t>(n), format, args);
    va_end(args);
    return -1;
}

bool parse_i64(const char *text, long long min, long long max, long long *out)
{
    if (*text == '\0')
        return false;
    char *end = nullptr;
    errno = 0;
    long long v;
    if (text[0] == '-') {
        v = strtoll(text, &end, 0);
    } else {
        const unsigned long long u = strtoull(text, &end, 0);
        if (u > static_cast<unsigned long long>(max))
            return false;
        v = static_cast<long long>(u);
    }
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *out = v;
    return true;
}

bool parse_word(const char *text, const word *words, size_t count, long long min, long long max, long long *out)
{
    for (size_t i = 0; i < count; i++)
        if (strcmp(text, words[i].name) == 0) {
            *out = words[i].value;
            return true;
        }
    return parse_i64(text, min, max, out);
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

int store_key(parse_state *st, const key_def &k, const char *value, uint8_t *record)
{
    if (value[0] == '0' && (value[1] == 'x' || value[1] == 'X'))
        value += 2;
    const size_t digits = strlen(value);
    if (digits % 2 != 0)
        return fail(st, "%s: odd number of hex digits", k.name);
    if (digits / 2 > k.room)
        return fail(st, "%s: key of %zu bytes, room for %zu", k.name, digits / 2, k.room);
    for (size_t i = 0; i < digits; i += 2) {
        const int hi = hex_digit(value[i]);
        const int lo = hex_digit(value[i + 1]);
        if (hi < 0 || lo < 0)
            return fail(st, "%s: not hexadecimal: %s", k.name, value);
        record[k.offset + i / 2] = static_cast<uint8_t>(hi << 4 | lo);
    }
    const uint32_t length = static_cast<uint32_t>(digits / 2);
    memcpy(record + k.len_offset, &length, sizeof length);
    return 0;
}

int store_addr(parse_state *st, const key_def &k, const char *value, uint8_t *record)
{
    tavrel_ip_addr addr;
    memset(&addr, 0, sizeof addr);
    if (inet_pton(AF_INET, value, addr.addr) == 1) {
        addr.family = 4;
        addr.length = 4;
        if (k.kind == MODEM_ADDR) {
            /* The modem keeps IPv4 as an integer in host byte order. */
            uint32_t network_order;
            memcpy(&network_order, addr.addr, sizeof network_order);
            const uint32_t host_order = ntohl(network_order);
            memcpy(addr.addr, &host_order, sizeof host_order);
        }
    } else if (inet_pton(AF_INET6, value, addr.addr) == 1) {
        addr.family = 6;
        addr.length = 16;
    } else {
        return fail(st, "%s: not an IPv4 or IPv6 address: %s", k.name, value);
    }
    static_assert(sizeof(tavrel_ip_addr) == sizeof(tavrel_modem_ip_addr), "address records");
    memcpy(record + k.offset, &addr, sizeof addr);
    return 0;
}

int store_value(parse_state *st, const key_def &k, const char *value, uint8_t *record)
{
    long long v = 0;
    switch (k.kind) {
    case MODEM_ADDR:
    case DAEMON_ADDR:
        return store_addr(st, k, value, record);
    case KEY:
        return store_key(st, k, value, record);
    case ALG_NAME: {
        const size_t n = strlen(value);
        if (n > 63)
            return fail(st, "%s: longer than 63 characters", k.name);
        memcpy(record + k.offset, value, n);
        return 0;
    }
    case U32:
        if (!parse_i64(value, 0, UINT32_MAX, &v))
            return fail(st, "%s: not an unsigned 32-bit number: %s", k.name, value);
        break;
    case I32:
        if (!parse_i64(value, INT32_MIN, INT32_MAX, &v))
            return fail(st, "%s: not a 32-bit number: %s", k.name, value);
        break;
    case U8:
        if (!parse_i64(value, 0, UINT8_MAX, &v))
            return fail(st, "%s: not a number from 0 to 255: %s", k.name, value);
        break;
    case PORT:
        if (!parse_i64(value, 0, UINT16_MAX, &v))
            return fail(st, "%s: not a port number: %s", k.name, value);
        break;
    case CFG_PROTOCOL:
        if (!parse_word(value, kCfgProtocols, 2, INT32_MIN, INT32_MAX, &v))
            return fail(st, "%s: expected esp, ah or a number: %s", k.name, value);
        break;
    case CFG_MODE:
        if (!parse_word(value, kCfgModes, 2, INT32_MIN, INT32_MAX, &v))
            return fail(st, "%s: expected tunnel, transport or a number: %s", k.name, value);
        break;
    case AES_MODE:
        if (!parse_word(value, kAesModes, 2, INT32_MIN, INT32_MAX, &v))
            return fail(st, "%s: expected cbc, ctr or a number: %s", k.name, value);
        break;
    case SET_PROTO:
        if (!parse_word(value, kSetProtos, 2, 0, UINT8_MAX, &v))
            return fail(st, "%s: expected esp, ah or a number from 0 to 255: %s", k.name, value);
        break;
    case SET_MODE:
        if (!parse_word(value, kSetModes, 2, 0, UINT8_MAX, &v))
            return fail(st, "%s: expected tunnel, transport or a number from 0 to 255: %s", k.name, value);
        break;
    }
    uint8_t *at = record + k.offset;
    if (k.kind == U8 || k.kind == SET_PROTO || k.kind == SET_MODE) {
        *at = static_cast<uint8_t>(v);
    } else if (k.kind == PORT) {
        const uint16_t port = htons(static_cast<uint16_t>(v));
        memcpy(at, &port, sizeof port);
    } else if (k.kind == U32) {
        const uint32_t u = static_cast<uint32_t>(v);
        memcpy(at, &u, sizeof u);
    } else {
        const int32_t i = static_cast<int32_t>(v);
        memcpy(at, &i, sizeof i);
    }
    return 0;
}

char *trim(char *begin, char *end)
{
    while (begin < end && (*begin == ' ' || *begin == '\t' || *begin == '\r'))
        begin++;
    while (end > begin && (end[-1] == ' ' || end[-1] == '\t' || end[-1] == '\r'))
        end--;
    *end = '\0';
    return begin;
}

/* Parses text into record with one table of keys; round 0 stores values,
 * round 1 the overrides. */
int parse_text(const char *text, const key_def *keys, size_t key_count, uint8_t *record, char *error,
               size_t error_size)
{
    parse_state st{error, error_size, 0};
    bool seen[kMaxKeys] = {};
    for (int round = 0; round < 2; round++) {
        st.line = 0;
        const char *line = text;
        while (*line != '\0') {
            const char *next = strchr(line, '\n');
            const size_t length = next != nullptr ? static_cast<size_t>(next - line) : strlen(line);
            st.line++;
            char buffer[4096];
            if (length >= sizeof buffer)
                return fail(&st, "line longer than %zu characters", sizeof buffer - 1);
            memcpy(buffer, line, length);
            buffer[length] = '\0';
            line = next != nullptr ? next + 1 : line + length;

            char *content = trim(buffer, buffer + length);
            if (*content == '\0' || *content == '#')
                continue;
            char *equals = strchr(content, '=');
            if (equals == nullptr)
                return fail(&st, "expected key = value: %s", content);
            char *value = trim(equals + 1, content + strlen(content));
            const char *name = trim(content, equals);

            size_t index = 0;
            while (index < key_count && strcmp(keys[index].name, name) != 0)
                index++;
            if (index == key_count)
                return fail(&st, "unknown key: %s", name);
            const key_def &k = keys[index];
            if (k.override_round != (round == 1))
                continue;
            if (seen[index])
                return fail(&st, "%s given twice", name);
            seen[index] = true;
            if (store_value(&st, k, value, record) != 0)
                return -1;
            if (k.switch_on != kNone)
                record[k.switch_on] = 1;
            if (k.switch_on2 != kNone)
                record[k.switch_on2] = 1;
        }
    }
    if (error != nullptr && error_size > 0)
        error[0] = '\0';
    return 0;
}

/* Reads a whole text file into a NUL-terminated heap buffer. */
char *read_file(const char *path, char *error, size_t error_size)
{
    FILE *f = fopen(path, "r");
    if (f == nullptr) {
        if (error != nullptr && error_size > 0)
            snprintf(error, error_size, "%s: %s", path, strerror(errno));
        return nullptr;
    }
    size_t size = 0;
    size_t capacity = 4096;
    char *text = static_cast<char *>(malloc(capacity));
    while (text != nullptr) {
        size += fread(text + size, 1, capacity - size - 1, f);
        if (size < capacity - 1)
            break;
        capacity *= 2;
        char *grown = static_cast<char *>(realloc(text, capacity));
        if (grown == nullptr)
            free(text);
        text = grown;
    }
    const bool failed = ferror(f) != 0 || text == nullptr;
    fclose(f);
    if (failed) {
        free(text);
        if (error != nullptr && error_size > 0)
            snprintf(error, error_size, "%s: cannot read the file", path);
        return nullptr;
    }
    text[size] = '\0';
    return text;
}

/* Puts "path: " in front of a parser's reason. */
void prefix_path(const char *path, char *error, size_t error_size)
{
    if (error == nullptr || error_size == 0)
        return;
    char reason[512];
    snprintf(reason, sizeof reason, "%s", error);
    snprintf(error, error_size, "%s: %s", path, reason);
}

} // namespace

extern "C" {

int tavrel_host_sa_cfg_parse(const char *text, tavrel_xfrm_sa_cfg *cfg, char *error, size_t error_size)
{
    memset(cfg, 0, sizeof *cfg);
    return parse_text(text, kSaCfgKeys, sizeof kSaCfgKeys / sizeof kSaCfgKeys[0], reinterpret_cast<uint8_t *>(cfg),
                      error, error_size);
}

int tavrel_host_addr_set_parse(const char *text, tavrel_xfrm_addr_set *set, char *error, size_t error_size)
{
    memset(set, 0, sizeof *set);
    set->is_valid = 1;
    return parse_text(text, kAddrSetKeys, sizeof kAddrSetKeys / sizeof kAddrSetKeys[0],
                      reinterpret_cast<uint8_t *>(set), error, error_size);
}

int tavrel_host_sa_cfg_load(const char *path, tavrel_xfrm_sa_cfg *cfg, char *error, size_t error_size)
{
    char *text = read_file(path, error, error_size);
    if (text == nullptr)
        return -1;
    const int result = tavrel_host_sa_cfg_parse(text, cfg, error, error_size);
    free(text);
    if (result != 0)
        prefix_path(path, error, error_size);
    return result;
}

int tavrel_host_addr_set_load(const char *path, tavrel_xfrm_addr_set *set, char *error, size_t error_size)
{
    char *text = read_file(path, error, error_size);
    if (text == nullptr)
        return -1;
    const int result = tavrel_host_addr_set_parse(text, set, error, error_size);
    free(text);
    if (result != 0)
        prefix_path(path, error, error_size);
    return result;
}

} /* extern "C" */
