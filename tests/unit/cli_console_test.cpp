// Consoles and the service's own commands, without sockets and threads.
#include "console.h"

#include "cli_platform_double.h"
#include "cli_sample.h"
#include "cli_temporary_directory.h"
#include "config_file.h"
#include "core.h"
#include "own_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>
#include <unistd.h>

using cli::Level;
using cli::Mode;
using cli::Status;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

std::string host()
{
    char name[256] = {};
    gethostname(name, sizeof name - 1);
    return std::string(name).substr(0, std::string(name).find('.'));
}

struct Answer {
    Status status;
    std::string text;
};

class ConsoleTest : public testing::Test
{
protected:
    ConsoleTest() : master_(kx_thread_master_create())
    {
        sample::calls = {};
        platform_double::reset();
        setenv("SFLOW_CONFIG_DIR", directory_.path().c_str(), 1);
        core_.serve("fand", master_);
        core_.set_settle_time({});
        cli::add_own_commands(core_);
        for (const sample::Tree &tree : sample::trees())
            EXPECT_TRUE(core_.add(tree.attach, tree.root, tree.name));
    }
    ~ConsoleTest() override
    {
        kx_thread_master_finish(master_);
        unsetenv("SFLOW_CONFIG_DIR");
    }

    Answer run(cli::Console &console, std::string_view line)
    {
        Answer answer{};
        int done = 0;
        console.run(
            line, std::nullopt, [&](std::string_view text) { answer.text += text; },
            [&](Status status) {
                answer.status = status;
                ++done;
            });
        EXPECT_EQ(done, 1) << line;
        return answer;
    }

    void expect_ok(cli::Console &console, std::initializer_list<const char *> lines)
    {
        for (const char *const line : lines) {
            const Answer answer = run(console, line);
            EXPECT_EQ(answer.status, Status::ok) << line << ": " << answer.text;
        }
    }

    [[nodiscard]] std::string config_path() const { return directory_.path() + "/startup-config"; }
    void write_startup_config(const std::string &text) const { std::ofstream(config_path()) << text; }

    TemporaryDirectory directory_;
    kx_thread_master_t *master_;
    cli::Core core_;
};

class ReadyConsoleTest : public ConsoleTest
{
protected:
    ReadyConsoleTest() { core_.set_ready(); }
    cli::Console console_{core_, Level::privileged};
};

} // namespace

TEST_F(ReadyConsoleTest, prompt_follows_mode_and_level)
{
    cli::Console console(core_, Level::user);
    EXPECT_EQ(console.prompt(), host() + ">");
    struct Row {
        const char *line;
        const char *prompt;
    };
    const Row rows[] = {{"enable", "#"},
                        {"conf t", "(config)#"},
                        {"interface eth0", "(config-if-eth0)#"},
                        {"interface eth1", "(config-if-eth1)#"},
                        {"interface range eth0, eth1", "(config-if-range)#"},
                        {"exit", "(config)#"},
                        {"interface bond0", "(config-if-bond0)#"},
                        {"fan speed 3", "(config)#"},
                        {"interface eth0", "(config-if-eth0)#"},
                        {"end", "#"},
                        {"disable", ">"}};
    for (const Row &row : rows) {
        EXPECT_EQ(run(console, row.line).status, Status::ok) << row.line;
        EXPECT_EQ(console.prompt(), host() + row.prompt) << row.line;
    }
}

TEST_F(ReadyConsoleTest, exit_in_exec_mode_closes)
{
    expect_ok(console_, {"conf t", "interface eth0", "exit", "exit"});
    EXPECT_FALSE(console_.closing());
    expect_ok(console_, {"exit"});
    EXPECT_TRUE(console_.closing());
}

TEST_F(ReadyConsoleTest, user_level_may_not_configure)
{
    cli::Console console(core_, Level::user);
    for (const char *const line : {"configure terminal", "write memory", "show running-config", "debug fan"})
        EXPECT_EQ(run(console, line).status, Status::refused) << line;
    EXPECT_EQ(run(console, "show fan").status, Status::ok);
}

