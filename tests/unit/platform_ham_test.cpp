// Health monitor: deadlines with a clock of the test's own, the log, and the supervisor's watchdog.

#include "health_monitor/health_monitor.h"
#include "health_monitor/health_table.h"

#include "platform/ham.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using platform::HealthMonitor;
using platform::HealthTable;

const HealthTable::Clock::time_point start = HealthTable::Clock::time_point(1000h);
constexpr HealthTable::Promise promise{.deadline = 120s, .max_reports = 3};

/// A monitor whose outlets end up in lists.
struct Fixture {
    std::vector<std::string> states;
    std::vector<std::string> lines;
    HealthMonitor monitor;

    explicit Fixture(bool has_watchdog = true)
        : monitor({.notify_supervisor = [this](const char *state) { states.emplace_back(state); },
                   .log = [this](int, const std::string &text) { lines.push_back(text); },
                   .thread_name = [](pid_t tid) { return "t" + std::to_string(tid); }},
                  has_watchdog)
    {
    }
};

} // namespace

TEST(HealthTable_check, a_thread_is_late_once_more_than_its_deadline_has_passed)
{
    HealthTable table;
    table.put(7, promise, start);
    EXPECT_TRUE(table.check(start).empty());
    EXPECT_TRUE(table.check(start + 120s).empty());
    const auto late = table.check(start + 120s + 1ms);
    ASSERT_EQ(1U, late.size());
    EXPECT_EQ(7, late[0].tid);
    EXPECT_EQ(120s, late[0].silent);
    EXPECT_EQ(120s, late[0].deadline);
    EXPECT_TRUE(late[0].report);
}

TEST(HealthTable_check, reports_once_a_lapsed_deadline_and_at_most_as_often_as_promised)
{
    HealthTable table;
    table.put(7, promise, start);
    int reports = 0;
    for (auto now = 121s; now <= 1200s; now += 1s) {
        const auto late = table.check(start + now);
        ASSERT_EQ(1U, late.size()) << now.count();
        const bool expected = now == 121s || now == 240s || now == 360s;
        EXPECT_EQ(expected, late[0].report) << now.count();
        reports += late[0].report ? 1 : 0;
    }
    EXPECT_EQ(promise.max_reports, reports);
}

TEST(HealthTable_check, names_the_late_threads_only)
{
    HealthTable table;
    table.put(1, promise, start);
    table.put(2, {.deadline = 10s, .max_reports = 1}, start);
    table.put(3, {.deadline = 20s, .max_reports = 1}, start);
    const auto late = table.check(start + 30s);
    ASSERT_EQ(2U, late.size());
    EXPECT_EQ(2, late[0].tid);
    EXPECT_EQ(3, late[1].tid);
}

TEST(HealthTable_renew, counts_the_deadline_anew_with_the_new_values)
{
    HealthTable table;
    table.put(7, promise, start);
    EXPECT_EQ(HealthTable::Renewal::in_time,
              table.renew(7, {.deadline = 10s, .max_reports = 1}, start + 119s));
    EXPECT_TRUE(table.check(start + 129s).empty());
    EXPECT_EQ(1U, table.check(start + 130s).size());
    EXPECT_EQ(HealthTable::Renewal::unknown, table.renew(8, promise, start));
    EXPECT_EQ(1U, table.check(start + 1000s).size()) << "an unknown thread is not registered by renewing";
}

TEST(HealthTable_renew, a_thread_found_late_is_well_again_and_reported_afresh)
{
    HealthTable table;
    table.put(7, promise, start);
    ASSERT_EQ(1U, table.check(start + 121s).size());
    EXPECT_EQ(HealthTable::Renewal::late, table.renew(7, promise, start + 130s));
    EXPECT_TRUE(table.check(start + 131s).empty());
    const auto late = table.check(start + 251s);
    ASSERT_EQ(1U, late.size());
    EXPECT_TRUE(late[0].report);
}

TEST(HealthTable_remove, a_removed_thread_is_not_watched)
{
    HealthTable table;
    table.put(7, promise, start);
    EXPECT_TRUE(table.remove(7));
    EXPECT_FALSE(table.remove(7));
    EXPECT_TRUE(table.check(start + 1000s).empty());
}

TEST(HealthMonitor_tick, feeds_the_watchdog_while_every_thread_is_in_time)
{
    Fixture f;
    f.monitor.tick(start);
    EXPECT_EQ(1U, f.states.size()) << "nobody registered yet";
    f.monitor.put(1, promise, start);
    f.monitor.put(2, promise, start + 100s);
    f.monitor.tick(start + 120s);
    EXPECT_EQ((std::vector<std::string>{"WATCHDOG=1", "WATCHDOG=1"}), f.states);
    EXPECT_TRUE(f.lines.empty());
}

TEST(HealthMonitor_tick, a_late_thread_is_logged_by_name_and_the_watchdog_goes_hungry)
{
    Fixture f;
    f.monitor.put(1, promise, start);
    f.monitor.put(2, promise, start + 100s);
    f.monitor.tick(start + 125s);
    f.monitor.tick(start + 130s);
    EXPECT_TRUE(f.states.empty());
    ASSERT_EQ(1U, f.lines.size()) << "once a deadline";
    EXPECT_EQ("thread t1: no sign of life for 125 s, promised one every 120 s, the watchdog is not fed",
              f.lines[0]);
}

