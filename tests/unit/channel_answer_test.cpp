// The answers to configuration requests: what a sampling setting and a collector attachment change, and what the
// operator is told.
#include "channel_support.h"

#include "sflow_acl.h"
#include "sflow_cli_msg.h"
#include "sflow_dbg.h"

#include <cerrno>
#include <gmock/gmock.h>

using namespace channel;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/// An answer to a sampling setting, laid out by hand.
struct Answer {
    std::uint32_t ifx = 7;
    std::uint32_t rate = 8192;
    std::uint32_t direct = SFLOW_INGRESS;
    std::uint32_t ifx_type = SFLOW_IFX_TYPE_PORT;
    std::uint32_t acl_id = 0;
    std::string acl_name{};
    std::uint32_t snoop = 0;
    std::int32_t ret = 0;

    [[nodiscard]] Bytes bytes() const
    {
        Bytes record(136);
        put(record, 0, 514);
        put(record, 4, 136);
        put(record, 8, ifx);
        put(record, 12, rate);
        put(record, 16, direct);
        put(record, 20, ifx_type);
        put(record, 24, acl_id);
        put(record, 28, acl_name);
        put(record, 128, snoop);
        put(record, 132, static_cast<std::uint32_t>(ret));
        return record;
    }
};

constexpr char REFORM_OK[] = "[SFLOW-CONF]sflow_set_sampling_rate_ret_msg c2p reform success.\n";
constexpr char REFORM_FAILED[] = "[SFLOW-CONF]sflow_set_sampling_rate_ret_msg c2p reform failure.\n";

class CliMsg_set_sampling_rate_ret_msg : public AgentTest
{
protected:
    CliMsg_set_sampling_rate_ret_msg()
    {
        fake::set_interface(7, {.name = "eth7"});
        fake::add_acl(77, "web");
        fake::add_acl(78, "dns");
        // References need a registered client.
        EXPECT_EQ(sflow_acl_init(kx_thread_master_create()), 0);
        fake::forget_syslog();
        fake::forget_calls();
    }

    static void answered(const Answer &answer)
    {
        Bytes record = answer.bytes();
        sflow_set_sampling_rate_ret_msg(reinterpret_cast<char *>(record.data()));
    }

    static std::vector<fake::SyslogLine> warnings()
    {
        std::vector<fake::SyslogLine> lines;
        for (const fake::SyslogLine &line : fake::syslog_lines()) {
            if (line.level != 7)
                lines.push_back(line);
        }
        return lines;
    }

    static std::size_t reforms() { return module_calls().size(); }
};

