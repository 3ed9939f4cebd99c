#include "counter_keeper.h"

#include "sampling_fakes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

namespace sampling
{
namespace
{

using namespace std::chrono_literals;

constexpr std::size_t in_octets = 0;
constexpr std::uint64_t boot = 1;
constexpr DaemonId first_daemon = 11;
constexpr DaemonId next_daemon = 12;

CounterLook look(IFINDEX ifindex, std::uint64_t octets, bool software = false)
{
    CounterLook look;
    look.origin = {.instance = boot, .ifindex = ifindex};
    look.software = software;
    look.counters.link.rx_bytes = octets;
    return look;
}

/// One instance of the service's half after the other, the daemon's half in a file.
struct Pair {
    Folder folder;
    LogLines log;
    std::map<IFINDEX, FieldWords> bases; ///< what the daemon has
    std::set<IFINDEX> interfaces{5, 6, 7};
    CounterOptions options = folder.counter_options();
    std::unique_ptr<CounterKeeper> keeper;
    Clock::time_point now{};

    Pair() { start(); }

    /// A new instance, connected.
    void start(DaemonId daemon = first_daemon)
    {
        keeper = std::make_unique<CounterKeeper>(
            log.log, options, [this](IFINDEX ifindex) { return interfaces.contains(ifindex); });
        keeper->connected(daemon);
    }

    bool ready(IFINDEX ifindex, const std::string &name = "eth0")
    {
        keeper->cache_outdated();
        return keeper->ready({.instance = boot, .ifindex = ifindex}, name, now);
    }

    /// A request for counters; nothing when it has to wait.
    std::optional<CounterKeeper::Settlement> ask(const CounterLook &seen, const std::string &name = "eth0")
    {
        if (!ready(seen.origin.ifindex, name))
            return std::nullopt;
        auto settlement = keeper->settle(name, seen);
        keeper->save();
        return settlement;
    }

    /// The daemon adds an update to its base and writes its file.
    void arrive(IFINDEX ifindex, const FieldWords &update)
    {
        accumulate(bases[ifindex], update);
        write_cache(options.cache_path, bases);
    }

    /// Octets that the daemon exports for this look, after as many updates as it takes; the number of them in `updates`.
    std::uint64_t exported(const CounterLook &seen, const std::string &name = "eth0")
    {
        for (updates = 0; updates < 3; ++updates) {
            const auto settlement = ask(seen, name);
            if (!settlement) {
                ADD_FAILURE() << "not ready";
                return 0;
            }
            if (!settlement->update)
                return settlement->report[in_octets] + bases[seen.origin.ifindex][in_octets];
            arrive(seen.origin.ifindex, *settlement->update);
        }
        ADD_FAILURE() << "updates without end";
        return 0;
    }
    int updates = 0;
};

TEST(CounterKeeper, a_restart_is_one_update_and_the_report_waits_until_the_daemon_has_it)
{
    Pair pair;
    EXPECT_EQ(pair.exported(look(5, 1000)), 1000U);
    EXPECT_EQ(pair.updates, 0);
    const auto settlement = pair.ask(look(5, 10));
    ASSERT_TRUE(settlement && settlement->update);
    EXPECT_EQ((*settlement->update)[in_octets], 1000U);
    EXPECT_FALSE(pair.ready(5));
    pair.now += 9s;
    EXPECT_FALSE(pair.ready(5));
    pair.arrive(5, *settlement->update);
    EXPECT_EQ(pair.exported(look(5, 12)), 1012U);
    EXPECT_EQ(pair.updates, 0);
}

TEST(CounterKeeper, other_interfaces_do_not_wait)
{
    Pair pair;
    pair.exported(look(5, 1000));
    ASSERT_TRUE(pair.ask(look(5, 10))->update);
    EXPECT_FALSE(pair.ready(5));
    EXPECT_TRUE(pair.ready(6, "eth1"));
}

TEST(CounterKeeper, a_restart_while_the_service_was_away_is_noticed)
{
    Pair pair;
    pair.exported(look(5, 1000));
    pair.start();
    EXPECT_EQ(pair.exported(look(5, 10)), 1010U);
    EXPECT_EQ(pair.updates, 1);
}

TEST(CounterKeeper, an_update_that_had_arrived_is_not_repeated_by_the_next_instance)
{
    Pair pair;
    pair.exported(look(5, 1000));
    const auto settlement = pair.ask(look(5, 10));
    pair.start();
    pair.arrive(5, *settlement->update); // was on its way
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 0);
}

TEST(CounterKeeper, the_next_instance_waits_for_an_update_that_may_be_on_its_way)
{
    Pair pair;
    pair.exported(look(5, 1000));
    const auto settlement = pair.ask(look(5, 10));
    pair.start();
    EXPECT_FALSE(pair.ready(5));
    pair.now += 9s;
    EXPECT_FALSE(pair.ready(5));
    pair.arrive(5, *settlement->update);
    EXPECT_TRUE(pair.ready(5));
}

TEST(CounterKeeper, an_update_that_was_never_sent_is_sent_by_the_next_instance)
{
    Pair pair;
    pair.exported(look(5, 1000));
    ASSERT_TRUE(pair.ask(look(5, 10))->update); // killed between the file and the socket
    pair.start();
    EXPECT_FALSE(pair.ready(5));
    pair.now += 10s;
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 1);
}

