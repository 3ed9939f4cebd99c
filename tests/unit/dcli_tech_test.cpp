// The contribution to the tech-support collection.
#include "dcli_doubles.h"
#include "sflow_dbg.h"
#include "sflow_tech_sup.h"

#include <cstring>
#include <pthread.h>
#include <thread>

using namespace dcli;
using Lines = std::vector<std::string>;

namespace
{

struct Tech : Case {
    void SetUp() override
    {
        Case::SetUp();
        fake::reset();
        master = kx_thread_master_create();
        fake::forget_calls();
    }
    void TearDown() override
    {
        kx_thread_master_finish(master);
        Case::TearDown();
    }

    kx_thread_master_t *master = nullptr;
};

using Tech_registration = Tech;
using Tech_report = Tech;
using Tech_show = Tech;
using Tech_status = Tech;

bool show_is_registered()
{
    return fake::cli_match("show tech-support sflow", CLI_MODE_EXEC).kind == fake::CliResult::Kind::run;
}

} // namespace

// ---- Registration --------------------------------------------------------------------------------------------

TEST_F(Tech_registration, registers_name_file_status_command_and_report)
{
    tmpdir = "/run/x";
    EXPECT_EQ(sflow_tech_init(master), 0);
    EXPECT_EQ(fake::calls("tech_client_init"), Lines{"name=sflow_tech-support"});
    EXPECT_EQ(fake::tech_dump_files(), Lines{"/run/x/sflow/app_debug"});
    EXPECT_EQ(fake::tech_status_func(), sflow_show_current_status_cmd);
    EXPECT_TRUE(show_is_registered());
    EXPECT_EQ(fake::tech_services(), Lines{"ipfix#sflow"});
    EXPECT_EQ(fake::tech_master(), master);
    EXPECT_EQ(fake::call_order(),
              (Lines{"tech_client_init", "tech_module_reg_dump_file", "tech_reg_status_func",
                     "cli_add_command", "tech_reg_service_callback"}));
    EXPECT_EQ(debug_lines(), Lines{});
}

TEST_F(Tech_registration, without_tmpdir_the_command_is_not_there)
{
    tmpdir = "";
    EXPECT_EQ(sflow_tech_init(master), -1);
    EXPECT_EQ(debug_lines(), Lines{"sflow_tech_sup.c: tech make app file fail."});
    EXPECT_FALSE(show_is_registered());
    EXPECT_EQ(fake::tech_services(), Lines{});
}

TEST_F(Tech_registration, failures_are_told_and_returned)
{
    struct Row {
        const char *function;
        long result;
        Lines lines;
        bool has_command;
    };
    const std::vector<Row> rows = {
        {"tech_client_init", 3, {"sflow_tech_sup.c: tech init fail."}, false},
        {"tech_module_reg_dump_file", 4, {"sflow_tech_sup.c: tech reg app file fail."}, false},
        {"tech_reg_service_callback", -1, {"sflow_tech_sup.c: Failed to register Tech-Support\n"}, true},
        {"tech_reg_service_callback", 5, {}, true},
    };
    for (const Row &row : rows) {
        fake::reset();
        const std::size_t before = debug_lines().size();
        fake::fail_next(row.function, row.result);
        EXPECT_EQ(sflow_tech_init(master), row.result) << row.function;
        const Lines all = debug_lines();
        EXPECT_EQ(Lines(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()), row.lines)
            << row.function;
        EXPECT_EQ(show_is_registered(), row.has_command) << row.function;
    }
}

// ---- Report --------------------------------------------------------------------------------------------------

TEST_F(Tech_report, five_sections_for_either_collection)
{
    ASSERT_EQ(sflow_tech_init(master), 0);
    show_sflow(1);
    const std::string sflow = fake::take_tech_text();
    sflow_debug_statis(1);
    const std::string stats = fake::take_tech_text();
    show_sflow_status(1);
    const std::string status = fake::take_tech_text();
    const std::string expected = "-----------------show sflow_server_lib_info-----\n"
                                 "server info\n"
                                 "-----------------show sflow_server_cmd_list -----\n"
                                 "server commands\n"
                                 "-----------------show sflow------------------\n" +
                                 sflow + "-----------------show sflow stats--------------\n" + stats +
                                 "-----------------show sflow status-------------\n" + status;
    for (const tech_event event : {TECH_E_BASIC, TECH_E_DETAIL}) {
        const int before = fake::tech_completions();
        EXPECT_EQ(fake::deliver_tech(event), 0);
        EXPECT_EQ(fake::take_tech_text(), expected) << event;
        EXPECT_EQ(fake::tech_completions(), before + 1);
    }
    EXPECT_EQ(fake::take_cli_text(), "");
}

