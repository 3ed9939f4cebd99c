// How long a unit may be taken for the master without having asked the group again.
//
// One thread renews it with each answer of the group; every thread may ask whether it holds. Who finds it ended goes by
// that, so that the owner must learn of it even if the renewal comes a moment later.
#pragma once

#include "redundancy/pair_roster.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <utility>

namespace platform
{

class Lease
{
public:
    using Clock = std::function<PairTime()>;

    Lease(std::chrono::milliseconds length, Clock clock) : length_(length), clock_(std::move(clock)) {}

    /// Any thread.
    [[nodiscard]] bool holds() const
    {
        // The clock first: what renew() relies on.
        const PairTime now = clock_();
        return now <= end_.load();
    }

    // The owner's thread.

    /// The first one after a time without any; `from` is when the group was asked.
    void begin(PairTime from)
    {
        end_.store(from + length_);
        gap_ = {};
    }
    void renew(PairTime from)
    {
        const PairTime old_end = end_.exchange(from + length_);
        // Read only now: whoever still saw the old end had read the clock before.
        gap_ = std::max(gap_, clock_() - old_end);
    }
    /// For how long somebody may have found it ended since the last call; zero or less: nobody has.
    [[nodiscard]] std::chrono::nanoseconds take_gap()
    {
        return std::max<std::chrono::nanoseconds>(std::exchange(gap_, {}), clock_() - end_.load());
    }
    [[nodiscard]] std::chrono::milliseconds length() const { return length_; }

private:
    const std::chrono::milliseconds length_;
    const Clock clock_;
    std::atomic<PairTime> end_{PairTime{}};
    PairTime::duration gap_{};
};

} // namespace platform
