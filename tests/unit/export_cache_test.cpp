// Counter cache: its index, and the file it is saved to and loaded from.
#include "export_cache.h"

#include <cerrno>

using namespace export_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

using Poller_get_counter = Caching;
using Poller_save_counter = Caching;
using Poller_counter_init = Caching;
using Poller_del_counter = Caching;

} // namespace

// ---- Index ------------------------------------------------------------------------------------------------

TEST_F(Poller_get_counter, finds_what_was_added_and_nothing_else)
{
    sflow_counter_node_t *five = add(5);
    sflow_counter_node_t *two = add(2);
    EXPECT_EQ(cached(5), five);
    EXPECT_EQ(cached(2), two);
    EXPECT_EQ(cached(3), nullptr);
    EXPECT_THAT(listed(), ElementsAre(5, 2)) << "in order of insertion";
    EXPECT_EQ(five->generic.ifInOctets, 0U);
}

TEST_F(Poller_get_counter, finds_nothing_that_was_removed)
{
    add(5);
    add(2);
    del(cached(5));
    EXPECT_EQ(cached(5), nullptr);
    EXPECT_THAT(listed(), ElementsAre(2));
    EXPECT_NE(add(5), nullptr);
    EXPECT_THAT(listed(), ElementsAre(2, 5));
}

TEST_F(Poller_get_counter, is_kept_right_at_ten_thousand_interfaces)
{
    for (IFINDEX ifx = 1; ifx <= 10000; ifx++)
        ASSERT_NE(add(ifx * 1024), nullptr);
    sflow_config_wrlock();
    for (IFINDEX ifx = 1; ifx <= 10000; ifx += 2)
        sflow_poller_free_counter(sflow_poller_get_counter(ifx * 1024));
    sflow_config_wrunlock();
    for (IFINDEX ifx = 1; ifx <= 10000; ifx++) {
        const sflow_counter_node_t *node = cached(ifx * 1024);
        ASSERT_EQ(node == nullptr, ifx % 2 == 1) << ifx;
        if (node != nullptr)
            ASSERT_EQ(node->ifx, ifx * 1024);
    }
}

// ---- Saving -----------------------------------------------------------------------------------------------

TEST_F(Poller_save_counter, golden_file)
{
    sflow_counter_node_t *node = add(0x01020304);
    node->generic = {.ifIndex = 0,
                     .ifType = 0,
                     .ifSpeed = 0,
                     .ifDirection = 0,
                     .ifStatus = 0,
                     .ifInOctets = 0x1122334455667788,
                     .ifInUcastPkts = 1,
                     .ifInMulticastPkts = 2,
                     .ifInBroadcastPkts = 3,
                     .ifInDiscards = 4,
                     .ifInErrors = 5,
                     .ifInUnknownProtos = 6,
                     .ifOutOctets = 7,
                     .ifOutUcastPkts = 8,
                     .ifOutMulticastPkts = 9,
                     .ifOutBroadcastPkts = 10,
                     .ifOutDiscards = 11,
                     .ifOutErrors = 12,
                     .ifPromiscuousMode = 0};
    for (std::uint32_t i = 0; i < 13; i++) {
        const std::uint32_t value = 0x20 + i;
        std::memcpy(reinterpret_cast<char *>(&node->ether) + 4 * i, &value, sizeof(value));
    }
    add(9);
    save();
    const std::vector<std::uint8_t> bytes = file();
    ASSERT_EQ(bytes.size(), 2 * IMAGE);
    const Field fields[] = {
        {"links", "0000000000000000 0000000000000000"},
        {"ifx", "04030201"},
        {"padding", "00000000"},
        {"ifIndex", "00000000"},
        {"ifType", "00000000"},
        {"ifSpeed", "0000000000000000"},
        {"ifDirection", "00000000"},
        {"ifStatus", "00000000"},
        {"ifInOctets", "8877665544332211"},
        {"ifInUcastPkts", "01000000"},
        {"ifInMulticastPkts", "02000000"},
        {"ifInBroadcastPkts", "03000000"},
        {"ifInDiscards", "04000000"},
        {"ifInErrors", "05000000"},
        {"ifInUnknownProtos", "06000000"},
        {"ifOutOctets", "0700000000000000"},
        {"ifOutUcastPkts", "08000000"},
        {"ifOutMulticastPkts", "09000000"},
        {"ifOutBroadcastPkts", "0a000000"},
        {"ifOutDiscards", "0b000000"},
        {"ifOutErrors", "0c000000"},
        {"ifPromiscuousMode", "00000000"},
        {"dot3StatsAlignmentErrors", "20000000"},
        {"dot3StatsFCSErrors", "21000000"},
        {"dot3StatsSingleCollisionFrames", "22000000"},
        {"dot3StatsMultipleCollisionFrames", "23000000"},
        {"dot3StatsSQETestErrors", "24000000"},
        {"dot3StatsDeferredTransmissions", "25000000"},
        {"dot3StatsLateCollisions", "26000000"},
        {"dot3StatsExcessiveCollisions", "27000000"},
        {"dot3StatsInternalMacTransmitErrors", "28000000"},
        {"dot3StatsCarrierSenseErrors", "29000000"},
        {"dot3StatsFrameTooLongs", "2a000000"},
        {"dot3StatsInternalMacReceiveErrors", "2b000000"},
        {"dot3StatsSymbolErrors", "2c000000"},
        {"padding", "00000000"},
    };
    expect_datagram({bytes.begin(), bytes.begin() + IMAGE}, fields);
}

