// Interface sampling configuration: the list and its look-up, and the requests that reach the sampling
// service.
#include "agent_doubles.h"

#include <cerrno>
#include <cstring>

using namespace doubles;
using strings = std::vector<std::string>;

namespace
{

class Interface : public agent_test
{
protected:
    Interface() { sflow_agent.g_config.samplingrate = 4096; }

    static sflow_intf_config_t *add(IFINDEX ifx)
    {
        sflow_config_wrlock();
        sflow_intf_config_t *intf = sflow_add_intf_config(ifx);
        sflow_config_wrunlock();
        return intf;
    }
    static sflow_intf_config_t *get(IFINDEX ifx)
    {
        sflow_config_rdlock();
        sflow_intf_config_t *intf = sflow_get_intf_config(ifx);
        sflow_config_rdunlock();
        return intf;
    }
    static void del(sflow_intf_config_t *intf)
    {
        sflow_config_wrlock();
        sflow_del_intf_config(intf);
        sflow_config_wrunlock();
    }
    /// Interfaces in list order.
    static std::vector<IFINDEX> listed()
    {
        std::vector<IFINDEX> order;
        sflow_config_rdlock();
        sflow_list_for_each<sflow_intf_config_t>(
            &sflow_agent.intf_config, [&](const sflow_intf_config_t *intf) { order.push_back(intf->ifx); });
        sflow_config_rdunlock();
        return order;
    }
    static void set_acl(sflow_intf_config_t *intf, int slot, int id, const char *name)
    {
        acl_info_t &acl = intf->acl[slot];
        acl.enable = true;
        acl.enable_acl_id = id;
        std::strncpy(acl.enable_acl_name, name, sizeof(acl.enable_acl_name) - 1);
        intf->acl_enable = true;
    }
    static bool is_unlocked()
    {
        if (pthread_rwlock_trywrlock(&sflow_agent.config_lock.rwlock) != 0)
            return false;
        pthread_rwlock_unlock(&sflow_agent.config_lock.rwlock);
        return true;
    }
};

using ifindexes = std::vector<IFINDEX>;

// ---- List and look-up --------------------------------------------------------------------------------------------

TEST_F(Interface, list_is_in_ascending_order)
{
    add(5);
    add(2);
    add(9);
    EXPECT_EQ(listed(), (ifindexes{2, 5, 9}));
    for (const IFINDEX ifx : {1U, 7U, 10U, 0xffffffffU})
        add(ifx);
    EXPECT_EQ(listed(), (ifindexes{1, 2, 5, 7, 9, 10, 0xffffffff}));
}

TEST_F(Interface, new_node_has_the_defaults)
{
    sflow_config_wrlock();
    sflow_agent.g_config.interval = 17;
    sflow_config_wrunlock();
    const sflow_intf_config_t *intf = add(5);
    ASSERT_NE(intf, nullptr);
    sflow_intf_config_t expected = {};
    expected.list = intf->list;
    expected.ifx = 5;
    expected.flow_seqno = 1;
    expected.counter_seqno = 1;
    expected.countdown = 17;
    EXPECT_EQ(std::memcmp(intf, &expected, sizeof(expected)), 0);
}

TEST_F(Interface, node_of_the_same_interface_goes_in_front_and_is_the_one_found)
{
    sflow_intf_config_t *older = add(5);
    add(7);
    sflow_intf_config_t *newer = add(5);
    EXPECT_EQ(listed(), (ifindexes{5, 5, 7}));
    EXPECT_EQ(get(5), newer);
    del(newer);
    EXPECT_EQ(get(5), older);
    del(older);
    EXPECT_EQ(get(5), nullptr);
    EXPECT_EQ(listed(), ifindexes{7});
}

TEST_F(Interface, shortage_of_memory_is_logged_and_null)
{
    sflow_debug_conf = true;
    fail("calloc", ENOMEM);
    EXPECT_EQ(add(5), nullptr);
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-CONF]sflow_add_intf_config fail\n"});
    EXPECT_EQ(listed(), ifindexes{});
    EXPECT_EQ(get(5), nullptr);
}

