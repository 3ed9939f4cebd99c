// Tech-support service: the collection across threads, commands for an operator, and the debug listing.

#include "platform/tech.h"

#include "platform/zformat.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

struct struct_command_data_block {
    int number;
};

namespace
{

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

constexpr auto plenty = 120s; ///< never waited for in full

/// A module's thread: serves a master until it is destroyed.
class ModuleThread
{
public:
    ModuleThread() : master_(kx_thread_master_create())
    {
        kx_thread_insert_timer(master_, &alive_, keep, nullptr, 3600, "alive");
        thread_ = std::thread([this] {
            kx_thread_t task;
            while (kx_thread_fetch(master_, &task) != nullptr)
                kx_thread_call(&task);
        });
    }
    ~ModuleThread()
    {
        kx_thread_add_event(master_, stop, &alive_);
        thread_.join();
        kx_thread_master_finish(master_);
    }
    ModuleThread(const ModuleThread &) = delete;
    ModuleThread &operator=(const ModuleThread &) = delete;
    [[nodiscard]] kx_thread_master_t *master() const { return master_; }
    [[nodiscard]] std::thread::id id() const { return thread_.get_id(); }

private:
    static int keep(kx_thread_t *) { return 0; }
    static int stop(kx_thread_t *thread)
    {
        kx_thread_cancel(static_cast<kx_thread_t *>(kx_thread_arg(thread)));
        return 0;
    }

    kx_thread_master_t *master_;
    kx_thread_t alive_{};
    std::thread thread_;
};

std::atomic<std::thread::id> report_thread;
std::atomic<int> completions{0};

int report(tech_event event, void *)
{
    if (event == TECH_E_BASIC_COMPLETION)
        ++completions;
    if (event != TECH_E_BASIC)
        return 0;
    report_thread = std::this_thread::get_id();
    tech_module_msg_output("collector %a port %d\n", inet_addr("192.0.2.9"), 6343);
    tech_module_msg_output("second line\n");
    tech_module_msg_deal_completion();
    tech_module_msg_output("after the end\n");
    return 0;
}

int report_without_end(tech_event event, void *)
{
    if (event == TECH_E_BASIC)
        tech_module_msg_output("half a report\n");
    return 0;
}

std::vector<tech_event> events; ///< of the module's thread

/// Writes one line for either report.
int report_events(tech_event event, void *)
{
    events.push_back(event);
    if (event != TECH_E_BASIC && event != TECH_E_DETAIL)
        return 0;
    tech_module_msg_output("report %d\n", int{event});
    tech_module_msg_deal_completion();
    return 0;
}

std::binary_semaphore released{0};

int report_when_released(tech_event event, void *)
{
    if (event != TECH_E_BASIC)
        return 0;
    released.acquire();
    tech_module_msg_output("too late\n");
    tech_module_msg_deal_completion();
    return 0;
}

void status(struct_command_data_block *record)
{
    record->number = 7;
}

void capture(tech_status_func_t func, const tech_sink_t &sink)
{
    struct_command_data_block record{0};
    func(&record);
    sink("status " + std::to_string(record.number) + "\n");
}

std::vector<std::string> executed;

int execute(struct_command_data_block *record, const char *command)
{
    executed.push_back(std::to_string(record->number) + ": " + command);
    return std::string(command) == "show nothing" ? -1 : 0;
}

constexpr tech_cli_hooks_t hooks{.execute = execute, .capture = capture};

/// Collects; the result goes to `answered`.
std::string collect(int &answered, std::chrono::milliseconds patience = plenty)
{
    std::string text;
    answered = tech_collect([&](std::string_view piece) { text.append(piece); }, patience);
    return text;
}

std::string listing()
{
    std::string text;
    sys_show_debug([&](std::string_view piece) { text.append(piece); });
    return text;
}

void show_one()
{
    std::printf("one is on\r\n");
}
void show_two()
{
    std::fputs("two is on\r\n", stdout);
    const ssize_t written = write(STDOUT_FILENO, "raw\n", 4);
    EXPECT_EQ(4, written);
}
void show_much()
{
    for (int i = 0; i < 1000; ++i)
        std::printf("line %d\n", i);
}

bool flag = false;
debug_element_type table[] = {{&flag, "flag"}, {nullptr, nullptr}};

} // namespace

