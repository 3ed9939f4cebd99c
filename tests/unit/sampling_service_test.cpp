#include "service.h"

#include "acl_frames.h"
#include "cli_temporary_directory.h"
#include "sampling_fakes.h"

#include "acl_list/acl_file.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sampling
{
namespace
{

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr IFINDEX loopback = 1; // the first interface of every namespace
constexpr IFINDEX nobody = 0x7FFFFFF0;

struct Rig {
    EventLoop loop;
    LogLines log;
    LinkTable links{loop, log.log};
    FakeCounters counters;
    FakeBackend *backend = nullptr;
    SocketPair pair;
    Folder folder;
    CounterOptions counter_options = options_of(folder);
    TemporaryDirectory acls;
    Service service{loop,
                    log.log,
                    links,
                    counters,
                    counter_options,
                    "/nonexistent/socket",
                    acls.path(),
                    [this](SampleSink &) {
                        auto made = std::make_unique<FakeBackend>();
                        backend = made.get();
                        return made;
                    }};

    Rig() { service.adopt(std::move(pair.service)); }

    /// Looks for confirmations in every round of the loop.
    static CounterOptions options_of(const Folder &folder)
    {
        CounterOptions options = folder.counter_options();
        options.pause = Clock::duration::zero();
        return options;
    }

    void publish(std::int32_t id, std::uint64_t version = 1) const
    {
        acl::List list = list_of(acl::Family::ipv4, {{.action = acl::Action::permit}}, id);
        list.version = version;
        ASSERT_EQ(acl::publish_list(acls.path(), list), "");
    }

    template <typename Record>
    void send(const Record &record)
    {
        pair.send(bytes_of(record));
        settle(loop);
    }

    void send_head(std::uint32_t type) { send(head_of<sflow_msg_head_t>(type)); }

    std::vector<ReceivedRecord> received() const { return receive_all(pair); }

    std::int32_t set(const sflow_spl_t &request)
    {
        send(request);
        const auto records = received();
        EXPECT_EQ(records.size(), 1U);
        return records.empty() ? -1 : records[0].as<sflow_spl_ret_t>().ret;
    }

    void ask_counters(IFINDEX ifx)
    {
        send(sflow_counter_t{.head = head_of<sflow_counter_t>(257), .ifx = ifx, .ifx_type = 1});
    }

    void debug(std::int32_t type, std::int32_t flag)
    {
        send(sflow_debug_t{.head = head_of<sflow_debug_t>(8193), .type = type, .flag = flag});
    }
};

TEST(Service_connect_notice, is_answered_with_the_request_and_then_the_capacity)
{
    Rig rig;
    rig.send_head(4100);
    const auto records = rig.received();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].type, 4099U);
    EXPECT_EQ(records[0].bytes.size(), 8U);
    EXPECT_EQ(records[1].type, 1281U);
    EXPECT_EQ(records[1].as<sflow_hardware_capacity_t>().sflow_intf_support, 0x2AU);
}

TEST(Service_set_sampling, every_request_gets_one_answer_in_order)
{
    Rig rig;
    std::vector<std::byte> packet;
    for (std::int32_t rate = 1; rate <= 7; ++rate) {
        const sflow_spl_t request = setting(loopback, rate, rate % 2 == 0 ? SFLOW_EGRESS : SFLOW_INGRESS);
        const Bytes bytes = bytes_of(request);
        packet.insert(packet.end(), bytes.begin(), bytes.end());
    }
    rig.pair.send(packet);
    settle(rig.loop);
    const auto records = rig.received();
    ASSERT_EQ(records.size(), 7U);
    for (std::int32_t rate = 1; rate <= 7; ++rate) {
        const auto answer = records[static_cast<std::size_t>(rate - 1)].as<sflow_spl_ret_t>();
        EXPECT_EQ(answer.rate, rate);
        EXPECT_EQ(answer.ret, 0);
    }
}

