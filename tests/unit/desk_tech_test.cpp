// The support text while others are at work: `show tech-support` and `show tech-support sflow` go on in threads of their
// own and leave the command line to everybody else.
#include "desk.h"

#include "cli_temporary_directory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

namespace
{

using desk::Desk;
using desk::Operator;

Desk &the_desk()
{
    static const TemporaryDirectory directory;
    static Desk desk(directory.path());
    return desk;
}

std::string read(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class Tech_support : public ::testing::TestWithParam<const char *>
{
};

} // namespace

TEST_P(Tech_support, leaves_the_command_line_to_others)
{
    the_desk().start_over();
    Operator first(the_desk(), cli::Level::privileged);
    Operator second(the_desk(), cli::Level::privileged);
    first.begin(GetParam());
    ASSERT_TRUE(first.busy()) << "the handler has returned, the command has not ended";
    EXPECT_EQ(second.type("configure terminal").status, cli::Status::ok);
    EXPECT_EQ(second.type("sflow sampling-rate 5000").status, cli::Status::ok);
    EXPECT_NE(second.type("do show sflow").text.find("sflow sampling-rate:5000\n"), std::string::npos);
    const Operator::Answer answer = first.finish();
    EXPECT_EQ(answer.status, cli::Status::ok);
    EXPECT_NE(answer.text.find("sflow datagram version 5\n"), std::string::npos);
    EXPECT_NE(answer.text.find("sflow current msg list len:0\n"), std::string::npos);
    EXPECT_NE(answer.text.find("sflow cannot rdnd\n"), std::string::npos);
    EXPECT_FALSE(first.busy());
    EXPECT_EQ(first.type("show sflow status").status, cli::Status::ok) << "the console takes the next line";
}

TEST_P(Tech_support, goes_on_when_its_operator_leaves)
{
    the_desk().start_over();
    {
        Operator somebody(the_desk(), cli::Level::privileged);
        somebody.begin(GetParam());
        ASSERT_TRUE(somebody.busy());
    }
    Operator next(the_desk(), cli::Level::privileged);
    EXPECT_EQ(next.type("show sflow status").status, cli::Status::ok);
    // The one that nobody reads has to be through before a collection can begin again.
    Operator::Answer answer;
    do
        answer = next.type(GetParam());
    while (answer.text == "% Another collection is running\n");
    EXPECT_EQ(answer.status, cli::Status::ok);
}

INSTANTIATE_TEST_SUITE_P(Commands, Tech_support,
                         ::testing::Values("show tech-support", "show tech-support sflow"));

TEST(Tech_support_file, holds_what_an_operator_would_read)
{
    const TemporaryDirectory directory;
    the_desk().start_over();
    Operator somebody(the_desk(), cli::Level::privileged);
    const std::string text = somebody.type("show tech-support").text;
    const std::string path = directory.path() + "/support";
    const Operator::Answer answer = somebody.type("show tech-support file " + path);
    EXPECT_EQ(answer.status, cli::Status::ok);
    EXPECT_EQ(answer.text, std::to_string(text.size()) + " bytes written to " + path + "\n");
    EXPECT_EQ(read(path), text);
    struct stat status {
    };
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(Tech_support_file, never_takes_the_place_of_another)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/support";
    std::ofstream(path) << "precious";
    std::filesystem::create_symlink("nowhere", path + ".link");
    Operator somebody(the_desk(), cli::Level::privileged);
    for (const std::string &taken : {path, path + ".link"}) {
        const Operator::Answer answer = somebody.type("show tech-support file " + taken);
        EXPECT_EQ(answer.status, cli::Status::failed);
        EXPECT_EQ(answer.text, "% Cannot create " + taken + ": File exists\n");
    }
    EXPECT_EQ(read(path), "precious");
    EXPECT_FALSE(std::filesystem::exists(directory.path() + "/nowhere"));
}

TEST(Tech_support_file, is_not_left_half_written)
{
    const TemporaryDirectory directory;
    const std::string path = directory.path() + "/support";
    // A file larger than this cannot be written; the signal would end the test program.
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    const rlimit small{.rlim_cur = 100, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    Operator somebody(the_desk(), cli::Level::privileged);
    const Operator::Answer answer = somebody.type("show tech-support file " + path);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(answer.status, cli::Status::failed);
    EXPECT_EQ(answer.text, "% Cannot write " + path + ": File too large\n");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(somebody.type("show tech-support").status, cli::Status::ok) << "the turn was given back";
}
