// Agent and source addresses: what is accepted, what the operator is told, and that samples leave first.
#include "agent_doubles.h"

#include <cerrno>
#include <cstring>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Address : public agent_test
{
protected:
    static void enable_collector(u_int32_t cid, u_int32_t ip, bool enable = true)
    {
        sflreceiver_t &receiver = sflow_agent.receivers[cid - 1];
        receiver.is_enable = enable;
        receiver.address.type = SFLOW_ADDRESS_TYPE_IPV4;
        receiver.address.address.ip_v4 = ip;
    }
    static void give_collector_source(u_int32_t cid, IFINDEX ifx)
    {
        sfladdress_t &collector = sflow_agent.receivers[cid - 1].address;
        collector.src_type = SFLOW_SOURCE_TYPE_INTERFACE;
        collector.ifindex = ifx;
        std::memset(&collector.src_address, 0x11, sizeof(collector.src_address));
    }
    /// Whether config_lock is free again.
    static bool is_unlocked()
    {
        if (pthread_rwlock_trywrlock(&sflow_agent.config_lock.rwlock) != 0)
            return false;
        pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
        return true;
    }
};

template <typename T>
bool same(const T &a, const T &b)
{
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// ---- Agent address -----------------------------------------------------------------------------------------------

sflow_agent_address_t agent(sflow_agent_cfg_type_t cfg_type, u_int32_t ip, IFINDEX ifx = 0)
{
    sflow_agent_address_t addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.cfg_type = cfg_type;
    addr.ifindex = ifx;
    addr.type = SFLOW_ADDRESS_TYPE_IPV4;
    addr.address.ip_v4 = ip;
    return addr;
}

sflow_agent_address_t stored_agent()
{
    sflow_agent_address_t addr;
    sflow_agent_get_address(&addr);
    return addr;
}

const sflow_agent_address_t no_agent = {};

TEST_F(Address, agent_address_changes_after_pending_samples_left_and_before_datagrams_restart)
{
    const sflow_agent_address_t first = agent(SFLOW_AGENT_TYPE_ADDRESS, 10);
    ASSERT_EQ(sflow_agent_set_address(&first), 0);
    EXPECT_EQ(calls(), (strings{"send(agent 0, source 0)", "reset(agent 10)"}));
    forget_calls();
    const sflow_agent_address_t second = agent(SFLOW_AGENT_TYPE_ADDRESS, 20);
    ASSERT_EQ(sflow_agent_set_address(&second), 0);
    EXPECT_EQ(calls(), (strings{"send(agent 10, source 0)", "reset(agent 20)"}));
    EXPECT_TRUE(same(stored_agent(), second));
    EXPECT_EQ(fake::cli_text(), "");
    EXPECT_TRUE(is_unlocked());
}

TEST_F(Address, agent_address_set_twice_is_refused_without_a_word_to_the_operator)
{
    sflow_debug_conf = true;
    const sflow_agent_address_t addr = agent(SFLOW_AGENT_TYPE_ADDRESS, 10);
    ASSERT_EQ(sflow_agent_set_address(&addr), 0);
    forget_calls();
    EXPECT_EQ(sflow_agent_set_address(&addr), -1);
    EXPECT_EQ(calls(), strings{});
    EXPECT_EQ(fake::cli_text(), "");
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-CONF]set agent address is the same\n"});
    EXPECT_TRUE(is_unlocked());
}

struct agent_switch_t {
    const char *name;
    sflow_agent_cfg_type_t from;
    sflow_agent_cfg_type_t to;
    const char *text;
};

class Address_agent_switch : public Address, public ::testing::WithParamInterface<agent_switch_t>
{
};

