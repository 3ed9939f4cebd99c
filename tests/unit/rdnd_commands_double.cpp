#include "rdnd_commands_double.h"

#include "redundancy/rdnd_commands.h"

int redundancy_commands_added = 0;

void platform::add_redundancy_commands()
{
    ++redundancy_commands_added;
}
