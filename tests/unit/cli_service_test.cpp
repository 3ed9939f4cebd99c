// The functions of platform/cli.h on a service of its own thread.
#include "platform/cli.h"

#include "cli_platform_double.h"
#include "cli_sample.h"
#include "cli_service_thread.h"
#include "cli_temporary_directory.h"
#include "client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <fstream>
#include <thread>

using shell::Client;
using shell::Status;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

/// Lets a test decide when threads go on.
class Gate
{
public:
    void open() { promise_.set_value(); }
    void pass() { future_.wait(); }

private:
    std::promise<void> promise_;
    std::shared_future<void> future_ = promise_.get_future().share();
};

std::unique_ptr<Gate> gate;
std::atomic<bool> started{false};
std::atomic<bool> through{false};
pthread_t ran_on;

void slow_body(struct_command_data_block *record)
{
    cli_proc_thread_start(record, pthread_self());
    gate->pass();
    cli_printf("from the thread\n");
    through = true;
    cli_proc_thread_end(record, pthread_self());
}

/// The thread goes on when the test opens the gate.
void slow(struct_command_data_block *record)
{
    cli_printf("from the handler\n");
    started = true;
    std::thread thread(slow_body, record);
    cli_proc_thread_start(record, thread.native_handle());
    thread.detach();
}

/// The thread is through before the handler announces it.
void quick(struct_command_data_block *record)
{
    std::thread thread([record] {
        cli_proc_thread_start(record, pthread_self());
        cli_printf("quick\n");
        cli_proc_thread_end(record, pthread_self());
    });
    const pthread_t tid = thread.native_handle();
    thread.join();
    cli_proc_thread_start(record, tid);
}

/// A thread that never announces itself, and fails.
void failing(struct_command_data_block *record)
{
    std::thread thread([record] {
        gate->pass();
        cli_printf("bad luck\n");
        cli_client_execmd_fail(record);
        cli_proc_thread_end(record, pthread_self());
    });
    cli_proc_thread_start(record, thread.native_handle());
    thread.detach();
    gate->open();
}

/// Runs other commands from its thread, as the support service does.
void chain(struct_command_data_block *record)
{
    std::thread thread([record] {
        tech_cli_hooks_t hooks{};
        {
            const std::lock_guard guard(platform_double::lock);
            hooks = platform_double::state.hooks;
        }
        const int good = hooks.execute(record, "show fan | include speed");
        const int bad = hooks.execute(record, "show nonsense");
        const int nested = cli_run_command(record, "show quick");
        cli_printf("%d %d %d\n", good, bad, nested);
        cli_proc_thread_end(record, pthread_self());
    });
    cli_proc_thread_start(record, thread.native_handle());
    thread.detach();
}

void where(struct_command_data_block * /*record*/)
{
    ran_on = pthread_self();
}

void formats(struct_command_data_block * /*record*/)
{
    const u_int32_t address = htonl(0x0a000001);
    cli_printf("%a|%-12a|\n", address, address);
}

constexpr u_int64_t USER = CLI_PRIV_USER;
CLI_NODES(top, slow_word, slow_end, quick_word, quick_end, failing_word, failing_end, chain_word, chain_end,
          where_word, where_end, formats_word, formats_end);
CLI_APPEND_POINT(top, slow_word);
CLI_KEYWORD(slow_word, "slow", "slow", USER, slow_end, quick_word);
CLI_EOL(slow_end, slow);
CLI_KEYWORD(quick_word, "quick", "quick", USER, quick_end, failing_word);
CLI_EOL(quick_end, quick);
CLI_KEYWORD(failing_word, "failing", "failing", USER, failing_end, chain_word);
CLI_EOL(failing_end, failing);
CLI_KEYWORD(chain_word, "chain", "chain", USER, chain_end, where_word);
CLI_EOL(chain_end, chain);
CLI_KEYWORD(where_word, "where", "where", USER, where_end, formats_word);
CLI_EOL(where_end, where);
CLI_KEYWORD(formats_word, "formats", "formats", USER, formats_end, Tno_alt);
CLI_EOL(formats_end, formats);

class ServiceTest : public testing::Test
{
protected:
    ServiceTest()
    {
        sample::calls = {};
        platform_double::reset();
        gate = std::make_unique<Gate>();
        started = through = false;
        setenv("TMPDIR", directory_.path().c_str(), 1);
        setenv("SFLOW_CONFIG_DIR", directory_.path().c_str(), 1);
        thread_ = std::make_unique<ServiceThread>();
        thread_->run([&] {
            EXPECT_EQ(cli_client_init("fand", thread_->master()), 0);
            for (const sample::Tree &tree : sample::trees())
                EXPECT_EQ(cli_add_command(tree.attach, tree.root, tree.name), 0);
            EXPECT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, &top, "threads"), 0);
        });
    }
    ~ServiceTest() override
    {
        unsetenv("SFLOW_CONFIG_DIR");
        unsetenv("TMPDIR");
    }

    [[nodiscard]] Client batch() const
    {
        Client client = Client::connect(directory_.path() + "/platform/cli_socket");
        EXPECT_TRUE(client.greet(false));
        return client;
    }

    TemporaryDirectory directory_;
    std::unique_ptr<ServiceThread> thread_;
};

