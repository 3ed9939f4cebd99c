// An access list as JSON text, and back. Internal to the library; see acl_file.h for what surrounds the text.
#pragma once

#include "acl_list/acl_list.h"

#include <optional>
#include <string>
#include <string_view>

namespace acl
{

[[nodiscard]] std::string to_json(const List &list);

/// Nothing when the text is no list, holds members that are not known or values that do not fit. The result may still
/// break the invariants that find_fault() checks.
[[nodiscard]] std::optional<List> from_json(std::string_view text);

} // namespace acl