// One case after another in the order of this file: registrations live for the process.
TEST(tech_collect, an_empty_registry_gives_an_empty_text)
{
    int answered = -1;
    EXPECT_EQ("", collect(answered));
    EXPECT_EQ(0, answered);
}

TEST(tech_collect, takes_the_modules_report_on_its_thread_and_its_files)
{
    const ModuleThread module;
    std::string path = testing::TempDir() + "platform_tech_XXXXXX";
    const int fd = mkstemp(path.data());
    ASSERT_GE(fd, 0);
    close(fd);
    const std::string content = "debug file\n" + std::string(100000, 'x') + "\nend\n";
    std::ofstream(path) << content;

    ASSERT_EQ(0, tech_client_init("sflow_tech-support"));
    ASSERT_EQ(0, tech_module_reg_dump_file(path.c_str()));
    ASSERT_EQ(0, tech_module_reg_dump_file(path.c_str()));
    ASSERT_EQ(0, tech_module_reg_dump_file("/nonexistent/file"));
    ASSERT_EQ(0, tech_reg_status_func(status));
    ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", module.master(), report));

    int answered = 0;
    const std::string without_cli = collect(answered);
    EXPECT_EQ(1, answered);
    EXPECT_THAT(without_cli, HasSubstr("status: not available"));

    tech_set_cli_hooks(&hooks);
    const std::string text = collect(answered);
    EXPECT_EQ(1, answered);
    EXPECT_EQ(module.id(), report_thread.load());
    EXPECT_EQ("----- sflow_tech-support ipfix#sflow -----\n"
              "status 7\n"
              "collector 192.0.2.9 port 6343\n"
              "second line\n"
              "----- " +
                  path + " -----\n" + content +
                  "\n"
                  "----- /nonexistent/file: No such file or directory -----\n",
              text);
    std::filesystem::remove(path);
}

TEST(tech_collect, tells_the_module_when_the_collection_is_over)
{
    completions = 0;
    {
        const ModuleThread module;
        ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", module.master(), report));
        int answered = 0;
        collect(answered);
        EXPECT_EQ(1, answered);
    } // its thread has worked off what was queued
    EXPECT_EQ(1, completions.load());
}

TEST(tech_collect, names_a_module_that_does_not_end_its_report)
{
    kx_thread_master_t *ended = kx_thread_master_create();
    kx_thread_master_finish(ended);
    ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", ended, report));
    const ModuleThread module;
    ASSERT_EQ(0, tech_reg_service_callback("late", module.master(), report_without_end));
    int answered = -1;
    EXPECT_THAT(collect(answered, 5ms), HasSubstr("late: no complete report within 5 ms\n"));
    EXPECT_EQ(0, answered);
}

TEST(tech_collect, drops_what_a_module_writes_after_it_was_given_up)
{
    std::string text;
    {
        const ModuleThread module;
        ASSERT_EQ(0, tech_reg_service_callback("late", module.master(), report_when_released));
        EXPECT_EQ(0, tech_collect([&](std::string_view piece) { text.append(piece); }, 5ms));
        released.release();
    } // its thread has written
    EXPECT_THAT(text, HasSubstr("late: no complete report"));
    EXPECT_THAT(text, Not(HasSubstr("too late")));
}

