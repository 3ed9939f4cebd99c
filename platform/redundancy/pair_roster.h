// What all units of a group agree on: who is in it, who is master, who is the standby.
//
// The group delivers views and frames in the same order to all of its members, and everything here is a function of
// that sequence alone; so units that share a view come to the same answer without another word. What a unit knows from
// anywhere else (its quorum, its clock, whether it really works as master) is not this class's business.
//
// One master: a unit becomes it by a claim, and the first claim that is delivered wins. Units that were masters of
// different parts meet when the parts merge; the one that has been master for longer stays. In a new view everybody
// says again what it is; until all have, the master is only the best of those heard so far.
#pragma once

#include "redundancy/pair_frame.h"

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <vector>

namespace platform
{

using PairTime = std::chrono::steady_clock::time_point;

/// A change of the group's membership.
struct GroupView {
    enum class Cause { process_left, process_ended, node_down };
    struct Leaver {
        MemberId id;
        Cause cause = Cause::process_left;
    };
    std::vector<MemberId> members; ///< after the change
    std::vector<Leaver> left;
    std::vector<MemberId> joined;
};

class PairRoster
{
public:
    struct Member {
        std::optional<StateFrame> state; ///< as delivered last, in this view
        std::uint64_t age_ms = 0;        ///< of its first state in this view: an order that does not jitter
        PairTime heard;                  ///< the last frame of it, or the beginning of the view
        std::uint64_t last_frame = 0;    ///< number of its last frame among all of the view
        std::array<std::uint64_t, 3> last_states{}; ///< of its last states, the latest first
    };

    /// Forgets the group; `self` is who this unit is in the next one.
    void reset(MemberId self);

    void set_view(const GroupView &view, PairTime now);
    /// A sign of life of a member. False when `from` is none.
    bool hear(MemberId from, PairTime now);

    // Frames of members.
    void state(MemberId from, StateFrame frame);
    /// Whether the claim holds. One that does not is to be made again if it is still wanted.
    bool claim(MemberId from, const ClaimFrame &frame);
    /// False when `from` is not the master.
    bool yield(MemberId from, const YieldFrame &frame);

    [[nodiscard]] MemberId self() const { return self_; }
    [[nodiscard]] const std::map<MemberId, Member> &members() const { return members_; }
    /// nullptr for one that is not in the view, or has not said anything in it.
    [[nodiscard]] const StateFrame *state_of(MemberId id) const;
    [[nodiscard]] std::optional<MemberId> master() const { return master_; }
    /// Everybody in the view has said what it is.
    [[nodiscard]] bool complete() const;
    /// Whether master() takes into account what the member was when the view began.
    [[nodiscard]] bool considers(MemberId id) const { return changed_hands_ || state_of(id) != nullptr; }
    /// When the units began to say what they are.
    [[nodiscard]] PairTime exchange_began() const { return exchange_began_; }

    /// Who comes first among the members for which `eligible` holds: the oldest.
    template <typename Predicate>
    [[nodiscard]] std::optional<MemberId> oldest(Predicate eligible) const
    {
        std::optional<MemberId> found;
        std::uint64_t age_ms = 0;
        for (const auto &[id, member] : members_) {
            // The map's order breaks ties.
            if (!member.state || !eligible(id, member) || (found && member.age_ms <= age_ms))
                continue;
            found = id;
            age_ms = member.age_ms;
        }
        return found;
    }

    [[nodiscard]] std::uint64_t view_fingerprint() const { return fingerprint_; }
    /// Highest term that any unit of this group has told of.
    [[nodiscard]] std::uint64_t known_term() const { return known_term_; }

private:
    void set_term(std::uint64_t term);
    [[nodiscard]] bool may_depose(const Member &claimant) const;
    [[nodiscard]] MemberId longer_in_office(MemberId one, MemberId other) const;

    MemberId self_;
    std::map<MemberId, Member> members_;
    std::optional<MemberId> master_;
    PairTime exchange_began_;
    std::uint64_t fingerprint_ = 0;
    std::uint64_t term_ = 0; ///< as far as frames of this view have shown it
    std::uint64_t known_term_ = 0;
    std::uint64_t frames_ = 0;   ///< delivered in this view
    bool changed_hands_ = false; ///< a claim or a yield was delivered in this view
};

} // namespace platform