TEST_F(ReadyConsoleTest, unique_abbreviations_of_own_commands)
{
    expect_ok(console_, {"sh ver", "sh int br", "sh run", "wr", "copy run start", "term len 0", "conf t",
                         "int eth0", "int r eth0", "do wr mem"});
}

TEST_F(ReadyConsoleTest, no_in_front_of_own_commands_is_invalid)
{
    for (const char *const line : {"no configure terminal", "no write memory", "no show version"})
        EXPECT_EQ(run(console_, line).status, Status::refused) << line;
    expect_ok(console_, {"conf t"});
    for (const char *const line : {"no interface eth0", "no exit", "no default interface eth0"})
        EXPECT_EQ(run(console_, line).status, Status::refused) << line;
}

TEST_F(ReadyConsoleTest, refused_line_in_a_batch_is_repeated_above_the_marker)
{
    const Answer answer = run(console_, "show fun");
    EXPECT_EQ(answer.status, Status::refused);
    EXPECT_EQ(answer.text, "show fun\n     ^\n% Invalid input detected at '^' marker.\n");
}

TEST_F(ReadyConsoleTest, handler_failure_marks_the_command)
{
    expect_ok(console_, {"conf t"});
    sample::calls.fail = true;
    EXPECT_EQ(run(console_, "fan speed 3").status, Status::failed);
}

TEST_F(ReadyConsoleTest, interface_mode_gives_the_handler_its_index)
{
    expect_ok(console_, {"conf t", "interface eth1", "fan enable"});
    EXPECT_THAT(sample::calls.interfaces, ElementsAre(3));
    EXPECT_STREQ(sample::calls.record.mode_name, "interface");
}

TEST_F(ReadyConsoleTest, unknown_interface_says_what_exists_and_leaves_the_interface_before)
{
    expect_ok(console_, {"conf t", "interface eth0"});
    const Answer answer = run(console_, "interface eth9");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "% Interface eth9 does not exist; there is bond0, eth0, eth0.5, eth1\n");
    EXPECT_EQ(console_.mode(), Mode::config);
    // What was meant for eth9 must not reach eth0.
    EXPECT_EQ(run(console_, "fan enable").status, Status::refused);
    EXPECT_THAT(sample::calls.interfaces, ElementsAre());
}

TEST_F(ReadyConsoleTest, internal_interfaces_do_not_exist_for_operators)
{
    expect_ok(console_, {"conf t"});
    EXPECT_EQ(run(console_, "interface lo").status, Status::failed);
    EXPECT_THAT(console_.complete("interface l"), ElementsAre());
}

TEST_F(ReadyConsoleTest, interface_names_are_completed)
{
    expect_ok(console_, {"conf t"});
    EXPECT_THAT(console_.complete("interface e"), ElementsAre("eth0", "eth0.5", "eth1"));
    EXPECT_THAT(console_.complete("interface range b"), ElementsAre("bond0"));
    EXPECT_THAT(console_.complete("interface range eth0, b"), ElementsAre("bond0"));
    EXPECT_THAT(console_.complete("interface range eth0,eth0."), ElementsAre("eth0,eth0.5"));
    std::vector<std::string> texts;
    for (const cli::Choice &choice : console_.help("interface "))
        texts.push_back(choice.text);
    EXPECT_THAT(texts, ElementsAre("bond0", "eth0", "eth0.5", "eth1", "range", "IFNAME"));
}