// ---- Start on an interface without configuration -------------------------------------------------------------------

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_creates_the_configuration)
{
    answered(
        {.rate = 4096, .direct = SFLOW_EGRESS, .ifx_type = 3, .acl_id = 77, .acl_name = "web", .snoop = 1});
    const sflow_intf_config_t *intf = interface(7);
    ASSERT_NE(intf, nullptr);
    EXPECT_EQ(intf->enable, SFLOW_EGRESS);
    EXPECT_EQ(intf->ifx_type, 3);
    // The list and snoop belong to ingress alone.
    EXPECT_EQ(intf->snoop, 0);
    EXPECT_FALSE(intf->acl_enable);
    EXPECT_FALSE(intf->acl[0].enable);
    EXPECT_EQ(intf->acl[0].enable_acl_id, 0);
    EXPECT_THAT(module_calls(), ElementsAre("sflow_cli_c2p_reform()"));
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-CONF]recv set sampling rate return msg\n",
                    "[SFLOW-EVENT]sflow_set_sampling_rate_ret_msg 3.sflow_spl_ret_t:ifx=7, direct(2), "
                    "ifx_type=3, acl_id(77), acl_name(web), snoop(1)\n",
                    REFORM_OK));
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_ingress_alone_takes_list_and_snoop)
{
    answered({.acl_id = 77, .acl_name = "web", .snoop = 1});
    const sflow_intf_config_t *intf = interface(7);
    ASSERT_NE(intf, nullptr);
    EXPECT_EQ(intf->enable, SFLOW_INGRESS);
    EXPECT_EQ(intf->snoop, 1);
    EXPECT_TRUE(intf->acl_enable);
    EXPECT_TRUE(intf->acl[0].enable);
    EXPECT_EQ(intf->acl[0].enable_acl_id, 77);
    EXPECT_STREQ(intf->acl[0].enable_acl_name, "web");
    EXPECT_FALSE(intf->acl[1].enable);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_ingress_without_list_takes_no_slot)
{
    answered({.acl_name = "web"});
    const sflow_intf_config_t *intf = interface(7);
    ASSERT_NE(intf, nullptr);
    EXPECT_FALSE(intf->acl_enable);
    EXPECT_STREQ(intf->acl[0].enable_acl_name, "");
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_both_on_a_new_configuration_takes_neither_list_nor_snoop)
{
    // Deliberate: a new configuration looks at the whole of its directions, an existing one at the ingress bit.
    answered({.direct = SFLOW_BOTH, .acl_id = 77, .acl_name = "web", .snoop = 1});
    const sflow_intf_config_t *intf = interface(7);
    ASSERT_NE(intf, nullptr);
    EXPECT_EQ(intf->enable, SFLOW_BOTH);
    EXPECT_EQ(intf->snoop, 0);
    EXPECT_FALSE(intf->acl_enable);
    answered({.direct = SFLOW_BOTH, .acl_id = 77, .acl_name = "web", .snoop = 1});
    EXPECT_EQ(intf->snoop, 1);
    EXPECT_TRUE(intf->acl_enable);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_without_memory_changes_nothing_and_skips_the_reform)
{
    answer("sflow_add_intf_config", -1);
    answered({});
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_EQ(reforms(), 0U);
    EXPECT_THAT(fake::syslog_texts(), ElementsAre("[SFLOW-CONF]recv set sampling rate return msg\n",
                                                  "[SFLOW-CONF]sflow_set_sampling_rate_ret_msg add fail\n"));
    add_interface(8); // the lock is free again
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_an_unconfigured_interface_only_reforms)
{
    answered({.rate = 0, .acl_id = 77, .acl_name = "web"});
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_EQ(reforms(), 1U);
    EXPECT_THAT(fake::calls("acl_unref"), IsEmpty());
}

