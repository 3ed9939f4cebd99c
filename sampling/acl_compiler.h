// Access lists as the tables that the BPF programs match (acl_table.h). Pure.
#pragma once

#include "acl_list/acl_list.h"
#include "acl_table.h"

#include <memory>

namespace sampling
{

/// The list as a table of its own, close to a megabyte.
/// @param list  sound, as acl::find_fault() has it
[[nodiscard]] std::unique_ptr<sflow_acl_table> compile(const acl::List &list);

} // namespace sampling
