#include "hook_claim.h"

#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

namespace sampling
{
namespace
{

using std::chrono::hours;
using std::chrono::milliseconds;

/// A name that no other test and no service has.
std::string own_name(const char *test)
{
    return "hook_claim_test." + std::to_string(::getpid()) + "." + test;
}

std::string refusal(const std::string &name)
{
    try {
        const HookClaim claim(name, milliseconds(0));
        return claim.held() ? "held" : "ignored";
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

TEST(HookClaim_construction, a_second_claim_is_refused_with_the_process_that_has_it)
{
    const std::string name = own_name("second");
    const HookClaim claim(name, milliseconds(0));
    EXPECT_TRUE(claim.held());
    EXPECT_EQ(refusal(name), "tc hooks: another sflow-samplingd (process " + std::to_string(::getpid()) +
                                 ") samples in this network namespace");
}

TEST(HookClaim_construction, names_do_not_get_into_each_others_way)
{
    const HookClaim claim(own_name("one"), milliseconds(0));
    EXPECT_EQ(refusal(own_name("one.more")), "held");
}

TEST(HookClaim_construction, what_is_given_back_can_be_taken_again)
{
    const std::string name = own_name("again");
    EXPECT_EQ(refusal(name), "held");
    EXPECT_EQ(refusal(name), "held");
}

TEST(HookClaim_construction, the_claim_of_a_process_that_ends_passes_to_who_waits_for_it)
{
    const std::string name = own_name("wait");
    std::optional<HookClaim> first(std::in_place, name, milliseconds(0));
    std::atomic<bool> held = false;
    std::thread second([&] { held = HookClaim(name, hours(1)).held(); });
    EXPECT_FALSE(held);
    first.reset();
    second.join();
    EXPECT_TRUE(held);
}

TEST(HookClaim_construction, a_name_that_nobody_answers_for_keeps_nobody_from_sampling)
{
    const std::string name = own_name("bound");
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), length), 0);
    EXPECT_EQ(refusal(name), "ignored");
}

TEST(HookClaim_construction, a_user_without_rights_keeps_nobody_from_sampling)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    constexpr uid_t nobody = 65534;
    const std::string name = own_name("stranger");
    int ready[2];
    int done[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(done), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(done[1]);
        const bool dropped = ::setuid(nobody) == 0;
        const HookClaim claim(name, milliseconds(0));
        const char held = dropped && claim.held() ? 'y' : 'n';
        char byte = 0;
        const bool told = ::write(ready[1], &held, 1) == 1;
        ::_exit(told && ::read(done[0], &byte, 1) == 0 ? 0 : 1); // until the test closes its end
    }
    char held = 0;
    EXPECT_EQ(::read(ready[0], &held, 1), 1);
    EXPECT_EQ(held, 'y');
    EXPECT_EQ(refusal(name), "ignored");
    for (const int fd : {ready[0], ready[1], done[0], done[1]})
        ::close(fd);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace sampling