std::string output_of(Client &client, std::string_view line, Status expected = Status::ok)
{
    std::string text;
    EXPECT_EQ(client.run(line, [&](std::string_view piece) { text += piece; }), expected) << line;
    return text;
}

} // namespace

TEST_F(ServiceTest, handlers_run_on_the_thread_that_serves_the_master)
{
    Client client = batch();
    output_of(client, "show where");
    pthread_t service{};
    thread_->run([&] { service = pthread_self(); });
    EXPECT_NE(pthread_equal(ran_on, service), 0);
}

TEST_F(ServiceTest, init_needs_a_place_for_the_socket)
{
    thread_->run([&] {
        EXPECT_EQ(cli_client_init(nullptr, thread_->master()), -1);
        EXPECT_EQ(cli_client_init("fand", nullptr), -1);
        unsetenv("TMPDIR");
        EXPECT_EQ(cli_client_init("fand", thread_->master()), -1);
        setenv("TMPDIR", "/dev/null", 1);
        EXPECT_EQ(cli_client_init("fand", thread_->master()), -1);
    });
    EXPECT_THAT(platform_double::take_log(),
                ElementsAre("%CLI-3-SOCKET: cannot create /dev/null/platform: Not a directory: no sessions"));
}

TEST_F(ServiceTest, client_that_starts_over_gets_new_sessions)
{
    Client before = batch();
    thread_.reset(); // the old master is finished
    thread_ = std::make_unique<ServiceThread>();
    thread_->run([&] { EXPECT_EQ(cli_client_init("fand", thread_->master()), 0); });
    output_of(before, "show fan", Status::lost);
    Client after = batch();
    EXPECT_EQ(output_of(after, "show fan | include alarm"), "no alarm\n"); // the trees are still there
}

TEST_F(ServiceTest, sessions_before_readiness_are_told_so)
{
    Client early = Client::connect(directory_.path() + "/platform/cli_socket");
    const auto state = early.greet(false);
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->ready);
    EXPECT_EQ(state->reason, "sflowd is starting");
    thread_->run([] { cli_client_awaits("the sampling service"); });
    Client later = Client::connect(directory_.path() + "/platform/cli_socket");
    const auto told = later.greet(false);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->reason, "sflowd is starting: it waits for the sampling service");
    EXPECT_EQ(state->prompt.find('\n'), std::string::npos);
    output_of(early, "configure terminal", Status::starting);
    EXPECT_EQ(output_of(early, "show fan | include alarm"), "no alarm\n");
    thread_->run(cli_client_ready);
    output_of(early, "configure terminal");
}

TEST_F(ServiceTest, command_completes_when_its_thread_has_ended)
{
    Client client = batch();
    std::thread opener([] { gate->open(); });
    EXPECT_EQ(output_of(client, "show slow"), "from the handler\nfrom the thread\n");
    opener.join();
}

TEST_F(ServiceTest, service_answers_others_while_a_thread_carries_a_command_on)
{
    Client waiting = batch();
    std::thread asker(
        [&] { EXPECT_EQ(output_of(waiting, "show slow | include thread"), "from the thread\n"); });
    Client other = batch();
    EXPECT_EQ(output_of(other, "show fan | include alarm"), "no alarm\n");
    gate->open();
    asker.join();
}

TEST_F(ServiceTest, thread_that_is_through_before_it_is_announced_ends_the_command)
{
    Client client = batch();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(output_of(client, "show quick"), "quick\n");
}

TEST_F(ServiceTest, thread_can_fail_its_command)
{
    Client client = batch();
    EXPECT_EQ(output_of(client, "show failing", Status::failed), "bad luck\n");
    EXPECT_EQ(output_of(client, "show fan | include alarm"), "no alarm\n");
}

TEST_F(ServiceTest, thread_whose_session_has_gone_writes_to_nobody)
{
    {
        Client client = batch();
        std::thread asker([&] { output_of(client, "show slow", Status::lost); });
        // The session is closed from the service's side while its command is carried on.
        while (!started)
            std::this_thread::yield();
        thread_->run([&] { EXPECT_EQ(cli_client_init("fand", thread_->master()), 0); });
        asker.join();
    }
    gate->open();
    while (!through)
        std::this_thread::yield();
    Client client = batch();
    EXPECT_EQ(output_of(client, "show fan | include alarm"), "no alarm\n");
}