TEST_P(Address_agent_switch, needs_deletion_first)
{
    const sflow_agent_address_t first = agent(GetParam().from, 10, 3);
    ASSERT_EQ(sflow_agent_set_address(&first), 0);
    forget_calls();
    const sflow_agent_address_t second = agent(GetParam().to, 20, 3);
    EXPECT_EQ(sflow_agent_set_address(&second), -1);
    EXPECT_EQ(fake::take_cli_text(), GetParam().text);
    EXPECT_TRUE(same(stored_agent(), first));
    EXPECT_EQ(calls(), strings{});
    sflow_agent_del_address(GetParam().from);
    EXPECT_EQ(sflow_agent_set_address(&second), 0);
    EXPECT_TRUE(same(stored_agent(), second));
    EXPECT_TRUE(is_unlocked());
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, Address_agent_switch,
    ::testing::Values(
        agent_switch_t{"address_to_interface", SFLOW_AGENT_TYPE_ADDRESS, SFLOW_AGENT_TYPE_INTERFACE,
                       "config failure because sflow agent address has already configured.\n"},
        agent_switch_t{"interface_to_address", SFLOW_AGENT_TYPE_INTERFACE, SFLOW_AGENT_TYPE_ADDRESS,
                       "config failure because sflow agent interface has already configured.\n"}),
    [](const auto &info) { return info.param.name; });

class Address_of_collector : public Address, public ::testing::WithParamInterface<u_int32_t>
{
};

TEST_P(Address_of_collector, is_refused_as_agent_address_while_the_collector_is_enabled)
{
    enable_collector(GetParam(), 10);
    const sflow_agent_address_t addr = agent(SFLOW_AGENT_TYPE_ADDRESS, 10);
    EXPECT_EQ(sflow_agent_set_address(&addr), -1);
    EXPECT_EQ(fake::take_cli_text(),
              "% Sflow agent address is same as sflow collector destination address.\n");
    EXPECT_TRUE(same(stored_agent(), no_agent));
    EXPECT_EQ(calls(), strings{});

    enable_collector(GetParam(), 10, false);
    EXPECT_EQ(sflow_agent_set_address(&addr), 0);
    EXPECT_EQ(fake::take_cli_text(), "");
}

INSTANTIATE_TEST_SUITE_P(Ids, Address_of_collector, ::testing::Values(1U, 2U));

TEST_F(Address, agent_address_is_compared_with_collectors_in_all_its_bytes)
{
    enable_collector(1, 10);
    sflow_agent_address_t addr = agent(SFLOW_AGENT_TYPE_ADDRESS, 10);
    addr.address.ip_v6[15] = 1;
    EXPECT_EQ(sflow_agent_set_address(&addr), 0);
}

TEST_F(Address, agent_address_of_another_kind_survives_deletion)
{
    const sflow_agent_address_t addr = agent(SFLOW_AGENT_TYPE_ADDRESS, 10);
    ASSERT_EQ(sflow_agent_set_address(&addr), 0);
    forget_calls();
    sflow_agent_del_address(SFLOW_AGENT_TYPE_INTERFACE);
    EXPECT_TRUE(same(stored_agent(), addr));
    EXPECT_EQ(calls(), strings{});
    sflow_agent_del_address(SFLOW_AGENT_TYPE_ADDRESS);
    EXPECT_TRUE(same(stored_agent(), no_agent));
    EXPECT_EQ(calls(), strings{"send(agent 10, source 0)"});
    EXPECT_TRUE(is_unlocked());
}

struct agent_gone_t {
    const char *name;
    sflow_agent_cfg_type_t cfg_type;
    IFINDEX gone;
    bool cleared;
};

class Address_agent_interface_gone : public Address, public ::testing::WithParamInterface<agent_gone_t>
{
};

TEST_P(Address_agent_interface_gone, clears_only_what_was_learnt_from_it_but_always_reforms)
{
    const sflow_agent_address_t addr = agent(GetParam().cfg_type, 10, 3);
    ASSERT_EQ(sflow_agent_set_address(&addr), 0);
    forget_calls();
    sflow_agent_del_intf_notify(GetParam().gone);
    EXPECT_TRUE(same(stored_agent(), GetParam().cleared ? no_agent : addr));
    EXPECT_EQ(calls(),
              GetParam().cleared ? (strings{"send(agent 10, source 0)", "reform"}) : strings{"reform"});
    EXPECT_TRUE(is_unlocked());
}

