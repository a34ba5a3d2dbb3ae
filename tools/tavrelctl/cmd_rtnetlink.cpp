// Route and traffic-control subcommands: policy rules by mark, interface
// addresses, the GSO limit and queueing disciplines.
#include <cstdio>
#include <cstring>

#include "tavrelctl.h"

namespace {

bool parse_u32s(char **argv, int count, uint32_t *values)
{
    for (int i = 0; i < count; i++)
        if (!tavrelctl_parse_u32(argv[i], &values[i]))
            return false;
    return true;
}

// "add", "delete", "change" or the function's own number (others are passed
// on, so the library's refusal can be seen).
bool parse_operation(const char *text, int *operation)
{
    static const char *const words[] = {"add", "delete", "change"};
    for (int i = 0; i < 3; i++) {
        if (strcmp(text, words[i]) == 0) {
            *operation = i;
            return true;
        }
    }
    return tavrelctl_parse_int(text, operation);
}

int run_add_ip_rule(int, char **argv)
{
    uint32_t v[4];
    if (!parse_u32s(argv, 4, v))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_add_ip_rule(v[0], v[1], v[2], v[3]);
}

int run_del_ip_rule(int, char **argv)
{
    uint32_t v[4];
    if (!parse_u32s(argv, 4, v))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_del_ip_rule(v[0], v[1], v[2], v[3]);
}

int run_del_ip_rule_by_prio(int, char **argv)
{
    uint32_t priority;
    if (!tavrelctl_parse_u32(argv[0], &priority))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_del_ip_rule_by_prio(priority);
}

int run_addr_cfg(int argc, char **argv)
{
    tavrel_ip_addr address;
    uint32_t v[3] = {0, 0, 0};  // prefix length, operation, lifetime
    if (!tavrelctl_parse_ip(argv[1], &address) || !parse_u32s(argv + 2, argc - 2, v))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_addr_cfg(argv[0], &address, v[0], v[1], v[2]);
}

int run_gso_max_size(int, char **argv)
{
    uint32_t size;
    if (!tavrelctl_parse_u32(argv[1], &size))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_gso_max_size(argv[0], size);
}

int run_tc_qdisc(int, char **argv)
{
    uint32_t v[2];  // parent, handle
    int operation;
    if (!parse_u32s(argv + 2, 2, v) || !parse_operation(argv[4], &operation))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_tc_qdisc(argv[0], argv[1], v[0], v[1], operation);
}

int run_tc_prio(int, char **argv)
{
    uint32_t v[2];  // parent, handle
    int operation;
    if (!parse_u32s(argv + 1, 2, v) || !parse_operation(argv[3], &operation))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_tc_prio(argv[0], v[0], v[1], operation);
}

int run_flow_control(int, char **argv)
{
    uint32_t v[3];  // parent, handle, enable
    int operation;
    if (!parse_u32s(argv + 1, 3, v) || !parse_operation(argv[4], &operation))
        return TAVRELCTL_USAGE;
    return tavrel_rtnetlink_flow_control(argv[0], v[0], v[1], v[2], operation);
}

#define RULE_HELP_TAIL                                                                                    \
    "The request is sent without asking for an acknowledgement: the result is 0 once it was written\n" \
    "whole, even when the kernel refuses it (check with `ip rule`)."
#define HANDLE_HELP                                                                                       \
    "PARENT and HANDLE are 32-bit tc handles (0x10000 is tc's 1:); PARENT 0 means the root.\n"          \
    "OPERATION is add, delete, change or a number (0, 1, 2)."

const tavrelctl_command commands[] = {
    {"rtnetlink_add_ip_rule", "MARK MASK TABLE PRIORITY",
     "Adds the IPv4 rule: packets whose firewall mark under MASK equals MARK look up TABLE, at\n"
     "PRIORITY. " RULE_HELP_TAIL,
     4, 4, run_add_ip_rule},
    {"rtnetlink_del_ip_rule", "MARK MASK TABLE PRIORITY",
     "Deletes the IPv4 rule that matches all four values. " RULE_HELP_TAIL, 4, 4, run_del_ip_rule},
    {"rtnetlink_del_ip_rule_by_prio", "PRIORITY",
     "Deletes the first IPv4 rule at PRIORITY, whatever it matches. " RULE_HELP_TAIL, 1, 1,
     run_del_ip_rule_by_prio},
    {"rtnetlink_addr_cfg", "IFNAME ADDRESS PREFIX_LENGTH OPERATION [LIFETIME]",
     "Adds or replaces an IPv4 or IPv6 address on IFNAME and waits for the kernel's answer.\n"
     "OPERATION: 0 add (forever), 1 replace, deprecated, valid for LIFETIME seconds, 2 replace\n"
     "(forever), 3 add, deprecated, valid for LIFETIME seconds; any other number replaces forever.\n"
     "LIFETIME defaults to 0 and is read only by operations 1 and 3.",
     4, 5, run_addr_cfg},
    {"rtnetlink_gso_max_size", "IFNAME SIZE",
     "Sets the largest GSO packet IFNAME accepts, in bytes (see `ip -d link`).", 2, 2, run_gso_max_size},
    {"rtnetlink_tc_qdisc", "IFNAME KIND PARENT HANDLE OPERATION",
     "Adds (exclusively) or deletes a qdisc of KIND (pfifo, htb, ...) without options.\n" HANDLE_HELP
     "\nAn unknown IFNAME is sent as interface index 0 and refused by the kernel.",
     5, 5, run_tc_qdisc},
    {"rtnetlink_tc_prio", "IFNAME PARENT HANDLE OPERATION",
     "Adds or deletes the five-band prio qdisc (priomap 3 4 4 4 3 4 2 2 4 3 2 1 0 0 0 0, flow on).\n"
     HANDLE_HELP,
     4, 4, run_tc_prio},
    {"rtnetlink_flow_control", "IFNAME PARENT HANDLE ENABLE OPERATION",
     "Adds, changes or deletes the three-band prio qdisc (priomap 1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1)\n"
     "whose flow-enable byte is ENABLE (0 stops the flow on kernels that read it).\n" HANDLE_HELP,
     5, 5, run_flow_control},
};

}  // namespace

const tavrelctl_command_table tavrelctl_rtnetlink_commands = {commands, sizeof commands / sizeof commands[0]};
