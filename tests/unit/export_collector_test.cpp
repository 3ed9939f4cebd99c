// Collector configuration: set, identity, query, maximum datagram size, deletion.
#include "export_fixture.h"

#include <cstring>
#include <thread>

using namespace export_test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{

class Collecting : public Export
{
protected:
    Collecting()
    {
        set_agent_address("192.0.2.1");
        set_collector(1, "198.51.100.9");
        port = add_interface(7, 1, 1);
        fake::forget_syslog();
        log_everything();
        sflow_debug_export = false;
    }

    void hold_samples(int number)
    {
        sflow_config_wrlock();
        for (int i = 0; i < number; i++)
            sflow_receiver_write_flowsample("abcd", 4, {.source_id = 7}, port);
        sflow_config_wrunlock();
    }
    static void set(std::uint32_t cid, const sfladdress_t &record, std::uint16_t udp_port)
    {
        sflow_config_wrlock();
        EXPECT_EQ(sflow_receiver_set_collector(cid, &record, udp_port), 0);
        sflow_config_wrunlock();
    }
    static void del(std::uint32_t cid, const sfladdress_t &record, std::uint16_t udp_port)
    {
        sflow_config_wrlock();
        sflow_receiver_del_collector(cid, &record, udp_port);
        sflow_config_wrunlock();
    }

    sflow_intf_config_t *port;
};

using Receiver_set_collector = Collecting;
using Receiver_del_collector = Collecting;
using Receiver_get_collector = Collecting;
using Receiver_set_max_datagramsize = Collecting;
using Receiver_vrf_no_exist_del_receiver = Collecting;
using Receiver_concurrency = Collecting;

} // namespace

// ---- Set --------------------------------------------------------------------------------------------------

TEST_F(Receiver_set_collector, first_time_enables_it_with_datagram_1)
{
    set(2, collector_record("198.51.100.10"), 9995);
    EXPECT_TRUE(sflow_is_enable_receiver(2));
    EXPECT_EQ(receiver(2)->collector_port, 9995);
    EXPECT_EQ(receiver(2)->seqno, 1U);
    EXPECT_EQ(receiver(2)->pktlen, 28U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]set collect 2 address type changed\n"));
}

TEST_F(Receiver_set_collector, change_of_family_flushes_and_closes_before_the_record_changes)
{
    hold_samples(1);
    flush();
    hold_samples(1);
    reset_syscalls();
    set(1, collector_record("2001:db8::9"), 6344);
    ASSERT_EQ(sent().size(), 1U);
    EXPECT_EQ(sent()[0].to, "198.51.100.9:6343");
    EXPECT_EQ(socket_calls().back(), "close");
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_EQ(receiver(1)->address.type, SFLOW_ADDRESS_TYPE_IPV6);
    EXPECT_EQ(receiver(1)->seqno, 1U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 0U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]set collect 1 address type changed\n",
                                                  "[SFLOW-CONF]set collect 1 enable before\n"));
}

TEST_F(Receiver_set_collector, change_of_vrf_flushes_and_closes)
{
    hold_samples(1);
    sfladdress_t record = collector_record("198.51.100.9");
    record.vrf_index = 4;
    set(1, record, 6343);
    EXPECT_EQ(sent().size(), 1U);
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_EQ(receiver(1)->address.vrf_index, 4);
}

TEST_F(Receiver_set_collector, change_within_family_and_vrf_drops_the_samples_but_announces_them)
{
    hold_samples(2);
    flush();
    hold_samples(2);
    reset_syscalls();
    sfladdress_t record = collector_record("198.51.100.77");
    record.mgmt_index = 5;
    set(1, record, 7000);
    EXPECT_THAT(socket_calls(), IsEmpty());
    EXPECT_NE(receiver(1)->sd, -1);
    EXPECT_EQ(receiver(1)->pktlen, 28U);
    EXPECT_EQ(receiver(1)->seqno, 1U);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());

    hold_samples(1);
    flush();
    const std::vector<std::uint8_t> datagram = only_datagram();
    EXPECT_EQ(sent()[0].to, "198.51.100.77:7000");
    EXPECT_EQ(datagram.size(), 132U) << "one sample is in it";
    EXPECT_EQ(field(datagram, 16), 1U) << "sequence number";
    EXPECT_EQ(field(datagram, 24), 3U) << "three are announced";
}