INSTANTIATE_TEST_SUITE_P(Interfaces, Address_agent_interface_gone,
                         ::testing::Values(agent_gone_t{"its_own", SFLOW_AGENT_TYPE_INTERFACE, 3, true},
                                           agent_gone_t{"another", SFLOW_AGENT_TYPE_INTERFACE, 4, false},
                                           agent_gone_t{"explicit_address", SFLOW_AGENT_TYPE_ADDRESS, 3,
                                                        false}),
                         [](const auto &info) { return info.param.name; });

struct reform_t {
    const char *name;
    void (*notify)(IFINDEX ifx);
    int result;
    const char *line;
};

class Address_reform : public Address, public ::testing::WithParamInterface<reform_t>
{
};

TEST_P(Address_reform, result_is_logged_under_the_configuration_switch)
{
    behaviour.reform = GetParam().result;
    GetParam().notify(9);
    EXPECT_EQ(fake::syslog_texts(), strings{});
    sflow_debug_conf = true;
    GetParam().notify(9);
    EXPECT_EQ(fake::syslog_texts(), strings{GetParam().line});
}

INSTANTIATE_TEST_SUITE_P(
    Results, Address_reform,
    ::testing::Values(reform_t{"agent_success", sflow_agent_del_intf_notify, 0,
                               "[SFLOW-CONF]sflow_agent_del_intf_notify c2p reform success.\n"},
                      reform_t{"agent_failure", sflow_agent_del_intf_notify, -1,
                               "[SFLOW-CONF]sflow_agent_del_intf_notify c2p reform failure.\n"},
                      reform_t{"source_success", sflow_source_del_intf_notify, 0,
                               "[SFLOW-CONF]sflow_source_del_intf_notify c2p reform success.\n"},
                      reform_t{"source_failure", sflow_source_del_intf_notify, 1,
                               "[SFLOW-CONF]sflow_source_del_intf_notify c2p reform failure.\n"}),
    [](const auto &info) { return info.param.name; });

TEST_F(Address, operations_go_on_without_the_lock)
{
    sflow_debug_conf = true;
    fail("pthread_rwlock_wrlock", EDEADLK);
    fail("pthread_rwlock_unlock", EPERM);
    const sflow_agent_address_t addr = agent(SFLOW_AGENT_TYPE_ADDRESS, 10);
    EXPECT_EQ(sflow_agent_set_address(&addr), 0);
    fail("pthread_rwlock_rdlock", EAGAIN);
    fail("pthread_rwlock_unlock", EPERM);
    EXPECT_TRUE(same(stored_agent(), addr));
    EXPECT_EQ(fake::syslog_texts(),
              (strings{"[SFLOW-CONF]sflow WR lock cfg fail.\n", "[SFLOW-CONF]sflow unlock cfg fail.\n",
                       "[SFLOW-CONF]sflow RD lock cfg fail.\n", "[SFLOW-CONF]sflow unlock cfg fail.\n"}));
}

// ---- Source address ----------------------------------------------------------------------------------------------

constexpr u_int32_t V4 = SFLOW_FAMILY_IPV4;
constexpr u_int32_t V6 = SFLOW_FAMILY_IPV6;

/// `v6` stands for the address made of 16 such bytes.
sflow_source_address_t source(sflow_source_cfg_type_t cfg_type, u_int32_t type, u_int32_t v4, u_int8_t v6,
                              IFINDEX ifx = 0)
{
    sflow_source_address_t src;
    std::memset(&src, 0, sizeof(src));
    src.cfg_type = cfg_type;
    src.ifindex = ifx;
    src.type = type;
    src.v4_address.ip_v4 = v4;
    std::memset(src.v6_address.ip_v6, v6, 16);
    return src;
}

sflow_source_address_t stored_source()
{
    sflow_source_address_t src;
    sflow_source_get_address(&src);
    return src;
}

const sflow_source_address_t no_source = {};

void expect_source(const sflow_source_address_t &expected)
{
    const sflow_source_address_t stored = stored_source();
    EXPECT_EQ(stored.cfg_type, expected.cfg_type);
    EXPECT_EQ(stored.ifindex, expected.ifindex);
    EXPECT_EQ(stored.type, expected.type);
    EXPECT_EQ(stored.v4_address.ip_v4, expected.v4_address.ip_v4);
    EXPECT_EQ(std::memcmp(stored.v6_address.ip_v6, expected.v6_address.ip_v6, 16), 0);
}

