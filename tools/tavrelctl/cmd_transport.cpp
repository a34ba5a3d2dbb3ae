// Transport subcommands: raw requests given as hex, table dumps by name, and
// the generic-netlink family lookup.
#include <cstdio>
#include <cstring>

#include <linux/if_addrlabel.h>
#include <linux/rtnetlink.h>
#include <linux/xfrm.h>
#include <sys/socket.h>

#include "tavrelctl.h"

namespace {

struct raw_request {
    nlmsghdr header;
    uint8_t rest[4096];
};

bool parse_request(const char *hex, raw_request *request)
{
    memset(request, 0, sizeof *request);
    size_t length = 0;
    if (!tavrelctl_parse_hex(hex, reinterpret_cast<uint8_t *>(request), sizeof *request, &length))
        return false;
    if (length < sizeof(nlmsghdr) || request->header.nlmsg_len != length) {
        fprintf(stderr, "tavrelctl: the request must start with a netlink header whose length is the byte count\n");
        return false;
    }
    return true;
}

void print_message(const nlmsghdr *message, void *context)
{
    auto *count = static_cast<unsigned *>(context);
    printf("message %u: type %u, length %u, flags 0x%x\n", ++*count, message->nlmsg_type, message->nlmsg_len,
           message->nlmsg_flags);
}

uint32_t take_first(const nlmsghdr *message, void *context)
{
    print_message(message, context);
    return 1;
}

int run_transact(int, char **argv)
{
    int protocol;
    raw_request request;
    if (!tavrelctl_parse_int(argv[0], &protocol) || !parse_request(argv[1], &request))
        return TAVRELCTL_USAGE;
    int kernel_error = 0;
    const int result = tavrel_netlink_transact(&request.header, protocol, &kernel_error);
    printf("kernel error: %d\n", kernel_error);
    return result;
}

int run_dump(int, char **argv)
{
    struct {
        nlmsghdr header;
        uint8_t family_header[16];
    } request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    int protocol = NETLINK_ROUTE;
    size_t family_size = 0;
    const char *table = argv[0];
    if (strcmp(table, "rules") == 0) {
        request.header.nlmsg_type = RTM_GETRULE;
        family_size = sizeof(rtmsg);
    } else if (strcmp(table, "addrlabels") == 0) {
        request.header.nlmsg_type = RTM_GETADDRLABEL;
        family_size = sizeof(ifaddrlblmsg);
    } else if (strcmp(table, "links") == 0) {
        request.header.nlmsg_type = RTM_GETLINK;
        family_size = sizeof(ifinfomsg);
    } else if (strcmp(table, "xfrm-states") == 0) {
        request.header.nlmsg_type = XFRM_MSG_GETSA;
        protocol = NETLINK_XFRM;
    } else if (strcmp(table, "xfrm-policies") == 0) {
        request.header.nlmsg_type = XFRM_MSG_GETPOLICY;
        protocol = NETLINK_XFRM;
    } else {
        fprintf(stderr, "tavrelctl: unknown table %s\n", table);
        return TAVRELCTL_USAGE;
    }
    request.header.nlmsg_len = static_cast<uint32_t>(sizeof(nlmsghdr) + family_size);
    unsigned count = 0;
    const int result = tavrel_netlink_dump(&request.header, protocol, print_message, &count);
    printf("%u messages\n", count);
    return result;
}

int run_query(int, char **argv)
{
    int protocol;
    raw_request request;
    if (!tavrelctl_parse_int(argv[0], &protocol) || !parse_request(argv[1], &request))
        return TAVRELCTL_USAGE;
    unsigned count = 0;
    return tavrel_netlink_query(&request.header, protocol, take_first, &count, 1);
}

int run_query_genl(int argc, char **argv)
{
    uint32_t version = 1;
    if (argc > 1 && (!tavrelctl_parse_u32(argv[1], &version) || version > 255))
        return TAVRELCTL_USAGE;
    uint16_t id = 0;
    const int result = tavrel_netlink_query_genl(argv[0], static_cast<uint8_t>(version), &id);
    if (result == 0)
        printf("%s: family id %u\n", argv[0], id);
    return result;
}

const tavrelctl_command commands[] = {
    {"netlink_transact", "PROTOCOL REQUEST_HEX",
     "Sends a raw request (netlink header first, its length equal to the byte count) on a NETLINK\n"
     "socket of PROTOCOL (0 route, 6 xfrm, 16 generic) and waits for the acknowledgement when the\n"
     "request carries NLM_F_ACK. Prints the kernel's error code.",
     2, 2, run_transact},
    {"netlink_dump", "rules|addrlabels|links|xfrm-states|xfrm-policies",
     "Dumps one of the kernel's tables and prints the type and length of every message.", 1, 1, run_dump},
    {"netlink_query", "PROTOCOL REQUEST_HEX",
     "Sends a raw request and prints the first message of the single answer datagram.", 2, 2, run_query},
    {"netlink_query_genl", "FAMILY_NAME [VERSION]",
     "Looks up the numeric id of a generic-netlink family (VERSION defaults to 1).", 1, 2, run_query_genl},
};

}  // namespace

const tavrelctl_command_table tavrelctl_transport_commands = {commands, sizeof commands / sizeof commands[0]};