TEST_F(ReadyConsoleTest, vrf_names_are_completed)
{
    static constexpr auto handler = [](struct_command_data_block * /*record*/) {};
    static constexpr struct_common_keyword word{"vrf", "a VRF", 1, 14, 14, 1, 2, 0, 0};
    static constexpr struct_common_string name{"VRF name", 2, CLI_SLOT(string_var[0])};
    static constexpr struct_eol end{1, handler, 0};
    static constexpr struct_transtion at_end{eol_action, &end, nullptr, nullptr};
    static constexpr struct_transtion argument{string_action, &name, &at_end, nullptr};
    static constexpr struct_transtion keyword{common_keyword_action, &word, &argument, nullptr};
    static constexpr struct_transtion top{append_point_action, nullptr, &keyword, nullptr};
    ASSERT_TRUE(core_.add(PARSE_ADD_CFG_CMD, &top, "vrfs"));
    for (const char *const vrf : {"blue", "black"}) {
        platform_double::state.interfaces.push_back(platform_double::interface(30, vrf, LSM_IF_KIND_VRF));
        platform_double::state.interfaces.back().type = LSM_IF_TYPE_VRF;
    }
    expect_ok(console_, {"conf t"});
    EXPECT_THAT(console_.complete("vrf bl"), ElementsAre("black", "blue"));
    EXPECT_THAT(console_.complete("vrf e"), ElementsAre()); // eth0 is no VRF
    expect_ok(console_, {"vrf green"});
}

TEST_F(ReadyConsoleTest, range_runs_the_handler_once_a_member)
{
    expect_ok(console_, {"conf t", "interface range eth1,eth0 ,  bond0, eth1", "fan enable"});
    EXPECT_THAT(sample::calls.interfaces, ElementsAre(3, 2, 10));
    EXPECT_EQ(console_.mode(), Mode::ifrange);
}

TEST_F(ReadyConsoleTest, range_matches_with_the_kinds_of_all_members)
{
    // The guard of a tree sees the mask of kinds and the mode's own name, then each member.
    static std::vector<std::pair<std::string, u_int64_t>> seen;
    seen.clear();
    static constexpr auto predicate = [](struct_command_data_block *record) {
        seen.emplace_back(record->mode_name, record->mode_intidx);
        return record->mode_intidx != 10 ? 1 : 0;
    };
    static std::vector<u_int64_t> ran;
    ran.clear();
    static constexpr auto handler = [](struct_command_data_block *record) {
        ran.push_back(record->mode_intidx);
    };
    static constexpr struct_common_keyword word{"guarded", "guarded", 1, 14, 14, 1, 2, 0, 0};
    static constexpr struct_eol end{1, handler, 0};
    static constexpr struct_transtion at_end{eol_action, &end, nullptr, nullptr};
    static constexpr struct_transtion keyword{common_keyword_action, &word, &at_end, nullptr};
    static constexpr struct_test_expression test{&keyword, nullptr, predicate};
    static constexpr struct_transtion guard{test_expression_action, &test, nullptr, nullptr};
    static constexpr struct_transtion top{append_point_action, nullptr, &guard, nullptr};
    ASSERT_TRUE(core_.add(PARSE_ADD_INTERFACE_CMD, &top, "guarded"));
    expect_ok(console_, {"conf t", "interface range eth0 bond0 eth1"});
    const Answer answer = run(console_, "guarded");
    EXPECT_THAT(seen, ElementsAre(testing::Pair("ifrange", LSM_IF_KIND_PORT | LSM_IF_KIND_AGGREGATE),
                                  testing::Pair("interface", 2), testing::Pair("interface", 10),
                                  testing::Pair("interface", 3)));
    // What the range as a whole offers may still not be for one of its members.
    EXPECT_THAT(ran, ElementsAre(2, 3));
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "% Interface bond0: the command is not available there\n");
}

