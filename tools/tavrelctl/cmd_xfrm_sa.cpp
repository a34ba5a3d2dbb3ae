#include "tavrelctl.h"

const tavrelctl_command_table tavrelctl_xfrm_sa_commands = {nullptr, 0};
