#include "counter_memory.h"

#include <gtest/gtest.h>

namespace sampling
{
namespace
{

constexpr std::uint64_t unknown = 0xFFFFFFFF;
constexpr CounterOrigin here = {.instance = 1, .ifindex = 5};
constexpr CounterOrigin elsewhere = {.instance = 1, .ifindex = 6};

// Places of fields.
constexpr std::size_t in_octets = 0;
constexpr std::size_t in_unicast = 1;
constexpr std::size_t in_multicast = 2;
constexpr std::size_t in_broadcast = 3;
constexpr std::size_t in_errors = 5;
constexpr std::size_t out_octets = 7;
constexpr std::size_t out_unicast = 8;
constexpr std::size_t fcs_errors = 14;
constexpr std::size_t single_collisions = 15;

/// A memory with the look that comes next.
struct Remembered {
    CounterLook look{.origin = here, .software = false, .counters = {}};
    CounterMemory memory;

    explicit Remembered(const LinkCounters &first = busy(), const FieldWords &daemons_base = {})
        : look{.origin = here, .software = false, .counters = first}, memory("eth0", look, daemons_base)
    {
    }

    static LinkCounters busy()
    {
        LinkCounters counters;
        counters.link.rx_bytes = 0x1'0000'0000;
        counters.link.rx_packets = 500;
        counters.link.tx_bytes = 7000;
        counters.link.tx_packets = 7;
        counters.link.rx_errors = 3;
        counters.link.rx_crc_errors = 2;
        return counters;
    }

    bool take() { return memory.take(look); }
    /// What the daemon exports once it has the base that is wanted.
    [[nodiscard]] std::uint64_t exported(std::size_t field) const
    {
        const std::uint64_t mask = counter_fields[field].mask();
        const std::uint64_t base = memory.wanted_base()[field];
        return base == mask ? mask : (memory.report()[field] + base) & mask;
    }
};

TEST(CounterMemory_take, growing_counters_need_no_base)
{
    Remembered r;
    r.look.counters.link.rx_bytes += 100;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.memory.wanted_base(), FieldWords{});
    EXPECT_EQ(r.memory.report()[in_octets], 0x1'0000'0064U);
}

TEST(CounterMemory_take, a_restart_puts_everything_that_was_counted_into_the_base)
{
    Remembered r;
    r.look.counters.link = {};
    r.look.counters.link.rx_packets = 20;
    r.look.counters.link.tx_packets = 8; // did not fall, and has started again all the same
    EXPECT_TRUE(r.take());
    const FieldWords base = r.memory.wanted_base();
    EXPECT_EQ(base[in_octets], 0x1'0000'0000U);
    EXPECT_EQ(base[in_unicast], 500U);
    EXPECT_EQ(base[out_octets], 7000U);
    EXPECT_EQ(base[out_unicast], 7U);
    EXPECT_EQ(base[in_errors], 3U);
    EXPECT_EQ(base[fcs_errors], 2U);
    EXPECT_EQ(r.exported(in_unicast), 520U);
    EXPECT_EQ(r.exported(out_unicast), 15U);
    EXPECT_FALSE(r.take()); // once
    EXPECT_EQ(r.memory.wanted_base(), base);
}

TEST(CounterMemory_take, restarts_add_up)
{
    Remembered r;
    for (std::uint64_t round = 1; round <= 3; ++round) {
        r.look.counters.link = {};
        EXPECT_TRUE(r.take());
        r.look.counters.link.rx_packets = 500;
        r.look.counters.link.rx_bytes = 10;
        EXPECT_FALSE(r.take());
        EXPECT_EQ(r.exported(in_unicast), 500 * (round + 1));
    }
}

TEST(CounterMemory_take, each_traffic_counter_tells_a_restart)
{
    for (std::size_t i = 0; i < link_totals; ++i) {
        Remembered r;
        --(r.look.counters.link.*link_counters[i]);
        EXPECT_TRUE(r.take()) << i;
        EXPECT_EQ(r.memory.wanted_base()[in_errors], 3U) << i;
    }
}

TEST(CounterMemory_take, another_counter_that_falls_has_started_again_alone)
{
    Remembered r;
    r.look.counters.link.rx_errors = 1;
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.memory.wanted_base()[in_errors], 3U);
    EXPECT_EQ(r.memory.wanted_base()[in_unicast], 0U);
    EXPECT_EQ(r.exported(in_errors), 4U);
}

