// The fake platform itself: a test that relies on it fails for the right reason only.
#include "fake_platform.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class FakePlatform : public testing::Test
{
protected:
    void SetUp() override
    {
        fake::reset();
        order.clear();
    }

    static inline std::vector<int> order;
};

int note(kx_thread_t *thread)
{
    static_cast<std::vector<int> *>(kx_thread_arg(thread))->push_back(static_cast<int>(fake::now().count()));
    return 0;
}

int rearm(kx_thread_t *thread)
{
    note(thread);
    kx_thread_add_timer(thread->master, rearm, thread->arg, 1);
    return 0;
}

TEST_F(FakePlatform, timers_run_at_their_moment_and_only_when_time_passes)
{
    kx_thread_master_t *master = kx_thread_master_create();
    kx_thread_add_timer(master, note, &order, 2);
    kx_thread_add_timer_withname(master, note, &order, 1, "first");
    kx_thread_add_timer_msec(master, note, &order, 1500);
    EXPECT_EQ(fake::run_due(), 0);
    EXPECT_EQ(fake::advance(999ms), 0);
    EXPECT_EQ(fake::advance(1ms), 1);
    EXPECT_EQ(fake::advance(10s), 2);
    EXPECT_THAT(order, ElementsAre(1000, 1500, 2000));
}

TEST_F(FakePlatform, timers_that_rearm_run_once_a_period)
{
    kx_thread_add_timer(kx_thread_master_create(), rearm, &order, 1);
    EXPECT_EQ(fake::advance(3500ms), 3);
    EXPECT_THAT(order, ElementsAre(1000, 2000, 3000));
    ASSERT_EQ(fake::armed().size(), 1u);
    EXPECT_EQ(fake::armed()[0].due_in_ms, 500);
}

TEST_F(FakePlatform, callers_timer_coalesces_while_pending)
{
    kx_thread_master_t *master = kx_thread_master_create();
    kx_thread_t timer{};
    EXPECT_FALSE(kx_thread_is_pending(&timer));
    EXPECT_EQ(kx_thread_insert_timer(master, &timer, note, &order, 1, "mine"), 0);
    EXPECT_EQ(kx_thread_insert_timer(master, &timer, note, &order, 1, "mine"), 0);
    EXPECT_TRUE(kx_thread_is_pending(&timer));
    EXPECT_EQ(fake::armed_count("mine"), 1u);
    EXPECT_EQ(fake::advance(1s), 1);
    EXPECT_FALSE(kx_thread_is_pending(&timer));

    EXPECT_EQ(kx_thread_insert_timer(master, &timer, note, &order, 1, "mine"), 0);
    kx_thread_cancel(&timer);
    EXPECT_FALSE(kx_thread_is_pending(&timer));
    EXPECT_EQ(fake::advance(5s), 0);
}

TEST_F(FakePlatform, finished_master_refuses_and_drops)
{
    kx_thread_master_t *master = kx_thread_master_create();
    kx_thread_t timer{};
    kx_thread_insert_timer(master, &timer, note, &order, 1, nullptr);
    kx_thread_master_finish(master);
    EXPECT_FALSE(kx_thread_is_pending(&timer));
    EXPECT_EQ(kx_thread_insert_timer(master, &timer, note, &order, 1, nullptr), -1);
    EXPECT_EQ(kx_thread_add_event(master, note, &order), nullptr);
    EXPECT_EQ(fake::advance(5s), 0);
}

TEST_F(FakePlatform, fetch_returns_due_tasks_of_its_master_only)
{
    kx_thread_master_t *one = kx_thread_master_create();
    kx_thread_master_t *two = kx_thread_master_create();
    kx_thread_add_event(two, note, &order);
    kx_thread_t task{};
    EXPECT_EQ(kx_thread_fetch(one, &task), nullptr);
    EXPECT_EQ(kx_thread_fetch(two, &task), &task);
    kx_thread_call(&task);
    EXPECT_EQ(order.size(), 1u);
}

