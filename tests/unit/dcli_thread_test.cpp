// The CLI thread: start-up order and failures, the readiness gate, and the timer that has the running configuration
// regenerated.
#include "dcli_doubles.h"
#include "sflow_cli_msg.h"

#include <pthread.h>
#include <thread>

using namespace dcli;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace
{

struct Cli_thread : Case {
    void SetUp() override
    {
        Case::SetUp();
        // Nothing is registered yet when the thread starts.
        fake::reset();
        sflow_cli_master = nullptr;
    }
};

struct Cli_reform : Case {
    void SetUp() override
    {
        Case::SetUp();
        sflow_cli_master = kx_thread_master_create();
    }
    void TearDown() override
    {
        kx_thread_master_finish(sflow_cli_master);
        sflow_cli_master = nullptr;
        Case::TearDown();
    }
};

using Cli_readiness = Cli_reform;

/// The calls that matter to the order of start-up, without the registrations between them.
Lines startup_order()
{
    Lines names;
    for (const std::string &name : order()) {
        if (name != "cli_add_command" || names.back() != name)
            names.push_back(name);
    }
    return names;
}

} // namespace

// ---- Thread --------------------------------------------------------------------------------------------------

TEST_F(Cli_thread, init_starts_the_thread)
{
    EXPECT_EQ(sflow_cli_init(), 0);
    ASSERT_EQ(threads().size(), 1U);
    EXPECT_EQ(threads()[0].start, sflow_cli_proc);
    EXPECT_EQ(debug_lines(), Lines{"sflow_cli.c: create cli thread success."});
}

TEST_F(Cli_thread, init_reports_that_there_is_no_thread)
{
    results["sflow_create_depatch_thread"] = -1;
    EXPECT_EQ(sflow_cli_init(), -1);
    EXPECT_EQ(debug_lines(), Lines{"sflow_cli.c: create cli thread failure."});
}

TEST_F(Cli_thread, clients_start_in_order)
{
    sflow_cli_serve();
    EXPECT_EQ(startup_order(),
              (Lines{"kx_thread_master_create", "cli_client_init", "sflow_lsm_init", "sflow_acl_init",
                     "cli_add_command", "sflow_lib_server_cli_init", "cli_add_command", "sys_add_debug",
                     "tech_client_init", "tech_module_reg_dump_file", "tech_reg_status_func",
                     "cli_add_command", "tech_reg_service_callback", "kx_thread_add_timer",
                     "cli_client_awaits", "sflow_init_dead_detection", "kx_thread_master_finish"}));
    EXPECT_EQ(fake::calls("cli_client_init").size(), 1U);
    EXPECT_NE(fake::calls("cli_client_init")[0].find("sflow_cli"), std::string::npos);
    EXPECT_EQ(calls("sflow_lsm_init"), Lines{"master=sflow_cli_master"});
    EXPECT_EQ(calls("sflow_acl_init"), Lines{"master=sflow_cli_master"});
    EXPECT_EQ(calls("sflow_init_dead_detection"), Lines{"master=sflow_cli_master"});
    EXPECT_EQ(debug_lines(), Lines{});
}

TEST_F(Cli_thread, every_tree_is_registered_under_its_name)
{
    sflow_cli_serve();
    const std::vector<fake::CliRegistration> expected = {
        {33, "interface sflow show run"},
        {59, "interface sflow config"},
        {6, "sflow show"},
        {33, "sflow config"},
        {42, "ipfix after interface"},
        {6, "show sflow ss debug info"},
        {1, "debug sflow switch"},
        {17, "debug sflow"},
        {518, "show tech-support sflow"},
    };
    EXPECT_EQ(fake::cli_registrations(), expected);
}

TEST_F(Cli_thread, waits_for_the_capacity_of_the_sampling_service)
{
    // Whichever of the two comes first, the other is waited for too.
    for (u_int32_t *first : {&sflow_hw_support_is_set, &sflow_intf_support_flag}) {
        sflow_hw_support_is_set = 0;
        sflow_intf_support_flag = 0;
        fake::forget_calls();
        std::vector<unsigned> naps;
        on_sleep = [&](unsigned seconds) {
            naps.push_back(seconds);
            EXPECT_EQ(fake::call_count("kx_thread_master_create"), 0U);
            if (naps.size() == 2)
                *first = 1;
            if (naps.size() == 4)
                sflow_hw_support_is_set = sflow_intf_support_flag = 1;
        };
        sflow_cli_serve();
        EXPECT_EQ(naps, (std::vector<unsigned>{1, 1, 1, 1}));
        EXPECT_EQ(fake::call_count("cli_client_init"), 1U);
    }
}