TEST_F(Address, source_changes_after_pending_samples_left_then_datagrams_and_sockets_start_anew)
{
    const sflow_source_address_t first = source(SFLOW_SOURCE_TYPE_ADDRESS, V4, 10, 0);
    ASSERT_EQ(sflow_source_set_address(&first), 0);
    EXPECT_EQ(calls(), (strings{"send(agent 0, source 0)", "reset(agent 0)", "close(1)", "close(2)"}));
    forget_calls();
    const sflow_source_address_t second = source(SFLOW_SOURCE_TYPE_ADDRESS, V4 | V6, 20, 6);
    ASSERT_EQ(sflow_source_set_address(&second), 0);
    EXPECT_EQ(calls().front(), "send(agent 0, source 1)");
    expect_source(second);
    EXPECT_EQ(stored_source().is_src_cfg, 1U);
    EXPECT_TRUE(is_unlocked());
}

struct source_check_t {
    const char *name;
    sflow_source_address_t current;
    sflow_source_address_t request;
    bool apply;
    const char *told;   ///< to the operator
    const char *logged; ///< null: nothing
};

const sflow_source_address_t address_46 = source(SFLOW_SOURCE_TYPE_ADDRESS, V4 | V6, 10, 6);
const sflow_source_address_t interface_4 = source(SFLOW_SOURCE_TYPE_INTERFACE, V4, 10, 0, 3);

sflow_source_address_t with(sflow_source_address_t src,
                            const std::function<void(sflow_source_address_t &)> &change)
{
    change(src);
    return src;
}

constexpr char SAME[] = "[SFLOW-CONF]set source address is the same\n";

const source_check_t source_checks[] = {
    {"first", no_source, address_46, true, "", nullptr},
    {"without_kind", address_46, source(SFLOW_SOURCE_TYPE_INVALID, V4, 1, 0), false, "invalid config type.\n",
     nullptr},
    {"interface_over_address", address_46, interface_4, false,
     "config failure because sflow source address has already configured.\n", nullptr},
    {"address_over_interface", interface_4, address_46, false,
     "config failure because sflow source interface has already configured.\n", nullptr},
    {"same", address_46, address_46, false, "", SAME},
    {"same_but_for_the_17th_byte_of_ipv6", address_46,
     with(address_46, [](auto &s) { s.v6_address.ip_v6[16] = 1; }), false, "", SAME},
    {"same_but_for_addresses_used", address_46,
     with(address_46, [](auto &s) { s.used_address[1].ip_v4 = 1; }), false, "", SAME},
    {"other_interface", interface_4, with(interface_4, [](auto &s) { s.ifindex = 4; }), true, "", nullptr},
    {"other_family", interface_4, with(interface_4, [](auto &s) { s.type = V4 | V6; }), true, "", nullptr},
    {"other_ipv4", address_46, with(address_46, [](auto &s) { s.v4_address.ip_v4 = 11; }), true, "", nullptr},
    {"other_ipv6", address_46, with(address_46, [](auto &s) { s.v6_address.ip_v6[15] = 7; }), true, "",
     nullptr},
};

class Address_source_check : public Address, public ::testing::WithParamInterface<source_check_t>
{
protected:
    void SetUp() override
    {
        if (GetParam().current.cfg_type != SFLOW_SOURCE_TYPE_INVALID) {
            ASSERT_EQ(sflow_source_set_address(&GetParam().current), 0);
        }
        forget_calls();
        sflow_debug_conf = true;
    }
};

TEST_P(Address_source_check, decides_and_tells_why_not)
{
    sflow_config_wrlock();
    EXPECT_EQ(sflow_is_source_addr_need_proc(&GetParam().request), GetParam().apply);
    sflow_config_wrunlock();
    EXPECT_EQ(fake::cli_text(), GetParam().told);
    EXPECT_EQ(fake::syslog_texts(), GetParam().logged != nullptr ? strings{GetParam().logged} : strings{});
    EXPECT_EQ(calls(), strings{});
}

