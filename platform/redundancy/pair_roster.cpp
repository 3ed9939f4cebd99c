#include "redundancy/pair_roster.h"

#include <algorithm>

namespace platform
{

namespace
{

/// FNV-1a over the members, which a map has in order.
std::uint64_t fingerprint_of(const std::map<MemberId, PairRoster::Member> &members)
{
    std::uint64_t hash = 0xcbf29ce484222325;
    const auto mix = [&](std::uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8)
            hash = (hash ^ (value >> shift & 0xff)) * 0x100000001b3;
    };
    for (const auto &[id, member] : members) {
        mix(id.node);
        mix(id.pid);
    }
    return hash;
}

} // namespace

void PairRoster::reset(MemberId self)
{
    const std::uint64_t term = known_term_;
    *this = PairRoster();
    self_ = self;
    known_term_ = term;
}

void PairRoster::set_view(const GroupView &view, PairTime now)
{
    std::map<MemberId, Member> members;
    for (const MemberId id : view.members) {
        const auto known = members_.find(id);
        members[id] = known != members_.end() ? known->second : Member{.heard = now};
    }
    members_ = std::move(members);
    fingerprint_ = fingerprint_of(members_);
    if (master_ && !members_.contains(*master_))
        master_.reset();
    if (view.joined.empty())
        return;
    // Newcomers know nothing of what was said before: whoever is to agree with them forgets it too.
    for (auto &[id, member] : members_)
        member = Member{.heard = now};
    master_.reset();
    term_ = 0;
    frames_ = 0;
    changed_hands_ = false;
    exchange_began_ = now;
}

bool PairRoster::hear(MemberId from, PairTime now)
{
    const auto found = members_.find(from);
    if (found == members_.end())
        return false;
    found->second.heard = now;
    found->second.last_frame = ++frames_;
    return true;
}

const StateFrame *PairRoster::state_of(MemberId id) const
{
    const auto found = members_.find(id);
    return found != members_.end() && found->second.state ? &*found->second.state : nullptr;
}

bool PairRoster::complete() const
{
    return std::all_of(members_.begin(), members_.end(),
                       [](const auto &m) { return m.second.state.has_value(); });
}

void PairRoster::set_term(std::uint64_t term)
{
    term_ = std::max(term_, term);
    known_term_ = std::max(known_term_, term);
}

MemberId PairRoster::longer_in_office(MemberId one, MemberId other) const
{
    const std::uint64_t age_of_one = state_of(one)->master_age_ms;
    const std::uint64_t age_of_other = state_of(other)->master_age_ms;
    if (age_of_one != age_of_other)
        return age_of_one > age_of_other ? one : other;
    return std::min(one, other);
}

void PairRoster::state(MemberId from, StateFrame frame)
{
    const auto found = members_.find(from);
    if (found == members_.end())
        return;
    Member &member = found->second;
    // Said before it had heard of the latest change of hands. The first state after a merge is not: there the terms of
    // two parts meet.
    const bool first = !member.state;
    const bool outdated = frame.term < term_ && (!first || changed_hands_);
    const bool holds = frame.holds;
    set_term(frame.term);
    if (first)
        member.age_ms = frame.age_ms;
    member.state = std::move(frame);
    std::rotate(member.last_states.begin(), member.last_states.end() - 1, member.last_states.end());
    member.last_states.front() = member.last_frame;
    if (outdated)
        return;
    if (!holds) {
        if (master_ == from)
            master_.reset();
        return;
    }
    if (!master_)
        master_ = from;
    else if (first && master_ != from)
        master_ = longer_in_office(*master_, from);
    // A later one of another unit was on its way when that learnt that it is not the master.
}

/// The master has not been heard of for as long as the claimant has given signs of life: it may have woken up between
/// the claim and its delivery.
bool PairRoster::may_depose(const Member &claimant) const
{
    return members_.at(*master_).last_frame < claimant.last_states.back();
}

bool PairRoster::claim(MemberId from, const ClaimFrame &frame)
{
    const auto found = members_.find(from);
    if (found == members_.end() || !found->second.state || frame.view != fingerprint_ ||
        frame.term != term_ + 1)
        return false;
    if (master_ && (*master_ != frame.deposed || *master_ == from || !may_depose(found->second)))
        return false;
    set_term(frame.term);
    changed_hands_ = true;
    master_ = from;
    found->second.state->master_age_ms = 0;
    return true;
}

bool PairRoster::yield(MemberId from, const YieldFrame &frame)
{
    if (master_ != from || frame.to == from)
        return false;
    set_term(term_ + 1);
    changed_hands_ = true;
    const auto heir = members_.find(frame.to);
    if (heir != members_.end() && heir->second.state) {
        master_ = frame.to;
        heir->second.state->master_age_ms = 0;
    } else {
        master_.reset();
    }
    return true;
}

} // namespace platform