TEST_F(Receiver_set_collector, without_an_agent_address_leaves_the_buffer_as_it_is)
{
    hold_samples(1);
    std::memset(&sflow_agent.agent_ip, 0, sizeof(sflow_agent.agent_ip));
    set(1, collector_record("198.51.100.10"), 6343);
    EXPECT_EQ(receiver(1)->pktlen, 132U);
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
    EXPECT_TRUE(sflow_is_enable_receiver(1));
    receiver(1)->flow_sample_num = 0;
}

TEST_F(Receiver_set_collector, a_flush_that_finds_no_socket_does_not_keep_it_from_changing)
{
    hold_samples(1);
    fail_call("socket", 1, 24);
    set(1, collector_record("2001:db8::9"), 6343);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(receiver(1)->address.type, SFLOW_ADDRESS_TYPE_IPV6);
}

// ---- Identity ---------------------------------------------------------------------------------------------

TEST(Collector_addr_same, what_counts_depends_on_the_source_kind_asked_for)
{
    using Change = void (*)(sfladdress_t &);
    struct Row {
        const char *name;
        Change change;
        int with_address, with_interface, without;
    };
    const Row rows[] = {
        {"nothing", [](sfladdress_t &) {}, 1, 1, 1},
        {"type", [](sfladdress_t &r) { r.type = SFLOW_ADDRESS_TYPE_IPV6; }, 0, 0, 0},
        {"vrf_index", [](sfladdress_t &r) { r.vrf_index++; }, 0, 0, 0},
        {"mgmt_index", [](sfladdress_t &r) { r.mgmt_index++; }, 0, 0, 0},
        {"address", [](sfladdress_t &r) { r.address.ip_v6[0] ^= 1; }, 0, 0, 0},
        {"last byte of address", [](sfladdress_t &r) { r.address.ip_v6[16] ^= 1; }, 0, 0, 0},
        {"src_address", [](sfladdress_t &r) { r.src_address.ip_v6[3] ^= 1; }, 0, 1, 1},
        {"ifindex", [](sfladdress_t &r) { r.ifindex++; }, 0, 0, 1},
        {"desc", [](sfladdress_t &r) { r.desc[0] = 'x'; }, 0, 0, 0},
        {"last byte of desc", [](sfladdress_t &r) { r.desc[64] = 'x'; }, 0, 0, 0},
        {"padding", [](sfladdress_t &r) { reinterpret_cast<char *>(&r)[127] = 'x'; }, 0, 1, 1},
    };
    for (const Row &row : rows) {
        const std::pair<sflow_source_cfg_type_t, int> kinds[] = {
            {SFLOW_SOURCE_TYPE_ADDRESS, row.with_address},
            {SFLOW_SOURCE_TYPE_INTERFACE, row.with_interface},
            {SFLOW_SOURCE_TYPE_INVALID, row.without}};
        for (const auto &[kind, same] : kinds) {
            sfladdress_t asked = collector_record("198.51.100.9");
            asked.src_type = kind;
            sfladdress_t stored;
            std::memcpy(&stored, &asked, sizeof(stored));
            row.change(stored);
            EXPECT_EQ(sflow_is_collector_addr_same(&stored, &asked), same)
                << row.name << ", source kind " << kind;
        }
    }
}

TEST(Collector_addr_same, source_kind_itself_counts_unless_none_is_asked_for)
{
    sfladdress_t with_interface = collector_record("198.51.100.9");
    with_interface.src_type = SFLOW_SOURCE_TYPE_INTERFACE;
    const sfladdress_t without = collector_record("198.51.100.9");
    EXPECT_EQ(sflow_is_collector_addr_same(&without, &with_interface), 0);
    EXPECT_EQ(sflow_is_collector_addr_same(&with_interface, &without), 1);
}

// ---- Delete -----------------------------------------------------------------------------------------------

TEST_F(Receiver_del_collector, sends_closes_forgets_and_detaches)
{
    sflow_receiver_set_max_datagramsize(1, 2000);
    hold_samples(1);
    del(1, collector_record("198.51.100.9"), 6343);
    EXPECT_EQ(sent().size(), 1U);
    EXPECT_EQ(socket_calls().back(), "close");
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_FALSE(sflow_is_enable_receiver(1));
    EXPECT_EQ(receiver(1)->collector_port, 0);
    const sfladdress_t zero = {};
    EXPECT_EQ(std::memcmp(&receiver(1)->address, &zero, sizeof(zero)), 0);
    EXPECT_EQ(sflow_receiver_get_datagramsize(1), 2000U) << "the maximum stays";
    EXPECT_THAT(world().detached, ElementsAre(1));
    EXPECT_EQ(port->cid, 0U);
    EXPECT_EQ(port->fid, 0U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]del collector 1 dest find success\n"));
}

