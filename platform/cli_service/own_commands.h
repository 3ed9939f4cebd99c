// The service's own commands: modes, saving, show commands of the platform.
#pragma once

#include "core.h"

namespace cli
{

/// Registers them. Calling it again changes nothing.
void add_own_commands(Core &core);

/// Whether a handler does nothing but change the mode.
[[nodiscard]] bool only_changes_mode(cli_handler_t handler);

// In own_show.cpp; handlers of the show trees.
void show_running_config(struct_command_data_block *record);
void show_running_config_all(struct_command_data_block *record);
void show_startup_config(struct_command_data_block *record);
void show_interfaces(struct_command_data_block *record);
void show_interfaces_brief(struct_command_data_block *record);
void show_one_interface(struct_command_data_block *record);
void show_debugging(struct_command_data_block *record);
void show_version(struct_command_data_block *record);

/// The word for an interface's type, given its kinds (lsm_if_get_kind_mask), in show commands and messages.
[[nodiscard]] std::string_view interface_type_word(u_int32_t kinds);

// In own_tech.cpp; the record's string_var[0] is the name or path of the file.
void show_tech_support(struct_command_data_block *record);
void show_tech_support_file(struct_command_data_block *record);

} // namespace cli