TEST(Service_set_sampling, refusals_carry_their_code_and_are_logged)
{
    Rig rig;
    rig.backend->refusals[{.ifindex = nobody, .hook = Hook::ingress}] = Answer::no_interface;
    EXPECT_EQ(rig.set(setting(nobody, 16, SFLOW_INGRESS)), -20);
    EXPECT_EQ(rig.log.containing("no such interface"), 1U);
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_EGRESS, 0, 2)), -21);
    EXPECT_EQ(rig.log.containing("cannot be limited to an access list"), 1U);
    EXPECT_EQ(rig.set(setting(loopback, 16, 3)), -23);
    EXPECT_EQ(rig.log.containing("makes no sense"), 1U);
}

TEST(Service_set_sampling, each_fault_of_a_list_has_its_code_and_its_line)
{
    Rig rig;
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 5)), -26);
    EXPECT_EQ(rig.log.containing("limited to access list 5 \"\": the access list is not published"), 1U);
    std::filesystem::create_directory(acl::file_of(rig.acls.path(), 6));
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 6)), -27);
    std::ofstream(acl::file_of(rig.acls.path(), 7)) << "garbage";
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 7)), -28);
    rig.publish(8);
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 8, "web")), -29);
    rig.backend->refuse_acls = true;
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 8)), -30);
    rig.backend->refuse_acls = false;
    rig.publish(9);
    rig.publish(10);
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 8)), 0);
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 9)), 0);
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 10)), -31);
    EXPECT_THAT(rig.backend->calls, Not(Contains("start 1 ingress 16/64")));
}

TEST(Service_set_sampling, a_restart_never_samples_more_than_the_list)
{
    // What the daemon sends after a change of rate: stops of both places, then their starts, an empty place as plain
    // sampling.
    struct Row {
        const char *name;
        std::array<std::int32_t, 2> places;
        bool withdrawn;
        std::vector<std::int32_t> answers; ///< to the two starts
    };
    const Row rows[] = {
        {"the list first", {5, 0}, false, {0, 0}},
        {"the list second", {0, 5}, false, {0, 0}},
        {"two lists", {5, 6}, false, {0, 0}},
        {"the list first, withdrawn", {5, 0}, true, {-26, -26}},
        {"the list second, withdrawn", {0, 5}, true, {-26, -26}},
        {"two lists, one withdrawn", {5, 6}, true, {-26, 0}},
    };
    for (const Row &row : rows) {
        Rig rig;
        rig.publish(5);
        rig.publish(6);
        for (const std::int32_t acl : row.places) {
            if (acl != 0)
                ASSERT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, acl)), 0) << row.name;
        }
        if (row.withdrawn)
            ASSERT_EQ(acl::withdraw_list(rig.acls.path(), 5), "");
        settle(rig.loop);
        rig.backend->take_calls();
        for (const std::int32_t rate : {0, 32}) {
            for (const std::int32_t acl : row.places)
                rig.pair.send(bytes_of(setting(loopback, rate, SFLOW_INGRESS, 0, acl)));
        }
        settle(rig.loop);
        const auto records = rig.received();
        ASSERT_EQ(records.size(), 4U) << row.name;
        for (std::size_t i = 0; i < 4; ++i) {
            const auto answer = records[i].as<sflow_spl_ret_t>();
            EXPECT_EQ(answer.rate, i < 2 ? 0 : 32) << row.name;
            EXPECT_EQ(answer.acl_id, row.places[i % 2]) << row.name;
            EXPECT_EQ(answer.ret, i < 2 ? 0 : row.answers[i - 2]) << row.name;
        }
        EXPECT_THAT(rig.backend->calls, Not(Contains("start 1 ingress 32/64"))) << row.name;
        const auto samplers = rig.service.samplers().rows();
        ASSERT_EQ(samplers.size(), 1U) << row.name;
        EXPECT_EQ(samplers[0].on, row.answers.back() == 0) << row.name;
    }
}