// ---- Start on a configured interface -------------------------------------------------------------------------------

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_adds_the_direction)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_INGRESS;
    intf->ifx_type = 1;
    answered({.direct = SFLOW_EGRESS, .ifx_type = 2, .acl_id = 77, .acl_name = "web", .snoop = 1});
    EXPECT_EQ(intf->enable, SFLOW_BOTH);
    EXPECT_EQ(intf->ifx_type, 2);
    EXPECT_EQ(intf->snoop, 0);
    EXPECT_EQ(intf->acl[0].enable_acl_id, 0);
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-CONF]recv set sampling rate return msg\n",
                    "[SFLOW-EVENT]sflow_set_sampling_rate_ret_msg 1.sflow_spl_ret_t:ifx=7, direct(2), "
                    "ifx_type=2, acl_id(77), acl_name(web)\n",
                    REFORM_OK));
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_ingress_takes_the_first_free_slot)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_EGRESS;
    intf->acl[0] = {true, 78, "dns"};
    answered({.acl_id = 77, .acl_name = "web", .snoop = 1});
    EXPECT_EQ(intf->enable, SFLOW_BOTH);
    EXPECT_EQ(intf->snoop, 1);
    EXPECT_TRUE(intf->acl_enable);
    EXPECT_EQ(intf->acl[0].enable_acl_id, 78);
    EXPECT_TRUE(intf->acl[1].enable);
    EXPECT_EQ(intf->acl[1].enable_acl_id, 77);
    EXPECT_STREQ(intf->acl[1].enable_acl_name, "web");
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_ingress_without_list_leaves_its_slot_disabled)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->acl[0] = {false, 55, "old"};
    intf->acl_enable = true;
    answered({});
    EXPECT_FALSE(intf->acl[0].enable);
    EXPECT_EQ(intf->acl[0].enable_acl_id, 0); // taken all the same
    EXPECT_STREQ(intf->acl[0].enable_acl_name, "");
    EXPECT_FALSE(intf->acl_enable);

    intf->acl[0] = {true, 78, "dns"};
    answered({});
    EXPECT_TRUE(intf->acl_enable); // the other list still limits it
    EXPECT_FALSE(intf->acl[1].enable);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_ingress_with_both_slots_taken_keeps_them)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->acl[0] = {true, 77, "web"};
    intf->acl[1] = {true, 78, "dns"};
    intf->acl_enable = true;
    answered({.acl_id = 79, .acl_name = "ntp"});
    EXPECT_EQ(intf->acl[0].enable_acl_id, 77);
    EXPECT_EQ(intf->acl[1].enable_acl_id, 78);
    EXPECT_EQ(intf->enable, SFLOW_INGRESS);
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-CONF]recv set sampling rate return msg\n",
                    "[SFLOW-EVENT]sflow_set_sampling_rate_ret_msg sflow_spl_ret_t:ifx=7, direct(1), "
                    "ifx_type=1, acl_id(79), acl_name(ntp) failed\n",
                    "[SFLOW-EVENT]sflow_set_sampling_rate_ret_msg 1.sflow_spl_ret_t:ifx=7, direct(1), "
                    "ifx_type=1, acl_id(79), acl_name(ntp)\n",
                    REFORM_OK));
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, name_that_fills_its_field_stays_terminated)
{
    add_interface(7);
    answered({.acl_id = 77, .acl_name = std::string(100, 'n')});
    EXPECT_EQ(std::string(interface(7)->acl[0].enable_acl_name), std::string(99, 'n'));
    EXPECT_THAT(fake::syslog_texts(),
                Contains(testing::HasSubstr("acl_name(" + std::string(100, 'n') + ")\n")));
}