TEST_F(ServiceTest, thread_runs_commands_for_its_session)
{
    Client client = batch();
    EXPECT_EQ(output_of(client, "show chain"),
              "\n--- show fan | include speed ---\nfan speed is 5\n"
              "\n--- show nonsense ---\n"
              "show nonsense\n     ^\n% Invalid input detected at '^' marker.\n"
              "quick\n0 -1 0\n");
}

TEST_F(ServiceTest, support_service_captures_a_status_line)
{
    std::string text;
    thread_->run([&] {
        tech_cli_hooks_t hooks{};
        {
            const std::lock_guard guard(platform_double::lock);
            hooks = platform_double::state.hooks;
        }
        hooks.capture([](struct_command_data_block * /*record*/) { cli_printf("fan is on\n"); },
                      [&](std::string_view piece) { text += piece; });
    });
    EXPECT_EQ(text, "fan is on\n");
}

TEST_F(ServiceTest, support_text_is_collected_off_the_service_thread)
{
    platform_double::state.collect = [&](const tech_sink_t &sink) {
        // A module's part runs on the service's thread meanwhile.
        thread_->run([&] { sink("module\n"); });
        std::thread([&] { sink("file\n"); }).join();
        return 1;
    };
    Client client = batch();
    EXPECT_EQ(output_of(client, "show tech-support"), "module\nfile\n");
    {
        const std::lock_guard guard(platform_double::lock);
        platform_double::state.collect = [](const tech_sink_t &) { return -1; };
    }
    EXPECT_EQ(output_of(client, "show tech-support", Status::failed), "% Another collection is running\n");
}

TEST_F(ServiceTest, output_knows_address_conversions)
{
    Client client = batch();
    EXPECT_EQ(output_of(client, "show formats"), "10.0.0.1|10.0.0.1    |\n");
}

TEST_F(ServiceTest, output_outside_a_command_goes_nowhere)
{
    EXPECT_EQ(cli_printf("x"), 0);
    thread_->run([] { EXPECT_EQ(cli_printf("x"), 0); });
    struct_command_data_block stray{};
    EXPECT_EQ(cli_proc_thread_start(&stray, pthread_self()), -1);
    EXPECT_EQ(cli_proc_thread_end(&stray, pthread_self()), -1);
    EXPECT_EQ(cli_run_command(&stray, "show fan"), -1);
    EXPECT_EQ(cli_run_command(nullptr, "show fan"), -1);
    cli_client_execmd_fail(&stray);
    EXPECT_EQ(cli_walkthrought_node(&stray, CLI_MODE_INTERFACE, cli_get_mode_root(CLI_MODE_INTERFACE)), -1);
}

TEST_F(ServiceTest, modes_have_names)
{
    struct_command_data_block record{};
    EXPECT_EQ(cli_change_mode(&record, "interface", 1), 0);
    EXPECT_STREQ(record.mode_name, CLI_MODE_INTERFACE);
    EXPECT_EQ(cli_change_mode(&record, "attic", 1), -1);
    EXPECT_EQ(cli_change_mode(&record, nullptr, 1), -1);
    EXPECT_STREQ(record.mode_name, CLI_MODE_INTERFACE);
    EXPECT_NE(cli_get_mode_root("config"), nullptr);
    EXPECT_EQ(cli_get_mode_root("attic"), nullptr);
    EXPECT_EQ(cli_get_mode_root(nullptr), nullptr);
}

TEST_F(ServiceTest, unsound_tree_is_refused_and_logged)
{
    static constexpr struct_transtion broken{common_keyword_action, nullptr, nullptr, nullptr};
    static constexpr struct_transtion root{append_point_action, nullptr, &broken, nullptr};
    EXPECT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, &root, "broken"), -1);
    EXPECT_THAT(platform_double::take_log(), ElementsAre(HasSubstr("command tree \"broken\": refused")));
    EXPECT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, nullptr, "broken"), -1);
    EXPECT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, &root, nullptr), -1);
}

TEST_F(ServiceTest, regeneration_and_change_notices_come_from_any_state)
{
    std::thread([] { cli_param_is_change(); }).join();
    thread_->run([] { EXPECT_EQ(cli_client_c2p_reform(nullptr), 0); });
}

TEST_F(ServiceTest, trees_may_be_added_while_commands_run)
{
    Client client = batch();
    std::thread adder([] {
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(cli_add_command(PARSE_ADD_SHOW_CMD, &top, ("threads " + std::to_string(i % 3)).c_str()),
                      0);
    });
    for (int i = 0; i < 50; ++i)
        output_of(client, "show fan");
    adder.join();
}