TEST(CounterMemory_take, mac_counters_start_again_by_themselves)
{
    Remembered r;
    r.look.counters.mac = {.fcs_errors = 40, .alignment_errors = 5};
    r.memory = CounterMemory("eth0", r.look, {});
    r.look.counters.mac = {.fcs_errors = 1, .alignment_errors = 9};
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.exported(fcs_errors), 41U);
    EXPECT_EQ(r.exported(fcs_errors - 1), 14U); // alignment: all of the group started again
    EXPECT_EQ(r.exported(in_octets), 0x1'0000'0000U);
}

TEST(CounterMemory_take, mac_counters_outlive_a_restart_of_the_others)
{
    Remembered r;
    r.look.counters.mac.fcs_errors = 40;
    r.memory = CounterMemory("eth0", r.look, {});
    r.look.counters.link = {};
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.exported(fcs_errors), 40U);
    EXPECT_EQ(r.exported(in_unicast), 500U);
}

TEST(CounterMemory_take, a_derived_counter_that_falls_a_little_is_no_restart_and_is_not_exported_lower)
{
    Remembered r;
    r.look.counters.link.rx_packets += 1;
    r.look.counters.link.multicast = 5; // unicast falls from 500 to 496
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(in_unicast), 500U);
    r.look.counters.link.rx_packets += 10;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(in_unicast), 506U);
}

TEST(CounterMemory_take, a_wrap_of_the_exported_word_is_no_restart)
{
    Remembered r;
    r.look.counters.link.rx_packets = 0xFFFFFFF0;
    EXPECT_FALSE(r.take());
    r.look.counters.link.rx_packets = 0x1'0000'0010;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(in_unicast), 0x10U);
}

TEST(CounterMemory_take, another_device_of_software_has_certainly_started_again)
{
    Remembered r;
    r.look.origin = elsewhere;
    r.look.software = true;
    r.look.counters.link.rx_packets = 600; // more than ever before
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.exported(in_unicast), 1100U);
}

TEST(CounterMemory_take, hardware_that_counted_on_behind_a_new_device_goes_on)
{
    Remembered r;
    r.look.origin = elsewhere;
    r.look.counters.link.rx_packets = 600;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(in_unicast), 600U);
    EXPECT_EQ(r.memory.origin(), elsewhere);
}

TEST(CounterMemory_take, mac_counters_that_are_missing_for_a_while_keep_their_value)
{
    Remembered r;
    r.look.counters.mac = {.fcs_errors = 40, .rx_multicast = 100};
    r.memory = CounterMemory("eth0", r.look, {});
    r.look.counters.mac = {};
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(fcs_errors), 40U);
    EXPECT_EQ(r.exported(in_multicast), 100U);
    EXPECT_EQ(r.exported(in_unicast), 400U);
}

TEST(CounterMemory_take, mac_counters_that_appear_do_not_make_a_counter_jump)
{
    Remembered r;
    r.look.counters.link.multicast = 50;
    r.memory = CounterMemory("eth0", r.look, {});
    r.look.counters.mac = {.fcs_errors = 40, .rx_multicast = 100, .rx_broadcast = 30};
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.exported(fcs_errors), 2U);
    EXPECT_EQ(r.exported(in_multicast), 50U);
    EXPECT_EQ(r.exported(in_unicast), 450U);
    EXPECT_EQ(r.exported(in_broadcast), 30U); // was unknown
    *r.look.counters.mac.fcs_errors += 1;
    *r.look.counters.mac.rx_multicast += 7;
    r.look.counters.link.rx_packets += 17;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(fcs_errors), 3U);
    EXPECT_EQ(r.exported(in_multicast), 57U);
    EXPECT_EQ(r.exported(in_unicast), 460U);
}

TEST(CounterMemory_take, a_counter_that_a_new_device_lacks_becomes_unknown_and_goes_on_when_it_is_back)
{
    Remembered r;
    r.look.counters.mac.rx_broadcast = 30;
    r.memory = CounterMemory("eth0", r.look, {});
    r.look = {.origin = elsewhere, .software = true, .counters = {}};
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.memory.report()[in_broadcast], unknown);
    EXPECT_EQ(r.memory.wanted_base()[in_broadcast], unknown);
    r.look.counters.mac.rx_broadcast = 4;
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.exported(in_broadcast), 30U); // from when on the 4 count is not known
    *r.look.counters.mac.rx_broadcast += 2;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(in_broadcast), 32U);
}

