// Syslog client: the line, the bounded queue, its thread master, and what is left at exit.

#include "log/log_target.h"
#include "platform_config_use.h"
#include "syslog_client/syslog_queue.h"

#include "platform/syslog_client.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using platform::make_log_line;
using platform::SyslogQueue;

struct Finish {
    void operator()(kx_thread_master_t *master) const { kx_thread_master_finish(master); }
};
using Master = std::unique_ptr<kx_thread_master_t, Finish>;

/// A queue whose lines end up in a list.
struct Fixture {
    std::vector<std::string> written;
    std::vector<int> levels;
    SyslogQueue queue{[this](int level, const std::string &line) {
        levels.push_back(level);
        written.push_back(line);
    }};

    void fill(int lines, int dest = SYSLOG_DEST_OPERATOR)
    {
        for (int i = 0; i < lines; ++i)
            queue.push(6, dest, "line " + std::to_string(i));
    }
};

int serve(kx_thread_master_t *master)
{
    int tasks = 0;
    kx_thread_t task;
    while (kx_thread_fetch(master, &task) != nullptr) {
        kx_thread_call(&task);
        ++tasks;
    }
    return tasks;
}

} // namespace

TEST(make_log_line, has_the_form_of_the_system_log)
{
    struct Row {
        int level;
        const char *text;
        const char *expected;
    };
    const Row rows[] = {
        {4, "not sampled", "%SFLOW-4-WARN: not sampled"},
        {7, "one newline\n", "%SFLOW-7-WARN: one newline"},
        {7, "several\r\n\n", "%SFLOW-7-WARN: several"},
        {7, "", "%SFLOW-7-WARN: "},
        {7, "\n", "%SFLOW-7-WARN: "},
        {7, "two\nlines\tand\x1b[0m", "%SFLOW-7-WARN: two lines and [0m"},
        {7, "\xe5\x9c\xb0\xa3\xba", "%SFLOW-7-WARN: \xe5\x9c\xb0\xa3\xba"},
        {-1, "too urgent", "%SFLOW-0-WARN: too urgent"},
        {8, "too chatty", "%SFLOW-7-WARN: too chatty"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.expected, make_log_line(row.level, "SFLOW", "WARN", row.text));
}

TEST(SyslogQueue_drain, writes_in_order_and_at_most_what_is_asked_for)
{
    Fixture f;
    f.fill(5);
    EXPECT_EQ(2U, f.queue.drain(2));
    EXPECT_EQ((std::vector<std::string>{"line 0", "line 1"}), f.written);
    EXPECT_EQ(3U, f.queue.drain(100));
    EXPECT_EQ("line 4", f.written.back());
    EXPECT_EQ(6, f.levels.back());
    EXPECT_EQ(0U, f.queue.drain(100));
}

TEST(SyslogQueue_push, a_full_queue_drops_the_newest_and_reports_the_number_in_one_line)
{
    Fixture f;
    f.queue.set_capacity(3);
    f.fill(8);
    EXPECT_EQ(2U, f.queue.drain(2));
    EXPECT_EQ("line 1", f.written.back()) << "not reported before the queue is written out";
    f.queue.drain(100);
    EXPECT_EQ((std::vector<std::string>{"line 0", "line 1", "line 2",
                                        "%SYSLOG-4-OVERFLOW: 5 lines lost, the queue of 3 lines was full"}),
              f.written);
    EXPECT_EQ(4, f.levels.back());
    f.fill(1);
    EXPECT_EQ(1U, f.queue.drain(100)) << "reported once";
}

TEST(SyslogQueue_push, debug_lines_leave_the_last_eighth_to_the_operators_log)
{
    Fixture f;
    f.queue.set_capacity(16);
    f.fill(16, SYSLOG_DEST_DEBUG);
    f.fill(3, SYSLOG_DEST_OPERATOR);
    f.queue.drain(100);
    ASSERT_EQ(14U + 2U + 1U, f.written.size());
    EXPECT_EQ("%SYSLOG-4-OVERFLOW: 3 lines lost, the queue of 16 lines was full", f.written.back());
}

TEST(SyslogQueue_set_capacity, a_smaller_size_keeps_what_is_queued)
{
    Fixture f;
    f.fill(10);
    f.queue.set_capacity(4);
    f.fill(1);
    f.queue.drain(100);
    EXPECT_EQ(11U, f.written.size()) << "ten lines and the report of the lost one";
}

TEST(SyslogQueue_attach, lines_from_before_and_after_are_written_on_the_master)
{
    Fixture f;
    const Master master(kx_thread_master_create());
    f.fill(2);
    ASSERT_TRUE(f.queue.attach(master.get()));
    EXPECT_TRUE(f.written.empty()) << "never in the caller";
    serve(master.get());
    EXPECT_EQ(2U, f.written.size());
    f.fill(1);
    EXPECT_EQ(2U, f.written.size());
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(3U, f.written.size());
    EXPECT_EQ(0, serve(master.get())) << "nothing is pending while the queue is empty";
}

TEST(SyslogQueue_attach, a_long_queue_is_written_in_turns)
{
    Fixture f;
    const Master master(kx_thread_master_create());
    ASSERT_TRUE(f.queue.attach(master.get()));
    f.fill(3 * static_cast<int>(SyslogQueue::batch_lines));
    EXPECT_EQ(3, serve(master.get()));
    EXPECT_EQ(3 * SyslogQueue::batch_lines, f.written.size());
}

TEST(SyslogQueue_attach, a_second_master_takes_over)
{
    Fixture f;
    const Master first(kx_thread_master_create());
    const Master second(kx_thread_master_create());
    ASSERT_TRUE(f.queue.attach(first.get()));
    ASSERT_TRUE(f.queue.attach(second.get()));
    serve(first.get());
    serve(second.get());
    f.fill(1);
    EXPECT_EQ(0, serve(first.get()));
    EXPECT_EQ(1, serve(second.get()));
    EXPECT_EQ(1U, f.written.size());
}

TEST(SyslogQueue_attach, lines_wait_when_the_master_has_ended)
{
    Fixture f;
    EXPECT_FALSE(f.queue.attach(nullptr));
    kx_thread_master_t *ended = kx_thread_master_create();
    ASSERT_TRUE(f.queue.attach(ended));
    serve(ended);
    kx_thread_master_finish(ended);
    f.fill(2);
    EXPECT_FALSE(f.queue.attach(ended));
    const Master next(kx_thread_master_create());
    ASSERT_TRUE(f.queue.attach(next.get()));
    serve(next.get());
    EXPECT_EQ(2U, f.written.size());
}

TEST(SyslogQueue_push, any_thread_may_fill_while_the_master_writes)
{
    constexpr int threads = 4;
    constexpr int lines = 250;
    Fixture f;
    const Master master(kx_thread_master_create());
    ASSERT_TRUE(f.queue.attach(master.get()));
    std::atomic<int> running{threads};
    // Keeps the master alive until the last writer is through.
    const auto watch = [](kx_thread_t *thread) {
        if (static_cast<std::atomic<int> *>(kx_thread_arg(thread))->load() > 0)
            kx_thread_add_timer_msec(thread->master, thread->func, kx_thread_arg(thread), 1);
        return 0;
    };
    ASSERT_NE(nullptr, kx_thread_add_event(master.get(), watch, &running));
    std::vector<std::thread> writers;
    writers.reserve(threads);
    for (int i = 0; i < threads; ++i) {
        writers.emplace_back([&, i] {
            for (int n = 0; n < lines; ++n)
                f.queue.push(7, SYSLOG_DEST_DEBUG, std::to_string(i) + " " + std::to_string(n));
            running.fetch_sub(1);
        });
    }
    serve(master.get());
    for (std::thread &writer : writers)
        writer.join();
    EXPECT_EQ(static_cast<size_t>(threads * lines), f.written.size());
}

TEST(syslog_set_snd_queue_size, takes_positive_sizes_only)
{
    EXPECT_EQ(-1, syslog_set_snd_queue_size(0));
    EXPECT_EQ(-1, syslog_set_snd_queue_size(-1));
    EXPECT_EQ(0, syslog_set_snd_queue_size(10240));
}

TEST(syslog_single_thread_client_init, refuses_a_missing_master)
{
    EXPECT_EQ(-1, syslog_single_thread_client_init(nullptr));
}

// Each case runs in a process of its own (googletest's "threadsafe" style starts the program again).
TEST(printk_syslog_ext, what_is_queued_is_written_when_the_process_exits)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            use_platform_config("[syslog]\ntarget = \"stderr\"\n");
            printk_syslog_ext(4, "SFLOW", "INTF", SYSLOG_DEST_OPERATOR, "port %s is not sampled%c", "Te0/1",
                              '\n');
            printk_syslog_ext(7, nullptr, nullptr, SYSLOG_DEST_DEBUG, "%s", "second");
            std::exit(0);
        },
        testing::ExitedWithCode(0),
        "^%SFLOW-4-INTF: port Te0/1 is not sampled\n%UNKNOWN-7-UNKNOWN: second\n$");
}