TEST_F(Cli_thread, a_failing_tech_support_registration_is_only_told)
{
    fake::fail_next("tech_client_init");
    sflow_cli_serve();
    EXPECT_EQ(debug_lines(), (Lines{"sflow_tech_sup.c: tech init fail.", "sflow_cli.c: tech init failure."}));
    EXPECT_EQ(calls("sflow_init_dead_detection").size(), 1U);
}

TEST_F(Cli_thread, serves_its_master_until_nothing_is_left)
{
    int fetches = 0;
    fake::set_idle_hook([&] {
        // The readiness timer runs twice, then there is an end.
        return ++fetches < 3 && fake::advance(1s) >= 0;
    });
    sflow_cli_serve();
    EXPECT_EQ(fetches, 3);
    EXPECT_EQ(fake::call_count("kx_thread_add_timer"), 3U);
    EXPECT_EQ(fake::call_count("kx_thread_master_finish"), 1U);
}

using Cli_thread_death = Cli_thread;

TEST_F(Cli_thread_death, ends_the_process_when_it_cannot_start)
{
    struct Row {
        const char *function;
        bool of_platform;
        const char *text;
    };
    for (const Row &row : {Row{"kx_thread_master_create", true, "sflow_cli.c: create thread failure."},
                           Row{"cli_client_init", true, "sflow_cli.c: cli-client init failure."},
                           Row{"sflow_lsm_init", false, "sflow_cli.c: lsm client init failure."},
                           Row{"sflow_acl_init", false, "sflow_cli.c: acl client init failure."},
                           Row{"kx_thread_add_timer", true, "sflow_cli.c: add cli timer failure."}}) {
        const auto serve = [&] {
            if (row.of_platform)
                fake::fail_next(row.function);
            else
                results[row.function] = -1;
            sflow_cli_serve();
        };
        EXPECT_EXIT(serve(), ::testing::ExitedWithCode(0), row.text) << row.function;
    }
}

TEST_F(Cli_thread_death, starts_over_with_a_new_master)
{
    const auto proc = [] {
        fake::set_idle_hook([] {
            char name[16] = "";
            pthread_getname_np(pthread_self(), name, sizeof(name));
            std::fprintf(stderr, "idle as %s;", name);
            fake::fail_next("kx_thread_master_create");
            return false;
        });
        sflow_cli_proc(nullptr);
    };
    EXPECT_EXIT(proc(), ::testing::ExitedWithCode(0), "idle as sflow_cli;.*create thread failure.");
}

// ---- Readiness -----------------------------------------------------------------------------------------------

TEST_F(Cli_readiness, the_service_is_told_once_all_three_have_reported)
{
    kx_thread_add_timer(sflow_cli_master, sflow_cli_timer, nullptr, 1);
    for (const u_int32_t flags : {0U, 1U, 2U, 4U, 3U, 5U, 6U}) {
        sflow_agent.cli_ready_flag = flags;
        fake::advance(1s);
        EXPECT_EQ(fake::call_count("cli_client_ready"), 0U) << flags;
        EXPECT_EQ(fake::armed().size(), 1U) << flags;
    }
    sflow_agent.cli_ready_flag = 7;
    EXPECT_EQ(fake::call_count("cli_client_ready"), 0U);
    fake::advance(1s);
    EXPECT_EQ(fake::call_count("cli_client_ready"), 1U);
    EXPECT_EQ(debug_lines(), Lines{"sflow_cli.c: cli_client_ready"});
    EXPECT_TRUE(fake::armed().empty());
    fake::advance(10s);
    EXPECT_EQ(fake::call_count("cli_client_ready"), 1U);
}

TEST_F(Cli_readiness, operators_are_told_which_of_the_three_is_missing)
{
    struct Row {
        u_int32_t flags;
        const char *awaited;
    };
    kx_thread_add_timer(sflow_cli_master, sflow_cli_timer, nullptr, 1);
    for (const Row &row :
         {Row{0, "interface data, the sampling service and access lists"},
          Row{1, "the sampling service and access lists"}, Row{2, "interface data and access lists"},
          Row{4, "interface data and the sampling service"}, Row{3, "access lists"},
          Row{5, "the sampling service"}, Row{6, "interface data"}, Row{7, ""}}) {
        fake::forget_calls();
        sflow_agent.cli_ready_flag = row.flags;
        fake::advance(1s);
        EXPECT_EQ(fake::calls("cli_client_awaits"), Lines{std::string("what=") + row.awaited}) << row.flags;
    }
}