TEST_F(Interface, look_up_finds_each_of_many_and_nothing_else)
{
    std::vector<sflow_intf_config_t *> nodes;
    for (IFINDEX ifx = 3000; ifx > 0; ifx--)
        nodes.push_back(add(ifx * 64));
    for (IFINDEX ifx = 1; ifx <= 3000; ifx++) {
        ASSERT_EQ(get(ifx * 64), nodes[3000 - ifx]);
        ASSERT_EQ(get(ifx * 64 + 1), nullptr);
    }
    EXPECT_EQ(get(0), nullptr);
    EXPECT_EQ(get(0xffffffff), nullptr);
    for (size_t i = 0; i < nodes.size(); i += 2)
        del(nodes[i]);
    for (IFINDEX ifx = 1; ifx <= 3000; ifx++)
        ASSERT_EQ(get(ifx * 64), ifx % 2 == 1 ? nodes[3000 - ifx] : nullptr);
}

TEST_F(Interface, newest_of_one_interface_stays_first_when_the_look_up_grows)
{
    add(7);
    sflow_intf_config_t *newest = add(7);
    for (IFINDEX ifx = 1000; ifx < 1600; ifx++)
        add(ifx);
    EXPECT_EQ(get(7), newest);
}

TEST_F(Interface, look_up_works_on_when_it_cannot_grow)
{
    IFINDEX ifx = 1;
    // The first allocation of an addition is the node, the second one a larger look-up.
    for (; ifx <= 256; ifx++)
        ASSERT_NE(add(ifx), nullptr);
    for (; ifx <= 300; ifx++) {
        fail("calloc", ENOMEM, 1);
        ASSERT_NE(add(ifx), nullptr);
    }
    for (IFINDEX known = 1; known <= 300; known++)
        ASSERT_NE(get(known), nullptr) << known;
}

TEST_F(Interface, initialisation_forgets_the_nodes_of_before)
{
    add(5);
    capture_threads();
    ASSERT_EQ(sflow_agent_init(&sflow_agent), 0);
    EXPECT_EQ(get(5), nullptr);
    EXPECT_EQ(sflow_get_current_status(), 0);
}

struct in_use_t {
    const char *name;
    u_int32_t sflow_intf_config_t::*field;
};

class Interface_in_use : public Interface, public ::testing::WithParamInterface<in_use_t>
{
};

TEST_P(Interface_in_use, is_not_freed)
{
    sflow_intf_config_t *intf = add(5);
    intf->*GetParam().field = 1;
    del(intf);
    EXPECT_EQ(get(5), intf);
    intf->*GetParam().field = 0;
    del(intf);
    EXPECT_EQ(get(5), nullptr);
    EXPECT_EQ(listed(), ifindexes{});
}

INSTANTIATE_TEST_SUITE_P(Fields, Interface_in_use,
                         ::testing::Values(in_use_t{"enable", &sflow_intf_config_t::enable},
                                           in_use_t{"cid", &sflow_intf_config_t::cid},
                                           in_use_t{"fid", &sflow_intf_config_t::fid}),
                         [](const auto &info) { return info.param.name; });

TEST_F(Interface, deleting_null_does_nothing)
{
    add(5);
    del(nullptr);
    EXPECT_EQ(listed(), ifindexes{5});
}

TEST_F(Interface, node_given_up_under_a_read_lock_is_found_no_more_and_freed_by_the_next_writer)
{
    sflow_intf_config_t *intf = add(5);
    add(6)->cid = 1;
    sflow_config_rdlock();
    sflow_del_intf_config(intf);
    EXPECT_EQ(sflow_get_intf_config(5), nullptr);
    EXPECT_EQ(intf->ifx, 5U) << "other readers may still look at it";
    EXPECT_EQ(intf->list.next, &sflow_get_intf_config(6)->list) << "and walk on from it";
    sflow_config_rdunlock();
    EXPECT_EQ(listed(), (ifindexes{5, 6}));
    sflow_config_wrlock();
    sflow_config_wrunlock();
    EXPECT_EQ(listed(), ifindexes{6});
}

