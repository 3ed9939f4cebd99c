/// @file
/// Comparison of plain records as bytes. Records that are compared this way are zeroed before they are filled, so that
/// padding and unused union bytes are equal too. No state; any thread.
#pragma once

#include <cstring>
#include <type_traits>

/// Whether both records hold the same bytes, padding included.
template <typename T>
[[nodiscard]] bool sflow_same_bytes(const T &lhs, const T &rhs)
{
    static_assert(std::is_trivially_copyable_v<T>);
    return std::memcmp(static_cast<const void *>(&lhs), static_cast<const void *>(&rhs), sizeof(T)) == 0;
}