TEST_P(Address_source_check, governs_setting)
{
    EXPECT_EQ(sflow_source_set_address(&GetParam().request), GetParam().apply ? 0 : -1);
    expect_source(GetParam().apply ? GetParam().request : GetParam().current);
    EXPECT_EQ(calls().empty(), !GetParam().apply);
    EXPECT_TRUE(is_unlocked());
}

INSTANTIATE_TEST_SUITE_P(Requests, Address_source_check, ::testing::ValuesIn(source_checks),
                         [](const auto &info) { return info.param.name; });

struct source_delete_t {
    const char *name;
    sflow_source_address_t current;
    sflow_source_address_t request;
    u_int32_t type_left; ///< families left; 0: the whole record is gone
    bool applies;        ///< false: not even the sockets are touched
};

const sflow_source_address_t interface_46 = source(SFLOW_SOURCE_TYPE_INTERFACE, V4 | V6, 10, 6, 3);

sflow_source_address_t by_address(u_int32_t type, u_int32_t v4, u_int8_t v6)
{
    return source(SFLOW_SOURCE_TYPE_ADDRESS, type, v4, v6);
}

sflow_source_address_t by_interface(u_int32_t type, IFINDEX ifx)
{
    return source(SFLOW_SOURCE_TYPE_INTERFACE, type, 0, 0, ifx);
}

const source_delete_t source_deletes[] = {
    {"ipv4_keeps_ipv6", address_46, by_address(V4, 10, 0), V6, true},
    {"ipv6_keeps_ipv4", address_46, by_address(V6, 0, 6), V4, true},
    {"both_removes_ipv4_only", address_46, by_address(V4 | V6, 10, 6), V6, true},
    {"both_with_another_ipv4_removes_ipv6", address_46, by_address(V4 | V6, 11, 6), V4, true},
    {"another_ipv4_changes_nothing", address_46, by_address(V4, 11, 0), V4 | V6, true},
    {"another_ipv6_changes_nothing", address_46, by_address(V6, 0, 7), V4 | V6, true},
    {"ipv6_value_without_its_bit_changes_nothing", address_46, by_address(V4, 11, 6), V4 | V6, true},
    {"no_family_removes_all", address_46, by_address(0, 0, 0), 0, true},
    {"unknown_family_bits_remove_all", address_46, by_address(4, 0, 0), 0, true},
    {"last_family_removes_the_record", source(SFLOW_SOURCE_TYPE_ADDRESS, V4, 10, 0), by_address(V4, 10, 0), 0,
     true},
    {"of_the_other_kind_does_nothing", address_46, by_interface(V4, 3), V4 | V6, false},
    {"interface_ipv4_keeps_ipv6", interface_46, by_interface(V4, 3), V6, true},
    {"interface_ipv6_keeps_ipv4", interface_46, by_interface(V6, 3), V4, true},
    {"interface_both_removes_ipv4_only", interface_46, by_interface(V4 | V6, 3), V6, true},
    {"interface_addresses_are_not_compared", interface_46, source(SFLOW_SOURCE_TYPE_INTERFACE, V4, 99, 99, 3),
     V6, true},
    {"another_interface_changes_nothing", interface_46, by_interface(V4 | V6, 4), V4 | V6, true},
    {"interface_without_family_changes_nothing", interface_46, by_interface(0, 3), V4 | V6, true},
    {"interface_0_without_family_removes_all", interface_46, by_interface(0, 0), 0, true},
    {"interface_0_that_matches_nothing_removes_all", interface_46, by_interface(V4 | V6, 0), 0, true},
    {"interface_last_family_removes_the_record", interface_4, by_interface(V4, 3), 0, true},
    {"address_request_on_interface_does_nothing", interface_46, by_address(V4, 10, 0), V4 | V6, false},
};

class Address_source_delete : public Address, public ::testing::WithParamInterface<source_delete_t>
{
};