TEST_F(ReadyConsoleTest, command_that_an_interface_does_not_offer_is_told_from_one_that_does_not_exist)
{
    static constexpr auto predicate = [](struct_command_data_block *record) {
        return record->mode_intidx == 2 ? 1 : 0;
    };
    static constexpr auto handler = [](struct_command_data_block * /*record*/) {};
    static constexpr struct_common_keyword word{"guarded", "guarded", 1, 14, 14, 1, 2, 0, 0};
    static constexpr struct_eol end{1, handler, 0};
    static constexpr struct_transtion at_end{eol_action, &end, nullptr, nullptr};
    static constexpr struct_transtion keyword{common_keyword_action, &word, &at_end, nullptr};
    static constexpr struct_test_expression test{&keyword, nullptr, predicate};
    static constexpr struct_transtion guard{test_expression_action, &test, nullptr, nullptr};
    static constexpr struct_transtion top{append_point_action, nullptr, &guard, nullptr};
    ASSERT_TRUE(core_.add(PARSE_ADD_INTERFACE_CMD, &top, "guarded"));
    const std::string invalid = "guarded\n^\n% Invalid input detected at '^' marker.\n";
    const struct {
        const char *enter;
        const char *line;
        std::string answer;
    } rows[] = {
        {"interface eth0", "guarded", ""},
        {"interface bond0", "guarded",
         invalid + "% Interface bond0 (aggregate): the command is not available there\n"},
        {"interface bond0", "no guarded",
         "no guarded\n   ^\n% Invalid input detected at '^' marker.\n"
         "% Interface bond0 (aggregate): the command is not available there\n"},
        {"interface range bond0", "guarded",
         invalid + "% The interfaces of the range: the command is not available there\n"},
        {"interface bond0", "nosuch", "nosuch\n^\n% Invalid input detected at '^' marker.\n"},
        {"exit", "guarded", invalid},
    };
    expect_ok(console_, {"conf t"});
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.enter) + "; " + row.line);
        expect_ok(console_, {row.enter});
        EXPECT_EQ(run(console_, row.line).text, row.answer);
    }
}

TEST_F(ReadyConsoleTest, range_goes_on_without_a_member_that_has_gone)
{
    expect_ok(console_, {"conf t", "interface range eth0 eth1"});
    std::erase_if(platform_double::state.interfaces,
                  [](const auto &record) { return record.name == "eth0"; });
    EXPECT_EQ(run(console_, "fan enable").status, Status::failed);
    EXPECT_THAT(sample::calls.interfaces, ElementsAre(3));
}

TEST_F(ReadyConsoleTest, range_goes_on_after_a_member_that_fails)
{
    expect_ok(console_, {"conf t", "interface range eth0,eth1,bond0"});
    sample::calls.failing_interface = 3;
    const Answer answer = run(console_, "fan enable");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "% Interface eth1: the command failed\n");
    EXPECT_THAT(sample::calls.interfaces, ElementsAre(2, 3, 10));
}

TEST_F(ReadyConsoleTest, range_with_an_unknown_member_is_refused_as_a_whole)
{
    expect_ok(console_, {"conf t"});
    const Answer answer = run(console_, "interface range eth0, eth9");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_THAT(answer.text, HasSubstr("eth9 does not exist"));
    EXPECT_EQ(console_.mode(), Mode::config);
    EXPECT_EQ(run(console_, "interface range").text, "% Incomplete command\n");
    EXPECT_EQ(run(console_, "interface range ,").status, Status::failed);
}

TEST_F(ReadyConsoleTest, interface_that_goes_away_takes_its_mode_with_it)
{
    expect_ok(console_, {"conf t", "interface eth1"});
    std::erase_if(platform_double::state.interfaces,
                  [](const auto &record) { return record.name == "eth1"; });
    // The index may come back as another interface's.
    platform_double::state.interfaces.push_back(platform_double::interface(3, "veth7", LSM_IF_KIND_PORT));
    const Answer answer = run(console_, "fan enable");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "% Interface eth1 does not exist any more\n");
    EXPECT_EQ(console_.mode(), Mode::config);
    EXPECT_THAT(sample::calls.interfaces, ElementsAre());
}

TEST_F(ReadyConsoleTest, default_interface_raises_the_event)
{
    expect_ok(console_, {"conf t", "default interface eth1"});
    EXPECT_THAT(platform_double::state.returned_to_defaults, ElementsAre(3));
    EXPECT_EQ(run(console_, "default interface eth9").status, Status::failed);
    EXPECT_THAT(platform_double::state.returned_to_defaults, ElementsAre(3));
}

