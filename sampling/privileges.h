// Check of the process's capabilities before anything is tried, so that a missing one is named.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace sampling
{

enum class Capability { net_admin, net_raw, bpf, perfmon };

/// The capabilities of `wanted` that the set `effective` lacks, as "CAP_A, CAP_B"; empty when none is missing.
/// CAP_SYS_ADMIN stands in for CAP_BPF and CAP_PERFMON.
/// @param effective  bit set as in the line CapEff of /proc/self/status
[[nodiscard]] std::string missing_capabilities(std::uint64_t effective,
                                               std::initializer_list<Capability> wanted);

/// Effective capabilities of this process; 0 when they cannot be read.
[[nodiscard]] std::uint64_t effective_capabilities();

/// Throws std::runtime_error naming `who` and every missing capability.
void require_capabilities(std::initializer_list<Capability> wanted, std::string_view who);

} // namespace sampling