TEST(CounterKeeper, a_daemon_that_died_with_the_update_gets_it_again)
{
    Pair pair;
    pair.exported(look(5, 1000));
    ASSERT_TRUE(pair.ask(look(5, 10))->update);
    pair.keeper->connected(next_daemon);
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 1);
}

TEST(CounterKeeper, a_daemon_that_died_after_writing_the_update_does_not)
{
    Pair pair;
    pair.exported(look(5, 1000));
    pair.arrive(5, *pair.ask(look(5, 10))->update);
    pair.keeper->connected(next_daemon);
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 0);
}

TEST(CounterKeeper, a_daemon_that_lost_its_file_gets_everything)
{
    Pair pair;
    pair.exported(look(5, 1000));
    EXPECT_EQ(pair.exported(look(5, 10)), 1010U);
    std::filesystem::remove(pair.options.cache_path);
    pair.bases.clear();
    pair.start(next_daemon);
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 1);
}

TEST(CounterKeeper, the_same_daemon_is_trusted_whatever_its_file_says)
{
    Pair pair;
    pair.exported(look(5, 1000));
    EXPECT_EQ(pair.exported(look(5, 10)), 1010U);
    std::filesystem::remove(pair.options.cache_path); // it could not write it, say
    pair.start();
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 0);
}

TEST(CounterKeeper, an_unknown_daemon_is_judged_by_its_file)
{
    Pair pair;
    pair.start(0);
    pair.exported(look(5, 1000));
    EXPECT_EQ(pair.exported(look(5, 10)), 1010U);
    pair.start(0);
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 0);
    ASSERT_TRUE(pair.ask(look(5, 1))->update);
    EXPECT_FALSE(pair.ready(5)); // on one connection it is one daemon
}

TEST(CounterKeeper, a_daemon_that_never_shows_an_update_is_taken_to_have_it_with_a_warning)
{
    Pair pair;
    pair.exported(look(5, 1000));
    ASSERT_TRUE(pair.ask(look(5, 10))->update);
    EXPECT_FALSE(pair.ready(5));
    pair.now += 10s;
    const auto settlement = pair.ask(look(5, 20));
    ASSERT_TRUE(settlement);
    EXPECT_FALSE(settlement->update);
    EXPECT_EQ(settlement->report[in_octets], 20U);
    EXPECT_EQ(pair.log.containing("does not show an update, it counts as arrived"), 1U);
}

TEST(CounterKeeper, a_device_made_again_under_its_name_goes_on)
{
    for (const bool alive : {true, false}) { // whether the service saw the old one go
        Pair pair;
        pair.exported(look(5, 1000, true));
        if (alive) {
            const rtnl_link_stats64 farewell = {.rx_bytes = 1500};
            pair.keeper->depart({.instance = boot, .ifindex = 5}, &farewell);
        } else {
            pair.start();
        }
        pair.interfaces.erase(5);
        pair.bases.erase(5); // the daemon has forgotten it as well
        EXPECT_EQ(pair.exported(look(6, 2000, true)), alive ? 3500U : 3000U) << alive;
        EXPECT_EQ(pair.updates, 1);
        EXPECT_EQ(pair.exported(look(6, 2001, true)), alive ? 3501U : 3001U) << alive;
        EXPECT_EQ(pair.updates, 0);
    }
}

