#include "tavrelctl.h"

const tavrelctl_command_table tavrelctl_xfrm_commands = {nullptr, 0};