// ---- Stop ----------------------------------------------------------------------------------------------------------

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_egress_clears_its_bit)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_BOTH;
    intf->snoop = 1;
    intf->acl[0] = {true, 77, "web"};
    intf->acl_enable = true;
    answered({.rate = 0, .direct = SFLOW_EGRESS, .ifx_type = 2, .acl_id = 77, .acl_name = "web", .snoop = 1});
    EXPECT_EQ(intf->enable, SFLOW_INGRESS);
    EXPECT_EQ(intf->ifx_type, 2);
    EXPECT_EQ(intf->snoop, 1);
    EXPECT_TRUE(intf->acl[0].enable);
    EXPECT_THAT(fake::calls("acl_unref"), IsEmpty());
    EXPECT_THAT(
        fake::syslog_texts(),
        ElementsAre("[SFLOW-CONF]recv set sampling rate return msg\n",
                    "[SFLOW-EVENT]sflow_set_sampling_rate_ret_msg 2.sflow_spl_ret_t:ifx=7, direct(2), "
                    "ifx_type=2, acl_id(77), acl_name(web)\n",
                    REFORM_OK));
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_a_list_releases_it)
{
    ASSERT_EQ(sflow_acl_ref(77, "web"), 0);
    sflow_intf_config_t *intf = add_interface(7);
    intf->cid = 1;
    intf->enable = SFLOW_INGRESS;
    intf->snoop = 1;
    intf->acl[1] = {true, 77, "web"};
    intf->acl_enable = true;
    answered({.rate = 0, .acl_id = 77, .acl_name = "web", .snoop = 1});
    EXPECT_EQ(fake::acl_refs(77), 0);
    EXPECT_FALSE(intf->acl[1].enable);
    EXPECT_EQ(intf->acl[1].enable_acl_id, 0);
    EXPECT_STREQ(intf->acl[1].enable_acl_name, "");
    EXPECT_FALSE(intf->acl_enable);
    EXPECT_EQ(intf->enable, 0U);
    EXPECT_EQ(intf->snoop, 0);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_one_of_two_lists_keeps_ingress)
{
    ASSERT_EQ(sflow_acl_ref(77, "web"), 0);
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_INGRESS;
    intf->acl[0] = {true, 77, "web"};
    intf->acl[1] = {true, 78, "dns"};
    intf->acl_enable = true;
    answered({.rate = 0, .acl_id = 77, .acl_name = "web"});
    EXPECT_EQ(intf->enable, SFLOW_INGRESS);
    EXPECT_TRUE(intf->acl_enable);
    EXPECT_FALSE(intf->acl[0].enable);
    EXPECT_TRUE(intf->acl[1].enable);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_a_list_that_cannot_be_released_goes_on)
{
    fake::fail_next("acl_unref");
    sflow_intf_config_t *intf = add_interface(7);
    intf->fid = 2;
    intf->acl[0] = {true, 77, "web"};
    answered({.rate = 0, .acl_id = 77});
    EXPECT_FALSE(intf->acl[0].enable);
    EXPECT_THAT(
        fake::syslog_texts(),
        Contains("[SFLOW-EVENT][sflow_set_sampling_rate_ret_msg] Failed to de-reference the ACL(77) rule\n"));
    EXPECT_EQ(reforms(), 1U);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_a_list_by_name_alone_releases_it)
{
    ASSERT_EQ(sflow_acl_ref(77, "web"), 0);
    add_interface(7)->fid = 1;
    answered({.rate = 0, .acl_name = "web"});
    EXPECT_EQ(fake::acl_refs(77), 0);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_of_plain_ingress_releases_nothing)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_BOTH;
    answered({.rate = 0});
    EXPECT_EQ(intf->enable, SFLOW_EGRESS);
    EXPECT_THAT(fake::calls("acl_unref"), IsEmpty());
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_frees_a_configuration_that_serves_nothing)
{
    add_interface(7)->enable = SFLOW_INGRESS;
    add_interface(8);
    answered({.rate = 0});
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_NE(interface(8), nullptr);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, stop_keeps_a_configuration_with_a_collector)
{
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_INGRESS;
    intf->cid = 1;
    answered({.rate = 0});
    EXPECT_EQ(interface(7), intf);
    EXPECT_EQ(intf->enable, 0U);
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

struct Refusal {
    std::int32_t ret;
    const char *mnemonic;
    const char *text;
};

class CliMsg_set_sampling_rate_refused : public CliMsg_set_sampling_rate_ret_msg,
                                         public testing::WithParamInterface<Refusal>
{
};

TEST_P(CliMsg_set_sampling_rate_refused, warns_and_keeps_the_configuration)
{
    sflow_debug_conf = sflow_debug_event = false; // warnings do not depend on them
    sflow_intf_config_t *intf = add_interface(7);
    intf->enable = SFLOW_EGRESS;
    const Bytes before = bytes_of(*intf);
    answered({.acl_id = 77, .acl_name = "web", .snoop = 1, .ret = GetParam().ret});
    EXPECT_EQ(bytes_of(*intf), before);
    EXPECT_THAT(fake::syslog_lines(),
                ElementsAre(fake::SyslogLine{4, "SFLOW", GetParam().mnemonic, 1, GetParam().text}));
    EXPECT_EQ(reforms(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    sflow_set_sampling_rate_ret_msg, CliMsg_set_sampling_rate_refused,
    testing::Values(
        Refusal{-10, "CONFLICT_ERSPAN",
                "Interface eth7 cannot be sampled due to the conflict between SFLOW and ERSPAN."},
        Refusal{-11, "CONFLICT_IPFIX",
                "Interface eth7 cannot be sampled due to the conflict between SFLOW and IPFIX."},
        Refusal{-1, "CONFIG_FAIL", "Interface eth7 cannot be sampled due to an unknown error[-1]."},
        Refusal{10, "CONFIG_FAIL", "Interface eth7 cannot be sampled due to an unknown error[10]."}),
    [](const auto &info) { return "row" + std::to_string(info.index); });

TEST_F(CliMsg_set_sampling_rate_ret_msg, refusal_is_logged)
{
    answered({.ret = -11});
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]recv set sampling rate return msg\n",
                            "[SFLOW-CONF]sflow_set_sampling_rate_ret_msg return fail:-11 type:514\n",
                            "Interface eth7 cannot be sampled due to the conflict between SFLOW and IPFIX.",
                            REFORM_OK));
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, refusal_for_an_unknown_interface_warns_nobody)
{
    answered({.ifx = 99, .ret = -11});
    EXPECT_THAT(warnings(), IsEmpty());
    EXPECT_THAT(fake::syslog_texts(),
                Contains("[SFLOW-CONF]Failed to get interface name, errno=" + std::to_string(ENODEV) + ", " +
                         std::string(strerror(ENODEV)) + ".\n"));
    EXPECT_EQ(reforms(), 1U);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, long_interface_name_is_cut_to_its_buffer)
{
    fake::set_interface(7, {.name = std::string(80, 'i')});
    answered({.ret = -10});
    ASSERT_EQ(warnings().size(), 1U);
    EXPECT_EQ(warnings()[0].text, "Interface " + std::string(63, 'i') +
                                      " cannot be sampled due to the conflict between SFLOW and ERSPAN.");
}

