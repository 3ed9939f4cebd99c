// Thread master: order, records that callers own, insertion from other threads, the end of a master.

#include "platform/kx_thread.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

struct Finish {
    void operator()(kx_thread_master_t *master) const { kx_thread_master_finish(master); }
};
using Master = std::unique_ptr<kx_thread_master_t, Finish>;

Master make_master()
{
    return Master(kx_thread_master_create());
}

/// Serves a master until it has nothing left; returns how many tasks ran.
int serve(kx_thread_master_t *master)
{
    int ran = 0;
    kx_thread_t task;
    while (kx_thread_fetch(master, &task) != nullptr) {
        kx_thread_call(&task);
        ++ran;
    }
    return ran;
}

/// Runs one task.
void serve_one(kx_thread_master_t *master)
{
    kx_thread_t task;
    ASSERT_EQ(&task, kx_thread_fetch(master, &task));
    kx_thread_call(&task);
}

/// Appends to a trace when its task runs.
struct Step {
    std::vector<std::string> *trace;
    std::string text;
};

int append(kx_thread_t *thread)
{
    const auto *step = static_cast<Step *>(kx_thread_arg(thread));
    step->trace->push_back(step->text);
    return 0;
}

int count(kx_thread_t *thread)
{
    ++*static_cast<int *>(kx_thread_arg(thread));
    return 0;
}

class Pipe
{
public:
    Pipe() { EXPECT_EQ(0, pipe2(fds_.data(), O_CLOEXEC | O_NONBLOCK)); }
    ~Pipe()
    {
        close_write();
        close(fds_[0]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    [[nodiscard]] int read_end() const { return fds_[0]; }
    [[nodiscard]] int write_end() const { return fds_[1]; }
    void put(char c) const { EXPECT_EQ(1, write(fds_[1], &c, 1)); }
    void close_write()
    {
        if (fds_[1] >= 0)
            close(fds_[1]);
        fds_[1] = -1;
    }

private:
    std::array<int, 2> fds_{-1, -1};
};

} // namespace

TEST(kx_thread_fetch, returns_none_when_nothing_is_left)
{
    const Master master = make_master();
    kx_thread_t task;
    EXPECT_EQ(nullptr, kx_thread_fetch(master.get(), &task));
    EXPECT_EQ(nullptr, kx_thread_fetch(nullptr, &task));
    EXPECT_EQ(nullptr, kx_thread_fetch(master.get(), nullptr));
}

TEST(kx_thread_fetch, hands_out_what_the_task_was_armed_with)
{
    const Master master = make_master();
    int calls = 0;
    ASSERT_NE(nullptr, kx_thread_add_timer_withname(master.get(), count, &calls, 0, "tick"));
    kx_thread_t task;
    ASSERT_EQ(&task, kx_thread_fetch(master.get(), &task));
    EXPECT_EQ(master.get(), task.master);
    EXPECT_STREQ("tick", task.name);
    EXPECT_EQ(&calls, kx_thread_arg(&task));
    EXPECT_EQ(-1, kx_thread_fd(&task));
    EXPECT_FALSE(kx_thread_is_pending(&task));
    EXPECT_EQ(0, calls);
    EXPECT_EQ(0, kx_thread_call(&task));
    EXPECT_EQ(1, calls);
}

TEST(kx_thread_call, returns_the_callbacks_result)
{
    kx_thread_t task{};
    EXPECT_EQ(-1, kx_thread_call(&task));
    EXPECT_EQ(-1, kx_thread_call(nullptr));
    task.func = [](kx_thread_t *) { return 42; };
    EXPECT_EQ(42, kx_thread_call(&task));
}

TEST(kx_thread_add_timer, runs_by_deadline_whatever_the_order_of_arming)
{
    std::vector<std::string> trace;
    Step late{&trace, "late"};
    Step early{&trace, "early"};
    Step now{&trace, "now"};
    for (;;) {
        const Master master = make_master();
        const auto start = std::chrono::steady_clock::now();
        ASSERT_NE(nullptr, kx_thread_add_timer_msec(master.get(), append, &late, 6));
        ASSERT_NE(nullptr, kx_thread_add_timer_msec(master.get(), append, &early, 3));
        ASSERT_NE(nullptr, kx_thread_add_timer(master.get(), append, &now, 0));
        // On a busy machine arming may itself take longer than the deadlines lie apart.
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(2))
            continue;
        EXPECT_EQ(3, serve(master.get()));
        break;
    }
    EXPECT_EQ((std::vector<std::string>{"now", "early", "late"}), trace);
}

