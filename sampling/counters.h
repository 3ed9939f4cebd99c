// From the kernel's interface statistics to the two counter blocks of sFlow.
//
// Pure functions, without any access to the kernel. docs/counters.md tells the source of each field. What Linux does
// not count is reported as unknown, which in sFlow is the largest value of the field.
#pragma once

#include "links.h"
#include "sflow_counter_fields.h"
#include "sflow_domain_msg.h"

#include <array>
#include <cstdint>
#include <iterator>
#include <linux/if_link.h>
#include <optional>

namespace sampling
{

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

/// The kernel's counters that some field is made of.
constexpr std::array<__u64 rtnl_link_stats64::*, 18> link_counters = {
    &rtnl_link_stats64::rx_bytes,          &rtnl_link_stats64::rx_packets,
    &rtnl_link_stats64::tx_bytes,          &rtnl_link_stats64::tx_packets,
    &rtnl_link_stats64::multicast,         &rtnl_link_stats64::rx_dropped,
    &rtnl_link_stats64::rx_missed_errors,  &rtnl_link_stats64::rx_errors,
    &rtnl_link_stats64::tx_dropped,        &rtnl_link_stats64::tx_errors,
    &rtnl_link_stats64::rx_frame_errors,   &rtnl_link_stats64::rx_crc_errors,
    &rtnl_link_stats64::collisions,        &rtnl_link_stats64::tx_window_errors,
    &rtnl_link_stats64::tx_aborted_errors, &rtnl_link_stats64::tx_fifo_errors,
    &rtnl_link_stats64::tx_carrier_errors, &rtnl_link_stats64::rx_fifo_errors,
};
/// The first so many of them count all traffic: when one of them falls, all have started again.
constexpr std::size_t link_totals = 4;

constexpr std::array<MacCounters::Value MacCounters::*, 16> mac_counters = {
    &MacCounters::single_collisions,
    &MacCounters::multiple_collisions,
    &MacCounters::fcs_errors,
    &MacCounters::alignment_errors,
    &MacCounters::deferred,
    &MacCounters::late_collisions,
    &MacCounters::excessive_collisions,
    &MacCounters::internal_tx_errors,
    &MacCounters::carrier_sense_errors,
    &MacCounters::internal_rx_errors,
    &MacCounters::tx_multicast,
    &MacCounters::tx_broadcast,
    &MacCounters::rx_multicast,
    &MacCounters::rx_broadcast,
    &MacCounters::frame_too_long,
    &MacCounters::symbol_errors,
};

// The counter fields of a report, in the order of its two blocks. Values of them come as arrays in this order.

/// One counter field of a record.
struct CounterField : sflow_counter_field_t {
    /// All bits of the field: its modulus less one, and the value that means unknown.
    [[nodiscard]] constexpr std::uint64_t mask() const
    {
        return octets != nullptr ? ~std::uint64_t{0} : std::uint64_t{0xFFFFFFFF};
    }

    /// Of a record with the members `generic` and `ether`.
    template <typename Record>
    [[nodiscard]] std::uint64_t get(const Record &record) const
    {
        if (octets != nullptr)
            return record.generic.*octets;
        return generic != nullptr ? record.generic.*generic : record.ether.*ether;
    }
    template <typename Record>
    void set(Record &record, std::uint64_t value) const
    {
        if (octets != nullptr)
            record.generic.*octets = value;
        else if (generic != nullptr)
            record.generic.*generic = static_cast<std::uint32_t>(value);
        else
            record.ether.*ether = static_cast<std::uint32_t>(value);
    }
};

constexpr std::size_t counter_field_count = std::size(sflow_counter_fields);
inline constexpr auto counter_fields = [] {
    std::array<CounterField, counter_field_count> fields;
    for (std::size_t i = 0; i < counter_field_count; ++i)
        fields[i] = {sflow_counter_fields[i]};
    return fields;
}();

/// Values of the fields as far as they are known, not cut to the field's width.
using FieldValues = std::array<std::optional<std::uint64_t>, counter_field_count>;
/// Contents of the fields, each within its width.
using FieldWords = std::array<std::uint64_t, counter_field_count>;

/// The fields' contents in a record.
template <typename Record>
[[nodiscard]] FieldWords words_of(const Record &record)
{
    FieldWords words = {};
    for (std::size_t i = 0; i < counter_field_count; ++i)
        words[i] = counter_fields[i].get(record);
    return words;
}
template <typename Record>
void put_words(Record &record, const FieldWords &words)
{
    for (std::size_t i = 0; i < counter_field_count; ++i)
        counter_fields[i].set(record, words[i]);
}

/// What the kernel's counters say of each field.
[[nodiscard]] FieldValues field_values(const LinkCounters &counters);

/// A value as the content of its field: modulo the field's width, unknown as its largest value. A count that would read
/// as unknown by chance, by itself or after the daemon has added `base`, is one lower.
[[nodiscard]] std::uint64_t word_of(const CounterField &field, std::optional<std::uint64_t> value,
                                    std::uint64_t base = 0);

/// A counter report of type SFLOW_CMD_GET_COUNTER_RET with the facts of the interface; its counters are 0.
/// @param link  nullptr: not known
[[nodiscard]] sflow_counter_ret_t counter_report(const sflow_counter_t &request, const Link *link);

} // namespace sampling
