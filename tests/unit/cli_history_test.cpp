// The history of an operator's lines across sessions.
#include "history_file.h"

#include "cli_temporary_directory.h"
#include "words.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <thread>

using shell::HISTORY_LINES;
using shell::HistoryFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class HistoryFileTest : public testing::Test
{
protected:
    [[nodiscard]] std::string path() const { return directory_.path() + "/history"; }
    [[nodiscard]] HistoryFile file() const { return HistoryFile(path()); }
    void write(const std::string &text) const { std::ofstream(path(), std::ios::binary) << text; }
    [[nodiscard]] std::string text() const
    {
        std::ostringstream all;
        all << std::ifstream(path(), std::ios::binary).rdbuf();
        return all.str();
    }

    TemporaryDirectory directory_;
};

} // namespace

TEST_F(HistoryFileTest, lines_come_back_in_their_order)
{
    HistoryFile history = file();
    EXPECT_THAT(history.load(), IsEmpty());
    history.add("show version");
    history.add(" interface  eth0");
    history.add("show version");
    EXPECT_THAT(file().load(), ElementsAre("show version", " interface  eth0", "show version"));
}

TEST_F(HistoryFileTest, is_its_owners_alone)
{
    file().add("show version");
    struct stat status {
    };
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(HistoryFileTest, line_typed_twice_in_a_row_is_kept_once)
{
    HistoryFile history = file();
    history.add("show sflow");
    history.add("show sflow");
    EXPECT_EQ(text(), "show sflow\n");
}

TEST_F(HistoryFileTest, only_the_last_lines_are_kept)
{
    std::string many;
    for (std::size_t i = 0; i < 2 * HISTORY_LINES + 1; ++i)
        many += "line " + std::to_string(i) + "\n";
    write(many);
    const std::vector<std::string> lines = file().load();
    ASSERT_EQ(lines.size(), HISTORY_LINES);
    EXPECT_EQ(lines.front(), "line " + std::to_string(HISTORY_LINES + 1));
    EXPECT_EQ(lines.back(), "line " + std::to_string(2 * HISTORY_LINES));
    // Cut down for good.
    EXPECT_EQ(text().find(lines.front() + "\n"), 0U);
    EXPECT_EQ(file().load(), lines);
}

TEST_F(HistoryFileTest, file_is_left_alone_until_it_is_twice_as_long)
{
    std::string many;
    for (std::size_t i = 0; i < 2 * HISTORY_LINES; ++i)
        many += "line " + std::to_string(i) + "\n";
    write(many);
    EXPECT_EQ(file().load().size(), HISTORY_LINES);
    EXPECT_EQ(text(), many);
}

TEST_F(HistoryFileTest, what_can_be_no_command_is_left_out)
{
    const std::string longest(cli::LINE_LIMIT, 'x');
    write(std::string("one\n\n  \t\nbell\a\nnul\0byte\ntwo\n", 28) + longest + "\n" + longest + "y\nlast");
    EXPECT_THAT(file().load(), ElementsAre("one", "two", longest, "last"));
    HistoryFile history = file();
    const std::string before = text();
    for (const std::string &line : {std::string(), std::string("  "), std::string("a\nb"), longest + "y"})
        history.add(line);
    EXPECT_EQ(text(), before);
}

TEST_F(HistoryFileTest, sessions_at_once_lose_no_line)
{
    constexpr int lines = 100;
    const auto session = [&](const char *name) {
        HistoryFile history = file();
        for (int i = 0; i < lines; ++i)
            history.add(name + std::to_string(i));
    };
    std::thread first(session, "first ");
    std::thread second(session, "second ");
    first.join();
    second.join();
    EXPECT_EQ(file().load().size(), 2U * lines);
}

TEST_F(HistoryFileTest, what_cannot_be_used_is_no_history)
{
    for (const std::string &place : {std::string(), directory_.path(), std::string("/dev/zero"),
                                     directory_.path() + "/no/such/folder"}) {
        HistoryFile history(place);
        history.add("show version");
        EXPECT_THAT(history.load(), IsEmpty()) << place;
    }
}

TEST(History_path, follows_the_environment)
{
    setenv("HOME", "/home/op", 1);
    unsetenv("SFLOW_CLI_HISTORY");
    EXPECT_EQ(shell::history_path(), "/home/op/.sflow_cli_history");
    setenv("SFLOW_CLI_HISTORY", "/tmp/h", 1);
    EXPECT_EQ(shell::history_path(), "/tmp/h");
    setenv("SFLOW_CLI_HISTORY", "", 1);
    EXPECT_EQ(shell::history_path(), "");
    unsetenv("SFLOW_CLI_HISTORY");
    unsetenv("HOME");
    EXPECT_EQ(shell::history_path(), "");
}
