#include "tavrelctl.h"

const tavrelctl_command_table tavrelctl_rtnetlink_commands = {nullptr, 0};