TEST(kx_thread_add_timer, timers_due_together_run_in_the_order_of_arming)
{
    const Master master = make_master();
    std::vector<std::string> trace;
    std::vector<std::string> expected;
    std::vector<Step> steps;
    for (int i = 0; i < 200; ++i) {
        expected.push_back(std::to_string(i));
        steps.push_back({&trace, expected.back()});
    }
    for (Step &step : steps)
        ASSERT_NE(nullptr, kx_thread_add_timer(master.get(), append, &step, 0));
    serve(master.get());
    EXPECT_EQ(expected, trace);
}

TEST(kx_thread_add_timer, never_runs_early)
{
    const Master master = make_master();
    int calls = 0;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_NE(nullptr, kx_thread_add_timer_msec(master.get(), count, &calls, 5));
    serve(master.get());
    EXPECT_EQ(1, calls);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(5));
}

TEST(kx_thread_add_timer, negative_times_mean_at_once_and_huge_ones_do_not_overflow)
{
    const Master master = make_master();
    int calls = 0;
    int never = 0;
    kx_thread_t *huge = kx_thread_add_timer(master.get(), count, &never, std::numeric_limits<long>::max());
    ASSERT_NE(nullptr, huge);
    ASSERT_NE(nullptr, kx_thread_add_timer(master.get(), count, &calls, -5));
    serve_one(master.get());
    EXPECT_EQ(1, calls);
    EXPECT_TRUE(kx_thread_is_pending(huge));
    kx_thread_cancel(huge);
    EXPECT_EQ(0, serve(master.get()));
    EXPECT_EQ(0, never);
}

TEST(kx_thread_add_timer, null_master_or_function_is_refused)
{
    const Master master = make_master();
    int calls = 0;
    EXPECT_EQ(nullptr, kx_thread_add_timer(nullptr, count, &calls, 0));
    EXPECT_EQ(nullptr, kx_thread_add_timer(master.get(), nullptr, &calls, 0));
    EXPECT_EQ(nullptr, kx_thread_add_event(nullptr, count, &calls));
    EXPECT_EQ(nullptr, kx_thread_add_read(nullptr, count, &calls, 0));
}

TEST(kx_thread_add_event, events_run_in_the_order_of_queueing)
{
    const Master master = make_master();
    std::vector<std::string> trace;
    std::array<Step, 3> steps{Step{&trace, "a"}, Step{&trace, "b"}, Step{&trace, "c"}};
    for (Step &step : steps)
        ASSERT_NE(nullptr, kx_thread_add_event(master.get(), append, &step));
    EXPECT_EQ(3, serve(master.get()));
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), trace);
}

TEST(kx_thread_add_event, an_event_that_queues_itself_does_not_starve_a_descriptor)
{
    const Master master = make_master();
    const Pipe pipe;
    struct State {
        bool stop = false;
        int rounds = 0;
    } state;
    const auto again = [](kx_thread_t *thread) {
        auto *s = static_cast<State *>(kx_thread_arg(thread));
        ++s->rounds;
        if (!s->stop)
            kx_thread_add_event(thread->master, thread->func, s);
        return 0;
    };
    const auto readable = [](kx_thread_t *thread) {
        static_cast<State *>(kx_thread_arg(thread))->stop = true;
        return 0;
    };
    ASSERT_NE(nullptr, kx_thread_add_event(master.get(), again, &state));
    ASSERT_NE(nullptr, kx_thread_add_read(master.get(), readable, &state, pipe.read_end()));
    pipe.put('x');
    serve(master.get());
    EXPECT_TRUE(state.stop);
    EXPECT_LT(state.rounds, 10);
}

TEST(kx_thread_add_read, is_one_shot_and_level_triggered)
{
    const Master master = make_master();
    const Pipe pipe;
    int calls = 0;
    pipe.put('x');
    ASSERT_NE(nullptr, kx_thread_add_read(master.get(), count, &calls, pipe.read_end()));
    EXPECT_EQ(1, serve(master.get())) << "one-shot";
    kx_thread_t task;
    ASSERT_NE(nullptr, kx_thread_add_read(master.get(), count, &calls, pipe.read_end()));
    ASSERT_EQ(&task, kx_thread_fetch(master.get(), &task)) << "still readable";
    EXPECT_EQ(pipe.read_end(), kx_thread_fd(&task));
}

