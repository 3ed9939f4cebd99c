// Takes the place of the redundancy service's commands.
#pragma once

/// How often they were hooked in.
extern int redundancy_commands_added;