TEST_F(Tech_report, other_events_do_nothing)
{
    ASSERT_EQ(sflow_tech_init(master), 0);
    for (const tech_event event : {TECH_E_BASIC_COMPLETION, TECH_E_DETAIL_COMPLETION, TECH_E_DETAIL_NOSPC})
        EXPECT_EQ(fake::deliver_tech(event), 0);
    EXPECT_EQ(fake::tech_text(), "");
    EXPECT_EQ(fake::tech_completions(), 0);
}

// ---- Status --------------------------------------------------------------------------------------------------

TEST_F(Tech_status, on_while_an_interface_is_configured)
{
    struct_command_data_block record{};
    sflow_show_current_status_cmd(&record);
    results["sflow_get_current_status"] = 1;
    sflow_show_current_status_cmd(&record);
    EXPECT_EQ(fake::cli_text(), "| - sflow - sflow is off!\r\n| - sflow - sflow is on!\r\n");
}

// ---- show tech-support sflow ---------------------------------------------------------------------------------

TEST_F(Tech_show, help_text)
{
    ASSERT_EQ(sflow_tech_init(master), 0);
    const std::vector<fake::Help> choices = fake::cli_help("show tech-support sf", CLI_MODE_EXEC);
    ASSERT_EQ(choices.size(), 1U);
    EXPECT_EQ(choices[0], (fake::Help{"sflow", "flow packet diagnostic information"}));
}

TEST_F(Tech_show, goes_on_in_a_thread_of_its_own)
{
    struct_command_data_block record{};
    sflow_tech_show_sflow_command(&record);
    ASSERT_EQ(threads().size(), 1U);
    EXPECT_EQ(threads()[0].start, sflow_tech_show_thread);
    EXPECT_EQ(threads()[0].arg, &record);
    EXPECT_EQ(fake::call_order(), Lines{"cli_proc_thread_start"});
    EXPECT_EQ(debug_lines(), Lines{});
}

TEST_F(Tech_show, tells_that_there_is_no_thread)
{
    results["sflow_create_depatch_thread"] = -1;
    struct_command_data_block record{};
    sflow_tech_show_sflow_command(&record);
    EXPECT_EQ(debug_lines(), Lines{"sflow_tech_sup.c: tech create show thread fail."});
    EXPECT_EQ(fake::call_order(), Lines{});
}

TEST_F(Tech_show, the_thread_runs_the_four_commands)
{
    struct_command_data_block record{};
    std::string name(16, '\0');
    std::thread thread([&] {
        EXPECT_EQ(sflow_tech_show_thread(&record), nullptr);
        pthread_getname_np(pthread_self(), name.data(), name.size());
    });
    thread.join();
    EXPECT_STREQ(name.c_str(), "sflow-show-tech");
    EXPECT_EQ(fake::calls("tech_client_execute_cmd"),
              Lines{"commands=show sflow;show sflow stats;show sflow status;show run | include sflow"});
    EXPECT_EQ(fake::call_order(),
              (Lines{"cli_proc_thread_start", "tech_reg_cmdlist", "tech_client_regcmd", "tech_client_regcmd",
                     "tech_client_regcmd", "tech_client_regcmd", "tech_client_execute_cmd",
                     "tech_unreg_cmdlist", "cli_proc_thread_end"}));
}

TEST_F(Tech_show, the_thread_ends_the_command_also_without_memory_for_the_list)
{
    fake::fail_next("tech_reg_cmdlist");
    struct_command_data_block record{};
    sflow_tech_show_thread(&record);
    EXPECT_EQ(fake::call_order(),
              (Lines{"cli_proc_thread_start", "tech_reg_cmdlist", "cli_proc_thread_end"}));
}