TEST_F(ReadyConsoleTest, default_interface_waits_for_what_commands_have_set_in_motion)
{
    core_.set_settle_time(std::chrono::hours(1));
    expect_ok(console_, {"conf t", "interface eth1", "fan enable"});
    bool done = false;
    console_.run(
        "default interface eth1", std::nullopt, [](std::string_view) {},
        [&](Status status) {
            done = true;
            EXPECT_EQ(status, Status::ok);
        });
    EXPECT_FALSE(done);
    EXPECT_THAT(platform_double::state.returned_to_defaults, ElementsAre());
    core_.set_settle_time(std::chrono::milliseconds(20));
    for (kx_thread_t task{}; !done && kx_thread_fetch(master_, &task) != nullptr;)
        kx_thread_call(&task);
    EXPECT_TRUE(done);
    EXPECT_THAT(platform_double::state.returned_to_defaults, ElementsAre(3));
}

TEST_F(ReadyConsoleTest, default_interface_of_an_interface_that_goes_while_it_waits_fails)
{
    core_.set_settle_time(std::chrono::hours(1));
    expect_ok(console_, {"conf t", "interface eth1", "fan enable"});
    std::string text;
    Status status = Status::ok;
    bool done = false;
    console_.run(
        "default interface eth1", std::nullopt, [&](std::string_view piece) { text += piece; },
        [&](Status ended) {
            done = true;
            status = ended;
        });
    platform_double::state.interfaces.clear();
    core_.set_settle_time(std::chrono::milliseconds(1));
    for (kx_thread_t task{}; !done && kx_thread_fetch(master_, &task) != nullptr;)
        kx_thread_call(&task);
    EXPECT_EQ(status, Status::failed);
    EXPECT_EQ(text, "% Interface eth1 could not be returned to its defaults\n");
}

TEST_F(ReadyConsoleTest, output_goes_through_the_modifier)
{
    EXPECT_EQ(run(console_, "show fan | include fan").text, "fan speed is 5\nfan is turning\n");
    EXPECT_EQ(run(console_, "show fan | exclude fan").text, "no alarm\n");
    EXPECT_EQ(run(console_, "show fan | begin turning").text, "fan is turning\nno alarm\n");
    EXPECT_EQ(run(console_, "sh run | inc after").text, "fan after\n");
}

TEST_F(ReadyConsoleTest, nothing_is_written_after_a_command_is_done)
{
    // The thread is through, its output still queued, when the handler returns.
    static constexpr auto handler = [](struct_command_data_block *record) {
        std::thread thread([record] {
            record->session->write("late\n");
            cli_proc_thread_end(record, pthread_self());
        });
        const pthread_t tid = thread.native_handle();
        thread.join();
        cli_proc_thread_start(record, tid);
    };
    static constexpr struct_common_keyword word{"late", "late", 1, 14, 14, 1, 2, 0, 0};
    static constexpr struct_eol end{1, handler, 0};
    static constexpr struct_transtion at_end{eol_action, &end, nullptr, nullptr};
    static constexpr struct_transtion keyword{common_keyword_action, &word, &at_end, nullptr};
    static constexpr struct_transtion top{append_point_action, nullptr, &keyword, nullptr};
    ASSERT_TRUE(core_.add(PARSE_ADD_SHOW_CMD, &top, "late"));
    std::string text;
    bool done = false;
    console_.run(
        "show late", std::nullopt,
        [&](std::string_view piece) {
            EXPECT_FALSE(done);
            text += piece;
        },
        [&](Status) { done = true; });
    EXPECT_TRUE(done);
    EXPECT_EQ(text, "late\n");
    kx_thread_t task{};
    ASSERT_NE(kx_thread_fetch(master_, &task), nullptr);
    kx_thread_call(&task);
}

TEST_F(ReadyConsoleTest, output_outside_a_command_goes_nowhere)
{
    EXPECT_EQ(cli_printf("lost\n"), 0);
    struct_command_data_block record{};
    EXPECT_EQ(c2p_printf(1, &record, "lost"), -1);
}

