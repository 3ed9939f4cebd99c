// The plain access-list matcher: entry by entry, as acl_list.h says that lists are meant.
//
// The replay samples with it, and the tests hold the tables and the BPF programs (acl_compiler.h, acl_match.bpf.h)
// against it. Pure functions.
#pragma once

#include "packet_fields.h"

#include "acl_list/acl_list.h"

namespace sampling
{

/// Whether every condition of the entry holds; see acl_list.h for fragments and headers that are cut short.
[[nodiscard]] bool matches(const acl::Entry &entry, acl::Family family, const PacketFields &packet);

/// What the first matching entry says; false when none matches.
[[nodiscard]] bool permits(const acl::List &list, const PacketFields &packet);

} // namespace sampling
