/*
 * Benchmark of libnltavrel: each library call against a hand-written loop
 * that makes the same system calls with the same request bytes, measured
 * side by side in interleaved rounds; prints one table of ratios (median,
 * min and max over the rounds).
 *
 *   nltavrel_bench            the whole table (root: it enters private
 *                             network namespaces of its own)
 *   nltavrel_bench sa-pair N  N SA pairs against the fake kernel with every
 *                             sink off, nothing else (for callgrind)
 *
 * Calls that the host kernel can answer (addresses, rules, labels, bypass
 * policies) go to it inside a private network namespace. It has no ESP, so
 * the SA calls go to a fake kernel in this process: the program defines the
 * socket calls itself and serves NETLINK sockets from memory while the fake
 * kernel is on, passing everything else to the C library.
 */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_addrlabel.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/udp.h>
#include <linux/xfrm.h>

#include "libnltavrel.h"
#include "tavrel_host.h"
#include "tavrel_host_xfrm.h"

#define ROUNDS 21
#define RECV_SIZE 4096

static void fail(const char *what)
{
    fprintf(stderr, "nltavrel_bench: %s\n", what);
    exit(1);
}

#define CHECK(cond) ((cond) ? (void)0 : fail("failed: " #cond))

/* ---- socket calls: the C library's, or the fake kernel's --------------- */