TEST_F(Interface, node_can_be_made_again_after_it_was_given_up)
{
    sflow_intf_config_t *intf = add(5);
    sflow_config_rdlock();
    sflow_del_intf_config(intf);
    sflow_config_rdunlock();
    EXPECT_EQ(sflow_get_current_status(), 0);
    sflow_intf_config_t *again = add(5);
    EXPECT_EQ(get(5), again);
    EXPECT_EQ(listed(), ifindexes{5});
}

TEST_F(Interface, acl_is_configured_when_either_slot_is_enabled)
{
    sflow_intf_config_t intf = {};
    EXPECT_FALSE(intf_acl_cfg(&intf));
    intf.acl[1].enable = true;
    EXPECT_TRUE(intf_acl_cfg(&intf));
    intf.acl[0].enable = true;
    intf.acl[1].enable = false;
    EXPECT_TRUE(intf_acl_cfg(&intf));
}

TEST_F(Interface, enable_mask_comes_with_the_node)
{
    sflow_intf_config_t *added = add(5);
    added->enable = 3;
    sflow_config_rdlock();
    sflow_intf_config_t *intf = nullptr;
    EXPECT_EQ(sflow_get_intf_config_enable(5, &intf), 3U);
    EXPECT_EQ(intf, added);
    EXPECT_EQ(sflow_get_intf_config_enable(6, &intf), 0U);
    EXPECT_EQ(intf, nullptr);
    sflow_config_rdunlock();
}

TEST_F(Interface, countdown_is_reset_everywhere)
{
    add(1);
    add(2);
    sflow_config_wrlock();
    sflow_reset_intf_countdown(99);
    sflow_config_wrunlock();
    EXPECT_EQ(get(1)->countdown, 99U);
    EXPECT_EQ(get(2)->countdown, 99U);
}

TEST_F(Interface, removed_receiver_is_detached_and_idle_nodes_are_freed)
{
    sflow_intf_config_t *only_counters = add(1);
    only_counters->cid = 1;
    sflow_intf_config_t *both = add(2);
    both->cid = both->fid = 1;
    both->enable = SFLOW_INGRESS;
    sflow_intf_config_t *other = add(3);
    other->cid = 2;
    other->fid = 1;
    add(4);
    sflow_config_wrlock();
    sflow_intf_del_receiver(1);
    sflow_config_wrunlock();
    EXPECT_EQ(listed(), (ifindexes{2, 3}));
    EXPECT_EQ(both->cid, 0U);
    EXPECT_EQ(both->fid, 0U);
    EXPECT_EQ(both->enable, static_cast<u_int32_t>(SFLOW_INGRESS));
    EXPECT_EQ(other->cid, 2U);
    EXPECT_EQ(other->fid, 0U);
}

TEST_F(Interface, removed_receiver_under_a_read_lock_gives_idle_nodes_up)
{
    add(1)->cid = 1;
    add(2)->cid = 2;
    sflow_config_rdlock();
    sflow_intf_del_receiver(1);
    EXPECT_EQ(sflow_get_intf_config(1), nullptr);
    EXPECT_NE(sflow_get_intf_config(2), nullptr);
    sflow_config_rdunlock();
    sflow_one_second();
    EXPECT_EQ(listed(), ifindexes{2});
}

TEST_F(Interface, check_needs_an_enabled_receiver)
{
    sflow_debug_conf = true;
    add(5);
    sflow_config_wrlock();
    EXPECT_EQ(sflow_check_intf(5, 1), nullptr);
    sflow_config_wrunlock();
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-CONF]sflow_check_intf receiver is not enable\n"});
}

TEST_F(Interface, check_finds_or_creates_the_node)
{
    sflow_agent.receivers[1].is_enable = true;
    sflow_intf_config_t *known = add(5);
    sflow_config_wrlock();
    EXPECT_EQ(sflow_check_intf(5, 2), known);
    const sflow_intf_config_t *created = sflow_check_intf(6, 2);
    EXPECT_NE(created, nullptr);
    EXPECT_EQ(created, sflow_get_intf_config(6));
    sflow_config_wrunlock();
    EXPECT_EQ(listed(), (ifindexes{5, 6}));
}