TEST_F(FakePlatform, idle_hook_can_move_time_or_end_the_loop)
{
    kx_thread_master_t *master = kx_thread_master_create();
    kx_thread_add_timer(master, note, &order, 1);
    int asked = 0;
    fake::set_idle_hook([&] {
        fake::advance(1s); // runs the timer itself
        return ++asked < 3;
    });
    kx_thread_t task{};
    EXPECT_EQ(kx_thread_fetch(master, &task), nullptr);
    EXPECT_EQ(asked, 3);
    EXPECT_THAT(order, ElementsAre(1000));
}

TEST_F(FakePlatform, waiting_loop_on_another_thread_serves_what_comes)
{
    fake::set_fetch(fake::Fetch::waits);
    kx_thread_master_t *master = kx_thread_master_create();
    std::atomic<int> served = 0;
    std::thread loop([&] {
        kx_thread_t task{};
        while (kx_thread_fetch(master, &task) != nullptr) {
            kx_thread_call(&task);
        }
    });
    const auto serve = [](kx_thread_t *thread) {
        ++*static_cast<std::atomic<int> *>(kx_thread_arg(thread));
        return 0;
    };
    kx_thread_add_event(master, serve, &served);
    kx_thread_add_timer(master, serve, &served, 5);
    while (served < 1) {
        std::this_thread::yield();
    }
    EXPECT_EQ(served, 1);
    fake::advance(5s);
    while (served < 2) {
        std::this_thread::yield();
    }
    fake::end_fetch();
    loop.join();
    EXPECT_EQ(served, 2);
}

