// Telling a plain start of sampling from the empty half of a restart.
//
// An interface has two places for access lists. When the daemon starts sampling anew (the rate has changed, the service
// has come back), it stops what is in both places, an empty place as plain sampling, and then starts both again. Taken
// by itself, the start of the empty place asks for all traffic of an interface that is limited to the list in the other
// place. It means nothing of the kind: here it shares the fate of the start of the list.
// - The list comes first: if it is refused, so is the plain start.
// - The plain start comes first, as its stop did: it waits, unanswered, for the list. Should none come, it meant what it
//   said after all, and is carried out after `patience`. Where the list was stopped first, nothing is waited for: an
//   operator has taken away a list, then all sampling, and now wants it plain.
//
// Pure bookkeeping on the thread of the event loop; never carries out anything itself.
#pragma once

#include "backend.h"
#include "event_loop.h"

#include <map>
#include <optional>
#include <vector>

namespace sampling
{

class RestartPairs
{
public:
    /// Between the two halves of a pair, which come in one go, unless a process is held up: what comes later stands
    /// alone.
    static constexpr Clock::duration patience = std::chrono::seconds(10);
    /// Between the stops and the starts: with many interfaces, all of them are stopped first.
    static constexpr Clock::duration longest_restart = std::chrono::seconds(60);

    struct Decision {
        enum class Action { carry_out, hold, refuse };
        Action action = Action::carry_out;
        Answer refusal = Answer::ok; ///< for `refuse`
        /// Held until now: to be carried out and answered first.
        std::optional<sflow_spl_t> first;
    };
    /// What is to be done with a sound setting of the sampler `key`. A setting that is to be held is kept here.
    [[nodiscard]] Decision arrived(SamplerKey key, const sflow_spl_t &setting, Clock::time_point now);

    /// The setting has been carried out with this result.
    /// @return the plain start that waited for it, to be answered before it: carried out as well when `answer` is ok,
    ///         otherwise refused in the same way
    [[nodiscard]] std::optional<sflow_spl_t> settled(SamplerKey key, const sflow_spl_t &setting,
                                                     Answer answer, Clock::time_point now);

    /// Takes out the plain starts that have waited for `patience`; they are to be carried out. Forgets what is past.
    [[nodiscard]] std::vector<sflow_spl_t> overdue(Clock::time_point now);
    /// overdue() has nothing to do, now or later.
    [[nodiscard]] bool idle() const { return courses_.empty(); }

    /// The settings of before are void, and nobody waits for their answers.
    void clear() { courses_.clear(); }

private:
    /// What has come for a sampler since its last whole start.
    struct Course {
        bool plain_stopped = false;
        bool list_stopped = false;
        bool list_stopped_last = false;
        std::optional<Answer> list_answer; ///< to its start
        std::optional<sflow_spl_t> held;
        Clock::time_point since; ///< of the latest of these
    };

    std::map<SamplerKey, Course> courses_;
};

} // namespace sampling