TEST_F(Interface, check_without_memory_logs_both_failures)
{
    sflow_debug_conf = true;
    sflow_agent.receivers[0].is_enable = true;
    fail("calloc", ENOMEM);
    sflow_config_wrlock();
    EXPECT_EQ(sflow_check_intf(5, 1), nullptr);
    sflow_config_wrunlock();
    EXPECT_EQ(fake::syslog_texts(), (strings{"[SFLOW-CONF]sflow_add_intf_config fail\n",
                                             "[SFLOW-CONF]sflow_check_intf add intf fail.\n"}));
}

TEST_F(Interface, status_tells_whether_any_interface_is_configured)
{
    EXPECT_EQ(sflow_get_current_status(), 0);
    add(5);
    EXPECT_EQ(sflow_get_current_status(), 1);
    EXPECT_TRUE(is_unlocked());
}

// ---- Enable and disable ------------------------------------------------------------------------------------------

/// What runs on interface 5 before the request.
enum class before_t {
    no_node,
    idle_node,
    plain_ingress,
    plain_ingress_by_snoop,
    acl_in_slot_0,
    acl_in_slot_1,
    two_acls,
    acl_and_snoop,
};

struct request_t {
    const char *name;
    before_t before;
    int direct;
    int acl_id;
    const char *acl_name;
    int snoop;
    strings messages; ///< in order
};

/// Message for interface 5 of type 2.
std::string rate(int value, int direct, const std::string &acl, int snoop)
{
    return "rate(5, " + std::to_string(value) + ", " + std::to_string(direct) + ", type 2, " + acl +
           ", snoop " + std::to_string(snoop) + ")";
}

const std::string NO_ACL = "0/null";
constexpr int IN = SFLOW_INGRESS;
constexpr int OUT = SFLOW_EGRESS;
constexpr int BOTH = SFLOW_BOTH;

class Interface_request : public Interface, public ::testing::WithParamInterface<request_t>
{
protected:
    void SetUp() override
    {
        const before_t before = GetParam().before;
        if (before == before_t::no_node)
            return;
        sflow_intf_config_t *intf = add(5);
        intf->enable = before == before_t::idle_node ? 0 : SFLOW_INGRESS;
        intf->cid = 1;
        if (before == before_t::plain_ingress_by_snoop || before == before_t::acl_and_snoop)
            intf->snoop = 1;
        if (before == before_t::acl_in_slot_0 || before == before_t::two_acls ||
            before == before_t::acl_and_snoop)
            set_acl(intf, 0, 11, "first");
        if (before == before_t::acl_in_slot_1 || before == before_t::two_acls)
            set_acl(intf, 1, 22, "second");
    }

    static int enable()
    {
        const request_t &p = GetParam();
        return sflow_enable_intf_config(5, p.direct, 2, p.acl_id, p.acl_name, p.snoop);
    }
    static int disable()
    {
        const request_t &p = GetParam();
        return sflow_disable_intf_config(5, p.direct, 2, p.acl_id, p.acl_name, p.snoop);
    }
};

class Interface_enable : public Interface_request
{
};