TEST(CounterKeeper, a_device_made_again_under_its_index_goes_on)
{
    Pair pair;
    pair.exported(look(5, 1000, true));
    EXPECT_EQ(pair.exported(look(5, 10, true)), 1010U); // the daemon has a base
    pair.keeper->depart({.instance = boot, .ifindex = 5}, nullptr);
    pair.bases.erase(5);
    write_cache(pair.options.cache_path, pair.bases);
    EXPECT_EQ(pair.exported(look(5, 3, true)), 1013U);
    EXPECT_EQ(pair.updates, 1);
}

TEST(CounterKeeper, after_a_boot_interfaces_are_known_by_name_and_indexes_by_nobody)
{
    Pair pair;
    pair.exported(look(5, 1000), "eth0");
    pair.exported(look(6, 7000), "eth1");
    EXPECT_EQ(pair.exported(look(5, 10), "eth0"), 1010U); // base of index 5: 1000
    pair.start(next_daemon);
    const auto rebooted = [](CounterLook seen) {
        seen.origin.instance = boot + 1;
        return seen;
    };
    const auto ask = [&](const CounterLook &seen, const std::string &name) {
        pair.keeper->cache_outdated();
        EXPECT_TRUE(pair.keeper->ready(seen.origin, name, pair.now));
        const auto settlement = pair.keeper->settle(name, seen);
        pair.keeper->save();
        if (settlement.update)
            pair.arrive(seen.origin.ifindex, *settlement.update);
        return settlement.update.has_value();
    };
    // the indexes have changed places
    EXPECT_TRUE(ask(rebooted(look(6, 1)), "eth0"));
    EXPECT_TRUE(ask(rebooted(look(5, 2)), "eth1"));
    EXPECT_EQ(pair.bases[6][in_octets], 1010U);
    EXPECT_EQ(pair.bases[5][in_octets], 7000U);
    EXPECT_TRUE(pair.keeper->ready({.instance = boot + 1, .ifindex = 6}, "eth0", pair.now));
}

TEST(CounterKeeper, a_new_name_on_an_old_index_does_not_inherit_the_base_of_another)
{
    Pair pair;
    pair.exported(look(5, 1000, true), "eth0");
    pair.exported(look(5, 10, true), "eth0"); // base 1000
    // the device went while nobody looked, and the daemon loads the base again
    pair.keeper->depart({.instance = boot, .ifindex = 5}, nullptr);
    pair.keeper->connected(next_daemon);
    EXPECT_EQ(pair.exported(look(5, 70, true), "dummy0"), 70U);
}

TEST(CounterKeeper, a_device_that_is_renamed_keeps_its_memory)
{
    Pair pair;
    pair.exported(look(5, 1000), "eth0");
    pair.exported(look(6, 5000), "eth1");
    // the two swap their names
    EXPECT_EQ(pair.exported(look(5, 1001), "eth1"), 1001U);
    EXPECT_EQ(pair.exported(look(6, 5001), "eth0"), 5001U);
    EXPECT_EQ(pair.exported(look(5, 1), "eth1"), 1002U);
    EXPECT_EQ(pair.exported(look(6, 1), "eth0"), 5002U);
}

TEST(CounterKeeper, what_bore_a_name_before_a_renamed_device_does_not_come_back)
{
    Pair pair;
    pair.exported(look(7, 9000, true), "eth1");
    pair.keeper->depart({.instance = boot, .ifindex = 7}, nullptr);
    pair.exported(look(5, 1000, true), "eth0");
    pair.exported(look(5, 1000, true), "eth1"); // renamed
    pair.keeper->depart({.instance = boot, .ifindex = 5}, nullptr);
    pair.start(next_daemon);
    pair.interfaces = {8};
    EXPECT_EQ(pair.exported(look(8, 1, true), "eth1"), 1001U);
}

TEST(CounterKeeper, an_interface_that_the_daemon_has_dropped_and_taken_again_gets_its_base_back)
{
    Pair pair;
    pair.exported(look(5, 1000));
    pair.exported(look(5, 10));
    pair.bases.clear();
    write_cache(pair.options.cache_path, pair.bases);
    pair.keeper->reconsider({.instance = boot, .ifindex = 5}, "eth0");
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
    EXPECT_EQ(pair.updates, 1);
}