TEST_F(FakePlatform, read_task_is_due_when_the_descriptor_is_ready)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    kx_thread_add_read(kx_thread_master_create(), note, &order, ends[0]);
    EXPECT_EQ(fake::run_due(), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(fake::run_due(), 1);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(FakePlatform, scripted_failures_are_used_up_in_order)
{
    fake::fail_next("acl_ref", -7, 2);
    fake::fail_next("kx_thread_master_create");
    EXPECT_EQ(kx_thread_master_create(), nullptr);
    EXPECT_NE(kx_thread_master_create(), nullptr);
    fake::add_acl(5, "5");
    acl_ref_args_t args{};
    args.acl.acl_id = 5;
    EXPECT_EQ(acl_ref(&args), -7);
    EXPECT_THAT(fake::pending_failures(), ElementsAre("acl_ref"));
    EXPECT_EQ(acl_ref(&args), -7);
    EXPECT_EQ(acl_ref(&args), ACL_OK);
    EXPECT_THAT(fake::pending_failures(), IsEmpty());
    EXPECT_THAT(fake::calls("acl_ref"),
                ElementsAre("vdev=0 id=5 name=", "vdev=0 id=5 name=", "vdev=0 id=5 name="));
    EXPECT_EQ(fake::acl_refs(5), 1);

    fake::fail_always("acl_ref", ACL_ERR_NO_MEMORY);
    EXPECT_EQ(acl_ref(&args), ACL_ERR_NO_MEMORY);
    EXPECT_EQ(acl_ref(&args), ACL_ERR_NO_MEMORY);
    fake::succeed("acl_ref");
    EXPECT_EQ(acl_ref(&args), ACL_OK);
}

TEST_F(FakePlatform, failing_an_unknown_function_is_a_mistake)
{
    EXPECT_DEATH(fake::fail_next("acl_rfe"), "no function \"acl_rfe\"");
    EXPECT_DEATH((void)fake::calls("acl_rfe"), "no function \"acl_rfe\"");
}

TEST_F(FakePlatform, tasks_without_end_are_a_mistake)
{
    const kx_thread_func_t again = [](kx_thread_t *thread) {
        kx_thread_add_event(thread->master, thread->func, nullptr);
        return 0;
    };
    kx_thread_add_event(kx_thread_master_create(), again, nullptr);
    EXPECT_DEATH(fake::run_due(), "due at once");
}

TEST_F(FakePlatform, acl_lookup_goes_by_id_before_name)
{
    fake::add_acl(7, "web", ACL_CLASS_IPV6);
    acl_id_args_t args{};
    std::strncpy(args.acl_name, "web", sizeof args.acl_name);
    EXPECT_EQ(acl_info_get(&args), ACL_OK);
    EXPECT_EQ(args.acl_id, 7);
    EXPECT_EQ(args.acl_cls, ACL_CLASS_IPV6);
    args.acl_id = 8;
    EXPECT_EQ(acl_info_get(&args), ACL_ERR_NOT_FOUND);
    EXPECT_EQ(args.acl_id, 8);
    acl_unref_args_t unref{};
    unref.acl.acl_id = 7;
    EXPECT_EQ(acl_unref(&unref), ACL_ERR_NOT_HELD);
}

int last_acl = 0;
int acl_status = -1;

TEST_F(FakePlatform, acl_notices_reach_the_registration)
{
    acl_reg_t registration{};
    registration.acl_delete_notify = [](acl_id_args_t *args) { last_acl = args->acl_id; };
    registration.acl_svr_status_notify = [](bool up) { acl_status = up ? 1 : 0; };
    fake::add_acl(9, "x");
    EXPECT_EQ(acl_agent_init("me", kx_thread_master_create(), &registration), 0);
    fake::set_acl_service(true);
    EXPECT_EQ(acl_status, 1);
    acl_ref_args_t args{};
    args.acl.acl_id = 9;
    EXPECT_EQ(acl_ref(&args), 0);
    fake::set_acl_service(false);
    EXPECT_EQ(acl_status, 0);
    EXPECT_EQ(fake::acl_refs(9), 0);
    fake::delete_acl(9);
    EXPECT_EQ(last_acl, 9);
    EXPECT_EQ(acl_ref(&args), ACL_ERR_NOT_FOUND);
}

std::vector<std::pair<int, IFINDEX>> lsm_events;

int on_lsm(int event, char *data, int len)
{
    IFINDEX ifx = 0;
    if (data != nullptr && len >= static_cast<int>(sizeof ifx)) {
        std::memcpy(&ifx, data, sizeof ifx);
    }
    lsm_events.emplace_back(event, ifx);
    return 0;
}

TEST_F(FakePlatform, lsm_delivers_what_is_subscribed_and_the_end_of_the_data_once)
{
    lsm_events.clear();
    lsm_agent_set_connect_callback([] { lsm_client_reg_event_over(); });
    lsm_iftype_filter all{};
    std::fill(std::begin(all.bits), std::end(all.bits), u_int8_t{0xFF});
    lsm_msg_set set{};
    lsm_msgset_zero(&set);
    lsm_msgset_set(INTF_EVENT_DESTROY_INDEX, &set);
    lsm_msgset_set(64, &set);
    ASSERT_EQ(lsm_client_reg_event_ex(LSM_IF_STACK_TCPIP, &all, &set), 0);
    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_TCPIP, on_lsm), 0);
    ASSERT_EQ(lsm_reg_msg_handler_ex(LSM_IF_STACK_PHYSICAL, on_lsm), 0);
    EXPECT_EQ(lsm_client_reg_event_ex(4, &all, &set), -1);
    ASSERT_EQ(lsm_agent_init("me", kx_thread_master_create()), 0);
    fake::run_due();
    EXPECT_THAT(lsm_events, ElementsAre(std::pair(INTF_EVENT_SYNC_DATA_OVER, 0u)));

    lsm_events.clear();
    EXPECT_TRUE(fake::lsm_subscribed(LSM_IF_STACK_TCPIP, INTF_EVENT_DESTROY_INDEX));
    EXPECT_FALSE(fake::lsm_subscribed(LSM_IF_STACK_TCPIP, INTF_EVENT_VRF));
    const intf_msg_destroy_t payload{.ifx = 12, .if_type = LSM_IF_TYPE_ETHERNET};
    EXPECT_TRUE(fake::deliver_lsm(LSM_IF_STACK_TCPIP, INTF_EVENT_DESTROY_INDEX, payload));
    EXPECT_FALSE(fake::deliver_lsm(LSM_IF_STACK_TCPIP, INTF_EVENT_DEFAULT_INDEX, payload));
    EXPECT_FALSE(fake::deliver_lsm(LSM_IF_STACK_PHYSICAL, INTF_EVENT_DESTROY_INDEX, payload));
    EXPECT_TRUE(fake::deliver_lsm_null(LSM_IF_STACK_TCPIP, INTF_EVENT_DESTROY_INDEX));
    EXPECT_THAT(lsm_events, ElementsAre(std::pair(INTF_EVENT_DESTROY_INDEX, 12u),
                                        std::pair(INTF_EVENT_DESTROY_INDEX, 0u)));
}