TEST(Service_set_sampling, egress_has_no_places_for_lists_and_waits_for_none)
{
    Rig rig;
    EXPECT_EQ(rig.set(setting(loopback, 0, SFLOW_EGRESS, 0, 5)), 0);
    EXPECT_EQ(rig.set(setting(loopback, 0, SFLOW_EGRESS)), 0);
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_EGRESS)), 0);
}

TEST(Service_set_sampling, a_list_published_anew_reaches_the_running_sampler)
{
    Rig rig;
    rig.publish(5);
    ASSERT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS, 0, 5)), 0);
    rig.backend->take_calls();
    rig.publish(5, 2);
    settle(rig.loop);
    EXPECT_THAT(rig.backend->calls, ElementsAre("install 5 version 2"));
    EXPECT_THAT(rig.received(), IsEmpty());
}

TEST(Service_attach_collector, is_answered_with_517)
{
    Rig rig;
    struct Row {
        IFINDEX ifx;
        std::int32_t flag, cid, ret;
    };
    for (const Row &row :
         {Row{loopback, 1, 2, 0}, Row{loopback, 2, 1, 0}, Row{loopback, 3, 1, -23}, Row{nobody, 1, 1, -20}}) {
        rig.send(sflow_ifx_is_conf_t{
            .head = head_of<sflow_ifx_is_conf_t>(261), .ifx = row.ifx, .flag = row.flag, .cid = row.cid});
        const auto records = rig.received();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].type, 517U);
        const auto answer = records[0].as<sflow_ifx_is_conf_ret_t>();
        EXPECT_EQ(answer.ifx, row.ifx);
        EXPECT_EQ(answer.flag, row.flag);
        EXPECT_EQ(answer.cid, row.cid);
        EXPECT_EQ(answer.ret, row.ret);
    }
}

TEST(Service_config_start, drops_the_settings_of_before)
{
    Rig rig;
    ASSERT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS)), 0);
    rig.backend->take_calls();
    rig.send_head(4097);
    EXPECT_THAT(rig.backend->take_calls(), ElementsAre("pause 1 ingress"));
    rig.send_head(4098);
    EXPECT_EQ(rig.log.containing("configuration complete"), 1U);
}

TEST(Service_connect_notice, settings_left_over_from_an_earlier_connection_do_no_harm)
{
    Rig rig;
    rig.send(setting(loopback, 16, SFLOW_INGRESS)); // before the connect notice
    rig.send_head(4100);
    rig.send_head(4097);
    rig.send_head(4098);
    std::vector<std::uint32_t> types;
    for (const auto &record : rig.received())
        types.push_back(record.type);
    EXPECT_THAT(types, ElementsAre(514, 4099, 1281));
    ASSERT_EQ(rig.service.samplers().rows().size(), 1U);
    EXPECT_FALSE(rig.service.samplers().rows()[0].on);
}

TEST(Service_header_len, reaches_the_samplers_and_is_clamped_with_a_warning)
{
    Rig rig;
    ASSERT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS)), 0);
    rig.backend->take_calls();
    rig.send(sflow_sample_header_len_t{.head = head_of<sflow_sample_header_len_t>(262), .header_len = 128});
    EXPECT_THAT(rig.backend->take_calls(), ElementsAre("start 1 ingress 16/128"));
    rig.send(sflow_sample_header_len_t{.head = head_of<sflow_sample_header_len_t>(262), .header_len = 1000});
    EXPECT_THAT(rig.backend->take_calls(), ElementsAre("start 1 ingress 16/256"));
    EXPECT_EQ(rig.log.containing("out of range"), 1U);
    EXPECT_THAT(rig.received(), IsEmpty());
}

TEST(Service_get_counter, is_answered_with_the_interfaces_counters)
{
    Rig rig;
    rig.counters.links[loopback].rx_bytes = 0x1'2345'6789;
    rig.ask_counters(loopback);
    const auto records = rig.received();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].type, 513U);
    const auto report = records[0].as<sflow_counter_ret_t>();
    EXPECT_EQ(report.ifx, loopback);
    EXPECT_EQ(report.ifx_type, 1);
    EXPECT_EQ(report.generic.ifIndex, loopback);
    EXPECT_EQ(report.generic.ifInOctets, 0x1'2345'6789U);
}

