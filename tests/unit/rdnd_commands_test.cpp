// The redundancy service's commands, in the command line as operators have it.
#include "cli_platform_double.h"
#include "console.h"
#include "core.h"
#include "own_commands.h"

#include "platform/rdnd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using cli::Level;
using cli::Status;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

struct Answer {
    Status status = Status::not_ready;
    std::string text;
};

Answer run(Level level, std::string_view line)
{
    cli::Console console(cli::Core::instance(), level);
    Answer answer;
    console.run(
        line, std::nullopt, [&](std::string_view text) { answer.text += text; },
        [&](Status status) { answer.status = status; });
    return answer;
}

} // namespace

TEST(Redundancy_commands, come_with_the_service_and_tell_a_unit_without_partner)
{
    platform_double::reset();
    kx_thread_master_t *master = kx_thread_master_create();
    cli::Core::instance().serve("test", master);
    cli::add_own_commands(cli::Core::instance());
    EXPECT_EQ(run(Level::user, "show redundancy").status, Status::refused);

    ASSERT_EQ(rdnd_kx_thread_init(master, 0, 0), 0);
    const Answer shown = run(Level::user, "show redundancy");
    EXPECT_EQ(shown.status, Status::ok);
    EXPECT_THAT(shown.text, StartsWith("Mode:                           standalone\n"));
    EXPECT_THAT(shown.text, HasSubstr("\nRole:                           master\n"));

    EXPECT_EQ(run(Level::user, "redundancy force-switchover").status, Status::refused) << "privileged";
    const Answer forced = run(Level::privileged, "redundancy force-switchover");
    EXPECT_EQ(forced.status, Status::failed);
    EXPECT_EQ(forced.text, "% No switchover: this unit has no partner\n");
    EXPECT_EQ(run(Level::privileged, "no redundancy force-switchover").status, Status::refused);
    kx_thread_master_finish(master);
}