static struct {
    int (*socket)(int, int, int);
    int (*setsockopt)(int, int, int, const void *, socklen_t);
    int (*bind)(int, const struct sockaddr *, socklen_t);
    ssize_t (*sendto)(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
    ssize_t (*recvfrom)(int, void *, size_t, int, struct sockaddr *, socklen_t *);
    int (*close)(int);
} libc;

__attribute__((constructor)) static void find_libc_calls(void)
{
    libc.socket = (int (*)(int, int, int))dlsym(RTLD_NEXT, "socket");
    libc.setsockopt = (int (*)(int, int, int, const void *, socklen_t))dlsym(RTLD_NEXT, "setsockopt");
    libc.bind = (int (*)(int, const struct sockaddr *, socklen_t))dlsym(RTLD_NEXT, "bind");
    libc.sendto =
        (ssize_t(*)(int, const void *, size_t, int, const struct sockaddr *, socklen_t))dlsym(RTLD_NEXT, "sendto");
    libc.recvfrom = (ssize_t(*)(int, void *, size_t, int, struct sockaddr *, socklen_t *))dlsym(RTLD_NEXT, "recvfrom");
    libc.close = (int (*)(int))dlsym(RTLD_NEXT, "close");
}

/* Requests sent while capturing, to check that both sides send the same bytes. */
static struct {
    int on;
    int count;
    size_t length[8];
    unsigned char bytes[8][2400];
} capture;

/* The fake kernel answers every acknowledged request with success and dumps
 * its SA table for XFRM_MSG_GETSA; descriptors from FAKE_FD on are its own. */
#define FAKE_FD 1000
#define FAKE_SOCKETS 4
#define SA_ENTRY_LEN NLMSG_LENGTH(sizeof(struct xfrm_usersa_info))
#define SA_PER_DATAGRAM (RECV_SIZE / NLMSG_ALIGN(SA_ENTRY_LEN))

static struct {
    int on;
    unsigned char *sa_table; /* dumped entries, back to back */
    size_t sa_table_len;
    struct {
        int open;
        int dumping;
        size_t dump_at;
        size_t reply_len;
        unsigned char reply[64];
    } sock[FAKE_SOCKETS];
} fake;

static int fake_index(int fd)
{
    return fake.on && fd >= FAKE_FD && fd < FAKE_FD + FAKE_SOCKETS && fake.sock[fd - FAKE_FD].open ? fd - FAKE_FD
                                                                                                   : -1;
}

int socket(int domain, int type, int protocol)
{
    if (!fake.on || domain != AF_NETLINK)
        return libc.socket(domain, type, protocol);
    for (int i = 0; i < FAKE_SOCKETS; i++)
        if (!fake.sock[i].open) {
            memset(&fake.sock[i], 0, sizeof fake.sock[i]);
            fake.sock[i].open = 1;
            return FAKE_FD + i;
        }
    errno = EMFILE;
    return -1;
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t length)
{
    return fake_index(fd) >= 0 ? 0 : libc.setsockopt(fd, level, name, value, length);
}

int bind(int fd, const struct sockaddr *address, socklen_t length)
{
    return fake_index(fd) >= 0 ? 0 : libc.bind(fd, address, length);
}

ssize_t sendto(int fd, const void *data, size_t length, int flags, const struct sockaddr *to, socklen_t to_length)
{
    if (capture.on && capture.count < 8 && length <= sizeof capture.bytes[0]) {
        memcpy(capture.bytes[capture.count], data, length);
        capture.length[capture.count++] = length;
    }
    const int i = fake_index(fd);
    if (i < 0)
        return libc.sendto(fd, data, length, flags, to, to_length);
    const struct nlmsghdr *request = data;
    if (request->nlmsg_type == XFRM_MSG_GETSA && (request->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP) {
        fake.sock[i].dumping = 1;
        fake.sock[i].dump_at = 0;
    } else if (request->nlmsg_flags & NLM_F_ACK) {
        struct nlmsghdr *ack = (struct nlmsghdr *)fake.sock[i].reply;
        struct nlmsgerr *error = NLMSG_DATA(ack);
        ack->nlmsg_len = NLMSG_LENGTH(sizeof *error);
        ack->nlmsg_type = NLMSG_ERROR;
        ack->nlmsg_flags = NLM_F_CAPPED;
        ack->nlmsg_seq = request->nlmsg_seq;
        ack->nlmsg_pid = 0;
        error->error = 0;
        error->msg = *request;
        fake.sock[i].reply_len = ack->nlmsg_len;
    }
    return (ssize_t)length;
}

ssize_t recvfrom(int fd, void *buffer, size_t length, int flags, struct sockaddr *from, socklen_t *from_length)
{
    const int i = fake_index(fd);
    if (i < 0)
        return libc.recvfrom(fd, buffer, length, flags, from, from_length);
    size_t n = 0;
    if (fake.sock[i].dumping && fake.sock[i].dump_at < fake.sa_table_len) {
        n = fake.sa_table_len - fake.sock[i].dump_at;
        if (n > SA_PER_DATAGRAM * NLMSG_ALIGN(SA_ENTRY_LEN))
            n = SA_PER_DATAGRAM * NLMSG_ALIGN(SA_ENTRY_LEN);
        memcpy(buffer, fake.sa_table + fake.sock[i].dump_at, n < length ? n : length);
        fake.sock[i].dump_at += n;
    } else if (fake.sock[i].dumping) {
        struct nlmsghdr done = {NLMSG_LENGTH(sizeof(int)), NLMSG_DONE, NLM_F_MULTI, 0, 0};
        const int status = 0;
        n = NLMSG_LENGTH(sizeof status);
        memcpy(buffer, &done, sizeof done);
        memcpy((unsigned char *)buffer + NLMSG_HDRLEN, &status, sizeof status);
        fake.sock[i].dumping = 0;
    } else if (fake.sock[i].reply_len != 0) {
        n = fake.sock[i].reply_len;
        memcpy(buffer, fake.sock[i].reply, n < length ? n : length);
        fake.sock[i].reply_len = 0;
    } else {
        errno = EAGAIN;
        return -1;
    }
    return (ssize_t)(n < length ? n : length);
}

int close(int fd)
{
    const int i = fake_index(fd);
    if (i < 0)
        return libc.close(fd);
    fake.sock[i].open = 0;
    return 0;
}

/* ---- the hand-written side ------------------------------------------------ */

typedef union {
    struct nlmsghdr header;
    unsigned char bytes[2400];
} request_buffer;

static void *request_init(request_buffer *r, uint16_t type, uint16_t flags, size_t body_len)
{
    memset(r, 0, sizeof *r);
    r->header.nlmsg_len = NLMSG_LENGTH(body_len);
    r->header.nlmsg_type = type;
    r->header.nlmsg_flags = flags;
    return NLMSG_DATA(&r->header);
}

static void put_attr(request_buffer *r, uint16_t type, const void *data, size_t len)
{
    struct nlattr *attr = (struct nlattr *)(r->bytes + NLMSG_ALIGN(r->header.nlmsg_len));
    attr->nla_type = type;
    attr->nla_len = (uint16_t)(NLA_HDRLEN + len);
    memcpy((unsigned char *)attr + NLA_HDRLEN, data, len);
    r->header.nlmsg_len = NLMSG_ALIGN(r->header.nlmsg_len) + NLA_ALIGN(attr->nla_len);
}

static void put_u32(request_buffer *r, uint16_t type, uint32_t value)
{
    put_attr(r, type, &value, sizeof value);
}

static int raw_open(int protocol)
{
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    const int one = 1;
    struct sockaddr_nl local = {.nl_family = AF_NETLINK};
    CHECK(fd >= 0);
    setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &one, sizeof one);
    CHECK(bind(fd, (const struct sockaddr *)&local, sizeof local) == 0);
    return fd;
}

static union {
    struct nlmsghdr header;
    unsigned char bytes[RECV_SIZE];
} raw_answer;

/* Sends one request and, when it asks for one, reads the acknowledgement. */
static int raw_transact(const request_buffer *r, int protocol)
{
    const int fd = raw_open(protocol);
    int result = 0;
    CHECK(sendto(fd, r, r->header.nlmsg_len, 0, NULL, 0) == (ssize_t)r->header.nlmsg_len);
    if (r->header.nlmsg_flags & NLM_F_ACK) {
        const ssize_t n = recvfrom(fd, raw_answer.bytes, sizeof raw_answer.bytes, 0, NULL, NULL);
        const struct nlmsgerr *error = NLMSG_DATA(&raw_answer.header);
        result = n >= (ssize_t)NLMSG_LENGTH(sizeof *error) && raw_answer.header.nlmsg_type == NLMSG_ERROR
                     ? error->error
                     : -1;
    }
    close(fd);
    return result;
}

/* Sends a dump request and hands every message to visit until NLMSG_DONE. */
static void raw_dump(const request_buffer *r, int protocol, void (*visit)(const struct nlmsghdr *, void *),
                     void *context)
{
    const int fd = raw_open(protocol);
    int done = 0;
    CHECK(sendto(fd, r, r->header.nlmsg_len, 0, NULL, 0) == (ssize_t)r->header.nlmsg_len);
    while (!done) {
        ssize_t n = recvfrom(fd, raw_answer.bytes, sizeof raw_answer.bytes, 0, NULL, NULL);
        CHECK(n > 0);
        for (const struct nlmsghdr *m = &raw_answer.header; NLMSG_OK(m, n); m = NLMSG_NEXT(m, n)) {
            if (m->nlmsg_type == NLMSG_DONE || m->nlmsg_type == NLMSG_ERROR) {
                done = 1;
                break;
            }
            visit(m, context);
        }
    }
    close(fd);
}

/* ---- the cases ---------------------------------------------------------------- */

static const tavrel_ip_addr kAddress4 = {4, 4, {10, 9, 0, 1}};
static const tavrel_ip_addr kLabelPrefix = {6, 16, {0x20, 0x01, 0x0d, 0xb8, 0, 1}};
enum { kRuleMark = 0x10000, kRuleMask = 0xffff0000, kRuleTable = 100, kRulePriority = 1000, kLabel = 100 };

static void lib_addr_cfg(void)
{
    CHECK(tavrel_rtnetlink_addr_cfg("lo", &kAddress4, 24, 2, 0) == 0);
}

static void raw_addr_cfg(void)
{
    request_buffer r;
    struct ifaddrmsg *ifa = request_init(&r, RTM_NEWADDR, NLM_F_REQUEST | NLM_F_ACK | NLM_F_REPLACE, sizeof *ifa);
    const struct ifa_cacheinfo forever = {0xffffffffu, 0xffffffffu, 0, 0};
    ifa->ifa_family = AF_INET;
    ifa->ifa_prefixlen = 24;
    ifa->ifa_index = if_nametoindex("lo");
    put_attr(&r, IFA_LOCAL, kAddress4.addr, 4);
    put_attr(&r, IFA_CACHEINFO, &forever, sizeof forever);
    CHECK(raw_transact(&r, NETLINK_ROUTE) == 0);
}

static void lib_rule(void)
{
    CHECK(tavrel_rtnetlink_add_ip_rule(kRuleMark, kRuleMask, kRuleTable, kRulePriority) == 0);
    CHECK(tavrel_rtnetlink_del_ip_rule(kRuleMark, kRuleMask, kRuleTable, kRulePriority) == 0);
}

static void raw_rule_one(uint16_t type, uint16_t flags, uint8_t action)
{
    request_buffer r;
    struct rtmsg *rule = request_init(&r, type, flags, sizeof *rule);
    rule->rtm_family = AF_INET;
    rule->rtm_protocol = RTPROT_BOOT;
    rule->rtm_type = action;
    put_u32(&r, FRA_PRIORITY, kRulePriority);
    put_u32(&r, FRA_FWMARK, kRuleMark);
    put_u32(&r, FRA_FWMASK, kRuleMask);
    put_u32(&r, FRA_TABLE, kRuleTable);
    CHECK(raw_transact(&r, NETLINK_ROUTE) == 0);
}

static void raw_rule(void)
{
    raw_rule_one(RTM_NEWRULE, NLM_F_REQUEST | NLM_F_EXCL | NLM_F_CREATE, FR_ACT_TO_TBL);
    raw_rule_one(RTM_DELRULE, NLM_F_REQUEST, FR_ACT_UNSPEC);
}

static void lib_label(void)
{
    CHECK(tavrel_addrlabel_add(&kLabelPrefix, 64, kLabel, 0) == 0);
    CHECK(tavrel_addrlabel_del(&kLabelPrefix, 64, kLabel, 0) == 0);
}

static int raw_label_one(uint16_t type, uint16_t flags, const uint8_t *prefix, uint32_t label)
{
    request_buffer r;
    struct ifaddrlblmsg *ifal = request_init(&r, type, flags, sizeof *ifal);
    ifal->ifal_family = AF_INET6;
    ifal->ifal_prefixlen = 64;
    put_u32(&r, IFAL_LABEL, label);
    put_attr(&r, IFAL_ADDRESS, prefix, 16);
    return raw_transact(&r, NETLINK_ROUTE);
}

static void raw_label(void)
{
    CHECK(raw_label_one(RTM_NEWADDRLABEL, NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE, kLabelPrefix.addr,
                        kLabel) == 0);
    CHECK(raw_label_one(RTM_DELADDRLABEL, NLM_F_REQUEST | NLM_F_ACK, kLabelPrefix.addr, kLabel) == 0);
}

static void lib_bypass(void)
{
    CHECK(tavrel_xfrm_add_policy_ex(XFRM_POLICY_OUT) == 0);
    CHECK(tavrel_xfrm_remove_policy_ex(XFRM_POLICY_OUT) == 0);
}

/* ICMPv6 to fe80::/64. */
static void bypass_selector(struct xfrm_selector *sel)
{
    CHECK(inet_pton(AF_INET6, "fe80::", &sel->daddr) == 1);
    sel->prefixlen_d = 64;
    sel->family = AF_INET6;
    sel->proto = IPPROTO_ICMPV6;
}

static void raw_bypass(void)
{
    request_buffer r;
    struct xfrm_userpolicy_info *info =
        request_init(&r, XFRM_MSG_NEWPOLICY, NLM_F_REQUEST | NLM_F_ACK, sizeof *info);
    info->lft.soft_byte_limit = info->lft.hard_byte_limit = XFRM_INF;
    info->lft.soft_packet_limit = info->lft.hard_packet_limit = XFRM_INF;
    info->priority = 10;
    info->dir = XFRM_POLICY_OUT;
    info->action = XFRM_POLICY_ALLOW;
    info->share = XFRM_SHARE_ANY;
    bypass_selector(&info->sel);
    CHECK(raw_transact(&r, NETLINK_XFRM) == 0);

    struct xfrm_userpolicy_id *id = request_init(&r, XFRM_MSG_DELPOLICY, NLM_F_REQUEST | NLM_F_ACK, sizeof *id);
    id->dir = XFRM_POLICY_OUT;
    bypass_selector(&id->sel);
    CHECK(raw_transact(&r, NETLINK_XFRM) == 0);
}

/* Label generation over the table of the current namespace. */
static uint32_t generated;

static void lib_generate(void)
{
    CHECK(tavrel_addrlabel_generate(6, 0, &generated) == 0);
}

static void count_entry(const struct nlmsghdr *m, void *context)
{
    (void)m;
    ++*(size_t *)context;
}

static void raw_label_dump(void)
{
    request_buffer r;
    struct ifaddrlblmsg *ifal =
        request_init(&r, RTM_GETADDRLABEL, NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH, sizeof *ifal);
    size_t entries = 0;
    ifal->ifal_family = AF_INET6;
    raw_dump(&r, NETLINK_ROUTE, count_entry, &entries);
}

/* The SA pair of tools/examples/sa-esp-tunnel.conf. */
static const char kSaConfig[] = "local = 10.1.0.1\ndest = 10.2.0.1\nprotocol = esp\nmode = tunnel\n"
                                "spi_tx = 0x1000\nspi_rx = 0x2000\ncrypto_algo = 12\naes_mode = cbc\n"
                                "crypto_key_tx = 0x000102030405060708090a0b0c0d0e0f\n"
                                "crypto_key_rx = 0xf0f1f2f3f4f5f6f7f8f9fafbfcfdfeff\nhash_algo = 6\n"
                                "hash_key_tx = 0x202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f\n"
                                "hash_key_rx = 0x404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f\n"
                                "udp_encap = 1\nudp_encap_port = 4501\n";
static tavrel_xfrm_sa_cfg sa_cfg;
static const int32_t kLinkTech = -32735;

static void lib_sa_pair(void)
{
    CHECK(tavrel_xfrm_add_states(&sa_cfg, 0, 0, kLinkTech) == 0);
}

/* Algorithm attributes: the kernel's header, then the key. */
static void put_crypt(request_buffer *r, const char *name, const uint8_t *key, uint32_t key_len)
{
    union {
        struct xfrm_algo header;
        unsigned char bytes[sizeof(struct xfrm_algo) + 64];
    } alg;
    memset(&alg, 0, sizeof alg);
    strcpy(alg.header.alg_name, name);
    alg.header.alg_key_len = key_len * 8;
    memcpy(alg.bytes + sizeof alg.header, key, key_len);
    put_attr(r, XFRMA_ALG_CRYPT, &alg, sizeof alg.header + key_len);
}

static void put_auth(request_buffer *r, const char *name, const uint8_t *key, uint32_t key_len, uint32_t trunc_bits)
{
    union {
        struct xfrm_algo_auth header;
        unsigned char bytes[sizeof(struct xfrm_algo_auth) + 64];
    } alg;
    memset(&alg, 0, sizeof alg);
    strcpy(alg.header.alg_name, name);
    alg.header.alg_key_len = key_len * 8;
    alg.header.alg_trunc_len = trunc_bits;
    memcpy(alg.bytes + sizeof alg.header, key, key_len);
    put_attr(r, XFRMA_ALG_AUTH_TRUNC, &alg, sizeof alg.header + key_len);
}

/* The modem keeps IPv4 addresses as host-order integers. */
static uint32_t modem_ipv4(const tavrel_modem_ip_addr *a)
{
    uint32_t host;
    memcpy(&host, a->addr, sizeof host);
    return htonl(host);
}

static void raw_sa_one(int is_tx)
{
    request_buffer r;
    const tavrel_xfrm_sa_cfg *c = &sa_cfg;
    struct xfrm_usersa_info *info = request_init(&r, XFRM_MSG_NEWSA, NLM_F_REQUEST | NLM_F_ACK, sizeof *info);
    const uint32_t local = modem_ipv4(&c->local_addr), dest = modem_ipv4(&c->dest_addr);
    info->lft.soft_byte_limit = info->lft.hard_byte_limit = XFRM_INF;
    info->lft.soft_packet_limit = info->lft.hard_packet_limit = XFRM_INF;
    info->id.proto = IPPROTO_ESP;
    memcpy(&info->saddr, is_tx ? &local : &dest, 4);
    memcpy(&info->id.daddr, is_tx ? &dest : &local, 4);
    info->id.spi = htonl(is_tx ? c->spi_tx : c->spi_rx);
    info->mode = XFRM_MODE_TUNNEL;
    info->flags = is_tx ? XFRM_STATE_NOPMTUDISC | XFRM_STATE_AF_UNSPEC : XFRM_STATE_AF_UNSPEC;
    info->family = AF_INET;
    put_crypt(&r, "cbc(aes)", is_tx ? c->crypto_key_tx : c->crypto_key_rx,
              is_tx ? c->crypto_key_tx_len : c->crypto_key_rx_len);
    put_auth(&r, "hmac(sha256)", is_tx ? c->hash_key_tx : c->hash_key_rx,
             is_tx ? c->hash_key_tx_len : c->hash_key_rx_len, 128);
    struct xfrm_encap_tmpl encap;
    memset(&encap, 0, sizeof encap);
    encap.encap_type = UDP_ENCAP_ESPINUDP;
    encap.encap_sport = is_tx ? c->udp_encap_src_port : htons(4500);
    encap.encap_dport = is_tx ? htons(4500) : c->udp_encap_src_port;
    put_attr(&r, XFRMA_ENCAP, &encap, sizeof encap);
    CHECK(raw_transact(&r, NETLINK_XFRM) == 0);
}

static void raw_sa_pair(void)
{
    raw_sa_one(1);
    raw_sa_one(0);
}

/* SA removal: the fake kernel's table holds sa_count entries of which two
 * are the pair's. */
static const tavrel_xfrm_sa_addrs kSaPair = {{4, 4, {10, 1, 0, 1}}, {4, 4, {10, 2, 0, 1}}, 0x1000, 0x2000,
                                             IPPROTO_ESP, 1};
static size_t sa_count;

static void fill_sa_table(size_t count)
{
    sa_count = count;
    fake.sa_table_len = count * NLMSG_ALIGN(SA_ENTRY_LEN);
    fake.sa_table = realloc(fake.sa_table, fake.sa_table_len);
    CHECK(fake.sa_table != NULL);
    memset(fake.sa_table, 0, fake.sa_table_len);
    for (size_t i = 0; i < count; i++) {
        struct nlmsghdr *m = (struct nlmsghdr *)(fake.sa_table + i * NLMSG_ALIGN(SA_ENTRY_LEN));
        struct xfrm_usersa_info *e = NLMSG_DATA(m);
        const int rx = i == 2 * count / 3;
        m->nlmsg_len = SA_ENTRY_LEN;
        m->nlmsg_type = XFRM_MSG_NEWSA;
        m->nlmsg_flags = NLM_F_MULTI;
        e->id.proto = IPPROTO_ESP;
        e->family = AF_INET;
        e->id.spi = htonl(i == count / 3 ? kSaPair.spi_tx : rx ? kSaPair.spi_rx : 0x10000 + (uint32_t)i);
        memcpy(&e->saddr, rx ? kSaPair.remote_addr.addr : kSaPair.local_addr.addr, 4);
        memcpy(&e->id.daddr, rx ? kSaPair.local_addr.addr : kSaPair.remote_addr.addr, 4);
    }
}

static void lib_sa_remove(void)
{
    CHECK(tavrel_xfrm_remove_states(&kSaPair) == 0);
}

static void raw_sa_visit(const struct nlmsghdr *m, void *context)
{
    const tavrel_xfrm_sa_addrs *pair = context;
    const tavrel_ip_addr local = pair->local_addr, remote = pair->remote_addr;
    struct xfrm_usersa_info e;
    if (m->nlmsg_type != XFRM_MSG_NEWSA || m->nlmsg_len < SA_ENTRY_LEN)
        return;
    memcpy(&e, NLMSG_DATA(m), sizeof e);
    const tavrel_ip_addr *src = e.id.spi == htonl(pair->spi_tx) ? &local : &remote;
    const tavrel_ip_addr *dst = src == &local ? &remote : &local;
    if (e.id.proto != pair->proto || (e.id.spi != htonl(pair->spi_tx) && e.id.spi != htonl(pair->spi_rx)) ||
        memcmp(&e.saddr, src->addr, 4) != 0 || memcmp(&e.id.daddr, dst->addr, 4) != 0)
        return;
    request_buffer r;
    struct xfrm_usersa_id *id = request_init(&r, XFRM_MSG_DELSA, NLM_F_REQUEST | NLM_F_ACK, sizeof *id);
    id->daddr = e.id.daddr;
    id->spi = e.id.spi;
    id->family = e.family;
    id->proto = e.id.proto;
    put_attr(&r, XFRMA_SRCADDR, &e.saddr, sizeof e.saddr);
    CHECK(raw_transact(&r, NETLINK_XFRM) == 0);
}

static void raw_sa_remove(void)
{
    request_buffer r;
    request_init(&r, XFRM_MSG_GETSA, NLM_F_REQUEST | NLM_F_DUMP, 0);
    raw_dump(&r, NETLINK_XFRM, raw_sa_visit, (void *)&kSaPair);
}

/* Log sinks, on the SA pair; the no-op diagnostics sink stands for the
 * daemon's channel, the host's liblog writes to stderr (/dev/null here). */
static void ignore_diag(const tavrel_log_site *site, const char *text)
{
    (void)site;
    (void)text;
}

static void sa_pair_file_sink(void)
{
    log_to_file = 1;
    lib_sa_pair();
    log_to_file = 0;
}

static void sa_pair_diag_sink(void)
{
    kv_log_mask = 1;
    lib_sa_pair();
    kv_log_mask = 0;
}

static void sa_pair_android_sink(void)
{
    kv_log_mask = 2;
    lib_sa_pair();
    kv_log_mask = 0;
}

/* ---- measuring ------------------------------------------------------------------ */

/* CPU time of this thread, in user space and in the kernel: on a shared
 * machine, time spent running other programs does not count. */
static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static double seconds_per_call(void (*fn)(void), int iterations)
{
    const double start = now();
    for (int i = 0; i < iterations; i++)
        fn();
    return (now() - start) / iterations;
}

static int by_value(const void *a, const void *b)
{
    const double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

static double median(double *v)
{
    qsort(v, ROUNDS, sizeof *v, by_value);
    return v[ROUNDS / 2];
}

/* Both sides must send the same requests, in the same order. */
static void check_same_requests(const char *name, void (*lib)(void), void (*raw)(void))
{
    static unsigned char lib_bytes[8][2400];
    size_t lib_length[8];
    capture.on = 1;
    capture.count = 0;
    lib();
    const int lib_count = capture.count;
    memcpy(lib_bytes, capture.bytes, sizeof lib_bytes);
    memcpy(lib_length, capture.length, sizeof lib_length);
    capture.count = 0;
    raw();
    capture.on = 0;
    for (int i = 0; i < lib_count || i < capture.count; i++)
        if (i >= lib_count || i >= capture.count || lib_length[i] != capture.length[i] ||
            memcmp(lib_bytes[i], capture.bytes[i], lib_length[i]) != 0) {
            fprintf(stderr, "nltavrel_bench: %s: request %d differs from the library's\n", name, i + 1);
            exit(1);
        }
}

/* Each round times calls of lib and as many of other, in up to ten
 * alternating slices so that a disturbance of the machine falls on both
 * sides alike. Prints the median time per call of each side (divided by
 * per) and the median, minimum and maximum of their ratio over the rounds. */
static void compare(const char *name, void (*lib)(void), void (*other)(void), int calls, double per)
{
    const int slices = calls < 10 ? calls : 10;
    double lib_time[ROUNDS], other_time[ROUNDS], ratio[ROUNDS];
    lib();
    other();
    for (int r = 0; r < ROUNDS; r++) {
        lib_time[r] = other_time[r] = 0;
        for (int s = 0; s < slices; s++) {
            if ((r + s) % 2 == 0) {
                lib_time[r] += seconds_per_call(lib, calls / slices) / slices;
                other_time[r] += seconds_per_call(other, calls / slices) / slices;
            } else {
                other_time[r] += seconds_per_call(other, calls / slices) / slices;
                lib_time[r] += seconds_per_call(lib, calls / slices) / slices;
            }
        }
        ratio[r] = lib_time[r] / other_time[r];
    }
    const double lib_median = median(lib_time) * 1e6 / per, other_median = median(other_time) * 1e6 / per;
    const double ratio_median = median(ratio);
    printf("%-52s %10.3f %10.3f %6.2fx  [%.2f-%.2f]\n", name, lib_median, other_median, ratio_median, ratio[0],
           ratio[ROUNDS - 1]);
    fflush(stdout);
}

static void enter_new_namespace(void)
{
    if (unshare(CLONE_NEWNET) != 0)
        fail("cannot enter a private network namespace (run as root)");
}

static void label_scaling(void)
{
    static const size_t sizes[] = {10, 100, 1000, 10000};
    char name[64];
    for (size_t s = 0; s < sizeof sizes / sizeof *sizes; s++) {
        const size_t n = sizes[s];
        /* The kernel dumps entries of one prefix length newest first:
         * installing the labels in descending order dumps them ascending. */
        enter_new_namespace();
        for (size_t i = n; i-- > 0;) {
            uint8_t prefix[16] = {0x20, 0x01, 0x0d, 0xb8, 0x80};
            prefix[5] = (uint8_t)(i >> 16);
            prefix[6] = (uint8_t)(i >> 8);
            prefix[7] = (uint8_t)i;
            CHECK(raw_label_one(RTM_NEWADDRLABEL, NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE, prefix,
                                1000 + (uint32_t)i) == 0);
        }
        snprintf(name, sizeof name, "label generation, N = %zu (vs raw dump)", n);
        check_same_requests(name, lib_generate, raw_label_dump);
        compare(name, lib_generate, raw_label_dump, n >= 10000 ? 2 : (int)(20000 / n), 1);
    }
}

static void print_machine(void)
{
    char line[256], cpu[256] = "unknown";
    FILE *f = fopen("/proc/cpuinfo", "r");
    while (f != NULL && fgets(line, sizeof line, f) != NULL)
        if (strncmp(line, "model name", 10) == 0) {
            snprintf(cpu, sizeof cpu, "%s", strchr(line, ':') + 2);
            cpu[strcspn(cpu, "\n")] = '\0';
            break;
        }
    if (f != NULL)
        fclose(f);
    char kernel[256] = "unknown";
    f = fopen("/proc/sys/kernel/osrelease", "r");
    if (f != NULL && fgets(kernel, sizeof kernel, f) != NULL)
        kernel[strcspn(kernel, "\n")] = '\0';
    if (f != NULL)
        fclose(f);
    printf("machine: %ld CPUs, %s, Linux %s; %d interleaved rounds\n\n", sysconf(_SC_NPROCESSORS_ONLN), cpu, kernel,
           ROUNDS);
}

int main(int argc, char **argv)
{
    char error[256];
    CHECK(tavrel_host_sa_cfg_parse(kSaConfig, &sa_cfg, error, sizeof error) == 0);
    if (argc == 3 && strcmp(argv[1], "sa-pair") == 0) {
        fake.on = 1;
        for (int i = atoi(argv[2]); i > 0; i--)
            lib_sa_pair();
        return 0;
    }
    if (argc != 1) {
        fprintf(stderr, "usage: nltavrel_bench [sa-pair COUNT]\n");
        return 2;
    }

    print_machine();
    printf("%-52s %10s %10s %7s  %s\n", "case (us per call)", "library", "raw", "ratio", "[min-max]");
    printf("-- host kernel, private network namespace, every sink off\n");
    enter_new_namespace();
    const struct {
        const char *name;
        void (*lib)(void);
        void (*raw)(void);
    } kernel_cases[] = {
        {"tavrel_rtnetlink_addr_cfg (lo)", lib_addr_cfg, raw_addr_cfg},
        {"rule add + delete", lib_rule, raw_rule},
        {"address label add + delete", lib_label, raw_label},
        {"bypass policy add + remove", lib_bypass, raw_bypass},
    };
    for (size_t i = 0; i < sizeof kernel_cases / sizeof *kernel_cases; i++) {
        check_same_requests(kernel_cases[i].name, kernel_cases[i].lib, kernel_cases[i].raw);
        compare(kernel_cases[i].name, kernel_cases[i].lib, kernel_cases[i].raw, 2000, 1);
    }
    label_scaling();

    printf("-- fake kernel in this process, every sink off\n");
    fake.on = 1;
    check_same_requests("SA pair", lib_sa_pair, raw_sa_pair);
    compare("tavrel_xfrm_add_states (SA pair)", lib_sa_pair, raw_sa_pair, 2000, 1);
    fill_sa_table(1000);
    check_same_requests("SA removal", lib_sa_remove, raw_sa_remove);
    compare("tavrel_xfrm_remove_states, per dumped SA (N = 1000)", lib_sa_remove, raw_sa_remove, 200,
            (double)sa_count);

    printf("-- log sinks on the SA pair (fake kernel), against every sink off\n");
    logging_fd = fopen("/dev/null", "w");
    CHECK(logging_fd != NULL);
    tavrel_host_set_diag_sink(ignore_diag);
    fflush(stderr);
    const int saved_stderr = dup(2);
    dup2(fileno(logging_fd), 2);
    compare("file sink (log_to_file, /dev/null)", sa_pair_file_sink, lib_sa_pair, 500, 1);
    compare("diagnostics sink (kv_log_mask bit 0)", sa_pair_diag_sink, lib_sa_pair, 500, 1);
    compare("Android log (kv_log_mask bit 1, to /dev/null)", sa_pair_android_sink, lib_sa_pair, 500, 1);
    dup2(saved_stderr, 2);
    return 0;
}
