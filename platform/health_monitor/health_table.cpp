#include "health_monitor/health_table.h"

namespace platform
{

HealthTable::Renewal HealthTable::put(pid_t tid, Promise promise, Clock::time_point now)
{
    const auto [entry, is_new] = threads_.try_emplace(tid);
    const bool was_late = !is_new && entry->second.lapses > 0;
    entry->second = {.promise = promise, .renewed = now};
    return was_late ? Renewal::late : Renewal::in_time;
}

HealthTable::Renewal HealthTable::renew(pid_t tid, Promise promise, Clock::time_point now)
{
    return threads_.contains(tid) ? put(tid, promise, now) : Renewal::unknown;
}

std::vector<HealthTable::Late> HealthTable::check(Clock::time_point now)
{
    std::vector<Late> late;
    for (auto &[tid, thread] : threads_) {
        const auto silent = now - thread.renewed;
        if (silent <= thread.promise.deadline)
            continue;
        const long long lapses = silent / Clock::duration(thread.promise.deadline);
        const bool report = lapses > thread.lapses && thread.reports < thread.promise.max_reports;
        thread.lapses = lapses;
        thread.reports += report ? 1 : 0;
        late.push_back({.tid = tid,
                        .silent = std::chrono::duration_cast<std::chrono::seconds>(silent),
                        .deadline = thread.promise.deadline,
                        .report = report});
    }
    return late;
}

} // namespace platform
