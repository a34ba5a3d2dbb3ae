// tavrelctl: calls the library's exported functions from the command line.
// Each subsystem contributes a table of subcommands, one per function.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libnltavrel.h"

struct tavrelctl_command {
    const char *name;   // the function's name without "tavrel_"
    const char *usage;  // the arguments, in the function's order
    const char *help;   // what it does, in a sentence or two
    int min_args;
    int max_args;
    // Returns the library function's result; argv holds only the arguments.
    int (*run)(int argc, char **argv);
};

struct tavrelctl_command_table {
    const tavrelctl_command *commands;
    size_t count;
};

extern const tavrelctl_command_table tavrelctl_transport_commands;
extern const tavrelctl_command_table tavrelctl_rtnetlink_commands;
extern const tavrelctl_command_table tavrelctl_xfrm_sa_commands;
extern const tavrelctl_command_table tavrelctl_xfrm_policy_commands;
extern const tavrelctl_command_table tavrelctl_addrlabel_commands;

// Argument parsers; each prints what is wrong and returns false.
bool tavrelctl_parse_u32(const char *text, uint32_t *value);  // decimal, 0x hex or 0 octal
bool tavrelctl_parse_int(const char *text, int *value);
bool tavrelctl_parse_ip(const char *text, tavrel_ip_addr *addr);  // 10.0.0.1 or fe80::1
bool tavrelctl_parse_hex(const char *text, uint8_t *out, size_t room, size_t *length);

// Thrown-free usage failure: the command returns this to get exit status 2.
constexpr int TAVRELCTL_USAGE = -1000;