TEST_F(ReadyConsoleTest, running_configuration_is_collected_anew)
{
    EXPECT_EQ(run(console_, "show running-config").text.find("fan speed"), std::string::npos);
    expect_ok(console_, {"conf t", "fan speed 8", "end"});
    EXPECT_EQ(run(console_, "show running-config").text.find("fan speed 8\n"), 0U);
    sample::calls.speed = 6; // changed by the client itself
    EXPECT_EQ(run(console_, "show running-config").text.find("fan speed 6\n"), 0U);
    sample::calls.speed = 5;
    EXPECT_THAT(run(console_, "show running-config all").text, HasSubstr("fan speed 5\n"));
}

TEST_F(ReadyConsoleTest, saved_configuration_can_be_read_back)
{
    expect_ok(console_, {"conf t", "fan speed 8", "fan name big", "end"});
    EXPECT_EQ(run(console_, "write memory").text, "Building configuration...\n[OK]\n");
    const std::string running = run(console_, "show running-config").text;
    const std::string saved = *cli::read_config_file(config_path()).text;
    EXPECT_EQ(saved.find("! Startup configuration of the sFlow agent "), 0U);
    EXPECT_EQ(saved.substr(saved.size() - running.size()), running);
    EXPECT_EQ(run(console_, "show startup-config").text, saved);

    sample::calls = {};
    static_cast<void>(platform_double::take_log());
    cli::Core restarted;
    restarted.serve("fand", master_);
    cli::add_own_commands(restarted);
    for (const sample::Tree &tree : sample::trees())
        ASSERT_TRUE(restarted.add(tree.attach, tree.root, tree.name));
    restarted.set_ready();
    EXPECT_THAT(platform_double::take_log(), ElementsAre(HasSubstr("0 failed")));
    EXPECT_EQ(restarted.running_config(false), running);
    EXPECT_THAT(sample::calls.interfaces, ElementsAre(2, 3));
    EXPECT_TRUE(restarted.saved());
}

TEST_F(ReadyConsoleTest, saving_waits_for_what_commands_have_set_in_motion)
{
    core_.set_settle_time(std::chrono::hours(1));
    expect_ok(console_, {"conf t", "fan speed 8", "end"});
    std::string text;
    bool done = false;
    console_.run(
        "write memory", std::nullopt, [&](std::string_view piece) { text += piece; },
        [&](Status status) {
            done = true;
            EXPECT_EQ(status, Status::ok);
        });
    EXPECT_FALSE(done);
    EXPECT_TRUE(console_.busy());
    EXPECT_EQ(access(config_path().c_str(), F_OK), -1);
    sample::calls.name = "big"; // the client hears from elsewhere what has become of a command
    core_.mark_changed();
    core_.set_settle_time(std::chrono::milliseconds(20));
    kx_thread_t task{};
    while (!done && kx_thread_fetch(master_, &task) != nullptr)
        kx_thread_call(&task);
    EXPECT_EQ(text, "Building configuration...\n[OK]\n");
    EXPECT_THAT(*cli::read_config_file(config_path()).text, HasSubstr("fan speed 8\nfan name big\n"));
}

TEST_F(ReadyConsoleTest, saving_does_not_wait_for_ever)
{
    core_.set_settle_time(std::chrono::milliseconds(4));
    bool done = false;
    core_.mark_changed();
    console_.run(
        "write memory", std::nullopt, [](std::string_view) {}, [&](Status) { done = true; });
    // Changes come without end.
    for (kx_thread_t task{}; !done && kx_thread_fetch(master_, &task) != nullptr; core_.mark_changed())
        kx_thread_call(&task);
    EXPECT_TRUE(done);
}