TEST_F(FakePlatform, interfaces_answer_queries)
{
    fake::set_interface(
        3, {.name = "eth3", .vrf = 7, .ipv4 = {"10.0.0.3", "10.0.0.4"}, .ipv6 = {"2001:db8::3"}});
    fake::set_vrf(7, "blue");
    EXPECT_EQ(lsm_if_get_index("eth3"), 3u);
    EXPECT_EQ(lsm_netif_get_first_ip_by_index(3), inet_addr("10.0.0.3"));
    u_int8_t address[16];
    EXPECT_EQ(lsm_ipv6_get_first_addr(3, address), 1);
    EXPECT_EQ(address[15], 3);
    EXPECT_EQ(lsm_if_get_vrf(3), 7);
    EXPECT_EQ(lsm_if_get_main_index(3), 3u);
    char name[65] = {};
    EXPECT_EQ(lsm_if_get_name(3, name, 64), 0);
    EXPECT_STREQ(name, "eth3");
    EXPECT_EQ(lsm_vrf_index2name(7, name, 32), 0);
    EXPECT_STREQ(name, "blue");
    EXPECT_EQ(lsm_vrf_name2index("blue"), 7);

    const lsm_intfcb_t *block = lsm_get_intfcb(3);
    ASSERT_NE(block, nullptr);
    fake::set_interface(3, {.name = "eth3", .line_state = INTF_DOWN});
    EXPECT_EQ(block->line_state, INTF_UP);
    ASSERT_NE(block->eth_info, nullptr);
    EXPECT_EQ(block->eth_info->speed, 1000u);
    EXPECT_EQ(fake::intfcbs_held(), 1);
    lsm_put_intfcb(block);
    EXPECT_EQ(fake::intfcbs_held(), 0);

    fake::remove_interface(3);
    fake::remove_vrf(7);
    EXPECT_EQ(lsm_if_get_name(3, name, 64), -1);
    EXPECT_EQ(lsm_if_get_vrf(3), -1);
    EXPECT_EQ(lsm_vrf_index2name(7, name, 32), -1);
    EXPECT_EQ(lsm_get_intfcb(3), nullptr);
    EXPECT_EQ(lsm_if_get_main_index(3), 0u);
}

// ---- Commands: `fan speed <1-9>`, its "no" form, and `show fan`.

int fan_speed = 0;

void fan_speed_cmd(struct_command_data_block *record)
{
    if ((record->parser_status & CLI_PARSER_C2P) != 0) {
        c2p_printf(fan_speed != 0 ? 1 : 0, record, "fan speed %d", fan_speed);
        return;
    }
    if (record->int_var[0] == 9) {
        cli_printf("too fast at %a\n", inet_addr("10.0.0.1"));
        cli_client_execmd_fail(record);
        return;
    }
    fan_speed = record->flag_nd_prefix != 0 ? 0 : static_cast<int>(record->int_var[0]);
}

void show_fan_cmd(struct_command_data_block *record)
{
    static struct_command_data_block *on_thread;
    on_thread = record;
    pthread_t tid{};
    pthread_create(
        &tid, nullptr,
        [](void *) -> void * {
            cli_proc_thread_start(on_thread, pthread_self());
            cli_printf("fan 1\nfan 2\n");
            cli_proc_thread_end(on_thread, pthread_self());
            return nullptr;
        },
        nullptr);
    pthread_detach(tid);
    cli_proc_thread_start(record, tid);
}

/// The thread has come to its end before the handler announces it.
void show_slow_cmd(struct_command_data_block *record)
{
    pthread_t tid{};
    pthread_create(
        &tid, nullptr,
        [](void *arg) -> void * {
            auto *mine = static_cast<struct_command_data_block *>(arg);
            cli_proc_thread_start(mine, pthread_self());
            cli_printf("slow\n");
            cli_proc_thread_end(mine, pthread_self());
            return nullptr;
        },
        record);
    pthread_join(tid, nullptr);
    cli_proc_thread_start(record, tid);
}

