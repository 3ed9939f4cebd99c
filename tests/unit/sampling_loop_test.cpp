#include "event_loop.h"
#include "log.h"
#include "privileges.h"
#include "sampling_fakes.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/epoll.h>
#include <sys/stat.h>

namespace sampling
{
namespace
{

using std::chrono::milliseconds;
using testing::ElementsAre;

TEST(EventLoop_post, runs_in_the_next_round_and_not_in_its_own)
{
    EventLoop loop;
    std::vector<int> order;
    loop.post([&] {
        order.push_back(1);
        loop.post([&] { order.push_back(2); });
    });
    loop.run_once(milliseconds(0));
    EXPECT_THAT(order, ElementsAre(1));
    loop.run_once(milliseconds(0));
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(EventLoop_call_at, timers_run_in_the_order_of_their_time)
{
    EventLoop loop;
    std::vector<int> order;
    const auto now = Clock::now();
    loop.call_at(now - milliseconds(1), [&] { order.push_back(2); });
    loop.call_at(now - milliseconds(2), [&] { order.push_back(1); });
    loop.call_at(now + std::chrono::hours(1), [&] { order.push_back(3); });
    loop.run_once(milliseconds(0));
    EXPECT_THAT(order, ElementsAre(1, 2));
}

TEST(EventLoop_cancel, a_cancelled_timer_does_not_run)
{
    EventLoop loop;
    bool ran = false;
    const auto id = loop.call_at(Clock::now() - milliseconds(1), [&] { ran = true; });
    loop.cancel(id);
    loop.cancel(id);
    loop.cancel(0);
    loop.run_once(milliseconds(0));
    EXPECT_FALSE(ran);
}

TEST(EventLoop_cancel, a_timer_may_cancel_one_that_is_due_in_the_same_round)
{
    EventLoop loop;
    bool ran = false;
    EventLoop::TimerId second = 0;
    loop.call_at(Clock::now() - milliseconds(2), [&] { loop.cancel(second); });
    second = loop.call_at(Clock::now() - milliseconds(1), [&] { ran = true; });
    loop.run_once(milliseconds(0));
    EXPECT_FALSE(ran);
}

TEST(EventLoop_remove, a_handler_may_remove_itself_and_others)
{
    EventLoop loop;
    const SocketPair one;
    const SocketPair other;
    int calls = 0;
    const auto remove_both = [&](std::uint32_t) {
        ++calls;
        loop.remove(one.daemon.get());
        loop.remove(other.daemon.get());
    };
    loop.add(one.daemon.get(), EPOLLOUT, remove_both);
    loop.add(other.daemon.get(), EPOLLOUT, remove_both);
    loop.run_once(milliseconds(0));
    loop.run_once(milliseconds(0));
    EXPECT_EQ(calls, 1);
}

TEST(EventLoop_modify, no_events_silence_a_descriptor)
{
    EventLoop loop;
    const SocketPair pair;
    int calls = 0;
    loop.add(pair.daemon.get(), EPOLLOUT, [&](std::uint32_t) { ++calls; });
    loop.modify(pair.daemon.get(), 0);
    loop.run_once(milliseconds(0));
    EXPECT_EQ(calls, 0);
    loop.modify(pair.daemon.get(), EPOLLOUT);
    loop.run_once(milliseconds(0));
    EXPECT_EQ(calls, 1);
}

TEST(EventLoop_add, a_bad_descriptor_throws)
{
    EventLoop loop;
    EXPECT_THROW(loop.add(-1, EPOLLIN, [](std::uint32_t) {}), std::system_error);
}

TEST(Log_debug, is_written_only_when_verbose)
{
    std::vector<std::string> lines;
    const auto keep = [&](LogLevel, std::string_view line) { lines.emplace_back(line); };
    Log quiet(false, keep);
    quiet.debug("hidden ", 1);
    quiet.info("shown ", 2);
    Log verbose(true, keep);
    verbose.debug("shown ", std::string("too"), ' ' == ' ' ? 3U : 0U);
    EXPECT_THAT(lines, ElementsAre("shown 2", "shown too3"));
}

TEST(Log_stderr_is_journal, compares_the_stream_with_the_environment)
{
    struct stat status = {};
    ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
    const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    const char *before = std::getenv("JOURNAL_STREAM");
    const std::string saved = before != nullptr ? before : "";
    ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    EXPECT_TRUE(stderr_is_journal());
    ::setenv("JOURNAL_STREAM", (stream + "0").c_str(), 1);
    EXPECT_FALSE(stderr_is_journal());
    ::unsetenv("JOURNAL_STREAM");
    EXPECT_FALSE(stderr_is_journal());
    if (!saved.empty())
        ::setenv("JOURNAL_STREAM", saved.c_str(), 1);
}

TEST(Privileges_missing_capabilities, names_each_one_that_is_missing)
{
    const auto bit = [](unsigned capability) { return std::uint64_t{1} << capability; };
    const auto missing = [](std::uint64_t set) {
        return missing_capabilities(set, {Capability::net_admin, Capability::bpf, Capability::net_raw});
    };
    const std::uint64_t all = bit(CAP_NET_ADMIN) | bit(CAP_NET_RAW) | bit(CAP_BPF);
    EXPECT_EQ(missing(all), "");
    EXPECT_EQ(missing(all & ~bit(CAP_NET_ADMIN)), "CAP_NET_ADMIN");
    EXPECT_EQ(missing(all & ~bit(CAP_NET_RAW)), "CAP_NET_RAW");
    EXPECT_EQ(missing(all & ~bit(CAP_BPF)), "CAP_BPF (or CAP_SYS_ADMIN)");
    EXPECT_EQ(missing((all & ~bit(CAP_BPF)) | bit(CAP_SYS_ADMIN)), "");
    EXPECT_EQ(missing(bit(CAP_SYS_ADMIN)), "CAP_NET_ADMIN, CAP_NET_RAW");
    EXPECT_EQ(missing(0), "CAP_NET_ADMIN, CAP_NET_RAW, CAP_BPF (or CAP_SYS_ADMIN)");
}

} // namespace
} // namespace sampling
