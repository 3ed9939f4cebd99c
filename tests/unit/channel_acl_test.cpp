// Access lists: look-up, references, and the notices of the ACL service.
#include "channel_support.h"

#include "sflow_acl.h"
#include "sflow_dbg.h"

#include <gmock/gmock.h>

using namespace channel;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class Acl : public AgentTest
{
protected:
    Acl()
    {
        master_ = kx_thread_master_create();
        fake::add_acl(77, "web", ACL_CLASS_IPV6);
        fake::add_acl(78, "dns");
    }

    void registered()
    {
        ASSERT_EQ(sflow_acl_init(master_), 0);
        fake::run_due();
        fake::forget_calls();
        fake::forget_syslog();
        forget_debug();
        sflow_agent.cli_ready_flag = 0;
    }

    /// An interface whose ingress sampling the lists limit.
    static sflow_intf_config_t *add_limited(IFINDEX ifx, const acl_info_t &first,
                                            const acl_info_t &second = {})
    {
        sflow_intf_config_t *intf = add_interface(ifx);
        intf->enable = SFLOW_INGRESS;
        intf->acl[0] = first;
        intf->acl[1] = second;
        return intf;
    }

    kx_thread_master_t *master_ = nullptr;
};

// Suites are named after what they test.
using Acl_init = Acl;
using Acl_lookup = Acl;
using Acl_ref = Acl;
using Acl_unref = Acl;
using Acl_operations = Acl;
using Acl_svr_notify = Acl;
using Acl_delete_notify = Acl;

// ---- Registration --------------------------------------------------------------------------------------------------

TEST_F(Acl_init, registers_two_notices)
{
    EXPECT_EQ(sflow_acl_init(master_), 0);
    ASSERT_EQ(fake::calls("acl_agent_init").size(), 1U);
    EXPECT_THAT(fake::calls("acl_agent_init")[0], testing::HasSubstr("name=sflow_acl"));
    ASSERT_NE(fake::acl_registration(), nullptr);
    acl_reg_t others = *fake::acl_registration();
    EXPECT_NE(others.acl_delete_notify, nullptr);
    EXPECT_NE(others.acl_svr_status_notify, nullptr);
    others.acl_delete_notify = nullptr;
    others.acl_svr_status_notify = nullptr;
    EXPECT_EQ(bytes_of(others), Bytes(sizeof(acl_reg_t)));
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

TEST_F(Acl_init, failure_is_told)
{
    fake::fail_next("acl_agent_init", ACL_ERR_NO_MEMORY);
    EXPECT_EQ(sflow_acl_init(master_), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre(std::string("[SFLOW-CONF]sflow_acl_init acl client init fail, ") +
                            acl_strerror(ACL_ERR_NO_MEMORY) + "\n"));
}

// ---- Look-up -------------------------------------------------------------------------------------------------------

TEST_F(Acl_lookup, by_name)
{
    registered();
    int id = 0;
    EXPECT_EQ(sflow_acl_lookup(&id, "web"), 0);
    EXPECT_EQ(id, 77);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_acl_lookup acl id(77), acl name(web), acl type(2)\n"));
}

TEST_F(Acl_lookup, by_number)
{
    registered();
    int id = 78;
    EXPECT_EQ(sflow_acl_lookup(&id, ""), 0);
    EXPECT_EQ(id, 78);
    EXPECT_EQ(sflow_acl_lookup(&id, nullptr), 0);
}

TEST_F(Acl_lookup, of_an_unknown_name_leaves_the_id)
{
    registered();
    int id = 0;
    EXPECT_EQ(sflow_acl_lookup(&id, "mail"), -1);
    EXPECT_EQ(id, 0);
    id = 5;
    EXPECT_EQ(sflow_acl_lookup(&id, "mail"), -1);
    EXPECT_EQ(id, 5);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_acl_lookup acl id(0), acl name(mail), is not exited\n",
                            "[SFLOW-CONF]sflow_acl_lookup acl id(5), acl name(mail), is not exited\n"));
}

TEST_F(Acl_lookup, takes_100_bytes_of_the_name)
{
    fake::add_acl(90, std::string(100, 'n'));
    registered();
    int id = 0;
    EXPECT_EQ(sflow_acl_lookup(&id, std::string(200, 'n').c_str()), 0);
    EXPECT_EQ(id, 90);
}

