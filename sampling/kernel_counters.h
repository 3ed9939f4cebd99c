// Reads interface counters from the kernel: rtnetlink's 64-bit statistics and ethtool's IEEE 802.3 groups.
//
// Synchronous requests on two netlink sockets; the kernel answers within the request, so a read takes some
// microseconds (a driver that asks its firmware may take longer). Needs no privilege.
#pragma once

#include "counters.h"
#include "log.h"

#include <unordered_map>

namespace sampling
{

/// Where counters come from; the tests put their own in its place.
class CounterSource
{
public:
    CounterSource(const CounterSource &) = delete;
    CounterSource &operator=(const CounterSource &) = delete;
    virtual ~CounterSource() = default;

    using LinkStats = std::unordered_map<IFINDEX, rtnl_link_stats64>;

    /// The statistics of one interface; nothing when there is none with this index.
    [[nodiscard]] virtual std::optional<rtnl_link_stats64> read_link(IFINDEX ifindex) = 0;
    /// The statistics of all interfaces in one request; empty on failure.
    [[nodiscard]] virtual LinkStats read_all_links() = 0;
    /// What the MAC and PHY of the interface count; all nothing where there is no such hardware.
    [[nodiscard]] virtual MacCounters read_mac(IFINDEX ifindex) = 0;

protected:
    CounterSource() = default;
};

class KernelCounters final : public CounterSource
{
public:
    /// Throws std::runtime_error when there is no rtnetlink socket. Without ethtool netlink it logs so once and all
    /// MAC counters are nothing.
    explicit KernelCounters(Log &log);

    [[nodiscard]] std::optional<rtnl_link_stats64> read_link(IFINDEX ifindex) override;
    [[nodiscard]] LinkStats read_all_links() override;
    [[nodiscard]] MacCounters read_mac(IFINDEX ifindex) override;

private:
    Log &log_;
    NlSock route_;
    NlSock ethtool_;
    int ethtool_family_ = 0; ///< 0: this kernel has no ethtool netlink
};

} // namespace sampling