TEST(kx_thread_add_read, reports_end_of_file)
{
    const Master master = make_master();
    Pipe pipe;
    int calls = 0;
    ASSERT_NE(nullptr, kx_thread_add_read(master.get(), count, &calls, pipe.read_end()));
    pipe.close_write();
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(1, calls);
}

TEST(kx_thread_add_read, descriptors_that_cannot_be_watched_are_refused)
{
    const Master master = make_master();
    int calls = 0;
    const int file = memfd_create("regular", MFD_CLOEXEC);
    ASSERT_GE(file, 0);
    EXPECT_EQ(nullptr, kx_thread_add_read(master.get(), count, &calls, file)) << "regular file";
    close(file);
    EXPECT_EQ(nullptr, kx_thread_add_read(master.get(), count, &calls, file)) << "closed";
    EXPECT_EQ(nullptr, kx_thread_add_read(master.get(), count, &calls, -1));
    EXPECT_EQ(nullptr, kx_thread_add_write(master.get(), count, &calls, -1));
    EXPECT_EQ(0, serve(master.get())) << "nothing is left behind";
}

TEST(kx_thread_add_write, runs_when_the_descriptor_takes_data)
{
    const Master master = make_master();
    const Pipe pipe;
    int calls = 0;
    ASSERT_NE(nullptr, kx_thread_add_write(master.get(), count, &calls, pipe.write_end()));
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(1, calls);
}

TEST(kx_thread_cancel, a_waiting_task_is_not_called)
{
    const Master master = make_master();
    const Pipe pipe;
    int calls = 0;
    kx_thread_cancel(kx_thread_add_timer_msec(master.get(), count, &calls, 1));
    kx_thread_cancel(kx_thread_add_read(master.get(), count, &calls, pipe.read_end()));
    kx_thread_cancel(kx_thread_add_event(master.get(), count, &calls));
    kx_thread_cancel(nullptr);
    EXPECT_EQ(0, serve(master.get()));
    EXPECT_EQ(0, calls);
}

TEST(kx_thread_cancel, a_task_that_is_ready_already_is_not_called)
{
    const Master master = make_master();
    int calls = 0;
    struct State {
        kx_thread_t *other = nullptr;
    } state;
    const auto cancel_other = [](kx_thread_t *thread) {
        kx_thread_cancel(static_cast<State *>(kx_thread_arg(thread))->other);
        return 0;
    };
    ASSERT_NE(nullptr, kx_thread_add_event(master.get(), cancel_other, &state));
    state.other = kx_thread_add_event(master.get(), count, &calls);
    ASSERT_NE(nullptr, state.other);
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(0, calls);
}

TEST(kx_thread_cancel, a_callers_record_becomes_idle_and_can_be_armed_again)
{
    const Master master = make_master();
    kx_thread_t record{};
    int calls = 0;
    ASSERT_EQ(0, kx_thread_insert_timer(master.get(), &record, count, &calls, 3600, "late"));
    kx_thread_cancel(&record);
    EXPECT_FALSE(kx_thread_is_pending(&record));
    kx_thread_cancel(&record);
    ASSERT_EQ(0, kx_thread_insert_timer(master.get(), &record, count, &calls, 0, "now"));
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(1, calls);
}

TEST(kx_thread_insert_timer, is_pending_until_fetched_and_idle_before_its_callback)
{
    const Master master = make_master();
    kx_thread_t record;
    std::memset(&record, 0, sizeof(record));
    EXPECT_FALSE(kx_thread_is_pending(&record));
    EXPECT_FALSE(kx_thread_is_pending(nullptr));
    int calls = 0;
    ASSERT_EQ(0, kx_thread_insert_timer(master.get(), &record, count, &calls, 0, nullptr));
    EXPECT_TRUE(kx_thread_is_pending(&record));
    kx_thread_t task;
    ASSERT_EQ(&task, kx_thread_fetch(master.get(), &task));
    EXPECT_FALSE(kx_thread_is_pending(&record));
    EXPECT_EQ(0, calls);
}