const request_t enables[] = {
    {"nothing_without_a_direction", before_t::idle_node, 0, 0, nullptr, 0, {}},
    {"egress", before_t::no_node, OUT, 0, nullptr, 0, {rate(4096, 2, NO_ACL, 0)}},
    {"egress_hands_acl_and_snoop_through",
     before_t::idle_node,
     OUT,
     7,
     "seven",
     1,
     {rate(4096, 2, "7/seven", 1)}},
    {"ingress_without_node", before_t::no_node, IN, 0, nullptr, 0, {rate(4096, 1, NO_ACL, 0)}},
    {"ingress_without_node_by_snoop", before_t::no_node, IN, 0, nullptr, 1, {rate(4096, 1, NO_ACL, 1)}},
    {"both_without_node_begins_with_egress",
     before_t::no_node,
     BOTH,
     0,
     nullptr,
     0,
     {rate(4096, 2, NO_ACL, 0), rate(4096, 1, NO_ACL, 0)}},
    {"ingress_on_idle_node", before_t::idle_node, IN, 0, nullptr, 0, {rate(4096, 1, NO_ACL, 0)}},
    {"ingress_again", before_t::plain_ingress, IN, 0, nullptr, 0, {rate(4096, 1, NO_ACL, 0)}},
    {"acl_without_node", before_t::no_node, IN, 7, "seven", 0, {rate(4096, 1, "7/seven", 0)}},
    {"acl_on_idle_node", before_t::idle_node, IN, 7, "seven", 0, {rate(4096, 1, "7/seven", 0)}},
    {"acl_stops_plain_ingress_first",
     before_t::plain_ingress,
     IN,
     7,
     "seven",
     0,
     {rate(0, 1, NO_ACL, 0), rate(4096, 1, "7/seven", 0)}},
    {"acl_stops_plain_ingress_under_its_snoop",
     before_t::plain_ingress_by_snoop,
     IN,
     7,
     "seven",
     0,
     {rate(0, 1, NO_ACL, 1), rate(4096, 1, "7/seven", 0)}},
    {"second_acl_stops_nothing", before_t::acl_in_slot_0, IN, 7, "seven", 0, {rate(4096, 1, "7/seven", 0)}},
    {"plain_stops_one_acl",
     before_t::acl_in_slot_1,
     IN,
     0,
     nullptr,
     0,
     {rate(0, 1, "22/second", 0), rate(4096, 1, NO_ACL, 0)}},
    {"plain_stops_two_acls",
     before_t::two_acls,
     IN,
     0,
     nullptr,
     0,
     {rate(0, 1, "11/first", 0), rate(0, 1, "22/second", 0), rate(4096, 1, NO_ACL, 0)}},
    {"snoop_on_stops_the_sampling_without",
     before_t::plain_ingress,
     IN,
     0,
     nullptr,
     1,
     {rate(0, 1, NO_ACL, 0), rate(4096, 1, NO_ACL, 1)}},
    {"snoop_off_stops_the_sampling_with",
     before_t::plain_ingress_by_snoop,
     IN,
     0,
     nullptr,
     0,
     {rate(0, 1, NO_ACL, 1), rate(4096, 1, NO_ACL, 0)}},
    {"snoop_unchanged_stops_nothing",
     before_t::plain_ingress_by_snoop,
     IN,
     0,
     nullptr,
     1,
     {rate(4096, 1, NO_ACL, 1)}},
    {"plain_stops_acl_then_snoop",
     before_t::acl_and_snoop,
     IN,
     0,
     nullptr,
     0,
     {rate(0, 1, "11/first", 1), rate(0, 1, NO_ACL, 1), rate(4096, 1, NO_ACL, 0)}},
    {"both_with_acl_over_plain",
     before_t::plain_ingress,
     BOTH,
     7,
     "seven",
     0,
     {rate(4096, 2, "7/seven", 0), rate(0, 1, NO_ACL, 0), rate(4096, 1, "7/seven", 0)}},
};

TEST_P(Interface_enable, sends_these_messages)
{
    sflow_debug_conf = true;
    EXPECT_EQ(enable(), 0);
    EXPECT_EQ(calls(), GetParam().messages);
    EXPECT_EQ(fake::syslog_texts(), (strings{"[SFLOW-CONF]sflow_enable_intf_config start\n",
                                             "[SFLOW-CONF]sflow_enable_intf_config end\n"}));
    EXPECT_TRUE(is_unlocked());
}

TEST_P(Interface_enable, leaves_the_node_to_the_service_answer)
{
    const sflow_intf_config_t *intf = get(5);
    const sflow_intf_config_t copy = intf != nullptr ? *intf : sflow_intf_config_t{};
    enable();
    ASSERT_EQ(get(5), intf);
    if (intf != nullptr) {
        EXPECT_EQ(std::memcmp(intf, &copy, sizeof(copy)), 0);
    }
}

