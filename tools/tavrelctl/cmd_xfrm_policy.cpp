// IPsec subcommands: removing a pair's SAs, tunnel policies and the
// link-local ICMPv6 bypass policy.
#include <cstdio>
#include <cstring>

#include <linux/xfrm.h>
#include <netinet/in.h>

#include "tavrelctl.h"

namespace {

// A number, or one of the names; names map to the value at the same index.
bool parse_named(const char *text, const char *what, const char *const *names, const uint32_t *values, size_t count,
                 uint32_t max, uint32_t *value)
{
    for (size_t i = 0; i < count; i++) {
        if (strcmp(text, names[i]) == 0) {
            *value = values[i];
            return true;
        }
    }
    if (!tavrelctl_parse_u32(text, value))
        return false;
    if (*value > max) {
        fprintf(stderr, "tavrelctl: %s out of range (at most %u): %s\n", what, max, text);
        return false;
    }
    return true;
}

bool parse_dir(const char *text, uint32_t *dir)
{
    static const char *const names[] = {"in", "out", "fwd"};
    static const uint32_t values[] = {XFRM_POLICY_IN, XFRM_POLICY_OUT, XFRM_POLICY_FWD};
    return parse_named(text, "direction", names, values, 3, 0xffffffffu, dir);
}

bool parse_side(const char *text, int *is_tx)
{
    if (strcmp(text, "tx") == 0 || strcmp(text, "rx") == 0) {
        *is_tx = text[0] == 't';
        return true;
    }
    return tavrelctl_parse_int(text, is_tx);
}

// The selector texts go to the library as they are ("-" for none), so that
// its own reading of them shows.
const char *selector_text(const char *text)
{
    return strcmp(text, "-") == 0 ? nullptr : text;
}

// LOCAL REMOTE SPI_TX SPI_RX PROTO [MODE]
bool parse_block(int argc, char **argv, tavrel_xfrm_sa_addrs *addrs)
{
    static const char *const protos[] = {"esp", "ah"};
    static const uint32_t proto_values[] = {IPPROTO_ESP, IPPROTO_AH};
    static const char *const modes[] = {"transport", "tunnel"};
    static const uint32_t mode_values[] = {XFRM_MODE_TRANSPORT, XFRM_MODE_TUNNEL};
    tavrel_ip_addr local, remote;
    uint32_t spi_tx, spi_rx, proto, mode = XFRM_MODE_TRANSPORT;
    if (!tavrelctl_parse_ip(argv[0], &local) || !tavrelctl_parse_ip(argv[1], &remote) ||
        !tavrelctl_parse_u32(argv[2], &spi_tx) || !tavrelctl_parse_u32(argv[3], &spi_rx) ||
        !parse_named(argv[4], "protocol", protos, proto_values, 2, 255, &proto) ||
        (argc > 5 && !parse_named(argv[5], "mode", modes, mode_values, 2, 255, &mode)))
        return false;
    memset(addrs, 0, sizeof *addrs);
    addrs->local_addr = local;
    addrs->remote_addr = remote;
    addrs->spi_tx = spi_tx;
    addrs->spi_rx = spi_rx;
    addrs->proto = static_cast<uint8_t>(proto);
    addrs->mode = static_cast<uint8_t>(mode);
    return true;
}

int run_remove_states(int argc, char **argv)
{
    tavrel_xfrm_sa_addrs addrs;
    if (!parse_block(argc, argv, &addrs))
        return TAVRELCTL_USAGE;
    return tavrel_xfrm_remove_states(&addrs);
}

int run_add_policies(int, char **argv)
{
    tavrel_xfrm_sa_addrs addrs;
    int is_tx;
    if (!parse_block(6, argv, &addrs) || !parse_side(argv[9], &is_tx))
        return TAVRELCTL_USAGE;
    return tavrel_xfrm_add_policies(&addrs, selector_text(argv[6]), selector_text(argv[7]), selector_text(argv[8]),
                                    is_tx);
}

int run_remove_policies(int, char **argv)
{
    int is_tx;
    if (!parse_side(argv[3], &is_tx))
        return TAVRELCTL_USAGE;
    return tavrel_xfrm_remove_policies(selector_text(argv[0]), selector_text(argv[1]), selector_text(argv[2]), is_tx);
}

int run_add_policy_ex(int, char **argv)
{
    uint32_t dir;
    if (!parse_dir(argv[0], &dir))
        return TAVRELCTL_USAGE;
    return tavrel_xfrm_add_policy_ex(dir);
}

int run_remove_policy_ex(int, char **argv)
{
    uint32_t dir;
    if (!parse_dir(argv[0], &dir))
        return TAVRELCTL_USAGE;
    return tavrel_xfrm_remove_policy_ex(dir);
}

#define TAVRELCTL_SA_BLOCK_HELP                                                                                   \
    "The SA pair: LOCAL and REMOTE addresses (IPv4 or IPv6), SPI_TX and SPI_RX (host numbers, e.g. 0x1000),\n"    \
    "PROTO esp, ah or a protocol number, MODE tunnel, transport or a number.\n"

const tavrelctl_command commands[] = {
    {"xfrm_remove_states", "LOCAL REMOTE SPI_TX SPI_RX PROTO [MODE]",
     "Dumps the kernel's SAs and deletes those of the pair: the TX SA (LOCAL to REMOTE, SPI_TX) and the\n"
     "RX SA (REMOTE to LOCAL, SPI_RX) of protocol PROTO. Refused deletions are only logged.\n"
     TAVRELCTL_SA_BLOCK_HELP "MODE is not read by the removal.",
     5, 6, run_remove_states},
    {"xfrm_add_policies", "LOCAL REMOTE SPI_TX SPI_RX PROTO MODE SRC DST SEL_PROTO tx|rx",
     "Installs the tunnel's output policy (tx) or its input and forward policies (rx), priority 100,\n"
     "each with a template bound to the pair's SA of that direction.\n" TAVRELCTL_SA_BLOCK_HELP
     "SRC and DST are selector addresses with an optional /PREFIX, SEL_PROTO an IP protocol number as\n"
     "text; \"-\" leaves one out (not both addresses). A protocol text that is not a number selects every\n"
     "protocol. tx|rx may also be a number (non-zero: tx).",
     10, 10, run_add_policies},
    {"xfrm_remove_policies", "SRC DST SEL_PROTO tx|rx",
     "Deletes the output policy (tx) or the input and forward policies (rx) of the selector, which must\n"
     "be given as when it was added. With rx the forward policy is removed even when the input one is\n"
     "not there, and its result is the command's.",
     4, 4, run_remove_policies},
    {"xfrm_add_policy_ex", "in|out|fwd",
     "Installs the policy without template, priority 10, that lets ICMPv6 to fe80::/64 bypass IPsec in\n"
     "the direction given (a number is taken as the kernel's direction).",
     1, 1, run_add_policy_ex},
    {"xfrm_remove_policy_ex", "in|out|fwd", "Deletes the link-local ICMPv6 bypass policy of the direction.", 1, 1,
     run_remove_policy_ex},
};

}  // namespace

const tavrelctl_command_table tavrelctl_xfrm_policy_commands = {commands, sizeof commands / sizeof commands[0]};
