// IPsec SA subcommands: a pair from an SA configuration file, one SA from an
// address-set file. Both formats are described in docs/xfrm-sa.md.
#include <cstdio>
#include <cstring>

#include "tavrel_host_xfrm.h"
#include "tavrelctl.h"

namespace {

// The optional last argument stands for the daemon's output-mark switch.
bool set_output_mark_switch(int argc, char **argv, int index)
{
    uint32_t value = 0;
    if (argc > index && !tavrelctl_parse_u32(argv[index], &value))
        return false;
    tavrel_main_cfg.output_mark_enabled = value;
    return true;
}

bool parse_direction(const char *text, int *is_tx)
{
    if (strcmp(text, "tx") == 0 || strcmp(text, "rx") == 0) {
        *is_tx = text[0] == 't';
        return true;
    }
    return tavrelctl_parse_int(text, is_tx);
}

int run_add_states(int argc, char **argv)
{
    static tavrel_xfrm_sa_cfg cfg;
    char error[512];
    uint32_t cfg_arg2, cfg_arg3;
    int link_tech;
    if (!tavrelctl_parse_u32(argv[1], &cfg_arg2) || !tavrelctl_parse_u32(argv[2], &cfg_arg3) ||
        !tavrelctl_parse_int(argv[3], &link_tech) || !set_output_mark_switch(argc, argv, 4))
        return TAVRELCTL_USAGE;
    if (tavrel_host_sa_cfg_load(argv[0], &cfg, error, sizeof error) != 0) {
        fprintf(stderr, "tavrelctl: %s\n", error);
        return TAVRELCTL_USAGE;
    }
    return tavrel_xfrm_add_states(&cfg, cfg_arg2, cfg_arg3, link_tech);
}

int run_add_state_from_addr_set(int argc, char **argv)
{
    static tavrel_xfrm_addr_set set;
    char error[512];
    int is_tx, link_tech;
    if (!parse_direction(argv[1], &is_tx) || !tavrelctl_parse_int(argv[2], &link_tech) ||
        !set_output_mark_switch(argc, argv, 3))
        return TAVRELCTL_USAGE;
    if (tavrel_host_addr_set_load(argv[0], &set, error, sizeof error) != 0) {
        fprintf(stderr, "tavrelctl: %s\n", error);
        return TAVRELCTL_USAGE;
    }
    return tavrel_xfrm_add_state_from_addr_set(&set, is_tx, link_tech);
}

const tavrelctl_command commands[] = {
    {"xfrm_add_states", "SA_CONFIG_FILE CFG_ARG2 CFG_ARG3 LINK_TECH [OUTPUT_MARK_SWITCH]",
     "Installs the TX and then the RX SA of a pair from the modem's SA configuration, read from\n"
     "SA_CONFIG_FILE (key = value lines, see docs/xfrm-sa.md). CFG_ARG2 and CFG_ARG3 are handed to\n"
     "the configuration accessors, which ignore them on a host. LINK_TECH (signed) selects the output\n"
     "mark; OUTPUT_MARK_SWITCH is the daemon's output-mark switch (default 0; 1 marks TX SAs by link\n"
     "technology). A cipher, authentication or family failure answers 0 without installing anything.",
     4, 5, run_add_states},
    {"xfrm_add_state_from_addr_set", "ADDR_SET_FILE tx|rx|IS_TX LINK_TECH [OUTPUT_MARK_SWITCH]",
     "Installs one SA (tx: outgoing, rx: incoming) from the daemon's address set, read from\n"
     "ADDR_SET_FILE (key = value lines, see docs/xfrm-sa.md). LINK_TECH and OUTPUT_MARK_SWITCH as for\n"
     "xfrm_add_states.",
     3, 4, run_add_state_from_addr_set},
};

}  // namespace

const tavrelctl_command_table tavrelctl_xfrm_sa_commands = {commands, sizeof commands / sizeof commands[0]};
