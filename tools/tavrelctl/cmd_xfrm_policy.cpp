#include "tavrelctl.h"

const tavrelctl_command_table tavrelctl_xfrm_policy_commands = {nullptr, 0};