TEST(kx_thread_insert_timer, the_callback_may_arm_its_record_again)
{
    const Master master = make_master();
    struct State {
        kx_thread_t record{};
        int left = 3;
        int refused = 0;
    } state;
    const auto again = [](kx_thread_t *thread) {
        auto *s = static_cast<State *>(kx_thread_arg(thread));
        if (--s->left > 0 &&
            kx_thread_insert_timer(thread->master, &s->record, thread->func, s, 0, "again") != 0)
            ++s->refused;
        return 0;
    };
    ASSERT_EQ(0, kx_thread_insert_timer(master.get(), &state.record, again, &state, 0, "first"));
    EXPECT_EQ(3, serve(master.get()));
    EXPECT_EQ(0, state.left);
    EXPECT_EQ(0, state.refused);
}

TEST(kx_thread_insert_timer, a_pending_record_stays_as_it_is)
{
    const Master master = make_master();
    const Master other = make_master();
    kx_thread_t record{};
    int first = 0;
    int second = 0;
    ASSERT_EQ(0, kx_thread_insert_timer(master.get(), &record, count, &first, 0, "first"));
    EXPECT_EQ(0, kx_thread_insert_timer(other.get(), &record, count, &second, 3600, "second"));
    EXPECT_EQ(master.get(), record.master);
    EXPECT_STREQ("first", record.name);
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(0, serve(other.get()));
    EXPECT_EQ(1, first);
    EXPECT_EQ(0, second);
}

TEST(kx_thread_insert_timer, unusable_arguments_are_refused_and_the_record_stays_idle)
{
    const Master master = make_master();
    kx_thread_t record{};
    EXPECT_EQ(-1, kx_thread_insert_timer(nullptr, &record, count, nullptr, 0, nullptr));
    EXPECT_EQ(-1, kx_thread_insert_timer(master.get(), nullptr, count, nullptr, 0, nullptr));
    EXPECT_EQ(-1, kx_thread_insert_timer(master.get(), &record, nullptr, nullptr, 0, nullptr));
    EXPECT_FALSE(kx_thread_is_pending(&record));
}

TEST(kx_thread_insert_timer, wakes_a_master_that_waits)
{
    const Master master = make_master();
    int never = 0;
    kx_thread_t *hour = kx_thread_add_timer(master.get(), count, &never, 3600);
    ASSERT_NE(nullptr, hour);
    kx_thread_t record{};
    int calls = 0;
    std::thread other(
        [&] { EXPECT_EQ(0, kx_thread_insert_timer(master.get(), &record, count, &calls, 0, "x")); });
    serve_one(master.get());
    other.join();
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, never);
    kx_thread_cancel(hour);
}

TEST(kx_thread_insert_timer, from_another_thread_keeps_the_master_alive)
{
    const Master master = make_master();
    kx_thread_t record{};
    int calls = 0;
    std::thread([&] { kx_thread_insert_timer(master.get(), &record, count, &calls, 0, "x"); }).join();
    EXPECT_EQ(1, serve(master.get()));
    EXPECT_EQ(1, calls);
}

// Whatever a caller did before it inserted the timer is seen by a callback afterwards, however many callers there
// are: no request is lost to coalescing.
TEST(kx_thread_insert_timer, concurrent_callers_coalesce_and_lose_nothing)
{
    constexpr int threads = 4;
    constexpr int requests = 500;
    const Master master = make_master();
    struct State {
        kx_thread_t record{};
        std::atomic<int> requested{0};
        std::atomic<int> finished{0};
        int seen = 0;
        int runs = 0;
    } state;
    const auto deal = [](kx_thread_t *thread) {
        auto *s = static_cast<State *>(kx_thread_arg(thread));
        s->seen = s->requested.load(std::memory_order_relaxed);
        ++s->runs;
        return 0;
    };
    // Keeps the master alive until the last caller is through.
    const auto watch = [](kx_thread_t *thread) {
        auto *s = static_cast<State *>(kx_thread_arg(thread));
        if (s->finished.load() < threads)
            kx_thread_add_timer_msec(thread->master, thread->func, s, 1);
        return 0;
    };
    ASSERT_NE(nullptr, kx_thread_add_event(master.get(), watch, &state));
    std::vector<std::thread> callers;
    callers.reserve(threads);
    for (int i = 0; i < threads; ++i) {
        callers.emplace_back([&] {
            for (int n = 0; n < requests; ++n) {
                state.requested.fetch_add(1, std::memory_order_relaxed);
                EXPECT_EQ(0, kx_thread_insert_timer(master.get(), &state.record, deal, &state, 0, "deal"));
            }
            state.finished.fetch_add(1);
        });
    }
    serve(master.get());
    for (std::thread &caller : callers)
        caller.join();
    EXPECT_EQ(threads * requests, state.seen);
    EXPECT_GE(state.runs, 1);
    EXPECT_LE(state.runs, threads * requests);
    EXPECT_FALSE(kx_thread_is_pending(&state.record));
}