TEST(printk_syslog_ext, the_master_writes_before_the_process_exits)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            use_platform_config("[syslog]\ntarget = \"stderr\"\n");
            kx_thread_master_t *master = kx_thread_master_create();
            printk_syslog_ext(6, "A", "B", SYSLOG_DEST_OPERATOR, "before");
            syslog_single_thread_client_init(master);
            serve(master);
            kx_thread_master_finish(master);
            printk_syslog_ext(6, "A", "B", SYSLOG_DEST_OPERATOR, "after");
            _exit(0); // no flush: only what the master wrote is seen
        },
        testing::ExitedWithCode(0), "^%A-6-B: before\n$");
}

TEST(printk_syslog_ext, a_configured_queue_size_takes_precedence)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            use_platform_config("[syslog]\ntarget = \"stderr\"\nqueue = 2\n");
            const int result = syslog_set_snd_queue_size(10240);
            for (int i = 0; i < 5; ++i)
                printk_syslog_ext(6, "A", "B", SYSLOG_DEST_OPERATOR, "%d", i);
            std::exit(result);
        },
        testing::ExitedWithCode(0),
        "^%A-6-B: 0\n%A-6-B: 1\n%SYSLOG-4-OVERFLOW: 3 lines lost, the queue of 2 lines");
}

TEST(printk_syslog_ext, a_text_is_cut_at_2047_bytes)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            use_platform_config("[syslog]\ntarget = \"stderr\"\n");
            printk_syslog_ext(6, "A", "B", SYSLOG_DEST_OPERATOR, "%s",
                              (std::string(2047, 'x') + "yyy").c_str());
            std::exit(0);
        },
        testing::ExitedWithCode(0), "^%A-6-B: x{2047}\n$");
}
