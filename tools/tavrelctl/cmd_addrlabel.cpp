// Address-label subcommands: entries added and deleted, a free label chosen,
// and the entries of an address or of its label purged.
#include <cstdio>

#include "tavrelctl.h"

namespace {

// ADDRESS PREFIX_LENGTH LABEL INTERFACE_INDEX
int run_entry(char **argv, int (*function)(const tavrel_ip_addr *, uint32_t, uint32_t, uint32_t))
{
    tavrel_ip_addr address;
    uint32_t prefix_length, label, interface_index;
    if (!tavrelctl_parse_ip(argv[0], &address) || !tavrelctl_parse_u32(argv[1], &prefix_length) ||
        !tavrelctl_parse_u32(argv[2], &label) || !tavrelctl_parse_u32(argv[3], &interface_index))
        return TAVRELCTL_USAGE;
    return function(&address, prefix_length, label, interface_index);
}

int run_add(int, char **argv)
{
    return run_entry(argv, tavrel_addrlabel_add);
}

int run_del(int, char **argv)
{
    return run_entry(argv, tavrel_addrlabel_del);
}

int run_generate(int, char **argv)
{
    uint32_t version, mode;
    if (!tavrelctl_parse_u32(argv[0], &version) || !tavrelctl_parse_u32(argv[1], &mode))
        return TAVRELCTL_USAGE;
    uint32_t label = 0;
    const int result = tavrel_addrlabel_generate(version, mode, &label);
    if (result == 0)
        printf("label: %u\n", label);
    return result;
}

int run_purge(int, char **argv)
{
    tavrel_ip_addr address;
    uint32_t prefix_length, interface_index;
    if (!tavrelctl_parse_ip(argv[0], &address) || !tavrelctl_parse_u32(argv[1], &prefix_length) ||
        !tavrelctl_parse_u32(argv[2], &interface_index))
        return TAVRELCTL_USAGE;
    return tavrel_addrlabel_purge_label(&address, prefix_length, interface_index);
}

const tavrelctl_command commands[] = {
    {"addrlabel_add", "ADDRESS PREFIX_LENGTH LABEL INTERFACE_INDEX",
     "Adds an address-label entry: ADDRESS/PREFIX_LENGTH on the interface (0: all interfaces)\n"
     "gets LABEL. The kernel refuses an entry that exists already.",
     4, 4, run_add},
    {"addrlabel_del", "ADDRESS PREFIX_LENGTH LABEL INTERFACE_INDEX",
     "Deletes the address-label entry ADDRESS/PREFIX_LENGTH of the interface.", 4, 4, run_del},
    {"addrlabel_generate", "VERSION MODE",
     "Prints a label that no entry of the IP VERSION (4 or 6) table uses yet, 20 or above.\n"
     "MODE 1 asks for label 1 and reads nothing from the kernel.",
     2, 2, run_generate},
    {"addrlabel_purge_label", "ADDRESS PREFIX_LENGTH INTERFACE_INDEX",
     "Asks the kernel for the label of ADDRESS on the interface; if it is 1 or 20 and above,\n"
     "deletes the entries of that interface and prefix length that match the address or carry\n"
     "the label. System labels (0, 2 to 19) are never purged.",
     3, 3, run_purge},
};

}  // namespace

const tavrelctl_command_table tavrelctl_addrlabel_commands = {commands, sizeof commands / sizeof commands[0]};