TEST(Service_get_counter, an_unknown_interface_gets_no_answer)
{
    Rig rig;
    rig.ask_counters(nobody);
    EXPECT_THAT(rig.received(), IsEmpty());
}

TEST(Service_get_counter, a_burst_is_served_from_one_read_and_in_order)
{
    Rig rig;
    constexpr IFINDEX burst = 1000;
    std::vector<std::byte> packet;
    for (IFINDEX ifx = 1; ifx <= burst; ++ifx) {
        rig.counters.links[ifx].tx_bytes = ifx;
        const sflow_counter_t request = {.head = head_of<sflow_counter_t>(257), .ifx = ifx, .ifx_type = 1};
        const Bytes bytes = bytes_of(request);
        packet.insert(packet.end(), bytes.begin(), bytes.end());
        if (packet.size() > 900) {
            rig.pair.send(packet);
            packet.clear();
        }
    }
    rig.pair.send(packet);
    std::vector<ReceivedRecord> records;
    for (int i = 0; i < 20; ++i) {
        settle(rig.loop);
        for (auto &record : rig.received())
            records.push_back(std::move(record));
    }
    ASSERT_EQ(records.size(), burst);
    for (IFINDEX ifx = 1; ifx <= burst; ++ifx)
        ASSERT_EQ(records[ifx - 1].as<sflow_counter_ret_t>().generic.ifOutOctets, ifx);
    EXPECT_EQ(rig.counters.single_reads, 0);
    EXPECT_LE(rig.counters.bulk_reads, 3);
}

TEST(Service_get_counter, a_burst_is_answered_in_slices_so_that_samples_pass_between)
{
    Rig rig;
    for (IFINDEX ifx = 1; ifx <= 62; ++ifx)
        rig.counters.links[ifx] = {};
    std::vector<std::byte> packet;
    for (IFINDEX ifx = 1; ifx <= 62; ++ifx) {
        const sflow_counter_t request = {.head = head_of<sflow_counter_t>(257), .ifx = ifx, .ifx_type = 1};
        const Bytes bytes = bytes_of(request);
        packet.insert(packet.end(), bytes.begin(), bytes.end());
    }
    rig.pair.send(packet);
    rig.loop.run_once(Clock::duration::zero()); // reads, and answers one slice
    rig.loop.run_once(Clock::duration::zero()); // sends it, and answers the next
    EXPECT_EQ(rig.received().size(), CounterServer::slice);
}

TEST(Service_get_counter, restarted_counters_send_the_lost_part_and_answer_when_the_daemon_has_it)
{
    Rig rig;
    rig.counters.links[loopback].rx_bytes = 5000;
    rig.counters.links[loopback].rx_packets = 50;
    rig.ask_counters(loopback);
    ASSERT_EQ(rig.received().size(), 1U);
    rig.counters.links[loopback] = {};
    rig.counters.links[loopback].rx_bytes = 100;
    rig.ask_counters(loopback);
    auto records = rig.received();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].type, 516U);
    EXPECT_EQ(rig.log.containing("interface lo: counters: the daemon lacks"), 1U);
    const auto update = records[0].as<sflow_counter_ret_t>();
    EXPECT_EQ(update.ifx, loopback);
    EXPECT_EQ(update.ifx_type, 1);
    EXPECT_EQ(update.generic.ifIndex, loopback);
    EXPECT_EQ(update.generic.ifInOctets, 5000U);
    EXPECT_EQ(update.generic.ifInUcastPkts, 50U);
    EXPECT_EQ(update.generic.ifStatus + update.generic.ifType + update.generic.ifPromiscuousMode, 0U);
    settle(rig.loop);
    EXPECT_THAT(rig.received(), IsEmpty());
    write_cache(rig.counter_options.cache_path, {{loopback, words_of(update)}});
    settle(rig.loop);
    records = rig.received();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].type, 513U);
    EXPECT_EQ(records[0].as<sflow_counter_ret_t>().generic.ifInOctets, 100U);
}

