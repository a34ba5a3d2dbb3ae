/* The public header as C11 code uses it (records, both log statements), and
 * the program check_install.sh builds against an installed copy: it exits 0
 * when the library, the log statement and the host stand-ins work from C. */
#include <errno.h>
#include <string.h>

#include "libnltavrel.h"
#include "tavrel_host.h"

static int diag_messages;

static void count(const tavrel_log_site *site, const char *text)
{
    diag_messages += site->subsys_id == TAVREL_LOG_SUBSYS_ID && strcmp(text, "main(): put 7\n") == 0;
}

int main(void)
{
    struct {
        struct nlmsghdr header;
        uint8_t room[64];
    } request = {.header.nlmsg_len = NLMSG_HDRLEN};
    uint32_t value = 7;

    tavrel_nla_put(&request.header, 1, sizeof value, &value);
    tavrel_host_set_diag_sink(count);
    kv_log_mask = 1;
    TAVREL_LOG(LOW, "%s(): put %u\n", "main", value);
    TAVREL_LOG(ERR, "%s(): failed: errno=[%d, %s]\n", __func__, errno, strerror(errno));
    TAVREL_LOG_NOFILE(MED, "Matches AddressIPv4 addr [%d.%d.%d.%d]", 10, 0, 0, 1);
    return request.header.nlmsg_len == NLMSG_HDRLEN + 8 && diag_messages == 1 ? 0 : 1;
}