TEST_F(ReadyConsoleTest, saving_goes_on_when_the_session_has_gone)
{
    core_.set_settle_time(std::chrono::hours(1));
    {
        cli::Console console(core_, Level::privileged);
        expect_ok(console, {"conf t", "fan speed 8", "end"});
        console.run(
            "write memory", std::nullopt, [](std::string_view) {}, [](Status) { ADD_FAILURE(); });
    }
    core_.set_settle_time(std::chrono::milliseconds(1));
    kx_thread_t task{};
    while (!cli::read_config_file(config_path()).text && kx_thread_fetch(master_, &task) != nullptr)
        kx_thread_call(&task);
    EXPECT_THAT(*cli::read_config_file(config_path()).text, HasSubstr("fan speed 8\n"));
}

TEST_F(ReadyConsoleTest, configuration_that_cannot_be_saved_fails_the_command)
{
    setenv("SFLOW_CONFIG_DIR", "/dev/null", 1);
    const Answer answer = run(console_, "write memory");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "Building configuration...\n% cannot create /dev/null/startup-config.new: "
                           "Not a directory\n");
}

TEST_F(ReadyConsoleTest, version_says_whether_the_configuration_is_saved)
{
    EXPECT_THAT(run(console_, "show version").text, HasSubstr("version " SFLOW_VERSION));
    EXPECT_THAT(run(console_, "show version").text, HasSubstr("configuration is saved"));
    expect_ok(console_, {"conf t", "fan speed 8", "end"});
    EXPECT_THAT(run(console_, "show version").text, HasSubstr("is not saved"));
    expect_ok(console_, {"write memory"});
    EXPECT_THAT(run(console_, "show version").text, HasSubstr("configuration is saved"));
    // A change that is taken back is none.
    core_.mark_changed();
    EXPECT_THAT(run(console_, "show version").text, HasSubstr("configuration is saved"));
}

TEST_F(ReadyConsoleTest, no_startup_configuration_is_said)
{
    const Answer answer = run(console_, "show startup-config");
    EXPECT_EQ(answer.status, Status::failed);
    EXPECT_EQ(answer.text, "% There is no startup configuration\n");
}

TEST_F(ReadyConsoleTest, interfaces_are_shown)
{
    EXPECT_EQ(run(console_, "show interfaces brief").text,
              "Interface        Admin  Oper  Speed        Type       Address\n"
              "eth0             up     up    10000 Mb/s   ethernet   10.0.0.1/24\n"
              "eth1             down   down  -            ethernet   -\n"
              "bond0            down   down  -            aggregate  -\n"
              "eth0.5           down   down  -            vlan       -\n");
    EXPECT_EQ(run(console_, "show interfaces eth0").text,
              "eth0 is up, line protocol is up\n"
              "  Index 2, type ethernet, address 00:00:00:00:00:00\n"
              "  MTU 1500 bytes, speed 10000 Mb/s, full duplex\n"
              "  VRF default\n"
              "  Internet address is 10.0.0.1/24\n");
    EXPECT_THAT(run(console_, "show interfaces").text, HasSubstr("eth0.5 is administratively down"));
    EXPECT_THAT(run(console_, "show interfaces").text, HasSubstr("type vlan of eth0"));
    EXPECT_EQ(run(console_, "show interfaces eth9").status, Status::refused);
}

TEST_F(ReadyConsoleTest, debug_listing_is_the_platforms)
{
    platform_double::state.debug_listing = "fan debug:\r\n  fan is on\r\n";
    EXPECT_EQ(run(console_, "show debugging").text, "fan debug:\r\n  fan is on\r\n");
}

TEST_F(ReadyConsoleTest, terminal_length_is_kept)
{
    EXPECT_EQ(console_.terminal_length(), -1);
    expect_ok(console_, {"terminal length 40"});
    EXPECT_EQ(console_.terminal_length(), 40);
    EXPECT_EQ(run(console_, "terminal length 513").status, Status::refused);
}

