// Deadlines of threads, with the clock passed in. Knows neither threads nor the supervisor; not synchronised.
#pragma once

#include <chrono>
#include <map>
#include <sys/types.h>
#include <vector>

namespace platform
{

class HealthTable
{
public:
    using Clock = std::chrono::steady_clock;

    /// What a thread promised.
    struct Promise {
        std::chrono::seconds deadline;
        int max_reports;
    };

    /// A thread that is late.
    struct Late {
        pid_t tid;
        std::chrono::seconds silent;   ///< since its last renewal
        std::chrono::seconds deadline; ///< what it promised
        bool report;                   ///< to be logged at this check
    };

    enum class Renewal {
        in_time,
        late,    ///< the thread had been found late: it is well again
        unknown, ///< not registered
    };

    /// Registers a thread, or renews it with a new promise.
    Renewal put(pid_t tid, Promise promise, Clock::time_point now);

    /// Renews a registered thread with a new promise.
    Renewal renew(pid_t tid, Promise promise, Clock::time_point now);

    /// False when the thread is not registered.
    bool remove(pid_t tid) { return threads_.erase(tid) > 0; }

    /// The threads that are late at `now`, in order of their ids. A thread is late when more than its deadline has
    /// passed since its renewal; it is reported then, and again each time another deadline has passed.
    [[nodiscard]] std::vector<Late> check(Clock::time_point now);

private:
    struct Thread {
        Promise promise;
        Clock::time_point renewed;
        long long lapses = 0; ///< deadlines passed since the renewal, as of the last check
        int reports = 0;      ///< made of the present lapse
    };

    std::map<pid_t, Thread> threads_;
};

} // namespace platform