TEST_P(Interface_enable, ends_at_the_first_message_that_cannot_be_sent)
{
    sflow_debug_conf = true;
    for (size_t failing = 0; failing < GetParam().messages.size(); failing++) {
        forget_calls();
        fake::forget_syslog();
        int sent = 0;
        behaviour.sampling_rate = [&](int) { return sent++ == static_cast<int>(failing) ? -1 : 0; };
        EXPECT_EQ(enable(), -1);
        EXPECT_EQ(calls(), strings(GetParam().messages.begin(),
                                   GetParam().messages.begin() + static_cast<std::ptrdiff_t>(failing) + 1));
        EXPECT_EQ(fake::syslog_texts(), (strings{"[SFLOW-CONF]sflow_enable_intf_config start\n",
                                                 "[SFLOW-CONF]sflow_enable_intf_config set to ss fail\n"}));
        EXPECT_TRUE(is_unlocked());
    }
}

INSTANTIATE_TEST_SUITE_P(Requests, Interface_enable, ::testing::ValuesIn(enables),
                         [](const auto &info) { return info.param.name; });

class Interface_disable : public Interface_request
{
};

const request_t disables[] = {
    {"nothing_without_a_direction", before_t::plain_ingress, 0, 0, nullptr, 0, {}},
    {"egress", before_t::plain_ingress, OUT, 0, nullptr, 0, {rate(0, 2, NO_ACL, 0)}},
    {"egress_hands_acl_and_snoop_through",
     before_t::plain_ingress,
     OUT,
     7,
     "seven",
     1,
     {rate(0, 2, "7/seven", 1)}},
    {"ingress", before_t::plain_ingress, IN, 0, nullptr, 0, {rate(0, 1, NO_ACL, 0)}},
    {"ingress_goes_under_the_snoop_it_runs_with",
     before_t::plain_ingress_by_snoop,
     IN,
     0,
     nullptr,
     0,
     {rate(0, 1, NO_ACL, 1)}},
    {"both_begins_with_egress",
     before_t::plain_ingress,
     BOTH,
     0,
     nullptr,
     0,
     {rate(0, 2, NO_ACL, 0), rate(0, 1, NO_ACL, 0)}},
    {"named_acl", before_t::two_acls, IN, 22, "second", 0, {rate(0, 1, "22/second", 0)}},
    {"named_acl_on_plain_ingress", before_t::plain_ingress, IN, 7, "seven", 0, {rate(0, 1, "7/seven", 0)}},
    {"all_acls_when_none_is_named",
     before_t::two_acls,
     IN,
     0,
     nullptr,
     0,
     {rate(0, 1, "11/first", 0), rate(0, 1, "22/second", 0)}},
    {"enabled_slots_only", before_t::acl_in_slot_1, IN, 0, nullptr, 0, {rate(0, 1, "22/second", 0)}},
};

TEST_P(Interface_disable, sends_these_messages)
{
    sflow_debug_conf = true;
    EXPECT_EQ(disable(), 0);
    EXPECT_EQ(calls(), GetParam().messages);
    EXPECT_EQ(fake::syslog_texts(), strings{});
    EXPECT_TRUE(is_unlocked());
}

TEST_P(Interface_disable, ends_at_the_first_message_that_cannot_be_sent)
{
    sflow_debug_conf = true;
    for (size_t failing = 0; failing < GetParam().messages.size(); failing++) {
        forget_calls();
        fake::forget_syslog();
        int sent = 0;
        behaviour.sampling_rate = [&](int) { return sent++ == static_cast<int>(failing) ? -1 : 0; };
        EXPECT_EQ(disable(), -1);
        EXPECT_EQ(calls().size(), failing + 1);
        EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-CONF]sflow_disable_intf_config set to ss fail\n"});
        EXPECT_TRUE(is_unlocked());
    }
}

INSTANTIATE_TEST_SUITE_P(Requests, Interface_disable, ::testing::ValuesIn(disables),
                         [](const auto &info) { return info.param.name; });

