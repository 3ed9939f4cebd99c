#include "counters.h"

#include "records.h"

#include <gtest/gtest.h>
#include <linux/if.h>

namespace sampling
{
namespace
{

constexpr std::uint32_t unknown = 0xFFFFFFFF;

sflow_counter_t request(IFINDEX ifx)
{
    return {.head = head_of<sflow_counter_t>(257), .ifx = ifx, .ifx_type = 3};
}

const CounterField &octets = counter_fields[0];
const CounterField &unicast = counter_fields[1];

TEST(Counters_word_of, keeps_the_fields_width_and_never_reads_as_unknown)
{
    struct Row {
        const CounterField &field;
        std::optional<std::uint64_t> value;
        std::uint64_t base, word;
    };
    for (const Row &row :
         {Row{unicast, 0, 0, 0}, Row{unicast, 0xFFFFFFFE, 0, 0xFFFFFFFE},
          Row{unicast, 0xFFFFFFFF, 0, 0xFFFFFFFE}, Row{unicast, 0x1'0000'0000, 0, 0},
          Row{unicast, 0x5'FFFF'FFFF, 0, 0xFFFFFFFE},
          Row{unicast, 100, 0xFFFFFFFF - 100, 99}, // the daemon's sum counts
          Row{unicast, 100, 0xFFFFFFFF - 99, 100}, Row{unicast, std::nullopt, 7, 0xFFFFFFFF},
          Row{octets, 0x5'FFFF'FFFF, 0, 0x5'FFFF'FFFF}, Row{octets, std::nullopt, 0, 0xFFFF'FFFF'FFFF'FFFF}})
        EXPECT_EQ(word_of(row.field, row.value, row.base), row.word)
            << row.value.value_or(0) << " on " << row.base;
}

TEST(Counters_fields, are_the_26_counters_of_the_record_in_its_order)
{
    sflow_counter_ret_t record = {};
    FieldWords words = {};
    for (std::size_t i = 0; i < counter_field_count; ++i)
        words[i] = i + 1;
    put_words(record, words);
    EXPECT_EQ(words_of(record), words);
    EXPECT_EQ(record.generic.ifInOctets, 1U);
    EXPECT_EQ(record.generic.ifInUnknownProtos, 7U);
    EXPECT_EQ(record.generic.ifOutOctets, 8U);
    EXPECT_EQ(record.generic.ifOutErrors, 13U);
    EXPECT_EQ(record.ether.dot3StatsAlignmentErrors, 14U);
    EXPECT_EQ(record.ether.dot3StatsSymbolErrors, 26U);
    EXPECT_EQ(record.generic.ifIndex + record.generic.ifType + record.generic.ifSpeed +
                  record.generic.ifDirection + record.generic.ifStatus + record.generic.ifPromiscuousMode,
              0U);
}

/// A whole report of counters that have no base.
sflow_counter_ret_t report_of(const LinkCounters &counters, const Link *link = nullptr, IFINDEX ifx = 12)
{
    sflow_counter_ret_t report = counter_report(request(ifx), link);
    const FieldValues values = field_values(counters);
    FieldWords words = {};
    for (std::size_t i = 0; i < counter_field_count; ++i)
        words[i] = word_of(counter_fields[i], values[i]);
    put_words(report, words);
    return report;
}

sflow_generic_counter_t generic_counters(const LinkCounters &counters)
{
    return report_of(counters).generic;
}

sflow_ether_counter_t ether_counters(const LinkCounters &counters)
{
    return report_of(counters).ether;
}

TEST(Counters_field_values, of_an_interface_without_mac_statistics)
{
    LinkCounters counters;
    counters.link.rx_bytes = 0x1'0000'0001;
    counters.link.rx_packets = 100;
    counters.link.multicast = 30;
    counters.link.rx_dropped = 4;
    counters.link.rx_missed_errors = 5;
    counters.link.rx_errors = 6;
    counters.link.rx_nohandler = 77;
    counters.link.tx_bytes = 0x2'0000'0002;
    counters.link.tx_packets = 200;
    counters.link.tx_dropped = 8;
    counters.link.tx_errors = 9;
    const sflow_generic_counter_t generic = generic_counters(counters);
    EXPECT_EQ(generic.ifIndex, 12U);
    EXPECT_EQ(generic.ifType, 6U);
    EXPECT_EQ(generic.ifSpeed, 0U);
    EXPECT_EQ(generic.ifDirection, 0U);
    EXPECT_EQ(generic.ifStatus, 0U);
    EXPECT_EQ(generic.ifInOctets, 0x1'0000'0001U);
    EXPECT_EQ(generic.ifInUcastPkts, 70U);
    EXPECT_EQ(generic.ifInMulticastPkts, 30U);
    EXPECT_EQ(generic.ifInBroadcastPkts, unknown);
    EXPECT_EQ(generic.ifInDiscards, 9U);
    EXPECT_EQ(generic.ifInErrors, 6U);
    EXPECT_EQ(generic.ifInUnknownProtos, unknown);
    EXPECT_EQ(generic.ifOutOctets, 0x2'0000'0002U);
    EXPECT_EQ(generic.ifOutUcastPkts, 200U);
    EXPECT_EQ(generic.ifOutMulticastPkts, unknown);
    EXPECT_EQ(generic.ifOutBroadcastPkts, unknown);
    EXPECT_EQ(generic.ifOutDiscards, 8U);
    EXPECT_EQ(generic.ifOutErrors, 9U);
    EXPECT_EQ(generic.ifPromiscuousMode, 2U);
}

TEST(Counters_field_values, mac_statistics_split_the_packets)
{
    LinkCounters counters;
    counters.link.rx_packets = 100;
    counters.link.multicast = 99; // the MAC knows better
    counters.link.tx_packets = 200;
    counters.mac.rx_multicast = 20;
    counters.mac.rx_broadcast = 10;
    counters.mac.tx_multicast = 40;
    counters.mac.tx_broadcast = 50;
    const sflow_generic_counter_t generic = generic_counters(counters);
    EXPECT_EQ(generic.ifInUcastPkts, 70U);
    EXPECT_EQ(generic.ifInMulticastPkts, 20U);
    EXPECT_EQ(generic.ifInBroadcastPkts, 10U);
    EXPECT_EQ(generic.ifOutUcastPkts, 110U);
    EXPECT_EQ(generic.ifOutMulticastPkts, 40U);
    EXPECT_EQ(generic.ifOutBroadcastPkts, 50U);
}

TEST(Counters_field_values, more_multicast_than_packets_gives_no_unicast)
{
    LinkCounters counters;
    counters.link.rx_packets = 10;
    counters.link.multicast = 11;
    EXPECT_EQ(generic_counters(counters).ifInUcastPkts, 0U);
}

TEST(Counters_counter_report, status_and_promiscuity_come_from_the_interface)
{
    struct Row {
        std::uint32_t flags;
        bool oper_up, promiscuous;
        std::uint32_t status, mode;
    };
    for (const Row &row :
         {Row{0, false, false, 0, 2}, Row{IFF_UP, false, false, 1, 2}, Row{IFF_UP, true, true, 3, 1}}) {
        Link link;
        link.flags = row.flags;
        link.oper_up = row.oper_up;
        link.promiscuous = row.promiscuous;
        const sflow_generic_counter_t generic = report_of({}, &link).generic;
        EXPECT_EQ(generic.ifStatus, row.status);
        EXPECT_EQ(generic.ifPromiscuousMode, row.mode);
    }
}

TEST(Counters_field_values, come_from_rtnetlink_where_the_mac_tells_nothing)
{
    LinkCounters counters;
    counters.link.rx_frame_errors = 1;
    counters.link.rx_crc_errors = 2;
    counters.link.tx_window_errors = 3;
    counters.link.tx_aborted_errors = 4;
    counters.link.tx_fifo_errors = 5;
    counters.link.tx_carrier_errors = 6;
    counters.link.rx_fifo_errors = 7;
    const sflow_ether_counter_t ether = ether_counters(counters);
    EXPECT_EQ(ether.dot3StatsAlignmentErrors, 1U);
    EXPECT_EQ(ether.dot3StatsFCSErrors, 2U);
    EXPECT_EQ(ether.dot3StatsSingleCollisionFrames, 0U); // no collision at all
    EXPECT_EQ(ether.dot3StatsMultipleCollisionFrames, 0U);
    EXPECT_EQ(ether.dot3StatsSQETestErrors, unknown);
    EXPECT_EQ(ether.dot3StatsDeferredTransmissions, unknown);
    EXPECT_EQ(ether.dot3StatsLateCollisions, 3U);
    EXPECT_EQ(ether.dot3StatsExcessiveCollisions, 4U);
    EXPECT_EQ(ether.dot3StatsInternalMacTransmitErrors, 5U);
    EXPECT_EQ(ether.dot3StatsCarrierSenseErrors, 6U);
    EXPECT_EQ(ether.dot3StatsFrameTooLongs, unknown);
    EXPECT_EQ(ether.dot3StatsInternalMacReceiveErrors, 7U);
    EXPECT_EQ(ether.dot3StatsSymbolErrors, unknown);
}

TEST(Counters_field_values, collisions_that_cannot_be_told_apart_are_unknown)
{
    LinkCounters counters;
    counters.link.collisions = 1;
    const sflow_ether_counter_t ether = ether_counters(counters);
    EXPECT_EQ(ether.dot3StatsSingleCollisionFrames, unknown);
    EXPECT_EQ(ether.dot3StatsMultipleCollisionFrames, unknown);
}

TEST(Counters_field_values, mac_statistics_win_over_rtnetlink)
{
    LinkCounters counters;
    counters.link.collisions = 1000;
    counters.link.rx_crc_errors = 1000;
    counters.mac.alignment_errors = 1;
    counters.mac.fcs_errors = 2;
    counters.mac.single_collisions = 3;
    counters.mac.multiple_collisions = 4;
    counters.mac.deferred = 5;
    counters.mac.late_collisions = 6;
    counters.mac.excessive_collisions = 7;
    counters.mac.internal_tx_errors = 8;
    counters.mac.carrier_sense_errors = 9;
    counters.mac.frame_too_long = 10;
    counters.mac.internal_rx_errors = 11;
    counters.mac.symbol_errors = 12;
    const sflow_ether_counter_t ether = ether_counters(counters);
    EXPECT_EQ(ether.dot3StatsAlignmentErrors, 1U);
    EXPECT_EQ(ether.dot3StatsFCSErrors, 2U);
    EXPECT_EQ(ether.dot3StatsSingleCollisionFrames, 3U);
    EXPECT_EQ(ether.dot3StatsMultipleCollisionFrames, 4U);
    EXPECT_EQ(ether.dot3StatsSQETestErrors, unknown);
    EXPECT_EQ(ether.dot3StatsDeferredTransmissions, 5U);
    EXPECT_EQ(ether.dot3StatsLateCollisions, 6U);
    EXPECT_EQ(ether.dot3StatsExcessiveCollisions, 7U);
    EXPECT_EQ(ether.dot3StatsInternalMacTransmitErrors, 8U);
    EXPECT_EQ(ether.dot3StatsCarrierSenseErrors, 9U);
    EXPECT_EQ(ether.dot3StatsFrameTooLongs, 10U);
    EXPECT_EQ(ether.dot3StatsInternalMacReceiveErrors, 11U);
    EXPECT_EQ(ether.dot3StatsSymbolErrors, 12U);
}

TEST(Counters_counter_report, echoes_the_request)
{
    const sflow_counter_ret_t report = counter_report(request(9), nullptr);
    EXPECT_EQ(report.head.type, 513U);
    EXPECT_EQ(report.head.len, 160U);
    EXPECT_EQ(report.ifx, 9U);
    EXPECT_EQ(report.ifx_type, 3);
    EXPECT_EQ(report.pad, 0U);
}

} // namespace
} // namespace sampling