TEST(HealthMonitor_tick, a_thread_that_is_alive_again_lets_the_watchdog_be_fed)
{
    Fixture f;
    f.monitor.put(1, promise, start);
    f.monitor.tick(start + 125s);
    EXPECT_TRUE(f.monitor.renew(1, promise, start + 126s));
    EXPECT_EQ("thread t1: alive again", f.lines.back());
    f.monitor.tick(start + 127s);
    EXPECT_EQ((std::vector<std::string>{"WATCHDOG=1"}), f.states);
    EXPECT_TRUE(f.monitor.renew(1, promise, start + 128s));
    EXPECT_EQ(2U, f.lines.size()) << "said once";
}

TEST(HealthMonitor_tick, a_late_thread_that_is_removed_lets_the_watchdog_be_fed)
{
    Fixture f;
    f.monitor.put(1, promise, start);
    f.monitor.tick(start + 125s);
    EXPECT_TRUE(f.monitor.remove(1));
    f.monitor.tick(start + 126s);
    EXPECT_EQ((std::vector<std::string>{"WATCHDOG=1"}), f.states);
}

TEST(HealthMonitor_tick, without_a_watchdog_it_only_logs)
{
    Fixture f(false);
    f.monitor.put(1, promise, start);
    f.monitor.tick(start);
    f.monitor.tick(start + 125s);
    EXPECT_TRUE(f.states.empty());
    ASSERT_EQ(1U, f.lines.size());
    EXPECT_EQ("thread t1: no sign of life for 125 s, promised one every 120 s", f.lines[0]);
}

TEST(ham_client_reg_thread_notify, arguments_out_of_range_are_refused)
{
    struct Row {
        pid_t pid;
        pid_t tid;
        int deadline_s;
        int max_reports;
    };
    const pid_t pid = getpid();
    const Row rows[] = {
        {pid + 1, pid, 120, 5}, {pid, 0, 120, 5}, {pid, -1, 120, 5}, {pid, pid, 0, 5}, {pid, pid, 120, 0}};
    for (const Row &row : rows) {
        EXPECT_EQ(-1, ham_client_reg_thread_notify(row.pid, row.tid, row.deadline_s, row.max_reports));
        EXPECT_EQ(-1, ham_client_reset_thread_notify(row.pid, row.tid, row.deadline_s, row.max_reports));
    }
}

TEST(ham_client_reset_thread_notify, only_a_registered_thread_can_renew_or_leave)
{
    const pid_t pid = getpid();
    constexpr pid_t tid = 4'000'000; // above the highest thread id there can be by default
    EXPECT_EQ(-1, ham_client_reset_thread_notify(pid, tid, 120, 5));
    EXPECT_EQ(-1, ham_client_unreg_thread_notify(tid));
    EXPECT_EQ(0, ham_client_reg_thread_notify(pid, tid, 120, 5));
    EXPECT_EQ(0, ham_client_reg_thread_notify(pid, tid, 120, 5)) << "again";
    EXPECT_EQ(0, ham_client_reset_thread_notify(pid, tid, 120, 5));
    EXPECT_EQ(0, ham_client_unreg_thread_notify(tid));
    EXPECT_EQ(-1, ham_client_reset_thread_notify(pid, tid, 120, 5));
}

TEST(reg_process_exit_action, accepts_the_restart_of_this_process_only)
{
    EXPECT_EQ(0, reg_process_exit_action(0, 1));
    EXPECT_EQ(-1, reg_process_exit_action(0, 0));
    EXPECT_EQ(-1, reg_process_exit_action(1, 1));
    EXPECT_EQ(-1, reg_process_exit_action(0, 2));
}

namespace
{

/// Stands in for the supervisor: the socket that NOTIFY_SOCKET names.
class SupervisorSocket
{
public:
    SupervisorSocket() : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        // An abstract address of the kernel's choice.
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(sa_family_t)));
        socklen_t length = sizeof(address);
        EXPECT_EQ(0, getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length));
        name_ = "@" + std::string(address.sun_path + 1, length - sizeof(sa_family_t) - 1);
        const timeval patience{.tv_sec = 10, .tv_usec = 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    }
    ~SupervisorSocket() { close(fd_); }
    SupervisorSocket(const SupervisorSocket &) = delete;
    SupervisorSocket &operator=(const SupervisorSocket &) = delete;

    [[nodiscard]] const std::string &name() const { return name_; }
    [[nodiscard]] std::string receive() const
    {
        std::string text(256, '\0');
        const ssize_t got = recv(fd_, text.data(), text.size(), 0);
        text.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return text;
    }

private:
    int fd_;
    std::string name_;
};

} // namespace

// The process's monitor reads the supervisor's variables once, so the case has a process of its own.
TEST(ham_client_reg_thread_notify, tells_the_supervisor_that_the_process_has_started_and_is_well)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const SupervisorSocket supervisor;
            setenv("NOTIFY_SOCKET", supervisor.name().c_str(), 1);
            setenv("WATCHDOG_USEC", "100000", 1);
            setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
            ham_client_reg_thread_notify(getpid(), getpid(), 120, 5);
            bool started = false;
            int fed = 0;
            while (!started || fed < 2) {
                const std::string state = supervisor.receive();
                started = started || state == "READY=1";
                fed += state == "WATCHDOG=1" ? 1 : 0;
                if (state.empty())
                    _exit(1);
            }
            _exit(0);
        },
        testing::ExitedWithCode(0), "");
}
