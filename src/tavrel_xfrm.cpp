/* IPsec: XFRM security associations and policies. */
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <linux/xfrm.h>

#include "tavrel_internal.h"


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

#include <linux/udp.h>

namespace {

/* One XFRM_MSG_NEWSA request as it goes to the kernel. */
struct xfrm_sa_request {
    struct nlmsghdr header;
    struct xfrm_usersa_info info;
    uint8_t attributes[2048];
};

static_assert(offsetof(xfrm_sa_request, info) == 16, "SA request layout");
static_assert(offsetof(xfrm_sa_request, attributes) == 240, "SA request layout");
static_assert(sizeof(xfrm_sa_request) == 240 + 2048, "SA request layout");
static_assert(sizeof(((struct xfrm_algo *)nullptr)->alg_name) == 64, "algorithm name room");

/* Algorithm payloads are built in an area of this size; the key goes behind
 * the algorithm header. */
constexpr uint32_t kAlgAreaSize = 512;
constexpr uint32_t kCryptHeaderLen = sizeof(struct xfrm_algo);
constexpr uint32_t kAuthHeaderLen = sizeof(struct xfrm_algo_auth);
constexpr uint32_t kCryptKeyRoom = kAlgAreaSize - kCryptHeaderLen; /* 444 */
constexpr uint32_t kAuthKeyRoom = kAlgAreaSize - kAuthHeaderLen;   /* 440 */
static_assert(kCryptKeyRoom == 444 && kAuthKeyRoom == 440, "algorithm key room");

constexpr uint16_t kNattPort = 4500;

/* The output mark routes the SA's packets by link technology; the codes and
 * the marks belong to the daemon's routing set-up. */
constexpr int32_t kLinkTechTxMarkLow = -32735;
constexpr int32_t kLinkTechMarked = -32640;
constexpr uint32_t kMarkTxLinkTechLow = 0x20000;
constexpr uint32_t kMarkTxOther = 0x20001;
constexpr uint32_t kMarkLinkTech = 0x20002;

/* The modem's protocol codes. */
constexpr int kSaProtocolAh = 2;
constexpr int kSaProtocolEsp = 3;
/* The modem's encapsulation modes. */
constexpr int kEncapModeTunnel = 1;
constexpr int kEncapModeTransport = 2;
/* The modem's AES modes. */
constexpr int kAesModeCbc = 1;
constexpr int kAesModeCtr = 2;

struct crypto_alg {
    int code;
    const char *name;
};

/* AES (codes 12 and 19) also depends on the AES mode and is decided apart. */
constexpr crypto_alg kCryptoAlgs[] = {
    {9, "cbc(des)"},
    {10, "cbc(des3_ede)"},
};
constexpr int kCryptoAes = 12;
constexpr int kCryptoAesAlt = 19;

struct auth_alg {
    int code;
    const char *name;
    uint32_t trunc_bits;
};

constexpr auth_alg kAuthAlgs[] = {
    {5, "hmac(sha1)", 96},     {6, "hmac(sha256)", 128}, {7, "hmac(md5)", 96},
    {12, "xcbc(aes)", 96},     {20, "hmac(sha384)", 192}, {21, "hmac(sha512)", 256},
};

/* The accessors take the record and the two values the daemon passed. */
struct sa_cfg_ref {
    const tavrel_xfrm_sa_cfg *cfg;
    uint32_t arg2;
    uint32_t arg3;
};

#define TAVREL_CFG(ref) (ref).cfg, (ref).arg2, (ref).arg3

const char *sa_direction_text(int is_tx)
{
    return is_tx ? "TX" : "RX";
}

void prepare_newsa(xfrm_sa_request *request)
{
    memset(request, 0, sizeof *request);
    request->header.nlmsg_len = NLMSG_LENGTH(sizeof request->info);
    request->header.nlmsg_type = XFRM_MSG_NEWSA;
    request->header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request->info.lft.soft_byte_limit = XFRM_INF;
    request->info.lft.hard_byte_limit = XFRM_INF;
    request->info.lft.soft_packet_limit = XFRM_INF;
    request->info.lft.hard_packet_limit = XFRM_INF;
}

/* Key lengths come from the daemon's records: an attribute that would run
 * past the request stops the process, before its key is even logged. */
void require_room(const xfrm_sa_request *request, uint32_t payload_len)
{
    const uint32_t start = tavrel_ck_align4<uint32_t>(request->header.nlmsg_len);
    const uint32_t attr_len = tavrel_ck_align4<uint32_t>(tavrel_ck_add<uint32_t>(payload_len, NLA_HDRLEN));
    if (tavrel_ck_add<uint32_t>(start, attr_len) > sizeof *request)
        tavrel_check_failed();
}

void put_sa_attr(xfrm_sa_request *request, uint16_t type, uint32_t payload_len, const void *payload)
{
    require_room(request, payload_len);
    tavrel_nla_put(&request->header, type, static_cast<int>(payload_len), payload);
}

/* Appends an attribute whose payload the caller then writes in place, so
 * that keys are copied once, straight into the request. The request is
 * zero-filled: a key declared longer than what was copied goes out padded
 * with zeros. Lengths grow exactly as tavrel_nla_put grows them. */
uint8_t *begin_sa_attr(xfrm_sa_request *request, uint16_t type, uint32_t payload_len)
{
    require_room(request, payload_len);
    uint8_t *attr = reinterpret_cast<uint8_t *>(request) + tavrel_ck_align4<uint32_t>(request->header.nlmsg_len);
    const uint32_t attr_len = payload_len + NLA_HDRLEN;
    const struct nlattr header = {static_cast<uint16_t>(attr_len), type};
    memcpy(attr, &header, sizeof header);
    request->header.nlmsg_len += tavrel_ck_align4<uint32_t>(attr_len);
    return attr + NLA_HDRLEN;
}

/* MED "..<field> = <key as text>": the key is turned into text only when a
 * sink will print it, and the text does not outlive the line. */
#define TAVREL_LOG_KEY(format, function, key, key_len)                                                    \
    do {                                                                                                  \
        if (tavrel_log_on()) {                                                                            \
            char key_text_[150] = {0};                                                                    \
            tavrel_util_convert_bxo_ipsec_key_to_str((key), (key_len), key_text_, sizeof key_text_);      \
            TAVREL_LOG(MED, format, function, key_text_);                                                 \
            tavrel_wipe(key_text_, sizeof key_text_);                                                     \
        }                                                                                                 \
    } while (0)

/* Kernel algorithm names are NUL-terminated within their 64 bytes. */
void copy_alg_name(char (&alg_name)[64], const char *name)
{
    const size_t n = strnlen(name, sizeof alg_name - 1);
    memcpy(alg_name, name, n);
    alg_name[n] = '\0';
}

uint32_t output_mark_switch()
{
    uint32_t value;
    memcpy(&value, reinterpret_cast<const uint8_t *>(&tavrel_main_cfg) + TAVREL_MAIN_CFG_OUTPUT_MARK_OFFSET,
           sizeof value);
    return value;
}

/* TX SAs are marked by link technology while the daemon has the switch on;
 * otherwise only one technology is marked, in both directions. */
bool choose_output_mark(int is_tx, int32_t link_tech, uint32_t *mark)
{
    if (is_tx && output_mark_switch() == 1) {
        *mark = link_tech == kLinkTechTxMarkLow ? kMarkTxLinkTechLow : kMarkTxOther;
        return true;
    }
    if (link_tech == kLinkTechMarked) {
        *mark = kMarkLinkTech;
        return true;
    }
    return false;
}

void put_output_mark(xfrm_sa_request *request, int is_tx, int32_t link_tech, const char *function)
{
    uint32_t mark;
    if (!choose_output_mark(is_tx, link_tech, &mark))
        return;
    TAVREL_LOG(MED, "%s():\t..output_mark = 0x%x\n", function, mark);
    put_sa_attr(request, XFRMA_SET_MARK, sizeof mark, &mark);
}

uint8_t slot_flag(const tavrel_xfrm_sa_cfg *cfg, size_t slot)
{
    return reinterpret_cast<const uint8_t *>(cfg)[slot];
}

uint32_t slot_length(const tavrel_xfrm_sa_cfg *cfg, size_t slot)
{
    uint32_t length;
    memcpy(&length, reinterpret_cast<const uint8_t *>(cfg) + slot + TAVREL_SA_CFG_SLOT_LEN_OFFSET, sizeof length);
    return length;
}

const uint8_t *slot_key(const tavrel_xfrm_sa_cfg *cfg, size_t slot)
{
    return reinterpret_cast<const uint8_t *>(cfg) + slot + TAVREL_SA_CFG_SLOT_KEY_OFFSET;
}

int tavrel_xfrm_set_id_from_config(xfrm_usersa_info *info, const sa_cfg_ref &c, int is_tx)
{
    const int dest_valid = tavrel_xfrm_utils_get_dest_addr_valid(TAVREL_CFG(c));
    const int local_valid = tavrel_xfrm_utils_get_local_addr_valid(TAVREL_CFG(c));
    const int protocol = tavrel_xfrm_utils_get_ipsec_sa_protocol(TAVREL_CFG(c));
    if (!dest_valid || !local_valid || protocol == 0) {
        TAVREL_LOG(ERR, "%s(): IPSEC addresses or protocol is marked as invalid\n", __func__);
        return -1;
    }
    const int spi_valid = is_tx ? tavrel_xfrm_utils_get_spi_tx_valid(TAVREL_CFG(c))
                                : tavrel_xfrm_utils_get_spi_rx_valid(TAVREL_CFG(c));
    if (!spi_valid) {
        TAVREL_LOG(ERR, "%s(): %s SPI value is marked as invalid\n", __func__, sa_direction_text(is_tx));
        return -1;
    }

    const char *protocol_text;
    if (protocol == kSaProtocolAh) {
        info->id.proto = IPPROTO_AH;
        protocol_text = "ah";
    } else if (protocol == kSaProtocolEsp) {
        info->id.proto = IPPROTO_ESP;
        protocol_text = "esp";
    } else {
        TAVREL_LOG(ERR, "%s(): Invalid IPSEC protocol %d\n", __func__, protocol);
        return -1;
    }
    TAVREL_LOG(MED, "%s():\t..id.proto = %s\n", __func__, protocol_text);

    const tavrel_modem_ip_addr *local = tavrel_xfrm_utils_get_local_addr(TAVREL_CFG(c));
    const tavrel_modem_ip_addr *dest = tavrel_xfrm_utils_get_dest_addr(TAVREL_CFG(c));
    if (local == nullptr || dest == nullptr) {
        TAVREL_LOG(ERR, "%s(): Retrieving local/dest addresses failed\n", __func__);
        return -1;
    }
    /* An incoming SA runs from the peer to the device. */
    const tavrel_modem_ip_addr *source = is_tx ? local : dest;
    const tavrel_modem_ip_addr *destination = is_tx ? dest : local;
    if (tavrel_log_on()) {
        char source_text[64] = {0};
        char destination_text[64] = {0};
        tavrel_util_convert_bxo_ip_addr_to_str(local, is_tx ? source_text : destination_text, 64);
        tavrel_util_convert_bxo_ip_addr_to_str(dest, is_tx ? destination_text : source_text, 64);
        TAVREL_LOG(MED, "%s():\t..saddr = %s\n", __func__, source_text);
        TAVREL_LOG(MED, "%s():\t..id.daddr = %s\n", __func__, destination_text);
    }
    tavrel_xfrm_set_addr_from_config(&info->saddr, source);
    tavrel_xfrm_set_addr_from_config(&info->id.daddr, destination);

    const uint32_t spi =
        is_tx ? tavrel_xfrm_utils_get_spi_tx(TAVREL_CFG(c)) : tavrel_xfrm_utils_get_spi_rx(TAVREL_CFG(c));
    TAVREL_LOG(MED, "%s():\t..id.spi = 0x%x\n", __func__, spi);
    info->id.spi = htonl(spi);
    return 0;
}

int tavrel_xfrm_set_mode(xfrm_usersa_info *info, const sa_cfg_ref &c)
{
    if (!tavrel_xfrm_utils_get_encapsulation_mode_valid(TAVREL_CFG(c))) {
        TAVREL_LOG(ERR, "%s(): encapsulation mode marked as invalid\n", __func__);
        return -1;
    }
    const int mode = tavrel_xfrm_utils_get_encapsulation_mode(TAVREL_CFG(c));
    if (mode == kEncapModeTunnel) {
        info->mode = XFRM_MODE_TUNNEL;
    } else if (mode == kEncapModeTransport) {
        info->mode = XFRM_MODE_TRANSPORT;
    } else {
        TAVREL_LOG(ERR, "%s(): invalid XFRM mode 0x%x\n", __func__, static_cast<unsigned>(mode));
        return -1;
    }
    TAVREL_LOG(MED, "%s():\t..mode = %s\n", __func__, info->mode == XFRM_MODE_TUNNEL ? "tunnel" : "transport");
    return 0;
}

/* The kernel name of the modem's cipher, or nullptr after logging why not. */
const char *crypto_alg_name(const sa_cfg_ref &c, const char *function)
{
    const int code = tavrel_xfrm_utils_get_crypto_algo(TAVREL_CFG(c));
    if (code == kCryptoAes || code == kCryptoAesAlt) {
        if (!tavrel_xfrm_utils_get_aes_mode_valid(TAVREL_CFG(c)))
            return "cbc(aes)";
        const int aes_mode = tavrel_xfrm_utils_get_aes_mode(TAVREL_CFG(c));
        if (aes_mode == kAesModeCbc)
            return "cbc(aes)";
        if (aes_mode == kAesModeCtr)
            return "rfc3686(ctr(aes))";
        TAVREL_LOG(ERR, "%s(): invalid AES mode %d\n", function, aes_mode);
        return nullptr;
    }
    for (const auto &alg : kCryptoAlgs)
        if (alg.code == code)
            return alg.name;
    TAVREL_LOG(ERR, "%s(): invalid crypto algo %d\n", function, code);
    return nullptr;
}

int tavrel_xfrm_set_crypto_alg(xfrm_sa_request *request, const sa_cfg_ref &c, int is_tx)
{
    if (!tavrel_xfrm_utils_get_crypto_algo_valid(TAVREL_CFG(c))) {
        TAVREL_LOG(ERR, "%s(): crypto algorithm marked as invalid\n", __func__);
        return -1;
    }
    const int key_valid = is_tx ? tavrel_xfrm_utils_get_crypto_key_tx_valid(TAVREL_CFG(c))
                                : tavrel_xfrm_utils_get_crypto_key_rx_valid(TAVREL_CFG(c));
    if (!key_valid) {
        TAVREL_LOG(ERR, "%s(): %s crypto key marked as invalid\n", __func__, sa_direction_text(is_tx));
        return -1;
    }
    const char *name = crypto_alg_name(c, __func__);
    if (name == nullptr)
        return -1;

    const uint8_t *key = is_tx ? tavrel_xfrm_utils_get_crypto_key_tx(TAVREL_CFG(c))
                               : tavrel_xfrm_utils_get_crypto_key_rx(TAVREL_CFG(c));
    const uint32_t key_len = is_tx ? tavrel_xfrm_utils_get_crypto_key_tx_len(TAVREL_CFG(c))
                                   : tavrel_xfrm_utils_get_crypto_key_rx_len(TAVREL_CFG(c));
    if (key == nullptr) {
        TAVREL_LOG(ERR, "%s(): Retrieving %s key failed\n", __func__, sa_direction_text(is_tx));
        return -1;
    }

    struct xfrm_algo header;
    memset(&header, 0, sizeof header);
    copy_alg_name(header.alg_name, name);
    header.alg_key_len = tavrel_ck_mul<uint32_t>(key_len, 8);
    const uint32_t payload_len = tavrel_ck_add<uint32_t>(kCryptHeaderLen, key_len);
    uint8_t *payload = begin_sa_attr(request, XFRMA_ALG_CRYPT, payload_len);
    memcpy(payload, &header, sizeof header);
    tavrel_bounded_copy(payload + kCryptHeaderLen, kCryptKeyRoom, key, key_len);

    /* The algorithm headers end in a flexible key array: log copies. */
    const char *alg_name = name;
    const uint32_t key_bits = header.alg_key_len;
    TAVREL_LOG(MED, "%s():\t..crypt.alg_name = %s\n", __func__, alg_name);
    TAVREL_LOG(MED, "%s():\t..crypt.alg_key_len = %u\n", __func__, key_bits);
    TAVREL_LOG_KEY("%s():\t..crypt.alg_key = %s\n", __func__, payload + kCryptHeaderLen, key_len);
    return 0;
}

int tavrel_xfrm_set_auth_alg(xfrm_sa_request *request, const sa_cfg_ref &c, int is_tx)
{
    if (!tavrel_xfrm_utils_get_hash_algo_valid(TAVREL_CFG(c))) {
        TAVREL_LOG(ERR, "%s(): hash algo marked as invalid\n", __func__);
        return -1;
    }
    /* The modem hands the key out through its accessors or leaves it in one
     * of two inline slots of the record; either kind of slot counts. */
    const size_t primary = is_tx ? TAVREL_SA_CFG_TX_PRIMARY_HASH_KEY : TAVREL_SA_CFG_RX_PRIMARY_HASH_KEY;
    const size_t extended = is_tx ? TAVREL_SA_CFG_TX_EXTENDED_HASH_KEY : TAVREL_SA_CFG_RX_EXTENDED_HASH_KEY;
    const bool key_valid = (is_tx ? tavrel_xfrm_utils_get_hash_key_tx_valid(TAVREL_CFG(c))
                                  : tavrel_xfrm_utils_get_hash_key_rx_valid(TAVREL_CFG(c))) ||
                           slot_flag(c.cfg, primary) || slot_flag(c.cfg, extended);
    if (!key_valid) {
        TAVREL_LOG(ERR, "%s(): %s hash key merked as invalid\n", __func__, sa_direction_text(is_tx));
        return -1;
    }

    const int code = tavrel_xfrm_utils_get_hash_algo(TAVREL_CFG(c));
    const auth_alg *alg = nullptr;
    for (const auto &candidate : kAuthAlgs)
        if (candidate.code == code)
            alg = &candidate;
    if (alg == nullptr) {
        TAVREL_LOG(ERR, "%s(): invalid auth algo %d\n", __func__, code);
        return -1;
    }
    struct xfrm_algo_auth header;
    memset(&header, 0, sizeof header);
    copy_alg_name(header.alg_name, alg->name);

    /* The extended slot is the newest place the modem keeps a key in. */
    const uint8_t *key;
    uint32_t key_len;
    if (slot_flag(c.cfg, extended)) {
        key = slot_key(c.cfg, extended);
        key_len = slot_length(c.cfg, extended);
    } else if (slot_flag(c.cfg, primary)) {
        key = slot_key(c.cfg, primary);
        key_len = slot_length(c.cfg, primary);
    } else {
        key = is_tx ? tavrel_xfrm_utils_get_hash_key_tx(TAVREL_CFG(c))
                    : tavrel_xfrm_utils_get_hash_key_rx(TAVREL_CFG(c));
        key_len = is_tx ? tavrel_xfrm_utils_get_hash_key_tx_len(TAVREL_CFG(c))
                        : tavrel_xfrm_utils_get_hash_key_rx_len(TAVREL_CFG(c));
        if (key == nullptr) {
            TAVREL_LOG(ERR, "%s(): Retrieving %s key failed\n", __func__, sa_direction_text(is_tx));
            return -1;
        }
    }

    const uint32_t payload_len = tavrel_ck_add<uint32_t>(kAuthHeaderLen, key_len);
    header.alg_key_len = tavrel_ck_mul<uint32_t>(key_len, 8);
    header.alg_trunc_len = alg->trunc_bits;
    uint8_t *payload = begin_sa_attr(request, XFRMA_ALG_AUTH_TRUNC, payload_len);
    memcpy(payload, &header, sizeof header);
    tavrel_bounded_copy(payload + kAuthHeaderLen, kAuthKeyRoom, key, key_len);

    const char *alg_name = alg->name;
    const uint32_t trunc_bits = header.alg_trunc_len;
    const uint32_t key_bits = header.alg_key_len;
    TAVREL_LOG(MED, "%s():\t..auth.algo = %s\n", __func__, alg_name);
    TAVREL_LOG(MED, "%s():\t..auth.trunc_len = %u\n", __func__, trunc_bits);
    TAVREL_LOG(MED, "%s():\t..auth.key_len = %u\n", __func__, key_bits);
    TAVREL_LOG_KEY("%s():\t..auth.key = %s\n", __func__, payload + kAuthHeaderLen, key_len);
    return 0;
}

void put_encap(xfrm_sa_request *request, int is_tx, uint16_t device_port_be)
{
    struct xfrm_encap_tmpl encap;
    memset(&encap, 0, sizeof encap);
    encap.encap_type = UDP_ENCAP_ESPINUDP;
    encap.encap_sport = is_tx ? device_port_be : htons(kNattPort);
    encap.encap_dport = is_tx ? htons(kNattPort) : device_port_be;
    put_sa_attr(request, XFRMA_ENCAP, sizeof encap, &encap);
}

void tavrel_xfrm_set_encap(xfrm_sa_request *request, const sa_cfg_ref &c, int is_tx)
{
    if (!(tavrel_xfrm_utils_get_udp_encap_src_port_valid(TAVREL_CFG(c)) &&
          tavrel_xfrm_utils_get_is_udp_encaps_valid(TAVREL_CFG(c)) &&
          tavrel_xfrm_utils_get_is_udp_encaps(TAVREL_CFG(c)))) {
        TAVREL_LOG(HIGH, "%s(): not setting encapsulation params\n", __func__);
        return;
    }
    const uint16_t port = tavrel_xfrm_utils_get_udp_encap_src_port(TAVREL_CFG(c));
    const unsigned device_port = ntohs(port);
    TAVREL_LOG(MED, "%s():\t..encap = %u -> %u\n", __func__, is_tx ? device_port : kNattPort,
               is_tx ? kNattPort : device_port);
    put_encap(request, is_tx, port);
}

void set_sa_flags(xfrm_usersa_info *info, int is_tx, const char *function)
{
    info->flags = is_tx ? XFRM_STATE_NOPMTUDISC | XFRM_STATE_AF_UNSPEC : XFRM_STATE_AF_UNSPEC;
    TAVREL_LOG(MED, "%s():\t..sinfo.flags = 0x%x\n", function, static_cast<unsigned>(info->flags));
}

void log_sa_family(const xfrm_usersa_info *info, const char *function)
{
    TAVREL_LOG(MED, "%s():\t..sinfo.family = AF_INET%s\n", function, info->family == AF_INET ? "" : "6");
}

int send_sa(const xfrm_sa_request *request, const char *function)
{
    const int result = tavrel_netlink_transact(&request->header, NETLINK_XFRM, nullptr);
    if (result == -1) {
        TAVREL_LOG(ERR, "%s(): Sending XFRM state failed\n", function);
        return -1;
    }
    return result;
}

#undef TAVREL_CFG

/* A crypto, authentication or family failure answers 0 although nothing was
 * sent: the daemon has always counted such an SA as installed and only
 * tests for -1. */
int add_state_in(xfrm_sa_request &request, const sa_cfg_ref &c, int is_tx, int32_t link_tech)
{
    static const char function[] = "tavrel_xfrm_add_state";
    prepare_newsa(&request);
    if (tavrel_xfrm_set_id_from_config(&request.info, c, is_tx) != 0) {
        TAVREL_LOG(ERR, "%s(): setting XFRM state ID failed\n", function);
        return -1;
    }
    if (tavrel_xfrm_set_mode(&request.info, c) != 0) {
        TAVREL_LOG(ERR, "%s(): setting XFRM state mode failed\n", function);
        return -1;
    }
    if (tavrel_xfrm_set_crypto_alg(&request, c, is_tx) != 0) {
        TAVREL_LOG(ERR, "%s(): setting XFRM state crypto failed\n", function);
        return 0;
    }
    if (tavrel_xfrm_set_auth_alg(&request, c, is_tx) != 0) {
        TAVREL_LOG(ERR, "%s(): setting XFRM state auth failed\n", function);
        return 0;
    }
    tavrel_xfrm_set_encap(&request, c, is_tx);
    set_sa_flags(&request.info, is_tx, function);

    const tavrel_modem_ip_addr *own_side = is_tx ? tavrel_xfrm_utils_get_local_addr(c.cfg, c.arg2, c.arg3)
                                                 : tavrel_xfrm_utils_get_dest_addr(c.cfg, c.arg2, c.arg3);
    if (own_side == nullptr) {
        if (is_tx)
            TAVREL_LOG(ERR, "%s(): Retrieving local addr failed\n", function);
        else
            TAVREL_LOG(ERR, "%s(): Retrieving dest addr failed\n", function);
        return 0;
    }
    if (own_side->family == 4)
        request.info.family = AF_INET;
    else if (own_side->family == 6)
        request.info.family = AF_INET6;
    log_sa_family(&request.info, function);

    put_output_mark(&request, is_tx, link_tech, function);
    return send_sa(&request, function);
}

/* The address set's keys: the copy is cut to the key room, but the attribute
 * still carries the declared length (zeros past the cut), as the daemon's
 * recovery path has always sent it. */
uint8_t *put_set_alg(xfrm_sa_request &request, uint16_t type, uint32_t header_len, const void *header,
                     uint32_t key_room, const uint8_t *key, uint32_t key_len)
{
    const uint32_t payload_len = tavrel_ck_add<uint32_t>(header_len, key_len);
    uint8_t *payload = begin_sa_attr(&request, type, payload_len);
    memcpy(payload, header, header_len);
    kv_memscpy(payload + header_len, key_room, key, key_len);
    return payload + header_len;
}

int add_state_from_addr_set_in(xfrm_sa_request &request, const tavrel_xfrm_addr_set *set, int is_tx,
                               int32_t link_tech)
{
    static const char function[] = "tavrel_xfrm_add_state_from_addr_set";
    prepare_newsa(&request);
    request.info.id.proto = set->proto;
    request.info.mode = set->mode;
    request.info.family = set->local_addr.family == 4 ? AF_INET : AF_INET6;

    /* The labels of the incoming SA's lines differ from the outgoing ones on
     * purpose; the daemon's log readers know both. */
    const tavrel_ip_addr *first = &set->local_addr;
    const tavrel_ip_addr *second = &set->remote_addr;
    tavrel_xfrm_set_addr_from_recovery(is_tx ? &request.info.saddr : &request.info.id.daddr, first);
    if (tavrel_log_on()) {
        char text[64] = {0};
        tavrel_util_convert_ip_addr_to_str(first, 0, text, sizeof text);
        if (is_tx)
            TAVREL_LOG(MED, "%s():\t..saddr = %s\n", function, text);
        else
            TAVREL_LOG(MED, "%s():\t..daddr = %s\n", function, text);
    }
    tavrel_xfrm_set_addr_from_recovery(is_tx ? &request.info.id.daddr : &request.info.saddr, second);
    if (tavrel_log_on()) {
        char text[64] = {0};
        tavrel_util_convert_ip_addr_to_str(second, 0, text, sizeof text);
        if (is_tx)
            TAVREL_LOG(MED, "%s():\t..id.daddr = %s\n", function, text);
        else
            TAVREL_LOG(MED, "%s():\t..id.saddr = %s\n", function, text);
    }
    const uint32_t spi = is_tx ? set->spi_tx : set->spi_rx;
    TAVREL_LOG(MED, "%s():\t..id.spi = 0x%x\n", function, spi);
    request.info.id.spi = htonl(spi);

    {
        struct xfrm_algo header;
        memset(&header, 0, sizeof header);
        copy_alg_name(header.alg_name, set->crypto_alg_name);
        const uint32_t key_len = is_tx ? set->crypto_key_len_tx : set->crypto_key_len_rx;
        header.alg_key_len = tavrel_ck_mul<uint32_t>(key_len, 8);
        const uint8_t *key = put_set_alg(request, XFRMA_ALG_CRYPT, kCryptHeaderLen, &header, kCryptKeyRoom,
                                         is_tx ? set->crypto_key_tx : set->crypto_key_rx, key_len);
        TAVREL_LOG_KEY("%s():\t..crypt.alg_key = %s\n", function, key, key_len);
        const int key_bits = static_cast<int>(header.alg_key_len);
        TAVREL_LOG(MED, "%s():\t..crypt.alg_key_len = %d\n", function, key_bits);
    }
    {
        struct xfrm_algo_auth header;
        memset(&header, 0, sizeof header);
        copy_alg_name(header.alg_name, set->auth_alg_name);
        const uint32_t key_len = is_tx ? set->auth_key_len_tx : set->auth_key_len_rx;
        header.alg_trunc_len = set->auth_trunc_len;
        header.alg_key_len = tavrel_ck_mul<uint32_t>(key_len, 8);
        const uint8_t *key = put_set_alg(request, XFRMA_ALG_AUTH_TRUNC, kAuthHeaderLen, &header, kAuthKeyRoom,
                                         is_tx ? set->auth_key_tx : set->auth_key_rx, key_len);
        const uint32_t key_bits = header.alg_key_len;
        TAVREL_LOG(MED, "%s():\t..auth.key_len = %u\n", function, key_bits);
        TAVREL_LOG_KEY("%s():\t..auth.key = %s\n", function, key, key_len);
    }

    if (set->udp_encap != 0)
        put_encap(&request, is_tx, set->udp_encap_port);

    set_sa_flags(&request.info, is_tx, function);
    log_sa_family(&request.info, function);
    put_output_mark(&request, is_tx, link_tech, function);
    return send_sa(&request, function);
}

} // namespace

