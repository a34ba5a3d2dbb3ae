#include "tavrelctl.h"

const tavrelctl_command_table tavrelctl_addrlabel_commands = {nullptr, 0};