// ---- Locks, reform -------------------------------------------------------------------------------------------------

TEST_F(CliMsg_set_sampling_rate_ret_msg, failed_reform_is_logged)
{
    answer("sflow_cli_c2p_reform", -1);
    answered({});
    EXPECT_EQ(fake::syslog_texts().back(), REFORM_FAILED);
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, lock_failures_are_logged)
{
    fail_lock(&sflow_agent.config_lock.rwlock);
    fail_unlock(&sflow_agent.config_lock.rwlock);
    answered({});
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow WR lock cfg fail.\n"), 1U);
    EXPECT_EQ(fake::syslog_count("[SFLOW-CONF]sflow unlock cfg fail.\n"), 1U);
    EXPECT_NE(interface(7), nullptr);
}

// ---- Interfaces that go before the answer comes --------------------------------------------------------------------

TEST_F(CliMsg_set_sampling_rate_ret_msg, start_of_an_interface_that_has_gone_leaves_nothing_behind)
{
    sflow_agent.cli_ready_flag = SFLOW_CLI_VRF_READY_FLAG;
    fake::remove_interface(7);
    answered({.acl_id = 77, .acl_name = "web"});
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_EQ(module_calls().front(), "sflow_intf_del_notify(7)");
    EXPECT_EQ(module_calls().back(), "sflow_cli_c2p_reform()");
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, interface_that_one_layer_still_has_is_not_gone)
{
    sflow_agent.cli_ready_flag = SFLOW_CLI_VRF_READY_FLAG;
    const std::pair<u_int32_t, u_int32_t> versions[] = {{1, 0}, {0, 1}};
    for (const auto &[physical, tcpip] : versions) {
        fake::set_interface(7, {.name = "eth7", .physical_version = physical, .tcpip_version = tcpip});
        answered({});
        EXPECT_NE(interface(7), nullptr);
    }
    EXPECT_THAT(module_calls(), testing::Not(Contains("sflow_intf_del_notify(7)")));
}

TEST_F(CliMsg_set_sampling_rate_ret_msg, no_interface_is_gone_before_the_initial_data_are_complete)
{
    sflow_agent.cli_ready_flag = SFLOW_CLI_SS_READY_FLAG;
    fake::remove_interface(7);
    answered({});
    EXPECT_NE(interface(7), nullptr);
}

// ---- Collector attachment ------------------------------------------------------------------------------------------

class Attachment : public AgentTest
{
protected:
    static void answered(std::uint32_t flag, std::uint32_t ret = 0)
    {
        Bytes record = words({517, 24, 7, flag, 2, ret});
        sflow_ifx_is_conf_ret_msg(reinterpret_cast<char *>(record.data()));
    }

    static std::string heading(int ret, int flag)
    {
        return "[SFLOW-CONF]sflow_ifx_is_conf_ret_msg:ret:" + std::to_string(ret) +
               ", ifx:7, cid:2, flag:" + std::to_string(flag) + "\n";
    }
};