// ---- References ----------------------------------------------------------------------------------------------------

TEST_F(Acl_ref, takes_a_reference)
{
    registered();
    EXPECT_EQ(sflow_acl_ref(77, "web"), 0);
    EXPECT_EQ(fake::acl_refs(77), 1);
    EXPECT_THAT(fake::calls("acl_ref"), ElementsAre(testing::HasSubstr("vdev=0 id=77 name=web")));
    EXPECT_EQ(sflow_acl_ref(1, "none"), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_acl_ref acl id(77), acl name(web), ref success\n",
                            "[SFLOW-CONF]sflow_acl_ref acl id(1), acl name(none), ref fail\n"));
}

TEST_F(Acl_unref, releases_it)
{
    registered();
    ASSERT_EQ(sflow_acl_ref(77, "web"), 0);
    fake::forget_syslog();
    EXPECT_EQ(sflow_acl_unref(77, "web"), 0);
    EXPECT_EQ(fake::acl_refs(77), 0);
    EXPECT_EQ(sflow_acl_unref(1, nullptr), -1);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_acl_unref acl id(77), acl name(web), unref success\n",
                            "[SFLOW-CONF]sflow_acl_unref acl id(1), acl name(), unref fail\n"));
}

TEST_F(Acl_operations, are_silent_without_debug_switch)
{
    registered();
    sflow_debug_conf = false;
    int id = 0;
    sflow_acl_lookup(&id, "web");
    sflow_acl_lookup(&id, "mail");
    sflow_acl_ref(77, "web");
    sflow_acl_unref(77, "web");
    sflow_acl_unref(1, "none");
    fake::delete_acl(77);
    EXPECT_THAT(fake::syslog_texts(), IsEmpty());
}

// ---- Service status ------------------------------------------------------------------------------------------------

TEST_F(Acl_svr_notify, service_up_takes_every_reference_again)
{
    registered();
    add_limited(5, {true, 77, "web"}, {true, 78, "dns"});
    add_limited(6, {true, 77, "web"}, {false, 78, "dns"}); // a slot that is not enabled
    add_limited(7, {true, 0, "none"});                     // and one without a list
    fake::set_acl_service(true);
    EXPECT_EQ(fake::acl_refs(77), 2);
    EXPECT_EQ(fake::acl_refs(78), 1);
    EXPECT_EQ(fake::call_count("acl_ref"), 3U);
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_ACL_READY_FLAG);
    EXPECT_THAT(debug_lines(), ElementsAre(DebugLine{"sflow_acl.c", "sflow_acl_svr_notify status."}));
}

TEST_F(Acl_svr_notify, service_up_goes_on_after_a_failed_reference)
{
    registered();
    add_limited(5, {true, 77, "web"}, {true, 78, "dns"});
    fake::fail_next("acl_ref");
    fake::set_acl_service(true);
    EXPECT_EQ(fake::acl_refs(77), 0);
    EXPECT_EQ(fake::acl_refs(78), 1);
    EXPECT_THAT(debug_texts(),
                ElementsAre("sflow_acl_svr_notify status.", "Failed to reference ACL rule.\n"));
}

TEST_F(Acl_svr_notify, service_down_sets_the_bit_and_nothing_else)
{
    registered();
    const sflow_intf_config_t *intf = add_limited(5, {true, 77, "web"});
    sflow_agent.cli_ready_flag = SFLOW_CLI_VRF_READY_FLAG;
    fake::set_acl_service(false);
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_VRF_READY_FLAG | SFLOW_CLI_ACL_READY_FLAG);
    EXPECT_EQ(fake::call_count("acl_ref"), 0U);
    EXPECT_EQ(fake::call_count("acl_unref"), 0U);
    EXPECT_TRUE(intf->acl[0].enable);
}

TEST_F(Acl_svr_notify, service_status_needs_no_cli_lock)
{
    registered();
    fail_lock(&sflow_agent.cli_lock.mutex);
    fake::set_acl_service(true);
    EXPECT_EQ(sflow_agent.cli_ready_flag, SFLOW_CLI_ACL_READY_FLAG);
    EXPECT_THAT(debug_texts(), ElementsAre("sflow_acl_svr_notify status."));
    EXPECT_NE(pthread_mutex_lock(&sflow_agent.cli_lock.mutex), 0); // the failure has not been consumed
}