/* The request holds both keys of the SA until it is wiped. */
int tavrel_xfrm_add_state(const tavrel_xfrm_sa_cfg *sa_cfg, uint32_t cfg_arg2, uint32_t cfg_arg3, int is_tx,
                          int32_t link_tech)
{
    xfrm_sa_request request;
    const int result = add_state_in(request, sa_cfg_ref{sa_cfg, cfg_arg2, cfg_arg3}, is_tx, link_tech);
    tavrel_wipe(&request, sizeof request);
    return result;
}

extern "C" int tavrel_xfrm_add_states(const tavrel_xfrm_sa_cfg *sa_cfg, uint32_t cfg_arg2, uint32_t cfg_arg3,
                                      int32_t link_tech)
{
    if (sa_cfg == nullptr) {
        tavrel_null_arg(__func__, "sa_cfg");
        return -1;
    }
    TAVREL_LOG(HIGH, "%s(): inserting outgoing XFRM state\n", __func__);
    if (tavrel_xfrm_add_state(sa_cfg, cfg_arg2, cfg_arg3, 1, link_tech) == -1) {
        TAVREL_LOG(ERR, "%s(): Setting TX XFRM state failed\n", __func__);
        return -1;
    }
    /* A TX SA stays installed if the RX SA fails; removing it is up to the
     * caller. */
    TAVREL_LOG(HIGH, "%s(): inserting incoming XFRM state\n", __func__);
    const int result = tavrel_xfrm_add_state(sa_cfg, cfg_arg2, cfg_arg3, 0, link_tech);
    if (result == -1) {
        TAVREL_LOG(ERR, "%s(): Setting RX XFRM state failed\n", __func__);
        return -1;
    }
    return result;
}

