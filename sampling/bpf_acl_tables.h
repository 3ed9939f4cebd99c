// The access lists that the BPF programs match: one table a list, found by its slot in the map `acl_tables`.
//
// A list in force is never changed. A new version becomes a map of its own, which one write puts in the place of the
// old one: a packet is matched against the one or the other, whole, and when install() returns no CPU uses the old one
// any more. A slot whose list is withheld is empty, and permits nothing. Thread of the event loop.
#pragma once

#include "log.h"
#include "unique_fd.h"

#include "acl_list/acl_list.h"

#include <cstdint>
#include <map>
#include <vector>

namespace sampling
{

/// An empty map for one table, or an empty descriptor with the reason in errno. The map `acl_tables` must be made with
/// one of these as its pattern: kernels differ in whether they take a map without type information for one with.
[[nodiscard]] UniqueFd make_acl_table_map();

class BpfAclTables
{
public:
    /// @param map_fd  descriptor of the map `acl_tables`, owned by the caller
    /// @param slots   its size; slot 0 stays empty
    BpfAclTables(Log &log, int map_fd, std::uint32_t slots);

    /// False, logged, with everything as it was: no slot is free, or the kernel refuses the table.
    [[nodiscard]] bool install(const acl::List &list);
    void withhold(std::int32_t id);
    void drop(std::int32_t id);

    /// The list's slot; 0 when it has none.
    [[nodiscard]] std::uint32_t slot_of(std::int32_t id) const;
    [[nodiscard]] std::size_t size() const { return slots_.size(); }

private:
    [[nodiscard]] bool put(std::uint32_t slot, const acl::List &list);
    void clear(std::uint32_t slot);

    Log &log_;
    int map_fd_;
    std::vector<std::uint32_t> free_slots_;
    std::map<std::int32_t, std::uint32_t> slots_; ///< by id of the list
};

} // namespace sampling
