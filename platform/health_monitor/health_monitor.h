// The monitor between the deadline table, the log and the supervisor. What it reaches is passed in, so that it can
// be driven with a clock of its own.
#pragma once

#include "health_monitor/health_table.h"
#include "lock/mutex.h"

#include <functional>
#include <string>

namespace platform
{

/// What the monitor reaches; called without its lock.
struct HealthOutlets {
    std::function<void(const char *state)> notify_supervisor; ///< assignments as for sd_notify()
    std::function<void(int level, const std::string &text)> log;
    std::function<std::string(pid_t tid)> thread_name;
};

class HealthMonitor
{
public:
    HealthMonitor(HealthOutlets outlets, bool has_watchdog)
        : outlets_(std::move(outlets)), has_watchdog_(has_watchdog)
    {
    }

    void put(pid_t tid, HealthTable::Promise promise, HealthTable::Clock::time_point now);
    [[nodiscard]] bool renew(pid_t tid, HealthTable::Promise promise, HealthTable::Clock::time_point now);
    [[nodiscard]] bool remove(pid_t tid);

    /// The main thread is registered: start-up is over.
    void report_started() { outlets_.notify_supervisor("READY=1"); }

    /// Logs the threads that are late; feeds the watchdog, if there is one, when none is.
    void tick(HealthTable::Clock::time_point now);

private:
    void report_recovery(pid_t tid, HealthTable::Renewal renewal);

    const HealthOutlets outlets_;
    const bool has_watchdog_;
    Mutex mutex_;
    HealthTable table_ PLATFORM_GUARDED_BY(mutex_);
};

} // namespace platform