TEST(kx_thread_add_event, two_masters_in_two_threads_call_each_other)
{
    const Master ping = make_master();
    const Master pong = make_master();
    struct State {
        kx_thread_master_t *ping;
        kx_thread_master_t *pong;
        kx_thread_t *ping_alive;
        kx_thread_t *pong_alive;
        int rounds = 0; // passed on with the event
    } state{ping.get(), pong.get(), nullptr, nullptr};
    // A timer an hour away keeps each side waiting for the other.
    state.ping_alive = kx_thread_add_timer(ping.get(), count, nullptr, 3600);
    state.pong_alive = kx_thread_add_timer(pong.get(), count, nullptr, 3600);
    const auto hit = [](kx_thread_t *thread) {
        auto *s = static_cast<State *>(kx_thread_arg(thread));
        const bool is_ping = thread->master == s->ping;
        const int round = ++s->rounds;
        // From the hand-over on, the count is the other side's.
        if (round <= 201)
            kx_thread_add_event(is_ping ? s->pong : s->ping, thread->func, s);
        if (round >= 201)
            kx_thread_cancel(is_ping ? s->ping_alive : s->pong_alive);
        return 0;
    };
    ASSERT_NE(nullptr, kx_thread_add_event(ping.get(), hit, &state));
    std::thread other([&] { serve(pong.get()); });
    serve(ping.get());
    other.join();
    EXPECT_EQ(202, state.rounds);
}

TEST(kx_thread_master_finish, drops_what_is_pending_without_calling_it)
{
    kx_thread_master_t *master = kx_thread_master_create();
    ASSERT_NE(nullptr, master);
    const Pipe pipe;
    kx_thread_t record{};
    int calls = 0;
    ASSERT_NE(nullptr, kx_thread_add_event(master, count, &calls));
    ASSERT_NE(nullptr, kx_thread_add_event(master, count, &calls));
    ASSERT_NE(nullptr, kx_thread_add_timer(master, count, &calls, 0));
    ASSERT_NE(nullptr, kx_thread_add_read(master, count, &calls, pipe.read_end()));
    ASSERT_EQ(0, kx_thread_insert_timer(master, &record, count, &calls, 3600, "late"));
    kx_thread_t task;
    ASSERT_EQ(&task, kx_thread_fetch(master, &task)) << "leaves the others ready";
    kx_thread_master_finish(master);
    EXPECT_EQ(0, calls);
    EXPECT_FALSE(kx_thread_is_pending(&record));
    kx_thread_master_finish(nullptr);
}

TEST(kx_thread_master_finish, a_finished_master_refuses)
{
    kx_thread_master_t *master = kx_thread_master_create();
    ASSERT_NE(nullptr, master);
    kx_thread_master_finish(master);
    kx_thread_master_finish(master);
    kx_thread_t record{};
    kx_thread_t task;
    EXPECT_EQ(nullptr, kx_thread_fetch(master, &task));
    EXPECT_EQ(nullptr, kx_thread_add_event(master, count, nullptr));
    EXPECT_EQ(nullptr, kx_thread_add_timer(master, count, nullptr, 0));
    EXPECT_EQ(-1, kx_thread_insert_timer(master, &record, count, nullptr, 0, nullptr));
    EXPECT_FALSE(kx_thread_is_pending(&record));
}

TEST(kx_thread_master_finish, may_happen_while_other_threads_insert)
{
    for (int round = 0; round < 20; ++round) {
        kx_thread_master_t *master = kx_thread_master_create();
        ASSERT_NE(nullptr, master);
        kx_thread_t record{};
        std::atomic<bool> go{false};
        int results = 0;
        std::thread other([&] {
            while (!go.load())
                std::this_thread::yield();
            for (int n = 0; n < 50; ++n)
                results += kx_thread_insert_timer(master, &record, count, &results, 3600, "x") == 0 ? 1 : 0;
        });
        go.store(true);
        kx_thread_master_finish(master);
        other.join();
        EXPECT_LE(results, 50);
        EXPECT_FALSE(kx_thread_is_pending(&record)) << "nothing is armed on a master that has ended";
    }
}
