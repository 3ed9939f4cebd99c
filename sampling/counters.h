// From the kernel's interface statistics to the two counter blocks of sFlow.
//
// Pure functions and one piece of memory, without any access to the kernel. docs/counters.md tells the source of each
// field. What Linux does not count is reported as unknown, which in sFlow is the largest value of the field.
#pragma once

#include "links.h"
#include "sflow_domain_msg.h"

#include <array>
#include <cstdint>
#include <linux/if_link.h>
#include <optional>
#include <unordered_map>

namespace sampling
{

/// sFlow's mark for a counter that is not known.
constexpr std::uint32_t unknown_counter = 0xFFFFFFFF;

/// IEEE 802.3 statistics as ethtool gives them, names as in ETHTOOL_A_STATS_ETH_MAC_* and …_PHY_*. Nothing where the
/// driver does not count.
struct MacCounters {
    using Value = std::optional<std::uint64_t>;
    Value single_collisions;
    Value multiple_collisions;
    Value fcs_errors;
    Value alignment_errors;
    Value deferred;
    Value late_collisions;
    Value excessive_collisions;
    Value internal_tx_errors;
    Value carrier_sense_errors;
    Value internal_rx_errors;
    Value tx_multicast;
    Value tx_broadcast;
    Value rx_multicast;
    Value rx_broadcast;
    Value frame_too_long;
    Value symbol_errors; ///< eth-phy group
};

/// Everything that is known about one interface's counters at one moment.
struct LinkCounters {
    rtnl_link_stats64 link = {};
    MacCounters mac;
};

/// A 64-bit count as a 32-bit sFlow counter: modulo 2^32, and never the value that means unknown.
[[nodiscard]] constexpr std::uint32_t counter32(std::uint64_t value)
{
    const auto low = static_cast<std::uint32_t>(value & 0xFFFFFFFF);
    return low == unknown_counter ? low - 1 : low;
}

[[nodiscard]] sflow_generic_counter_t generic_counters(IFINDEX ifindex, const Link *link,
                                                       const LinkCounters &counters);
[[nodiscard]] sflow_ether_counter_t ether_counters(const LinkCounters &counters);

/// A whole counter report of type SFLOW_CMD_GET_COUNTER_RET.
/// @param link  facts of the interface, or nullptr
[[nodiscard]] sflow_counter_ret_t counter_report(const sflow_counter_t &request, const Link *link,
                                                 const LinkCounters &counters);

/// Notices when the kernel starts the counters of an interface again (driver reset, device re-created under its old
/// index) and tells what was lost, so that the daemon can add it to its base and the exported counters keep growing.
class CounterHistory
{
public:
    /// Compares with the previous report of the interface and remembers this one.
    /// @return the update (SFLOW_CMD_UPDATE_COUNTER) that must precede this report, if the counters started again;
    ///         its fields hold the last value of each counter that fell, 0 elsewhere and where a value is unknown
    [[nodiscard]] std::optional<sflow_counter_ret_t> compare(const sflow_counter_ret_t &report,
                                                             const LinkCounters &counters);
    /// The interface has gone for good.
    void forget(IFINDEX ifindex) { last_.erase(ifindex); }

private:
    struct Last {
        sflow_counter_ret_t report;
        /// Received and sent octets and packets: whether any of them fell decides.
        std::array<std::uint64_t, 4> totals;
    };
    std::unordered_map<IFINDEX, Last> last_;
};

} // namespace sampling