CLI_NODES(slow_top, slow, slow_end);
CLI_APPEND_POINT(slow_top, slow);
CLI_KEYWORD(slow, "slow", "Show slowly", CLI_PRIV_USER, slow_end, Tno_alt);
CLI_EOL(slow_end, show_slow_cmd);

CLI_NODES(fan_top, fan, speed, speed_c2p, speed_no, speed_rpm, speed_end, show_top, show_fan, show_end);

CLI_APPEND_POINT(fan_top, fan);
CLI_KEYWORD(fan, "fan", "Configure the fan", CLI_PRIV_USER, speed, Tno_alt);
CLI_KEYWORD(speed, "speed", "fan speed", CLI_PRIV_USER, speed_c2p, Tno_alt);
CLI_C2P(speed_c2p, fan_speed_cmd, speed_no, Tno_alt);
CLI_NOPREFIX(speed_no, speed_end, speed_rpm);
CLI_NUMBER(speed_rpm, "rpm", 1, 9, CLI_NUMBER_FLAG, CLI_SLOT(int_var[0]), speed_end, Tno_alt);
CLI_EOL(speed_end, fan_speed_cmd);
CLI_APPEND_POINT(show_top, show_fan);
CLI_KEYWORD(show_fan, "fan", "Show the fan", CLI_PRIV_USER, show_end, Tno_alt);
CLI_EOL(show_end, show_fan_cmd);

void add_fan_commands()
{
    ASSERT_EQ(cli_add_command(PARSE_ADD_CFG_CMD, &fan_top, "fan config"), 0);
    ASSERT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, &show_top, "fan show"), 0);
}

TEST_F(FakePlatform, commands_run_through_the_registered_trees)
{
    using Kind = fake::CliResult::Kind;
    EXPECT_EQ(fake::cli_run("fan speed 4").kind, Kind::invalid);
    add_fan_commands();
    fan_speed = 0;
    EXPECT_TRUE(fake::cli_run("fan speed 4").ok());
    EXPECT_EQ(fan_speed, 4);
    EXPECT_EQ(fake::cli_run("fan speed 10").kind, Kind::invalid);
    EXPECT_EQ(fake::cli_run("fan speed").kind, Kind::incomplete);
    EXPECT_EQ(fake::cli_run("fan speed 4", CLI_MODE_EXEC).kind, Kind::invalid);
    EXPECT_EQ(fan_speed, 4);

    const fake::CliResult refused = fake::cli_run("fan speed 9");
    EXPECT_EQ(refused.kind, Kind::run);
    EXPECT_TRUE(refused.failed);
    EXPECT_FALSE(refused.ok());
    EXPECT_EQ(refused.text, "too fast at 10.0.0.1\n");
    EXPECT_EQ(fake::execmd_fails(), 1);
    EXPECT_TRUE(fake::cli_run("fan speed 8").ok());

    EXPECT_EQ(fake::cli_match("fan speed 7").record.int_var[0], 7);
    EXPECT_EQ(fan_speed, 8);
    EXPECT_THAT(fake::cli_registrations(),
                ElementsAre(fake::CliRegistration{33, "fan config"}, fake::CliRegistration{6, "fan show"}));
    EXPECT_THAT(fake::cli_help("fan "), ElementsAre(fake::Help{"speed", "fan speed"}));
    EXPECT_THAT(fake::cli_complete("fa"), ElementsAre("fan"));
}

TEST_F(FakePlatform, output_of_a_command_that_goes_on_in_a_thread_is_complete)
{
    add_fan_commands();
    EXPECT_EQ(fake::cli_run("show fan", CLI_MODE_EXEC).text, "fan 1\nfan 2\n");
    EXPECT_EQ(fake::cli_run("show fan | include 2", CLI_MODE_EXEC).text, "fan 2\n");
    EXPECT_EQ(fake::take_cli_text(), "fan 1\nfan 2\nfan 1\nfan 2\n");
    EXPECT_EQ(fake::cli_text(), "");
}

TEST_F(FakePlatform, thread_that_ends_before_it_is_announced_is_not_waited_for)
{
    ASSERT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, &slow_top, "slow show"), 0);
    EXPECT_EQ(fake::cli_run("show slow", CLI_MODE_EXEC).text, "slow\n");
    EXPECT_EQ(fake::cli_run("show slow", CLI_MODE_EXEC).text, "slow\n");
}

