// Health monitor on systemd: a thread of its own checks the deadlines and feeds the watchdog (sd_notify) that the
// unit's WatchdogSec asks for. Without a watchdog it only logs.
//
// Its log lines bypass the syslog client's queue, whose thread may be the one that is stuck.

#include "platform/ham.h"

#include "config/platform_config.h"
#include "health_monitor/health_monitor.h"
#include "lock/immortal.h"
#include "log/log_target.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <pthread.h>
#include <string>
#include <syslog.h>
#include <system_error>
#include <systemd/sd-daemon.h>
#include <thread>
#include <unistd.h>

namespace
{

using platform::HealthMonitor;
using platform::HealthTable;

constexpr std::chrono::microseconds check_interval_max = std::chrono::seconds(5);

/// "NAME (tid N)"; threads that have ended have no name.
std::string thread_name(pid_t tid)
{
    const std::string number = std::to_string(tid);
    const std::string path = "/proc/self/task/" + number + "/comm";
    std::string name;
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "re"),
                                                                  &std::fclose);
    std::array<char, 64> line{};
    if (file && std::fgets(line.data(), static_cast<int>(line.size()), file.get()) != nullptr)
        name = line.data();
    while (!name.empty() && name.back() == '\n')
        name.pop_back();
    return (name.empty() ? "that has ended" : name) + " (tid " + number + ")";
}

void log(int level, const std::string &text)
{
    platform::write_log_line(platform::platform_config().syslog_target, level,
                             platform::make_log_line(level, "HAM", "THREAD", text));
}

/// Half the time that the supervisor allows, as its documentation advises; zero without a watchdog.
std::chrono::microseconds watchdog_interval()
{
    uint64_t allowed_us = 0;
    if (sd_watchdog_enabled(0, &allowed_us) <= 0)
        return std::chrono::microseconds(0);
    return std::chrono::microseconds(allowed_us / 2);
}

struct Service {
    const std::chrono::microseconds watchdog = watchdog_interval();
    HealthMonitor monitor{{.notify_supervisor = [](const char *state) { sd_notify(0, state); },
                           .log = log,
                           .thread_name = thread_name},
                          watchdog.count() > 0};

    Service()
    {
        // Signals are the daemon's business: its threads inherit what it set up, this one takes none.
        sigset_t every;
        sigset_t before;
        sigfillset(&every);
        pthread_sigmask(SIG_SETMASK, &every, &before);
        try {
            std::thread([this] { run(); }).detach();
        } catch (const std::system_error &error) {
            log(LOG_ERR, std::string("threads are not watched: no thread for the monitor: ") + error.what());
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    [[noreturn]] void run()
    {
        pthread_setname_np(pthread_self(), "ham");
        const auto interval =
            watchdog.count() > 0 ? std::min(watchdog, check_interval_max) : check_interval_max;
        for (;;) {
            monitor.tick(HealthTable::Clock::now());
            std::this_thread::sleep_for(interval);
        }
    }
};

HealthMonitor &monitor()
{
    static const platform::Immortal<Service> service;
    return (*service).monitor;
}

bool is_usable(pid_t pid, pid_t tid, int deadline_s, int max_reports)
{
    return pid == getpid() && tid > 0 && deadline_s > 0 && max_reports > 0;
}

HealthTable::Promise promise_of(int deadline_s, int max_reports)
{
    return {.deadline = std::chrono::seconds(deadline_s), .max_reports = max_reports};
}

} // namespace

int ham_client_reg_thread_notify(pid_t pid, pid_t tid, int deadline_s, int max_reports)
{
    if (!is_usable(pid, tid, deadline_s, max_reports))
        return -1;
    monitor().put(tid, promise_of(deadline_s, max_reports), HealthTable::Clock::now());
    if (tid == pid)
        monitor().report_started();
    return 0;
}

int ham_client_reset_thread_notify(pid_t pid, pid_t tid, int deadline_s, int max_reports)
{
    if (!is_usable(pid, tid, deadline_s, max_reports))
        return -1;
    return monitor().renew(tid, promise_of(deadline_s, max_reports), HealthTable::Clock::now()) ? 0 : -1;
}

int ham_client_unreg_thread_notify(pid_t tid)
{
    return monitor().remove(tid) ? 0 : -1;
}

int reg_process_exit_action(int scope, int restart)
{
    // The unit's Restart= setting carries it out.
    return scope == 0 && restart == 1 ? 0 : -1;
}