TEST(tech_collect, a_module_whose_thread_has_ended_is_named)
{
    kx_thread_master_t *ended = kx_thread_master_create();
    kx_thread_master_finish(ended);
    ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", ended, report));
    ASSERT_EQ(0, tech_reg_service_callback("late", ended, report));
    int answered = -1;
    const std::string text = collect(answered);
    EXPECT_EQ(0, answered);
    EXPECT_THAT(text, HasSubstr("ipfix#sflow: no report, its thread has ended\n"));
}

TEST(tech_collect, a_second_collection_at_the_same_time_is_refused)
{
    const ModuleThread module;
    ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", module.master(), report));
    int inner = 0;
    const tech_sink_t nowhere = [](std::string_view) {};
    const int outer = tech_collect([&](std::string_view) { inner = tech_collect(nowhere, plenty); }, plenty);
    EXPECT_EQ(-1, inner);
    EXPECT_EQ(1, outer);
    EXPECT_EQ(1, tech_collect(nowhere, plenty)) << "possible again afterwards";
}

TEST(tech_collect_detail, asks_for_the_detailed_report_and_tells_its_end)
{
    const std::string path = testing::TempDir() + "/tech_detail_file";
    std::ofstream(path) << "content\n";
    ASSERT_EQ(0, tech_module_reg_dump_file(path.c_str()));
    events.clear();
    std::string text;
    {
        const ModuleThread module;
        ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", module.master(), report_events));
        ASSERT_EQ(0, tech_reg_service_callback("late", module.master(), report_events));
        const auto answered = tech_collect_detail([&](std::string_view piece) { text.append(piece); },
                                                  [] { return true; }, plenty);
        EXPECT_EQ(2, answered);
    } // its thread has been told
    EXPECT_THAT(text, HasSubstr("report 1\n"));
    EXPECT_THAT(text, HasSubstr("content\n"));
    EXPECT_EQ((std::vector<tech_event>{TECH_E_DETAIL, TECH_E_DETAIL_COMPLETION, TECH_E_DETAIL,
                                       TECH_E_DETAIL_COMPLETION}),
              events);
    std::filesystem::remove(path);
}

TEST(tech_collect_detail, without_room_the_rest_is_left_out_and_the_module_is_told)
{
    events.clear();
    std::string text;
    {
        const ModuleThread module;
        ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", module.master(), report_events));
        ASSERT_EQ(0, tech_reg_service_callback("late", module.master(), report_events));
        EXPECT_EQ(1, tech_collect_detail([&](std::string_view piece) { text.append(piece); },
                                         [&] { return text.find("report") == std::string::npos; }, plenty));
    }
    EXPECT_EQ((std::vector<tech_event>{TECH_E_DETAIL, TECH_E_DETAIL_NOSPC}), events);
    EXPECT_THAT(text, Not(HasSubstr("late")));
    EXPECT_THAT(text, Not(HasSubstr("tech_detail_file"))) << "files are left out too";
}

TEST(tech_module_msg_output, outside_a_report_text_is_dropped)
{
    tech_module_msg_output("nobody reads %s\n", "this");
    tech_module_msg_deal_completion();
    const ModuleThread module;
    ASSERT_EQ(0, tech_reg_service_callback("ipfix#sflow", module.master(), report));
    int answered = 0;
    EXPECT_THAT(collect(answered), Not(HasSubstr("nobody reads")));
    EXPECT_EQ(1, answered);
}

TEST(tech_registration, missing_arguments_are_refused)
{
    EXPECT_EQ(-1, tech_client_init(nullptr));
    EXPECT_EQ(-1, tech_client_init(""));
    EXPECT_EQ(-1, tech_module_reg_dump_file(nullptr));
    EXPECT_EQ(-1, tech_module_reg_dump_file(""));
    EXPECT_EQ(-1, tech_reg_status_func(nullptr));
    EXPECT_EQ(-1, tech_reg_service_callback("x", nullptr, report));
    EXPECT_EQ(-1, tech_reg_service_callback(nullptr, nullptr, report));
    EXPECT_EQ(-1, tech_client_regcmd(nullptr, "show sflow"));
    EXPECT_EQ(-1, sys_add_debug(nullptr, table, show_one, 0, 0, 0));
    EXPECT_EQ(-1, sys_add_debug("x", nullptr, show_one, 0, 0, 0));
    EXPECT_EQ(-1, sys_add_debug("x", table, nullptr, 0, 0, 0));
}