TEST_F(Interface, disabling_egress_without_a_node_sends_and_still_fails)
{
    sflow_debug_conf = true;
    EXPECT_EQ(sflow_disable_intf_config(5, SFLOW_EGRESS, 2, 0, nullptr, 0), -1);
    EXPECT_EQ(calls(), strings{rate(0, 2, NO_ACL, 0)});
    EXPECT_EQ(fake::syslog_texts(), strings{"[SFLOW-CONF]sflow_disable_intf_config get to intf fail\n"});
    EXPECT_TRUE(is_unlocked());
}

TEST_F(Interface, disabling_egress_succeeds_when_the_answer_comes_first_and_frees_the_node)
{
    behaviour.sampling_rate = [](int) {
        sflow_config_wrlock();
        sflow_del_intf_config(sflow_get_intf_config(5));
        sflow_config_wrunlock();
        return 0;
    };
    for (const int direct : std::initializer_list<int>{SFLOW_EGRESS, SFLOW_INGRESS | SFLOW_EGRESS}) {
        forget_calls();
        add(5);
        EXPECT_EQ(sflow_disable_intf_config(5, direct, 2, 0, nullptr, 0), 0);
        EXPECT_EQ(calls(), strings{rate(0, 2, NO_ACL, 0)});
        EXPECT_TRUE(is_unlocked());
    }
}

TEST_F(Interface, disabling_ingress_without_a_node_sends_nothing)
{
    EXPECT_EQ(sflow_disable_intf_config(5, SFLOW_INGRESS, 2, 0, nullptr, 0), -1);
    EXPECT_EQ(calls(), strings{});
}

// ---- Rate change -------------------------------------------------------------------------------------------------

class Interface_reflush : public Interface
{
protected:
    static void reflush(u_int32_t rate)
    {
        sflow_config_rdlock();
        sflow_reflush_intf_config(rate);
        sflow_config_rdunlock();
    }
};

TEST_F(Interface_reflush, of_one_interface_sends_two_stops_then_two_rates)
{
    sflow_intf_config_t *intf = add(5);
    intf->enable = SFLOW_BOTH;
    intf->ifx_type = 2;
    intf->snoop = 1;
    set_acl(intf, 1, 22, "second");
    reflush(100);
    EXPECT_EQ(calls(), (strings{rate(0, 3, "0/", 1), rate(0, 3, "22/second", 1), rate(100, 3, "0/", 1),
                                rate(100, 3, "22/second", 1)}));
}

TEST_F(Interface_reflush, of_several_stops_all_before_the_first_new_rate)
{
    for (IFINDEX ifx : {8U, 5U, 6U}) {
        sflow_intf_config_t *intf = add(ifx);
        intf->enable = ifx == 6 ? 0 : SFLOW_INGRESS;
        intf->cid = 1;
    }
    reflush(100);
    const std::string tail = ", 1, type 0, 0/, snoop 0)";
    EXPECT_EQ(calls(), (strings{"rate(5, 0" + tail, "rate(5, 0" + tail, "rate(8, 0" + tail,
                                "rate(8, 0" + tail, "rate(5, 100" + tail, "rate(5, 100" + tail,
                                "rate(8, 100" + tail, "rate(8, 100" + tail}));
}

TEST_F(Interface_reflush, goes_on_after_failures_and_logs_each)
{
    sflow_debug_conf = true;
    add(5)->enable = SFLOW_INGRESS;
    add(6)->enable = SFLOW_EGRESS;
    behaviour.sampling_rate = [](int nth) { return nth == 1 || nth == 6 ? -1 : 0; };
    reflush(100);
    EXPECT_EQ(calls().size(), 8U);
    EXPECT_EQ(fake::syslog_texts(), (strings{"[SFLOW-CONF]sflow_reflush_intf_config(1)set to ss fail:5\n",
                                             "[SFLOW-CONF]sflow_reflush_intf_config(2)set to ss fail:6\n"}));
}

TEST_F(Interface_reflush, of_nothing_sends_nothing)
{
    reflush(100);
    EXPECT_EQ(calls(), strings{});
}

} // namespace
