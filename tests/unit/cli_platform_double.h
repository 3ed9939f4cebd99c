// The platform's other services as the CLI service sees them: interfaces, log, support service.
#pragma once

#include "platform/lsm.h"
#include "platform/tech.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace platform_double
{

struct State {
    std::vector<lsm_if_record_t> interfaces;
    std::vector<IFINDEX> returned_to_defaults;
    std::vector<std::string> log;
    tech_cli_hooks_t hooks{};
    std::string debug_listing;
    /// What a collection does; its result is that of tech_collect().
    std::function<int(const tech_sink_t &)> collect;
};

/// Guards `state` where a test lets the service run on a thread of its own.
extern std::mutex lock;
extern State state;

/// eth0 (2) and eth1 (3) ports, bond0 (10) an aggregate, eth0.5 (12) a subinterface, lo (1) internal.
void reset();
[[nodiscard]] lsm_if_record_t interface(IFINDEX ifx, const std::string &name, u_int32_t kind);
[[nodiscard]] std::vector<std::string> take_log();

} // namespace platform_double
