// Sessions without a socket: turns, backlog, cancelling.
#include "session.h"

#include "cli_platform_double.h"
#include "cli_sample.h"
#include "core.h"
#include "own_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

constexpr std::size_t page_bytes = 65536;

void print_page(struct_command_data_block * /*record*/)
{
    const std::string line(1023, 'x');
    for (std::size_t written = 0; written < page_bytes; written += 1024)
        cli_printf("%s\n", line.c_str());
}

CLI_NODES(top, page_word, page_end);
CLI_APPEND_POINT(top, page_word);
CLI_KEYWORD(page_word, "page", "64 KiB of text", CLI_PRIV_USER, page_end, Tno_alt);
CLI_EOL(page_end, print_page);

class SessionTest : public testing::Test
{
protected:
    SessionTest() : master_(kx_thread_master_create())
    {
        sample::calls = {};
        platform_double::reset();
        setenv("SFLOW_CONFIG_DIR", "/dev/null", 1); // saving fails
        core_.serve("fand", master_);
        cli::add_own_commands(core_);
        for (const sample::Tree &tree : sample::trees())
            EXPECT_TRUE(core_.add(tree.attach, tree.root, tree.name));
        EXPECT_TRUE(core_.add(PARSE_ADD_SHOW_CMD, &top, "pages"));
        core_.set_ready();
        session_.receive("hello 1 batch\n");
        EXPECT_EQ(take().size(), 1U);
    }
    ~SessionTest() override
    {
        kx_thread_master_finish(master_);
        unsetenv("SFLOW_CONFIG_DIR");
    }

    /// Frames sent since the last call.
    std::vector<cli::Frame> take()
    {
        reader_.feed(session_.output());
        session_.sent(session_.output().size());
        std::vector<cli::Frame> frames;
        while (auto frame = reader_.next())
            frames.push_back(std::move(*frame));
        EXPECT_FALSE(reader_.broken());
        return frames;
    }

    /// Statuses of the answers sent since the last call.
    std::vector<std::string> statuses()
    {
        std::vector<std::string> list;
        for (const cli::Frame &frame : take())
            if (frame.tag == "done")
                list.push_back(frame.fields.at(0));
        return list;
    }

    kx_thread_master_t *master_;
    cli::Core core_;
    cli::FrameReader reader_;
    int changes_ = 0;
    cli::Session session_{core_, [this] { ++changes_; }};
};

std::string repeated(std::string_view text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

} // namespace

TEST_F(SessionTest, flood_of_requests_is_served_in_turns)
{
    constexpr int requests = 2 * cli::REQUESTS_PER_TURN + 1;
    session_.receive(repeated("run show fan\n", requests));
    std::vector<std::size_t> turns{statuses().size()};
    while (session_.wants_turn()) {
        const int before = changes_;
        session_.take_turn();
        turns.push_back(statuses().size());
        EXPECT_GT(changes_, before) << "nobody would give the session its next turn";
    }
    EXPECT_THAT(turns, ElementsAre(cli::REQUESTS_PER_TURN, cli::REQUESTS_PER_TURN, 1));
}

TEST_F(SessionTest, requests_of_a_shell_that_does_not_read_are_not_begun)
{
    constexpr std::size_t pages = cli::BACKLOG_LIMIT / page_bytes;
    session_.receive(repeated("run show page\n", 3 * static_cast<int>(pages)));
    const std::size_t gathered = session_.output().size();
    EXPECT_GE(gathered, cli::BACKLOG_LIMIT);
    EXPECT_LT(gathered, cli::BACKLOG_LIMIT + 2 * page_bytes);
    EXPECT_FALSE(session_.wants_turn());
    session_.take_turn();
    EXPECT_EQ(session_.output().size(), gathered);

    std::size_t answered = statuses().size();
    while (session_.wants_turn()) {
        session_.take_turn();
        answered += statuses().size();
    }
    EXPECT_EQ(answered, 3 * pages);
}

TEST_F(SessionTest, every_request_before_the_end_of_input_is_answered)
{
    constexpr int requests = 3 * cli::REQUESTS_PER_TURN;
    session_.receive(repeated("run show fan\n", requests));
    session_.input_ended();
    std::size_t answered = statuses().size();
    for (; session_.wants_turn(); answered += statuses().size()) {
        EXPECT_FALSE(session_.over());
        session_.take_turn();
    }
    EXPECT_EQ(answered, requests);
    EXPECT_TRUE(session_.over());
}

TEST_F(SessionTest, cancel_ends_the_command_that_runs)
{
    core_.set_settle_time(std::chrono::hours(1)); // `write memory` waits for it
    core_.mark_changed();
    session_.receive("run write memory\n");
    EXPECT_THAT(statuses(), ElementsAre());
    session_.receive("cancel\n");
    EXPECT_THAT(statuses(), ElementsAre("cancelled"));
    session_.receive("run show fan\n");
    EXPECT_THAT(statuses(), ElementsAre("ok"));
}

TEST_F(SessionTest, cancelled_command_writes_to_nobody_when_it_ends)
{
    core_.set_settle_time(std::chrono::hours(1));
    core_.mark_changed();
    session_.receive("run write memory\ncancel\n");
    ASSERT_THAT(statuses(), ElementsAre("cancelled"));
    core_.set_settle_time(std::chrono::milliseconds(1));
    bool saved = false;
    core_.when_settled([&] { saved = true; });
    kx_thread_t task{};
    while (!saved && kx_thread_fetch(master_, &task) != nullptr)
        kx_thread_call(&task);
    EXPECT_THAT(take(), ElementsAre());
}

TEST_F(SessionTest, cancel_goes_ahead_of_requests_that_wait)
{
    core_.set_settle_time(std::chrono::hours(1));
    core_.mark_changed();
    session_.receive("run write memory\nrun show fan\nrun show fun\ncancel\r\n");
    EXPECT_THAT(statuses(), ElementsAre("cancelled", "ok", "refused"));
}

TEST_F(SessionTest, cancel_without_a_command_has_no_answer)
{
    session_.receive("cancel\nrun show fan\ncancel\n");
    EXPECT_THAT(statuses(), ElementsAre("ok"));
    EXPECT_FALSE(session_.over());
}

TEST_F(SessionTest, half_a_request_is_not_run_at_the_end_of_input)
{
    session_.receive("run show fan");
    session_.input_ended();
    EXPECT_THAT(take(), ElementsAre());
    EXPECT_TRUE(session_.over());
    EXPECT_EQ(sample::calls.handler, "");
}