TEST_F(ConsoleTest, before_readiness_nothing_can_be_configured_or_saved)
{
    cli::Console console(core_, Level::privileged);
    core_.set_awaited("access lists");
    for (const char *const line :
         {"configure terminal", "write memory", "copy running-config startup-config"}) {
        const Answer answer = run(console, line);
        EXPECT_EQ(answer.status, Status::not_ready) << line;
        EXPECT_THAT(answer.text, HasSubstr("% sflowd is starting: it waits for access lists\n")) << line;
    }
    EXPECT_EQ(console.mode(), Mode::exec);
    EXPECT_EQ(access(config_path().c_str(), F_OK), -1);
    EXPECT_EQ(run(console, "show fan").status, Status::ok);
    core_.set_ready();
    EXPECT_EQ(run(console, "configure terminal").status, Status::ok);
}

TEST_F(ConsoleTest, startup_configuration_goes_on_after_lines_that_fail)
{
    write_startup_config("! comment\n"
                         "fan speed 7\r\n"
                         "fan speed 77\n"
                         "interface eth9\n"
                         " fan enable\n"
                         "!\n"
                         "interface eth1\n"
                         " fan enable\n"
                         "!\n"
                         "fan name " +
                         std::string(2000, 'x') +
                         "\n"
                         "fan mode aut\n"
                         "fan name big"); // without a newline
    core_.set_ready();
    EXPECT_EQ(sample::calls.speed, 7);
    EXPECT_EQ(sample::calls.name, "big");
    EXPECT_THAT(sample::calls.interfaces, ElementsAre(3));
    const std::string where = "%CLI-4-STARTUP_CONFIG: " + config_path() + " line ";
    EXPECT_THAT(platform_double::take_log(),
                ElementsAre(where + "3: \"fan speed 77\": % Invalid input detected at '^' marker.",
                            where + "4: \"interface eth9\": % Interface eth9 does not exist; there is bond0, "
                                    "eth0, eth0.5, eth1",
                            where + "5: \" fan enable\": % Invalid input detected at '^' marker.",
                            where + "10: \"fan name " + std::string(cli::LINE_LIMIT - 9, 'x') +
                                "\": the line is too long",
                            where + "11: \"fan mode aut\": % Ambiguous command",
                            "%CLI-5-STARTUP_CONFIG: " + config_path() + " applied: 12 lines, 5 failed"));
}

TEST_F(ConsoleTest, startup_configuration_is_applied_once)
{
    write_startup_config("fan speed 7\n");
    core_.set_ready();
    sample::calls.speed = 2;
    core_.set_ready();
    core_.serve("fand", master_); // the client starts over
    EXPECT_FALSE(core_.ready());
    core_.set_ready();
    EXPECT_TRUE(core_.ready());
    EXPECT_EQ(sample::calls.speed, 2);
}

TEST_F(ConsoleTest, unreadable_startup_configuration_is_logged)
{
    ASSERT_EQ(mkdir(config_path().c_str(), 0700), 0);
    core_.set_ready();
    EXPECT_TRUE(core_.ready());
    EXPECT_THAT(platform_double::take_log(),
                ElementsAre("%CLI-4-STARTUP_CONFIG: " + config_path() +
                            " is not a regular file, the startup configuration is not applied"));
}

TEST_F(ConsoleTest, missing_startup_configuration_is_no_error)
{
    core_.set_ready();
    EXPECT_TRUE(core_.ready());
    EXPECT_THAT(platform_double::take_log(), ElementsAre());
}

TEST_F(ConsoleTest, regeneration_has_a_pass_of_its_own)
{
    static int64_t seen = 0;
    static constexpr struct_c2p print{[](struct_command_data_block *record) { seen = record->parser_status; },
                                      0};
    static constexpr struct_transtion node{c2p_action, &print, nullptr, nullptr};
    static constexpr struct_transtion top{append_point_action, nullptr, &node, nullptr};
    ASSERT_TRUE(core_.add(PARSE_ADD_CFG_CMD, &top, "status"));
    EXPECT_TRUE(core_.collect(CLI_PARSER_C2P_REFORM));
    EXPECT_EQ(seen, CLI_PARSER_C2P_REFORM);
    EXPECT_TRUE(core_.collect(CLI_PARSER_C2P));
    EXPECT_EQ(seen, CLI_PARSER_C2P);
}
