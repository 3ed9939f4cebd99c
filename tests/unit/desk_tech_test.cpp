// The support text while others are at work: `show tech-support` and `show tech-support sflow` go on in threads of their
// own and leave the command line to everybody else.
#include "desk.h"

#include "cli_temporary_directory.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using desk::Desk;
using desk::Operator;

class Tech_support : public ::testing::TestWithParam<const char *>
{
protected:
    static Desk &the_desk()
    {
        static const TemporaryDirectory directory;
        static Desk desk(directory.path());
        return desk;
    }
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