TEST_F(Receiver_del_collector, clears_all_of_its_recorded_source_and_not_the_others)
{
    set(2, collector_record("198.51.100.10"), 6343);
    std::memset(sflow_agent.source_ip.used_address, 0xee, sizeof(sflow_agent.source_ip.used_address));
    del(2, collector_record("198.51.100.10"), 6343);
    const auto bytes = [](std::uint32_t cid) {
        std::vector<std::uint8_t> copy(sizeof(sfladdress_value_t));
        std::memcpy(copy.data(), &sflow_agent.source_ip.used_address[cid - 1], copy.size());
        return copy;
    };
    EXPECT_THAT(bytes(2), ::testing::Each(0));
    EXPECT_THAT(bytes(1), ::testing::Each(0xee));
}

TEST_F(Receiver_del_collector, of_another_port_or_address_changes_nothing)
{
    hold_samples(1);
    del(1, collector_record("198.51.100.9"), 6344);
    del(1, collector_record("198.51.100.8"), 6343);
    EXPECT_TRUE(sflow_is_enable_receiver(1));
    EXPECT_EQ(receiver(1)->flow_sample_num, 1U);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_THAT(world().detached, IsEmpty());
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]sflow_receiver_del_collector fail.\n",
                                                  "[SFLOW-CONF]sflow_receiver_del_collector fail.\n"));
}

TEST_F(Receiver_del_collector, may_be_named_by_its_own_record)
{
    sflow_config_rdlock();
    sflow_receiver_del_collector(1, &receiver(1)->address, receiver(1)->collector_port);
    sflow_config_rdunlock();
    EXPECT_FALSE(sflow_is_enable_receiver(1));
    EXPECT_THAT(world().detached, ElementsAre(1));
}

// ---- Query ------------------------------------------------------------------------------------------------

TEST_F(Receiver_get_collector, copies_record_and_port)
{
    sfladdress_t record = collector_record("2001:db8::9");
    record.vrf_index = 3;
    std::strcpy(record.desc, "second");
    set(2, record, 6399);
    sfladdress_t got;
    std::memset(&got, 0xee, sizeof(got));
    u_int16_t udp_port = 0;
    EXPECT_EQ(sflow_receiver_get_collector(2, &got, &udp_port), 0);
    EXPECT_EQ(std::memcmp(&got, &record, sizeof(got)), 0);
    EXPECT_EQ(udp_port, 6399);
}

TEST_F(Receiver_get_collector, fails_for_one_that_is_not_configured)
{
    sfladdress_t got = collector_record("192.0.2.9");
    u_int16_t udp_port = 5;
    EXPECT_EQ(sflow_receiver_get_collector(2, &got, &udp_port), -1);
    EXPECT_EQ(udp_port, 5);
    EXPECT_EQ(got.address.ip_v4, ipv4("192.0.2.9"));
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]sflow_receiver_get_collector fail.\n"));
    EXPECT_EQ(held(), Held::none);
}

// ---- Maximum datagram size --------------------------------------------------------------------------------

TEST_F(Receiver_set_max_datagramsize, lower_one_sends_what_is_pending)
{
    hold_samples(1);
    sflow_receiver_set_max_datagramsize(1, 500);
    EXPECT_EQ(sent().size(), 1U);
    EXPECT_EQ(sflow_receiver_get_datagramsize(1), 500U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]set maxlen old:1400, new:500\n"));
}

