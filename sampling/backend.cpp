#include "backend.h"

#include <linux/if_link.h>

namespace sampling
{

std::optional<rtnl_link_stats64> Backend::own_counters(IFINDEX) const
{
    return std::nullopt;
}

} // namespace sampling
