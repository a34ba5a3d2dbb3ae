/* Host stand-ins for the daemon's log switches and the small utility
 * libraries the library calls. */
#include <arpa/inet.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "tavrel_host.h"
#include "tavrel_platform.h"

static_assert(offsetof(tavrel_main_cfg_record, output_mark_enabled) == TAVREL_MAIN_CFG_OUTPUT_MARK_OFFSET,
              "output-mark switch position");

extern "C" {

unsigned char log_to_file = 0;
FILE *logging_fd = nullptr;
uint32_t kv_log_mask = 0;
struct tavrel_main_cfg_record tavrel_main_cfg = {};

static tavrel_host_diag_sink diag_sink = nullptr;

void tavrel_host_set_diag_sink(tavrel_host_diag_sink sink)
{
    diag_sink = sink;
}

void tavrel_host_diag_to_stderr(const tavrel_log_site *site, const char *text)
{
    fprintf(stderr, "[diag] %s:%u %s", site->file, site->line, text);
    size_t n = strlen(text);
    if (n == 0 || text[n - 1] != '\n')
        fputc('\n', stderr);
}

int kv_format_log_msg(char *buffer, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(buffer, size, format, args);
    va_end(args);
    return n;
}

void kv_diag_emit_msg(const tavrel_log_site *site, ...)
{
    va_list args;
    va_start(args, site);
    const char *text = va_arg(args, const char *);
    va_end(args);
    if (diag_sink != nullptr)
        diag_sink(site, text);
}

size_t kv_memscpy(void *dst, size_t dst_size, const void *src, size_t src_size)
{
    const size_t n = src_size < dst_size ? src_size : dst_size;
    memcpy(dst, src, n);
    return n;
}

int tavrel_util_convert_ip_addr_to_str(const tavrel_ip_addr *addr, int flags, char *out, size_t out_size)
{
    (void)flags;
    if (out_size == 0)
        return -1;
    const int family = addr->family == 4 ? AF_INET : addr->family == 6 ? AF_INET6 : AF_UNSPEC;
    if (family == AF_UNSPEC || inet_ntop(family, addr->addr, out, (socklen_t)out_size) == nullptr) {
        snprintf(out, out_size, "<invalid family %u>", addr->family);
        return -1;
    }
    return 0;
}

int tavrel_util_convert_bxo_ip_addr_to_str(const tavrel_modem_ip_addr *addr, char *out, size_t out_size)
{
    if (out_size == 0)
        return -1;
    if (addr->family == 4) {
        /* The modem keeps IPv4 as a host-order integer. */
        uint32_t host;
        memcpy(&host, addr->addr, sizeof host);
        const uint32_t net = htonl(host);
        if (inet_ntop(AF_INET, &net, out, (socklen_t)out_size) != nullptr)
            return 0;
    } else if (addr->family == 6) {
        if (inet_ntop(AF_INET6, addr->addr, out, (socklen_t)out_size) != nullptr)
            return 0;
    }
    snprintf(out, out_size, "<invalid family %u>", addr->family);
    return -1;
}

int tavrel_util_convert_bxo_ipsec_key_to_str(const uint8_t *key, uint32_t key_len, char *out, size_t out_size)
{
    if (out_size == 0)
        return -1;
    /* Written as iproute2 prints keys; a long key is cut to the buffer. */
    size_t pos = (size_t)snprintf(out, out_size, "0x");
    for (uint32_t i = 0; i < key_len && pos + 3 <= out_size; i++)
        pos += (size_t)snprintf(out + pos, out_size - pos, "%02x", key[i]);
    return 0;
}

} /* extern "C" */