TEST(Service_get_counter, an_update_is_on_record_before_it_leaves)
{
    Rig rig;
    rig.counters.links[loopback].rx_bytes = 5000;
    rig.ask_counters(loopback);
    rig.counters.links[loopback] = {};
    rig.send(sflow_counter_t{.head = head_of<sflow_counter_t>(257), .ifx = loopback, .ifx_type = 1});
    // what stands in the file at the first moment at which the update could have left
    CounterStateFile file(rig.log.log, rig.counter_options.state_path);
    const auto slots = file.load();
    ASSERT_EQ(slots.size(), 1U);
    EXPECT_FALSE(slots.begin()->second.confirmed);
    EXPECT_EQ(slots.begin()->second.memory.wanted_base()[0], 5000U);
}

TEST(Service_get_counter, other_interfaces_are_answered_while_one_waits)
{
    Rig rig;
    constexpr IFINDEX other = 77;
    rig.counters.links[loopback].rx_bytes = 5000;
    rig.counters.links[other] = {};
    rig.ask_counters(loopback);
    rig.counters.links[loopback] = {};
    rig.ask_counters(loopback);
    ASSERT_EQ(rig.received().size(), 2U);
    rig.ask_counters(loopback);
    rig.ask_counters(other);
    const auto records = rig.received();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].as<sflow_counter_ret_t>().ifx, other);
}

TEST(Service_get_counter, what_waits_is_dropped_with_its_connection)
{
    Rig rig;
    rig.counters.links[loopback].rx_bytes = 5000;
    rig.ask_counters(loopback);
    rig.counters.links[loopback] = {};
    rig.ask_counters(loopback);
    rig.pair.daemon.reset();
    settle(rig.loop);
    SocketPair next;
    rig.service.adopt(std::move(next.service));
    settle(rig.loop);
    EXPECT_THAT(receive_all(next), IsEmpty());
}

TEST(Service_attach_collector, of_counters_has_the_daemons_base_looked_up_again)
{
    Rig rig;
    rig.counters.links[loopback].rx_bytes = 5000;
    rig.ask_counters(loopback);
    EXPECT_EQ(rig.received().size(), 1U);
    FieldWords stray = {};
    stray[0] = 7; // the daemon's base is not what it was
    write_cache(rig.counter_options.cache_path, {{loopback, stray}});
    rig.ask_counters(loopback);
    EXPECT_EQ(rig.received()[0].type, 513U);
    for (const std::int32_t flag : {SFLOW_CONF_FLAG_FLOW, SFLOW_CONF_FLAG_COUNTER}) {
        rig.send(sflow_ifx_is_conf_t{
            .head = head_of<sflow_ifx_is_conf_t>(261), .ifx = loopback, .flag = flag, .cid = 1});
        EXPECT_EQ(rig.received().size(), 1U);
        rig.ask_counters(loopback);
        const auto records = rig.received();
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].type, flag == SFLOW_CONF_FLAG_COUNTER ? 516U : 513U);
    }
}

TEST(Service_records, unknown_types_and_wrong_lengths_are_logged_once_and_skipped)
{
    Rig rig;
    for (int i = 0; i < 3; ++i) {
        rig.send_head(999);
        rig.send_head(258); // far too short for a setting
        std::vector<std::byte> longer(133);
        const sflow_msg_head_t head = {.type = 258, .len = 133};
        std::memcpy(longer.data(), &head, sizeof(head));
        rig.pair.send(longer);
        settle(rig.loop);
    }
    rig.send_head(514); // a type of our own direction
    EXPECT_EQ(rig.log.containing("record of type 999"), 1U);
    EXPECT_EQ(rig.log.containing("record of type 258"), 1U);
    EXPECT_EQ(rig.log.containing("record of type 514"), 1U);
    EXPECT_THAT(rig.received(), IsEmpty());
    EXPECT_THAT(rig.backend->calls, IsEmpty());
    EXPECT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS)), 0); // still serving
}