TEST(CounterKeeper, the_doubt_outlives_the_service)
{
    Pair pair;
    pair.exported(look(5, 1000));
    pair.exported(look(5, 10));
    pair.keeper->reconsider({.instance = boot, .ifindex = 5}, "eth0");
    pair.bases.clear();
    write_cache(pair.options.cache_path, pair.bases);
    pair.start();
    EXPECT_EQ(pair.exported(look(5, 20)), 1020U);
}

TEST(CounterKeeper, a_base_dropped_while_an_update_was_on_its_way_is_given_again_in_the_end)
{
    Pair pair;
    pair.exported(look(5, 1000));
    pair.exported(look(5, 10));
    const auto settlement = pair.ask(look(5, 1));
    ASSERT_TRUE(settlement && settlement->update);
    pair.bases.clear();
    write_cache(pair.options.cache_path, pair.bases);
    pair.keeper->reconsider({.instance = boot, .ifindex = 5}, "eth0");
    EXPECT_FALSE(pair.ready(5));
    pair.now += 10s;
    EXPECT_EQ(pair.exported(look(5, 2)), 1012U);
}

TEST(CounterKeeper, a_base_that_would_have_to_be_lowered_by_one_stays)
{
    Pair pair;
    pair.exported(look(5, 1000));
    pair.exported(look(5, 10)); // base 1000
    pair.bases[5][in_octets] = 1001;
    write_cache(pair.options.cache_path, pair.bases);
    pair.keeper->connected(next_daemon);
    EXPECT_EQ(pair.exported(look(5, 20)), 1021U);
    EXPECT_EQ(pair.updates, 0);
    EXPECT_EQ(pair.exported(look(5, 1)), 1022U);
}

TEST(CounterKeeper, forgets_departed_interfaces_when_there_are_too_many)
{
    Pair pair;
    pair.options.most_remembered = 16;
    pair.start();
    pair.exported(look(5, 1000), "eth0");
    for (IFINDEX ifindex = 100; ifindex < 200; ++ifindex) {
        pair.exported(look(ifindex, 1, true), "dummy" + std::to_string(ifindex));
        pair.keeper->depart({.instance = boot, .ifindex = ifindex}, nullptr);
    }
    pair.start();
    EXPECT_EQ(pair.exported(look(5, 10), "eth0"), 1010U);
    LogLines log;
    EXPECT_LE(CounterStateFile(log.log, pair.options.state_path).load().size(), 16U);
}

TEST(CounterKeeper, forgets_no_interface_that_is_there)
{
    Pair pair;
    pair.options.most_remembered = 16;
    pair.start();
    for (IFINDEX ifindex = 100; ifindex < 116; ++ifindex) {
        pair.interfaces.insert(ifindex);
        pair.exported(look(ifindex, 1000), "eth" + std::to_string(ifindex));
    }
    pair.start(); // the new instance has not been asked for any of them
    pair.exported(look(5, 1), "eth5");
    for (IFINDEX ifindex = 100; ifindex < 116; ++ifindex)
        EXPECT_EQ(pair.exported(look(ifindex, 10), "eth" + std::to_string(ifindex)), 1010U) << ifindex;
}

TEST(DaemonCache_read, takes_the_first_of_equal_interfaces_and_whole_images_only)
{
    const Folder folder;
    const std::string path = folder.file("cache");
    FieldWords one = {};
    one[in_octets] = 1;
    FieldWords two = {};
    two[in_octets] = 2;
    write_cache(path, {{5, one}, {6, two}});
    std::ofstream(path, std::ios::binary | std::ios::app) << std::ifstream(path, std::ios::binary).rdbuf();
    DaemonCache cache(path);
    EXPECT_EQ(cache.base(5), FieldWords{});
    cache.read();
    EXPECT_EQ(cache.base(5), one);
    EXPECT_EQ(cache.base(6), two);
    EXPECT_EQ(cache.base(7), FieldWords{});
    std::filesystem::resize_file(path, 168 + 167);
    cache.read();
    EXPECT_EQ(cache.base(5), one);
    EXPECT_EQ(cache.base(6), FieldWords{});
    std::filesystem::remove(path);
    cache.read();
    EXPECT_EQ(cache.base(5), FieldWords{});
}

} // namespace
} // namespace sampling
