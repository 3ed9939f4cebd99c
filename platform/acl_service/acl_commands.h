// The command line of access lists: `ip|ipv6|mac access-list`, the lines typed in a list's mode, `show access-lists`.
//
// Handlers run on the CLI service's thread and work on the process's ACL service. Their texts begin with "% " when a
// command fails.
#pragma once

#include "acl_service/access_list.h"

#include "platform/cli.h"

#include <string>

namespace platform
{

/// Hooks the trees into the CLI service. A second call replaces them by themselves.
/// @return 0, or -1 when one was refused
[[nodiscard]] int add_acl_commands();

// Handlers. `kind` of configuration commands: flag_1 is 1 + ListKind, 0 for `no ip access-list` without a kind.

/// [no] {ip | ipv6 | mac} access-list … : number in int_var[0], or name in string_var[0].
void acl_list_cmd(struct_command_data_block *record);
/// Prints all lists into the running configuration.
void acl_lists_c2p(struct_command_data_block *record);
/// [no] [SEQ] {permit | deny} … in a list's mode, slots as in acl_slots.h.
void acl_entry_cmd(struct_command_data_block *record);
/// [no] [SEQ] remark TEXT: text in string_var[0].
void acl_remark_cmd(struct_command_data_block *record);
/// no SEQ
void acl_no_sequence_cmd(struct_command_data_block *record);
/// resequence [FIRST [STEP]]
void acl_resequence_cmd(struct_command_data_block *record);
/// show access-lists [NAME]: name in string_var[0].
void acl_show_cmd(struct_command_data_block *record);

/// Whether the running configuration names the list.
[[nodiscard]] bool acl_is_named(const std::string &list);

/// The entry that a line of a list of this family left in the record. A line that the trees let through is sound.
[[nodiscard]] acl::Entry entry_of(const struct_command_data_block &record, acl::Family family);

} // namespace platform
