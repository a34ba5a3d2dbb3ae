// tavrelctl [--log-file PATH] [--diag] [--android] COMMAND ARGS...
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tavrel_host.h"
#include "tavrelctl.h"

namespace {

const tavrelctl_command_table *const tables[] = {
    &tavrelctl_transport_commands,
    &tavrelctl_rtnetlink_commands,
    &tavrelctl_xfrm_sa_commands,
    &tavrelctl_xfrm_policy_commands,
    &tavrelctl_addrlabel_commands,
};

void usage(FILE *out)
{
    fprintf(out,
            "usage: tavrelctl [--log-file PATH] [--diag] [--android] COMMAND ARGS...\n"
            "       tavrelctl COMMAND --help\n\n"
            "Calls one function of libnltavrel and exits with 0 when it returned 0.\n"
            "  --log-file PATH  write the library's log file records to PATH (appended)\n"
            "  --diag           print the diagnostics channel on stderr\n"
            "  --android        send the library's messages to the Android log (stderr on a host)\n\n"
            "Numbers may be decimal or 0x hexadecimal. Commands:\n");
    for (const auto *table : tables)
        for (size_t i = 0; i < table->count; i++)
            fprintf(out, "  %-36s %s\n", table->commands[i].name, table->commands[i].usage);
}

const tavrelctl_command *find(const char *name)
{
    for (const auto *table : tables)
        for (size_t i = 0; i < table->count; i++)
            if (strcmp(table->commands[i].name, name) == 0)
                return &table->commands[i];
    return nullptr;
}

}  // namespace

bool tavrelctl_parse_u32(const char *text, uint32_t *value)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || v > 0xffffffffULL || text[0] == '-') {
        fprintf(stderr, "tavrelctl: not an unsigned 32-bit number: %s\n", text);
        return false;
    }
    *value = static_cast<uint32_t>(v);
    return true;
}

bool tavrelctl_parse_int(const char *text, int *value)
{
    char *end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || v < -2147483647L - 1 || v > 2147483647L) {
        fprintf(stderr, "tavrelctl: not a 32-bit number: %s\n", text);
        return false;
    }
    *value = static_cast<int>(v);
    return true;
}

bool tavrelctl_parse_ip(const char *text, tavrel_ip_addr *addr)
{
    memset(addr, 0, sizeof *addr);
    if (inet_pton(AF_INET, text, addr->addr) == 1) {
        addr->family = 4;
        addr->length = 4;
        return true;
    }
    if (inet_pton(AF_INET6, text, addr->addr) == 1) {
        addr->family = 6;
        addr->length = 16;
        return true;
    }
    fprintf(stderr, "tavrelctl: not an IPv4 or IPv6 address: %s\n", text);
    return false;
}

bool tavrelctl_parse_hex(const char *text, uint8_t *out, size_t room, size_t *length)
{
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text += 2;
    const size_t digits = strlen(text);
    if (digits % 2 != 0 || digits / 2 > room) {
        fprintf(stderr, "tavrelctl: expected an even number of hex digits, at most %zu bytes\n", room);
        return false;
    }
    for (size_t i = 0; i < digits / 2; i++) {
        unsigned byte;
        if (sscanf(text + 2 * i, "%2x", &byte) != 1) {
            fprintf(stderr, "tavrelctl: not hexadecimal: %s\n", text);
            return false;
        }
        out[i] = static_cast<uint8_t>(byte);
    }
    *length = digits / 2;
    return true;
}

int main(int argc, char **argv)
{
    // Keep results in order with the log lines on stderr.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        if (strcmp(argv[i], "--log-file") == 0 && i + 1 < argc) {
            logging_fd = fopen(argv[++i], "a");
            if (logging_fd == nullptr) {
                fprintf(stderr, "tavrelctl: cannot open %s: %s\n", argv[i], strerror(errno));
                return 2;
            }
            log_to_file = 1;
        } else if (strcmp(argv[i], "--diag") == 0) {
            kv_log_mask |= 1;
            tavrel_host_set_diag_sink(tavrel_host_diag_to_stderr);
        } else if (strcmp(argv[i], "--android") == 0) {
            kv_log_mask |= 2;
        } else if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            usage(stdout);
            return 0;
        } else {
            fprintf(stderr, "tavrelctl: unknown option %s\n", argv[i]);
            usage(stderr);
            return 2;
        }
    }
    if (i >= argc) {
        usage(stderr);
        return 2;
    }
    const tavrelctl_command *command = find(argv[i]);
    if (command == nullptr) {
        fprintf(stderr, "tavrelctl: unknown command %s\n", argv[i]);
        usage(stderr);
        return 2;
    }
    const int nargs = argc - i - 1;
    char **args = argv + i + 1;
    if (nargs >= 1 && (strcmp(args[0], "--help") == 0 || strcmp(args[0], "-h") == 0)) {
        printf("usage: tavrelctl %s %s\n\n%s\n", command->name, command->usage, command->help);
        return 0;
    }
    if (nargs < command->min_args || nargs > command->max_args) {
        fprintf(stderr, "usage: tavrelctl %s %s\n", command->name, command->usage);
        return 2;
    }
    const int result = command->run(nargs, args);
    if (result == TAVRELCTL_USAGE)
        return 2;
    printf("%s: %d\n", command->name, result);
    return result == 0 ? 0 : 1;
}