TEST(tech_client_execute_cmd, runs_the_commands_in_order_for_the_operator)
{
    tech_set_cli_hooks(&hooks);
    executed.clear();
    struct_command_data_block record{3};
    tech_cmdlist_t *list = tech_reg_cmdlist();
    ASSERT_NE(nullptr, list);
    EXPECT_EQ(0, tech_client_execute_cmd(&record, list)) << "an empty list";
    EXPECT_EQ(0, tech_client_regcmd(list, "show sflow"));
    EXPECT_EQ(0, tech_client_regcmd(list, "show run | include sflow"));
    EXPECT_EQ(-1, tech_client_regcmd(list, nullptr));
    EXPECT_EQ(0, tech_client_execute_cmd(&record, list));
    EXPECT_EQ((std::vector<std::string>{"3: show sflow", "3: show run | include sflow"}), executed);
    EXPECT_EQ(-1, tech_client_execute_cmd(nullptr, list));
    EXPECT_EQ(-1, tech_client_execute_cmd(&record, nullptr));
    tech_unreg_cmdlist(list);
    tech_unreg_cmdlist(nullptr);
}

TEST(tech_client_execute_cmd, goes_on_after_a_command_that_fails_and_says_so)
{
    tech_set_cli_hooks(&hooks);
    executed.clear();
    struct_command_data_block record{3};
    tech_cmdlist_t *list = tech_reg_cmdlist();
    ASSERT_NE(nullptr, list);
    tech_client_regcmd(list, "show nothing");
    tech_client_regcmd(list, "show sflow");
    EXPECT_EQ(-1, tech_client_execute_cmd(&record, list));
    EXPECT_EQ(2U, executed.size());
    tech_set_cli_hooks(nullptr);
    EXPECT_EQ(-1, tech_client_execute_cmd(&record, list)) << "no command-line service";
    EXPECT_EQ(2U, executed.size());
    tech_unreg_cmdlist(list);
}

TEST(sys_show_debug, collects_what_the_show_functions_print_one_after_another)
{
    EXPECT_EQ("", listing());
    ASSERT_EQ(0, sys_add_debug("first", table, show_one, 0, 0, 0));
    ASSERT_EQ(0, sys_add_debug("second", table, show_two, 0, 0, 0));
    const std::string text = listing();
    EXPECT_EQ(0U, text.find("one is on\r\n")) << text;
    EXPECT_THAT(text, HasSubstr("two is on\r\n"));
    EXPECT_THAT(text, HasSubstr("raw\n"));
}

TEST(sys_show_debug, a_module_registered_again_is_listed_once)
{
    ASSERT_EQ(0, sys_add_debug("first", table, show_one, 0, 0, 0));
    ASSERT_EQ(0, sys_add_debug("second", table, show_one, 0, 0, 0));
    EXPECT_EQ("one is on\r\none is on\r\n", listing());
}

TEST(sys_show_debug, takes_more_than_a_pipe_would_hold_and_gives_standard_output_back)
{
    ASSERT_EQ(0, sys_add_debug("first", table, show_much, 0, 0, 0));
    ASSERT_EQ(0, sys_add_debug("second", table, show_much, 0, 0, 0));
    testing::internal::CaptureStdout();
    std::printf("before|");
    const std::string text = listing();
    std::printf("after");
    std::fflush(stdout);
    EXPECT_EQ("before|after", testing::internal::GetCapturedStdout());
    EXPECT_EQ(2U * 8890U, text.size());
    EXPECT_THAT(text, HasSubstr("line 999\nline 0\n"));
}