TEST_F(FakePlatform, running_configuration_is_what_the_trees_print)
{
    add_fan_commands();
    fan_speed = 5;
    EXPECT_EQ(fake::running_config(), "fan speed 5\n!\n");
    EXPECT_THAT(fake::print_config(fan_speed_cmd),
                ElementsAre(fake::ConfigLine{true, CLI_MODE_CONFIG, 0, "fan speed 5"}));
    fan_speed = 0;
    EXPECT_EQ(fake::running_config(), "");
    EXPECT_EQ(fake::running_config(true), "fan speed 0\n!\n");
    EXPECT_FALSE(fake::reformed_config().has_value());
}

TEST_F(FakePlatform, redundancy_and_tech_support_events_reach_their_handlers)
{
    EXPECT_FALSE(fake::deliver_rdnd(RDND_E_SWITCHOVER).has_value());
    const rdnd_handler_t handler = [](char *, RDND_EVENT event, int len, void *data, void *) -> int {
        return event == RDND_E_VERSION_CHECK ? static_cast<int>(rdnd_get_version(len, data)) : -1;
    };
    ASSERT_EQ(rdnd_callback_register("R", 3, handler, 0, nullptr), 0);
    EXPECT_EQ(fake::deliver_version_check(42), 42);
    EXPECT_EQ(rdnd_chkpnt_enqueue("R", 2, "ab", 0), RDND_ENQUEUE_OK);
    fake::fail_next("rdnd_chkpnt_enqueue", RDND_ENQUEUE_STOP);
    EXPECT_EQ(rdnd_chkpnt_enqueue("R", 2, "cd", 0), RDND_ENQUEUE_STOP);
    ASSERT_EQ(fake::checkpoints().size(), 1u);
    EXPECT_EQ(fake::checkpoints()[0].data[1], std::byte{'b'});

    const tech_callback_t callback = [](tech_event event, void *) -> int {
        tech_module_msg_output("event %d\n", int{event});
        tech_module_msg_deal_completion();
        return 0;
    };
    ASSERT_EQ(tech_reg_service_callback("S", kx_thread_master_create(), callback), 0);
    EXPECT_EQ(fake::deliver_tech(TECH_E_DETAIL), 0);
    EXPECT_EQ(fake::tech_text(), "event 1\n");
    EXPECT_EQ(fake::tech_completions(), 1);
}

TEST_F(FakePlatform, debug_listing_collects_standard_output)
{
    static debug_element_type table[] = {{nullptr, nullptr}};
    ASSERT_EQ(sys_add_debug(
                  "m", table, [] { std::printf("m is on\n"); }, 0, 0, 0),
              0);
    std::string listed;
    sys_show_debug([&](std::string_view text) { listed += text; });
    EXPECT_EQ(listed, "m is on\n");
}

TEST_F(FakePlatform, syslog_lines_are_kept_apart_from_calls)
{
    printk_syslog_ext(4, "M", "N", 1, "port %s", "x");
    EXPECT_THAT(fake::syslog_lines(), ElementsAre(fake::SyslogLine{4, "M", "N", 1, "port x"}));
    EXPECT_EQ(fake::syslog_count("port x"), 1u);
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(FakePlatform, reset_forgets_everything)
{
    add_fan_commands();
    cli_printf("x");
    fake::set_interface(3, {.name = "eth3"});
    fake::fail_always("acl_ref");
    kx_thread_t timer{};
    kx_thread_insert_timer(kx_thread_master_create(), &timer, note, &order, 1, nullptr);
    fake::advance(100ms);
    fake::reset();
    EXPECT_FALSE(kx_thread_is_pending(&timer));
    EXPECT_EQ(fake::now(), 0ms);
    EXPECT_EQ(fake::cli_text(), "");
    EXPECT_EQ(lsm_if_get_index("eth3"), 0u);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::cli_registrations(), IsEmpty());
    EXPECT_EQ(fake::cli_run("fan speed 4").kind, fake::CliResult::Kind::invalid);
    acl_ref_args_t args{};
    EXPECT_EQ(acl_ref(&args), ACL_ERR_NOT_FOUND);
}

} // namespace