// Suites are named after what they test.
using CliMsg_ifx_is_conf_ret_msg = Attachment;

TEST_F(CliMsg_ifx_is_conf_ret_msg, binds_flow_samples)
{
    answered(1);
    EXPECT_THAT(module_calls(), ElementsAre("sflow_sampler_set_cid(7,2)", "sflow_cli_c2p_reform()"));
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]recv ifx configure msg\n", heading(0, 1),
                            "[SFLOW-CONF]sflow_ifx_is_conf_ret_msg c2p reform success.\n"));
}

TEST_F(CliMsg_ifx_is_conf_ret_msg, binds_counters_for_every_other_flag)
{
    for (const std::uint32_t flag : {2U, 0U, 3U}) {
        forget_module_calls();
        answered(flag);
        EXPECT_THAT(module_calls(), ElementsAre("sflow_poller_set_cid(7,2)", "sflow_cli_c2p_reform()"))
            << flag;
    }
}

TEST_F(CliMsg_ifx_is_conf_ret_msg, binding_of_an_interface_that_has_gone_is_taken_back)
{
    sflow_agent.cli_ready_flag = SFLOW_CLI_VRF_READY_FLAG;
    fake::set_interface(7, {.name = "eth7"});
    answered(1);
    EXPECT_THAT(module_calls(), ElementsAre("sflow_sampler_set_cid(7,2)", "sflow_cli_c2p_reform()"));
    fake::remove_interface(7);
    for (const std::uint32_t flag : {1U, 2U}) {
        forget_module_calls();
        answered(flag);
        EXPECT_THAT(module_calls(),
                    ElementsAre(flag == 1 ? "sflow_sampler_set_cid(7,2)" : "sflow_poller_set_cid(7,2)",
                                "sflow_intf_del_notify(7)", "sflow_cli_c2p_reform()"));
    }
}

TEST_F(CliMsg_ifx_is_conf_ret_msg, failed_reform_is_logged)
{
    answer("sflow_cli_c2p_reform", -1);
    answered(2);
    EXPECT_EQ(fake::syslog_texts().back(), "[SFLOW-CONF]sflow_ifx_is_conf_ret_msg c2p reform failure.\n");
}

TEST_F(CliMsg_ifx_is_conf_ret_msg, refused)
{
    answered(1, static_cast<std::uint32_t>(-1));
    EXPECT_THAT(module_calls(), IsEmpty());
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]recv ifx configure msg\n", heading(-1, 1),
                            "[SFLOW-CONF]sflow_ifx_is_conf_ret_msg sflow set collector fail."));
}

TEST_F(CliMsg_ifx_is_conf_ret_msg, without_collector_prints)
{
    answer("sflow_sampler_set_cid", -1);
    answer("sflow_poller_set_cid", -1);
    testing::internal::CaptureStdout();
    answered(1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[sflow] sflow set flow sample collector failure.Should config sflow collector address first.");
    testing::internal::CaptureStdout();
    answered(2);
    EXPECT_EQ(
        testing::internal::GetCapturedStdout(),
        "[sflow] sflow set counter sample collector failure.Should config sflow collector address first.");
    EXPECT_THAT(module_calls(), ElementsAre("sflow_sampler_set_cid(7,2)", "sflow_poller_set_cid(7,2)"));
}

TEST_F(CliMsg_ifx_is_conf_ret_msg, wrong_type_is_logged_with_its_fields)
{
    Bytes record = words({516, 24, 7, 1, 2, 0});
    sflow_ifx_is_conf_ret_msg(reinterpret_cast<char *>(record.data()));
    EXPECT_THAT(module_calls(), IsEmpty());
    EXPECT_THAT(fake::syslog_texts(),
                ElementsAre("[SFLOW-CONF]recv ifx configure msg\n", heading(0, 1),
                            "[SFLOW-CONF]sflow_ifx_is_conf_ret_msg type is invalid:0x204\n"));
}

} // namespace