TEST_F(Receiver_set_max_datagramsize, equal_or_higher_one_sends_nothing)
{
    hold_samples(1);
    sflow_receiver_set_max_datagramsize(1, 1400);
    sflow_receiver_set_max_datagramsize(1, 1500);
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(sflow_receiver_get_datagramsize(1), 1500U);
    EXPECT_EQ(sflow_receiver_get_datagramsize(2), 1400U);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

// ---- VRF removal ------------------------------------------------------------------------------------------

TEST_F(Receiver_vrf_no_exist_del_receiver, removes_every_collector_of_the_vrf)
{
    sfladdress_t record = collector_record("198.51.100.9");
    record.vrf_index = 12;
    set(1, record, 6343);
    set(2, record, 6344);
    const intf_msg_vrf_t gone = {.sub_type = INTF_EVENT_VRF_CHG, .vrf_chg = {.vrf_id = 12}};
    sflow_receiver_vrf_no_exist_del_receiver(&gone);
    EXPECT_FALSE(sflow_is_enable_receiver(1));
    EXPECT_FALSE(sflow_is_enable_receiver(2));
    EXPECT_THAT(world().detached, ElementsAre(1, 2));
    EXPECT_EQ(held(), Held::none);
}

TEST_F(Receiver_vrf_no_exist_del_receiver, leaves_other_vrfs_and_the_default_one_alone)
{
    sfladdress_t record = collector_record("198.51.100.10");
    record.vrf_index = 12;
    set(2, record, 6343);
    for (const int vrf : {0, 11, -1}) {
        const intf_msg_vrf_t gone = {.sub_type = INTF_EVENT_VRF_CHG, .vrf_chg = {.vrf_id = vrf}};
        sflow_receiver_vrf_no_exist_del_receiver(&gone);
    }
    EXPECT_TRUE(sflow_is_enable_receiver(1));
    EXPECT_TRUE(sflow_is_enable_receiver(2));
    EXPECT_THAT(world().detached, IsEmpty());
}

TEST_F(Receiver_vrf_no_exist_del_receiver, passes_over_a_record_that_is_not_enabled)
{
    receiver(2)->address.vrf_index = 12;
    const intf_msg_vrf_t gone = {.sub_type = INTF_EVENT_VRF_CHG, .vrf_chg = {.vrf_id = 12}};
    sflow_receiver_vrf_no_exist_del_receiver(&gone);
    EXPECT_EQ(receiver(2)->address.vrf_index, 12);
    EXPECT_THAT(world().detached, IsEmpty());
}

// ---- Threads ----------------------------------------------------------------------------------------------

TEST_F(Receiver_concurrency, counters_samples_under_the_read_lock_meet_queries_flushes_and_flow_samples)
{
    constexpr int rounds = 300;
    sflow_debug_conf = sflow_debug_event = false;
    record_nothing();
    std::thread dispatcher([this] {
        const sflow_msg_counter_t msg = {};
        for (int i = 0; i < rounds; i++) {
            sflow_config_rdlock();
            sflow_receiver_write_countersample(&msg, port);
            sflow_config_rdunlock();
        }
    });
    std::thread receive([this] {
        for (int i = 0; i < rounds; i++)
            hold_samples(1);
    });
    std::thread query([] {
        for (int i = 0; i < rounds; i++) {
            sfladdress_t record;
            u_int16_t udp_port;
            EXPECT_EQ(sflow_receiver_get_collector(1, &record, &udp_port), 0);
        }
    });
    for (int i = 0; i < rounds / 10; i++)
        flush();
    dispatcher.join();
    receive.join();
    query.join();
    flush();
    EXPECT_EQ(sflow_statis.sflow_export_counter_num, static_cast<std::uint32_t>(rounds));
    EXPECT_EQ(sflow_statis.sflow_export_flow_num, static_cast<std::uint32_t>(rounds));
    EXPECT_EQ(port->flow_seqno, rounds + 1U);
    EXPECT_EQ(port->counter_seqno, rounds + 1U);
}

TEST_F(Receiver_concurrency, a_collector_may_be_deleted_under_the_read_lock_while_counters_samples_arrive)
{
    constexpr int rounds = 300;
    sflow_debug_conf = sflow_debug_event = false;
    record_nothing();
    std::thread dispatcher([this] {
        const sflow_msg_counter_t msg = {};
        for (int i = 0; i < rounds; i++) {
            sflow_config_rdlock();
            sflow_receiver_write_countersample(&msg, port);
            sflow_config_rdunlock();
        }
    });
    std::thread configuration_pass([] {
        sflow_config_rdlock();
        const sflreceiver_t *one = receiver(1);
        sflow_receiver_del_collector(1, &one->address, one->collector_port);
        sflow_config_rdunlock();
    });
    dispatcher.join();
    configuration_pass.join();
    EXPECT_FALSE(sflow_is_enable_receiver(1));
    EXPECT_EQ(receiver(1)->sd, -1);
    EXPECT_EQ(receiver(1)->counter_sample_num, 0U);
    EXPECT_EQ(sflow_statis.sflow_export_counter_num, port->counter_seqno - 1);
}