// ---- Deletion ------------------------------------------------------------------------------------------------------

/// A stop of ingress sampling, laid out by hand.
Bytes stop(IFINDEX ifx, std::uint32_t ifx_type, std::uint32_t acl_id, std::string_view acl_name,
           std::uint32_t snoop)
{
    Bytes record(132);
    put(record, 0, 258);
    put(record, 4, 132);
    put(record, 8, ifx);
    put(record, 16, 1);
    put(record, 20, ifx_type);
    put(record, 24, acl_id);
    put(record, 28, acl_name);
    put(record, 128, snoop);
    return record;
}

TEST_F(Acl_delete_notify, stops_the_sampling_it_limits)
{
    registered();
    sflow_intf_config_t *first = add_limited(5, {true, 77, "web"});
    first->ifx_type = 2;
    first->snoop = 1;
    sflow_intf_config_t *second = add_limited(6, {true, 78, "dns"}, {true, 77, "web"});
    second->ifx_type = 1;
    add_limited(7, {true, 78, "dns"});
    add_limited(8, {false, 77, "web"});
    fake::forget_syslog();
    sflow_debug_event = false;
    fake::delete_acl(77);

    EXPECT_THAT(sent_records(), ElementsAre(stop(5, 2, 77, "web", 1), stop(6, 1, 77, "web", 0)));
    // The slots are cleared when the sampling service has answered.
    EXPECT_TRUE(first->acl[0].enable);
    EXPECT_TRUE(second->acl[1].enable);
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()"));
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]sflow_acl_delete_notify acl id(77), acl name(web) notify\n",
                            "[SFLOW-CONF]send set sampling rate success:ifx:5, rate:0\n",
                            "[SFLOW-CONF]send set sampling rate success:ifx:6, rate:0\n",
                            "[SFLOW-CONF]sflow_acl_delete_notify c2p reform success.\n"));
}

TEST_F(Acl_delete_notify, sends_one_stop_for_each_matching_slot)
{
    registered();
    add_limited(5, {true, 77, "web"}, {true, 77, "web"});
    fake::delete_acl(77);
    EXPECT_EQ(sent_records().size(), 2U);
}

TEST_F(Acl_delete_notify, recomputes_every_interface)
{
    registered();
    sflow_intf_config_t *matching = add_limited(5, {true, 77, "web"});
    sflow_intf_config_t *other = add_limited(6, {true, 78, "dns"});
    sflow_intf_config_t *none = add_limited(7, {});
    none->acl_enable = true;
    fake::delete_acl(77);
    EXPECT_TRUE(matching->acl_enable);
    EXPECT_TRUE(other->acl_enable);
    EXPECT_FALSE(none->acl_enable);
}

TEST_F(Acl_delete_notify, without_service_keeps_the_slot)
{
    registered();
    const sflow_intf_config_t *intf = add_limited(5, {true, 77, "web"});
    answer_sends([](int) { return -1; });
    answer("sflow_cli_c2p_reform", -1);
    fake::delete_acl(77);
    EXPECT_TRUE(intf->acl[0].enable);
    EXPECT_THAT(fake::syslog_texts(), Contains("[SFLOW-CONF]send set sampling rate fail:ifx:5, rate:0\n"));
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]sflow_acl_delete_notify c2p reform failure.\n");
}

TEST_F(Acl_delete_notify, logs_lock_failures)
{
    registered();
    add_limited(5, {true, 77, "web"});
    fail_lock(&sflow_agent.config_lock.rwlock);
    fail_unlock(&sflow_agent.config_lock.rwlock);
    fake::delete_acl(77);
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow WR lock cfg fail.\n"), 1U);
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow unlock cfg fail.\n"), 1U);
    EXPECT_EQ(sent_records().size(), 1U);
}

TEST_F(Acl_delete_notify, of_a_name_that_fills_its_field)
{
    fake::add_acl(90, std::string(100, 'n'));
    registered();
    fake::delete_acl(90);
    EXPECT_EQ(fake::syslog_texts().front(), "[SFLOW-CONF]sflow_acl_delete_notify acl id(90), acl name(" +
                                                std::string(100, 'n') + ") notify\n");
}

} // namespace