TEST(CounterMemory_take, collisions_that_cannot_be_told_apart_are_unknown_without_a_base)
{
    Remembered r;
    EXPECT_EQ(r.exported(single_collisions), 0U);
    r.look.counters.link.collisions = 1;
    EXPECT_FALSE(r.take());
    EXPECT_EQ(r.exported(single_collisions), unknown);
    r.look.counters.link = {};
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.exported(single_collisions), 0U);
}

TEST(CounterMemory_take_farewell, takes_what_grew_and_no_counter_that_the_device_has_lost_already)
{
    Remembered r;
    rtnl_link_stats64 last = r.look.counters.link;
    last.rx_bytes = last.rx_packets = 0; // a veth device without its peer
    last.tx_packets += 5;
    r.memory.take_farewell(last);
    EXPECT_EQ(r.memory.wanted_base(), FieldWords{});
    EXPECT_EQ(r.exported(in_octets), 0x1'0000'0000U);
    EXPECT_EQ(r.exported(in_unicast), 500U);
    EXPECT_EQ(r.exported(out_octets), 7000U);
    EXPECT_EQ(r.exported(out_unicast), 12U);
}

TEST(CounterMemory_take_farewell, leaves_unicast_alone_where_the_mac_tells_it_from_the_rest)
{
    Remembered r;
    r.look.counters.mac = {.tx_broadcast = 0, .rx_multicast = 100};
    r.memory = CounterMemory("eth0", r.look, {});
    rtnl_link_stats64 last = r.look.counters.link;
    last.rx_packets += 50;
    last.tx_packets += 50;
    last.rx_bytes += 5000;
    r.memory.take_farewell(last);
    EXPECT_EQ(r.exported(in_unicast), 400U);
    EXPECT_EQ(r.exported(out_unicast), 7U);
    EXPECT_EQ(r.exported(in_octets), 0x1'0000'0000U + 5000);
}

TEST(CounterMemory_first_look, goes_on_with_the_daemons_base)
{
    FieldWords base = {};
    base[in_unicast] = 1000;
    base[in_errors] = unknown; // of a field that is known: not a number
    Remembered r(Remembered::busy(), base);
    EXPECT_EQ(r.memory.wanted_base()[in_unicast], 1000U);
    EXPECT_EQ(r.exported(in_unicast), 1500U);
    EXPECT_EQ(r.exported(in_errors), 3U);
}

TEST(CounterMemory_base, is_never_the_word_that_means_unknown)
{
    LinkCounters counters;
    counters.link.rx_bytes = 1;
    counters.link.rx_packets = unknown;
    Remembered r(counters);
    r.look.counters.link = {};
    EXPECT_TRUE(r.take());
    EXPECT_EQ(r.memory.wanted_base()[in_unicast], 0U); // 2^32: one more than was counted
    FieldWords base = {};
    base[in_errors] = unknown - 1;
    Remembered other({}, base);
    other.memory.raise_base(in_errors);
    EXPECT_EQ(other.memory.wanted_base()[in_errors], 0U);
}

TEST(CounterMemory_report, avoids_a_sum_that_means_unknown)
{
    FieldWords base = {};
    base[in_unicast] = unknown - 500;
    const Remembered r(Remembered::busy(), base);
    EXPECT_EQ(r.memory.report()[in_unicast], 499U);
    EXPECT_EQ(r.exported(in_unicast), unknown - 1);
}

TEST(CounterMemory_base_step, leads_from_one_base_to_the_other)
{
    struct Row {
        std::size_t field;
        std::uint64_t from, to;
        std::optional<std::uint64_t> step;
    };
    constexpr std::uint64_t all = ~std::uint64_t{0};
    for (const Row &row :
         {Row{in_unicast, 5, 5, 0}, Row{in_unicast, 5, 12, 7}, Row{in_unicast, 12, 5, 0xFFFFFFF9},
          Row{in_unicast, 5, unknown, unknown}, Row{in_unicast, unknown, 5, 6},
          Row{in_unicast, unknown, unknown, 0}, Row{in_unicast, 5, 4, std::nullopt},
          Row{in_unicast, unknown, unknown - 1, std::nullopt}, Row{in_octets, 5, 0, all - 4},
          Row{in_octets, 5, 4, std::nullopt}, Row{in_octets, 5, all, all}})
        EXPECT_EQ(base_step(counter_fields[row.field], row.from, row.to), row.step)
            << row.from << " to " << row.to;
}

} // namespace
} // namespace sampling