/* Re-installs an SA from values the daemon kept: names, keys and ports come
 * ready for the kernel, and only is_valid is checked. */
extern "C" int tavrel_xfrm_add_state_from_addr_set(const tavrel_xfrm_addr_set *set, int is_tx, int32_t link_tech)
{
    if (set == nullptr) {
        TAVREL_LOG(ERR, "%s(): invalid input\n", __func__);
        return -1;
    }
    if (!set->is_valid)
        return -1;
    xfrm_sa_request request;
    const int result = add_state_from_addr_set_in(request, set, is_tx, link_tech);
    tavrel_wipe(&request, sizeof request);
    return result;
}

/* ---- removing security associations ---------------------------------------- */

/* The daemon keeps no kernel handles for its SAs, only the pair's identity:
 * the whole SA table is dumped and the entries of the pair are deleted from
 * inside the dump callback, each with a transaction of its own. */


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

    if (tavrel_log_on()) {
        char src_text[64] = {0};
        char dst_text[64] = {0};
        tavrel_util_convert_ip_addr_to_str(src, 0, src_text, sizeof src_text);
        tavrel_util_convert_ip_addr_to_str(dst, 0, dst_text, sizeof dst_text);
        TAVREL_LOG(MED, "%s():\t..src %s\n", __func__, src_text);
        TAVREL_LOG(MED, "%s():\t..dst %s\n", __func__, dst_text);
    }
    TAVREL_LOG(MED, "%s():\t..proto %u\n", __func__, proto);
    TAVREL_LOG(MED, "%s():\t..spi 0x%x\n", __func__, ntohl(entry.id.spi));

    /* A refused deletion leaves that SA alone; the rest of the dump is still
     * worth cleaning up. */
    if (delete_state(entry) == -1)
        TAVREL_LOG(ERR, "%s(): deleting XFRM state failed\n", __func__);
}

extern "C" int tavrel_xfrm_remove_states(const tavrel_xfrm_sa_addrs *addrs)
{
    if (addrs == nullptr) {
        tavrel_null_arg(__func__, "addrs");
        return -1;
    }
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

    const bool out = dir == XFRM_POLICY_OUT;
    const tavrel_ip_addr *saddr = out ? &local : &remote;
    const tavrel_ip_addr *daddr = out ? &remote : &local;
    const uint32_t spi = out ? addrs->spi_tx : addrs->spi_rx;
    if (tavrel_log_on()) {
        char saddr_text[64] = {0};
        char daddr_text[64] = {0};
        tavrel_util_convert_ip_addr_to_str(&local, 0, out ? saddr_text : daddr_text, 64);
        tavrel_util_convert_ip_addr_to_str(&remote, 0, out ? daddr_text : saddr_text, 64);
        TAVREL_LOG(MED, "%s():\t..saddr = %s\n", __func__, saddr_text);
        TAVREL_LOG(MED, "%s():\t..id.daddr = %s\n", __func__, daddr_text);
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
    if (addrs == nullptr) {
        tavrel_null_arg(__func__, "addrs");
        return -1;
    }
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