TEST_F(Poller_save_counter, logs_each_image)
{
    sflow_counter_node_t *node = add(7);
    node->ether.dot3StatsAlignmentErrors = 1;
    node->ether.dot3StatsFCSErrors = 2;
    node->ether.dot3StatsSingleCollisionFrames = 3;
    node->generic.ifInUcastPkts = 4;
    node->generic.ifInMulticastPkts = 5;
    node->generic.ifInBroadcastPkts = 6;
    save();
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-CONF]sflow_poller_save_counter : ifx(7) ether 1, 2, 3, generic 4, 5, 6.\n",
                    "[SFLOW-CONF]sflow_poller_save_counter write ok\n"));
}

TEST_F(Poller_save_counter, replaces_what_was_there_with_the_cache_in_list_order)
{
    write_file(std::vector<std::uint8_t>(1000, 0x55));
    add(5);
    add(2);
    save();
    EXPECT_EQ(file(), joined({image(5, 0, 0), image(2, 0, 0)}));
}

TEST_F(Poller_save_counter, of_an_empty_cache_is_an_empty_file_open_to_all)
{
    save();
    ASSERT_TRUE(std::filesystem::exists(path()));
    EXPECT_EQ(std::filesystem::file_size(path()), 0U);
    EXPECT_EQ(std::filesystem::status(path()).permissions() & std::filesystem::perms::owner_all,
              std::filesystem::perms::owner_all);
}

TEST_F(Poller_save_counter, short_write_ends_the_file_there)
{
    write_file(std::vector<std::uint8_t>(1000, 0x55));
    for (const IFINDEX ifx : {1U, 2U, 3U})
        add(ifx);
    // Neither the new file beside the old one nor the old one takes all of it.
    fail_call("write", 1, 0);
    fail_call("write", 2, 0);
    save();
    std::vector<std::uint8_t> want = images_of_the_cache();
    want.pop_back();
    EXPECT_EQ(file(), want);
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]sflow_poller_save_counter write fail\n");
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow_poller_save_counter write ok\n"), 2U);
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow_poller_save_counter write fail\n"), 1U);
}

TEST_F(Poller_save_counter, failed_write_stops_nothing_else)
{
    add(1);
    fail_call("write", 1, ENOSPC);
    fail_call("write", 2, ENOSPC);
    save();
    EXPECT_THAT(file(), IsEmpty());
    EXPECT_NE(cached(1), nullptr);
    save();
    EXPECT_EQ(file().size(), IMAGE);
}

TEST_F(Poller_save_counter, without_a_directory_logs_and_goes_on)
{
    add(1);
    std::filesystem::remove_all(path().parent_path());
    save();
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]creat file error\n"));
}

TEST_F(Poller_save_counter, without_tmpdir_does_nothing)
{
    add(1);
    world().tmp_dir.reset();
    save();
    EXPECT_FALSE(std::filesystem::exists(path()));
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(Poller_save_counter, leaves_no_descriptor_open)
{
    add(1);
    fail_call("write", 2, 0);
    for (int i = 0; i < 3; i++)
        save();
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    const auto open_files = [this] {
        int number = 0;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry, gone) == path())
                number++;
        }
        return number;
    };
    EXPECT_EQ(open_files(), 0);
}

TEST_F(Poller_save_counter, follows_every_update)
{
    sflow_msg_counter_t counters = {};
    counters.generic_counter.ifInErrors = 5;
    const sflow_msg_t event = {.list = {}, .ifx = 7, .type = SFLOW_MSG_UPDATE_COUNTER, .msg = &counters};
    sflow_poller_update_counter(&event);
    EXPECT_EQ(file(), image(7, 5, 0));
    sflow_poller_update_counter(&event);
    EXPECT_EQ(file(), image(7, 10, 0));
}

TEST_F(Poller_del_counter, rewrites_the_file)
{
    add(7);
    sflow_counter_node_t *node = add(8);
    save();
    del(node);
    EXPECT_EQ(file(), image(7, 0, 0));
}

// ---- Loading ----------------------------------------------------------------------------------------------