TEST_F(Cli_readiness, a_timer_that_cannot_be_armed_again_is_told)
{
    kx_thread_add_timer(sflow_cli_master, sflow_cli_timer, nullptr, 1);
    fake::fail_next("kx_thread_add_timer");
    fake::advance(1s);
    EXPECT_EQ(debug_lines(), Lines{"sflow_cli.c: add cli timer failure."});
    EXPECT_TRUE(fake::armed().empty());
}

TEST_F(Cli_readiness, the_lock_is_free_while_the_startup_configuration_is_applied)
{
    sflow_agent.cli_ready_flag = 7;
    kx_thread_add_timer(sflow_cli_master, sflow_cli_timer, nullptr, 1);
    fake::advance(1s);
    ASSERT_EQ(pthread_mutex_trylock(&sflow_agent.cli_lock.mutex), 0);
    pthread_mutex_unlock(&sflow_agent.cli_lock.mutex);
}

TEST_F(Cli_readiness, a_lock_that_cannot_be_taken_is_told_and_the_check_goes_on)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&sflow_agent.cli_lock.mutex, &attributes);
    pthread_mutex_lock(&sflow_agent.cli_lock.mutex);
    sflow_agent.cli_ready_flag = 7;
    kx_thread_add_timer(sflow_cli_master, sflow_cli_timer, nullptr, 1);
    fake::advance(1s);
    EXPECT_EQ(debug_lines(), (Lines{"sflow_cli.c: lock failure.", "sflow_cli.c: cli_client_ready"}));
    EXPECT_EQ(fake::call_count("cli_client_ready"), 1U);
    EXPECT_EQ(pthread_mutex_unlock(&sflow_agent.cli_lock.mutex), 0) << "the holder's lock was released";
    pthread_mutexattr_destroy(&attributes);
}

// ---- Reform --------------------------------------------------------------------------------------------------

TEST_F(Cli_reform, changes_within_a_second_are_one_regeneration)
{
    EXPECT_EQ(sflow_cli_c2p_reform(), 0);
    fake::advance(999ms);
    EXPECT_EQ(sflow_cli_c2p_reform(), 0);
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 0U);
    EXPECT_EQ(fake::armed_count("sflow_c2p"), 1U);
    fake::advance(1ms);
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 1U);
    fake::advance(10s);
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 1U);
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 2U);
    EXPECT_EQ(conf_log(), Lines{"[sflow_cli_reform_timer_deal] c2p reform success.\n"});
}

TEST_F(Cli_reform, a_change_after_a_regeneration_makes_another)
{
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(sflow_cli_c2p_reform(), 0);
        fake::advance(1s);
    }
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 3U);
}

TEST_F(Cli_reform, a_failing_regeneration_is_only_logged)
{
    fake::fail_next("cli_client_c2p_reform");
    EXPECT_EQ(sflow_cli_c2p_reform(), 0);
    fake::advance(1s);
    EXPECT_EQ(conf_log(), Lines{"[sflow_cli_reform_timer_deal] c2p reform fail.\n"});
}

TEST_F(Cli_reform, a_timer_that_cannot_be_armed_is_logged_and_tried_again)
{
    fake::fail_next("kx_thread_insert_timer");
    EXPECT_EQ(sflow_cli_c2p_reform(), -1);
    EXPECT_EQ(
        conf_log(),
        Lines{"[sflow_cli_c2p_reform] No enough memory available for create sflow cli reform timer.\n"});
    EXPECT_EQ(sflow_cli_c2p_reform(), 0);
    fake::advance(1s);
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 1U);
}

TEST_F(Cli_reform, requests_of_many_threads_coalesce)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++)
        threads.emplace_back([] {
            for (int request = 0; request < 50; request++)
                sflow_cli_c2p_reform();
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(fake::armed_count("sflow_c2p"), 1U);
    fake::advance(1s);
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 1U);
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 200U);
}

TEST_F(Cli_reform, is_refused_before_the_thread_serves)
{
    kx_thread_master_t *master = sflow_cli_master;
    sflow_cli_master = nullptr;
    EXPECT_EQ(sflow_cli_c2p_reform(), -1);
    EXPECT_EQ(fake::call_count("cli_param_is_change"), 1U);
    sflow_cli_master = master;
}

TEST_F(Cli_reform, a_collector_command_ends_in_a_regeneration)
{
    EXPECT_EQ(run("sflow collector 1 destination 10.0.0.1 6343"), SILENT);
    EXPECT_EQ(conf_log().back(), "cfg_sflow_collector_dest_cmd c2p reform success.\n");
    fake::advance(1s);
    EXPECT_EQ(fake::call_count("cli_client_c2p_reform"), 1U);
}
