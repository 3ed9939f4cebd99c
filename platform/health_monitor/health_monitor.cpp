#include "health_monitor/health_monitor.h"

#include <syslog.h>

namespace platform
{

void HealthMonitor::put(pid_t tid, HealthTable::Promise promise, HealthTable::Clock::time_point now)
{
    const auto renewal = [&] {
        const MutexLock lock(mutex_);
        return table_.put(tid, promise, now);
    }();
    report_recovery(tid, renewal);
}

bool HealthMonitor::renew(pid_t tid, HealthTable::Promise promise, HealthTable::Clock::time_point now)
{
    const auto renewal = [&] {
        const MutexLock lock(mutex_);
        return table_.renew(tid, promise, now);
    }();
    report_recovery(tid, renewal);
    return renewal != HealthTable::Renewal::unknown;
}

bool HealthMonitor::remove(pid_t tid)
{
    const MutexLock lock(mutex_);
    return table_.remove(tid);
}

void HealthMonitor::report_recovery(pid_t tid, HealthTable::Renewal renewal)
{
    if (renewal == HealthTable::Renewal::late)
        outlets_.log(LOG_NOTICE, "thread " + outlets_.thread_name(tid) + ": alive again");
}

void HealthMonitor::tick(HealthTable::Clock::time_point now)
{
    const auto late = [&] {
        const MutexLock lock(mutex_);
        return table_.check(now);
    }();
    for (const HealthTable::Late &thread : late) {
        if (!thread.report)
            continue;
        outlets_.log(LOG_ERR, "thread " + outlets_.thread_name(thread.tid) + ": no sign of life for " +
                                  std::to_string(thread.silent.count()) + " s, promised one every " +
                                  std::to_string(thread.deadline.count()) + " s" +
                                  (has_watchdog_ ? ", the watchdog is not fed" : ""));
    }
    if (has_watchdog_ && late.empty())
        outlets_.notify_supervisor("WATCHDOG=1");
}

} // namespace platform