TEST_F(Poller_counter_init, brings_back_what_was_saved)
{
    for (const IFINDEX ifx : {5U, 2U}) {
        add(ifx)->generic.ifOutOctets = ifx * 0x100000000;
    }
    save();
    clear_world();
    ASSERT_THAT(listed(), IsEmpty());
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    EXPECT_THAT(listed(), ElementsAre(5, 2));
    EXPECT_EQ(cached(2)->generic.ifOutOctets, 0x200000000U);
    EXPECT_EQ(cached(5)->generic.ifOutOctets, 0x500000000U);
    EXPECT_TRUE(std::filesystem::exists(path()));
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Poller_counter_init, of_400_bytes_loads_two_nodes)
{
    std::vector<std::uint8_t> bytes = joined({image(7, 1), image(8, 2), image(9, 3)});
    bytes.resize(400);
    write_file(bytes);
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    EXPECT_THAT(listed(), ElementsAre(7, 8));
    EXPECT_EQ(cached(8)->generic.ifInErrors, 2U);
    EXPECT_EQ(cached(9), nullptr);
    EXPECT_THAT(world().debug, ElementsAre("sflow_poller.c: read file fail"));
}

TEST_F(Poller_counter_init, takes_every_length_of_a_cut_file)
{
    const std::vector<std::uint8_t> whole = joined({image(7), image(8)});
    for (std::size_t len = 0; len <= whole.size(); len++) {
        write_file({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(len)});
        EXPECT_EQ(sflow_poller_counter_init(), 0);
        EXPECT_EQ(listed().size(), len / IMAGE) << len;
        clear_world();
    }
}

TEST_F(Poller_counter_init, says_read_file_fail_at_the_normal_end_too)
{
    write_file(image(7));
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    EXPECT_THAT(world().debug, ElementsAre("sflow_poller.c: read file fail"));
}

TEST_F(Poller_counter_init, without_memory_keeps_what_it_has)
{
    const struct {
        const char *name;
        const char *call;
    } rows[] = {{"node", "calloc"}, {"index", "new"}};
    // The index and the path double have their memory from here on: what is left are the nodes.
    add(1);
    save();
    clear_world();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        write_file(joined({image(7), image(8)}));
        world().debug.clear();
        fail_call(row.call, 2, 0);
        EXPECT_EQ(sflow_poller_counter_init(), 0);
        EXPECT_THAT(listed(), ElementsAre(7));
        EXPECT_THAT(world().debug, ElementsAre("sflow_poller.c: malloc counter fail"));
        clear_world();
        reset_syscalls();
    }
}

TEST_F(Poller_counter_init, without_a_file_is_silent)
{
    EXPECT_EQ(sflow_poller_counter_init(), -1);
    EXPECT_THAT(world().debug, IsEmpty());
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(Poller_counter_init, without_tmpdir_loads_nothing_and_counting_goes_on)
{
    write_file(image(7));
    world().tmp_dir.reset();
    EXPECT_EQ(sflow_poller_counter_init(), -1);
    EXPECT_THAT(listed(), IsEmpty());

    sflow_msg_counter_t counters = {.generic_counter = {.ifInErrors = 5}, .ether_counter = {}};
    const sflow_msg_t event = {.list = {}, .ifx = 7, .type = SFLOW_MSG_UPDATE_COUNTER, .msg = &counters};
    sflow_poller_update_counter(&event);
    EXPECT_EQ(cached(7)->generic.ifInErrors, 5U);

    set_agent_address("192.0.2.1");
    set_collector(1, "198.51.100.9");
    add_interface(7, 1, 0);
    sflow_msg_counter_t report = {.generic_counter = {.ifInErrors = 3}, .ether_counter = {}};
    sflow_msg_t answer = {.list = {}, .ifx = 7, .type = SFLOW_MSG_GET_COUNTER_RSP, .msg = &report};
    EXPECT_EQ(sflow_poller_write_countersample(&answer), 0);
    flush();
    EXPECT_EQ(field(only_datagram(), 28 + 20 + 8 + 48), 8U) << "ifInErrors";
    EXPECT_EQ(file(), image(7)) << "the file that is not ours is untouched";
}

TEST_F(Poller_counter_init, keeps_an_interface_named_twice_and_finds_the_first)
{
    write_file(joined({image(7, 1), image(8, 2), image(7, 3)}));
    EXPECT_EQ(sflow_poller_counter_init(), 0);
    EXPECT_THAT(listed(), ElementsAre(7, 8, 7));
    EXPECT_EQ(cached(7)->generic.ifInErrors, 1U);
    del(cached(7));
    EXPECT_THAT(listed(), ElementsAre(8, 7));
    ASSERT_NE(cached(7), nullptr);
    EXPECT_EQ(cached(7)->generic.ifInErrors, 3U);
    del(cached(7));
    EXPECT_EQ(cached(7), nullptr);
}