TEST_P(Address_source_delete, removes_at_most_one_family)
{
    const source_delete_t &param = GetParam();
    ASSERT_EQ(sflow_source_set_address(&param.current), 0);
    forget_calls();
    sflow_source_del_address(&param.request);

    if (param.type_left == 0) {
        EXPECT_TRUE(same(stored_source(), no_source)) << "is_src_cfg and the addresses used go too";
    } else {
        sflow_source_address_t expected = param.current;
        expected.type = param.type_left;
        if ((param.type_left & V4) == 0)
            expected.v4_address.ip_v4 = 0;
        if ((param.type_left & V6) == 0)
            std::memset(&expected.v6_address, 0, sizeof(expected.v6_address));
        expect_source(expected);
        EXPECT_EQ(stored_source().is_src_cfg, 1U);
    }
    const std::string sent = "send(agent 0, source " + std::to_string(param.current.type) + ")";
    EXPECT_EQ(calls(), param.applies ? (strings{sent, "close(1)", "close(2)"}) : strings{});
    EXPECT_TRUE(is_unlocked());
}

INSTANTIATE_TEST_SUITE_P(Requests, Address_source_delete, ::testing::ValuesIn(source_deletes),
                         [](const auto &info) { return info.param.name; });

TEST_F(Address, source_clear_forgets_everything_after_pending_samples_left)
{
    ASSERT_EQ(sflow_source_set_address(&interface_46), 0);
    forget_calls();
    sflow_source_clear();
    EXPECT_TRUE(same(stored_source(), no_source));
    EXPECT_EQ(calls(), strings{"send(agent 0, source 3)"});
    EXPECT_TRUE(is_unlocked());
}

TEST_F(Address, source_interface_gone_clears_the_global_source)
{
    ASSERT_EQ(sflow_source_set_address(&interface_46), 0);
    forget_calls();
    sflow_source_del_intf_notify(3);
    EXPECT_TRUE(same(stored_source(), no_source));
    EXPECT_EQ(calls(),
              (strings{"send(agent 0, source 3)", "close(1)", "close(2)", "close(1)", "close(2)", "reform"}));
    EXPECT_TRUE(is_unlocked());
}

TEST_F(Address, source_interface_gone_clears_the_collectors_own_sources)
{
    give_collector_source(1, 4);
    give_collector_source(2, 3);
    sflow_source_del_intf_notify(3);

    const sfladdress_t &kept = sflow_agent.receivers[0].address;
    EXPECT_EQ(kept.src_type, SFLOW_SOURCE_TYPE_INTERFACE);
    EXPECT_EQ(kept.ifindex, 4U);
    const sfladdress_t &cleared = sflow_agent.receivers[1].address;
    EXPECT_EQ(cleared.src_type, SFLOW_SOURCE_TYPE_INVALID);
    EXPECT_EQ(cleared.ifindex, 0U);
    EXPECT_TRUE(same(cleared.src_address, sfladdress_value_t{}));
    EXPECT_EQ(calls(), (strings{"close(1)", "send(agent 0, source 0)", "close(2)", "reform"}));
}

TEST_F(Address, source_interface_gone_leaves_explicit_sources_of_the_same_index_alone)
{
    sflow_source_address_t src = address_46;
    src.ifindex = 3;
    ASSERT_EQ(sflow_source_set_address(&src), 0);
    give_collector_source(1, 3);
    sflow_agent.receivers[0].address.src_type = SFLOW_SOURCE_TYPE_ADDRESS;
    forget_calls();
    sflow_source_del_intf_notify(3);
    expect_source(src);
    EXPECT_EQ(sflow_agent.receivers[0].address.ifindex, 3U);
    EXPECT_EQ(calls_of("send"), strings{});
}

TEST_F(Address, interface_that_is_nobodys_source_still_closes_both_sockets_and_reforms)
{
    sflow_source_del_intf_notify(9);
    EXPECT_EQ(calls(), (strings{"close(1)", "close(2)", "reform"}));
}

TEST_F(Address, reform_runs_outside_the_lock)
{
    ASSERT_TRUE(is_unlocked());
    bool unlocked = false;
    behaviour.on_reform = [&] { unlocked = is_unlocked(); };
    sflow_source_del_intf_notify(9);
    EXPECT_TRUE(unlocked);
    unlocked = false;
    sflow_agent_del_intf_notify(9);
    EXPECT_TRUE(unlocked);
}

} // namespace