TEST(Service_disconnect, removes_every_sampler_at_once)
{
    Rig rig;
    ASSERT_EQ(rig.set(setting(loopback, 16, SFLOW_INGRESS)), 0);
    ASSERT_EQ(rig.set(setting(loopback, 16, SFLOW_EGRESS)), 0);
    rig.backend->take_calls();
    rig.pair.daemon.reset();
    settle(rig.loop);
    EXPECT_THAT(rig.backend->calls, ElementsAre("remove 1 ingress", "remove 1 egress"));
    EXPECT_THAT(rig.service.samplers().rows(), IsEmpty());
    EXPECT_EQ(rig.backend->resumed, 1);
}

TEST(Service_take, samples_go_out_when_the_backend_is_drained)
{
    Rig rig;
    const std::array<std::uint8_t, 60> frame = {};
    Sample sample;
    sample.sampler = {.ifindex = loopback, .hook = Hook::ingress};
    sample.input = loopback;
    sample.frame_len = 60;
    sample.header_len = 64;
    sample.header = frame;
    EXPECT_TRUE(rig.service.take(sample));
    EXPECT_THAT(rig.received(), IsEmpty());
    rig.service.drained();
    const auto records = rig.received();
    ASSERT_EQ(records.size(), 1U);
    const auto flow = records[0].as<sflow_flow_spl_t>();
    EXPECT_EQ(flow.info.source_id, loopback);
    EXPECT_EQ(flow.buf_len, 60);
}

TEST(Service_take, without_a_daemon_samples_are_swallowed)
{
    Rig rig;
    rig.pair.daemon.reset();
    settle(rig.loop);
    const std::array<std::uint8_t, 60> frame = {};
    Sample sample;
    sample.header = frame;
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(rig.service.take(sample));
    rig.service.drained();
}

TEST(Service_debug, shows_the_commands)
{
    Rig rig;
    rig.debug(SFLOW_DEBUG_SHOW_CMD, 0);
    for (const char *line :
         {"command 257: get counter, 16 bytes", "command 258: set sampling rate, 132 bytes",
          "command 261: attach collector, 20 bytes", "command 262: sample header length, 12 bytes",
          "command 4097: configuration start, 8 bytes", "command 4098: configuration end, 8 bytes",
          "command 4100: connect notice, 8 bytes", "command 8193: debug, 16 bytes"})
        EXPECT_EQ(rig.log.containing(line), 1U) << line;
}

TEST(Service_debug, shows_samplers_with_their_totals)
{
    Rig rig;
    ASSERT_EQ(rig.set(setting(loopback, 4096, SFLOW_EGRESS)), 0);
    rig.debug(SFLOW_DEBUG_SHOW_INFO, 0);
    EXPECT_EQ(
        rig.log.containing("sampler lo egress: on, rate 4096, header 64, pool 1000, taken 100, dropped 7"),
        1U);
}

TEST(Service_debug, trace_shows_records_in_both_directions_until_it_is_switched_off)
{
    Rig rig;
    rig.debug(SFLOW_DEBUG_SWITCH, 1);
    rig.send_head(4100);
    EXPECT_EQ(rig.log.containing("trace: received connect notice (4100), 8 bytes"), 1U);
    EXPECT_EQ(rig.log.containing("trace: sent configuration request (4099), 8 bytes"), 1U);
    EXPECT_EQ(rig.log.containing("trace: sent capacity (1281), 12 bytes"), 1U);
    rig.debug(SFLOW_DEBUG_SWITCH, 0);
    rig.send_head(4100);
    EXPECT_EQ(rig.log.containing("trace: received connect notice"), 1U);
}

TEST(Service_debug, an_unknown_request_is_logged)
{
    Rig rig;
    rig.debug(4, 0);
    EXPECT_EQ(rig.log.containing("debug request 4: unknown"), 1U);
}

} // namespace
} // namespace sampling
