#include "privileges.h"

#include <fstream>
#include <linux/capability.h>
#include <stdexcept>

namespace sampling
{

namespace
{

struct CapabilityRow {
    Capability capability;
    unsigned bit;
    unsigned stand_in; ///< another bit that grants the same
    const char *name;
};

constexpr CapabilityRow capability_table[] = {
    {Capability::net_admin, CAP_NET_ADMIN, CAP_NET_ADMIN, "CAP_NET_ADMIN"},
    {Capability::net_raw, CAP_NET_RAW, CAP_NET_RAW, "CAP_NET_RAW"},
    {Capability::bpf, CAP_BPF, CAP_SYS_ADMIN, "CAP_BPF (or CAP_SYS_ADMIN)"},
    {Capability::perfmon, CAP_PERFMON, CAP_SYS_ADMIN, "CAP_PERFMON (or CAP_SYS_ADMIN)"},
};

constexpr bool has(std::uint64_t set, unsigned bit)
{
    return (set >> bit & 1U) != 0;
}

} // namespace

std::string missing_capabilities(std::uint64_t effective, std::initializer_list<Capability> wanted)
{
    std::string missing;
    for (const CapabilityRow &row : capability_table) {
        for (const Capability capability : wanted) {
            if (capability != row.capability || has(effective, row.bit) || has(effective, row.stand_in))
                continue;
            missing += missing.empty() ? "" : ", ";
            missing += row.name;
        }
    }
    return missing;
}

std::uint64_t effective_capabilities()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        constexpr std::string_view tag = "CapEff:";
        if (line.starts_with(tag))
            return std::stoull(line.substr(tag.size()), nullptr, 16);
    }
    return 0;
}

void require_capabilities(std::initializer_list<Capability> wanted, std::string_view who)
{
    const std::string missing = missing_capabilities(effective_capabilities(), wanted);
    if (!missing.empty())
        throw std::runtime_error(std::string(who) + ": privilege: missing " + missing);
}

} // namespace sampling
