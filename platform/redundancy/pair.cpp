#include "redundancy/pair.h"

#include <algorithm>
#include <syslog.h>
#include <utility>

namespace platform
{

namespace
{

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// Clients that do not say that they have stopped are not waited for any longer.
constexpr milliseconds takeover_patience{1000};
constexpr milliseconds farewell_patience{3000};
/// A claim that came to nothing is made again.
constexpr milliseconds claim_again{1000};
/// A group that takes no frame for so long is blocked.
constexpr milliseconds congestion{1000};
/// Refused messages are told of so often.
constexpr seconds refusal_interval{60};

std::uint64_t ms_since(PairTime then, PairTime now)
{
    return static_cast<std::uint64_t>(
        std::max<std::int64_t>(0, duration_cast<milliseconds>(now - then).count()));
}

std::string cause_text(GroupView::Cause cause, const std::string &who)
{
    switch (cause) {
    case GroupView::Cause::process_left:
        return who + " left the group";
    case GroupView::Cause::process_ended:
        return "the agent of " + who + " ended";
    case GroupView::Cause::node_down:
        break;
    }
    return who + " is down or out of reach";
}

} // namespace

Pair::Pair(PairSettings settings, PairHost &host, Clock clock)
    : settings_(std::move(settings)), host_(host), clock_(std::move(clock)), last_tick_(clock_()),
      vacancy_("no other unit is active")
{
}

// ---- Group --------------------------------------------------------------------------------------------------------

void Pair::connected(MemberId self)
{
    roster_.reset(self);
    connected_ = true;
    joined_ = clock_();
    quorum_known_ = false;
    quorum_unknown_since_ = joined_;
    departed_.clear();
    beats_without_.clear();
    blocked_since_.reset();
    claimed_.reset();
}

void Pair::disconnected(const std::string &why)
{
    if (!connected_)
        return;
    connected_ = false;
    if (holds_)
        step_down(why);
    renouncing_ = false;
    roster_.reset({});
    outbox_.clear();
    set_role(RDND_ROLE_CANDIDATE);
    refresh_situation();
}

void Pair::view(const GroupView &view)
{
    const auto master = roster_.master();
    for (const GroupView::Leaver &leaver : view.left) {
        const std::string text = cause_text(leaver.cause, name_of(leaver.id));
        if (master == leaver.id)
            vacancy_ = text;
        if (roster_.state_of(leaver.id) != nullptr && leaver.id != roster_.self())
            log(LOG_NOTICE, "PEER", text);
        beats_without_.erase(leaver.id);
        if (leaver.cause == GroupView::Cause::node_down && quorum_nodes_.contains(leaver.id.node)) {
            departed_.insert(leaver.id.node);
            quorum_unknown_since_ = clock_();
        }
    }
    for (const MemberId id : view.members)
        departed_.erase(id.node);
    if (!view.joined.empty())
        beats_without_.clear();
    roster_.set_view(view, clock_());
    announce_ = true;
    claimed_.reset();
    reconcile();
}

void Pair::quorum(bool quorate, std::span<const std::uint32_t> nodes)
{
    if (!quorum_known_ || quorate != quorate_)
        log(LOG_NOTICE, "QUORUM", quorate ? "this unit is part of the quorum" : "this unit has no quorum");
    quorate_ = quorate;
    quorum_known_ = true;
    quorum_nodes_ = {nodes.begin(), nodes.end()};
    std::erase_if(departed_, [&](std::uint32_t node) { return !quorum_nodes_.contains(node); });
    announce_ = true;
    reconcile();
}

/// The group tells of a lost node before the quorum does: until then the old answer counts a node that is not there.
Pair::Quorum Pair::quorum_now() const
{
    if (quorum_known_ && departed_.empty())
        return quorate_ ? Quorum::yes : Quorum::no;
    return clock_() - quorum_unknown_since_ < quorum_patience() ? Quorum::unknown : Quorum::no;
}

void Pair::deliver(MemberId from, std::span<const std::byte> bytes)
{
    if (!roster_.hear(from, clock_())) {
        refuse(from, "it is not a member of the group");
        return;
    }
    auto decoded = decode_frame(bytes);
    if (const auto *refusal = std::get_if<Refusal>(&decoded)) {
        refuse(from, refusal->why);
        return;
    }
    beats_without_[from] = 0;
    std::visit([&](auto &frame) { on_frame(from, std::move(frame)); }, std::get<Frame>(decoded));
    reconcile();
}

void Pair::refuse(MemberId from, const std::string &why)
{
    ++refused_;
    const PairTime now = clock_();
    if (refusal_logged_ && now - *refusal_logged_ < refusal_interval)
        return;
    refusal_logged_ = now;
    log(LOG_WARNING, "MESSAGE",
        "a message of node " + std::to_string(from.node) + ", process " + std::to_string(from.pid) +
            ", was refused: " + why + "; " + std::to_string(refused_) + " refused so far");
}

void Pair::tick()
{
    const PairTime now = clock_();
    const auto pause = duration_cast<milliseconds>(now - last_tick_);
    last_tick_ = now;
    if (pause > lease())
        lapsed(pause);
    sync_.set_congested(blocked_since_ && now - *blocked_since_ >= congestion);
    if (!last_announced_ || now - *last_announced_ >= heartbeat)
        announce_ = true;
    advance_switching();
    reconcile();
}

void Pair::lapsed(milliseconds pause)
{
    if (holds_)
        step_down("this unit stood still for " + std::to_string(pause.count()) + " ms");
}

PairOutbox::Sealed Pair::next_frame()
{
    if (!connected_)
        return nullptr;
    // Made at the last moment, so that it does not grow old in a queue.
    if (std::exchange(announce_, false)) {
        outbox_.control(own_state());
        last_announced_ = clock_();
    }
    return outbox_.next();
}

void Pair::sent(const PairOutbox::Sealed &frame)
{
    outbox_.sent(frame);
    blocked_since_.reset();
}

void Pair::blocked()
{
    if (!blocked_since_)
        blocked_since_ = clock_();
}

StateFrame Pair::own_state() const
{
    const PairTime now = clock_();
    return {.instance = settings_.instance,
            .term = roster_.known_term(),
            .quorate = quorum_now() == Quorum::yes,
            .holds = holds_,
            .role = role_,
            .state = state(),
            .age_ms = ms_since(joined_, now),
            .master_age_ms = holds_ ? ms_since(master_since_, now) : 0,
            .host = settings_.host,
            .clients = sync_.clients()};
}

// ---- Frames of members --------------------------------------------------------------------------------------------

void Pair::on_frame(MemberId from, StateFrame frame)
{
    if (from == roster_.self())
        count_heartbeat();
    else if (roster_.state_of(from) == nullptr)
        log(LOG_NOTICE, "PEER",
            "node " + std::to_string(from.node) + " (" + frame.host + ") is in the group" +
                (frame.holds ? ", as the active unit" : ""));
    const auto master = roster_.master();
    roster_.state(from, std::move(frame));
    if (master && !roster_.master() && master != roster_.self())
        vacancy_ = name_of(*master) + " stopped being the active unit";
}

void Pair::on_frame(MemberId from, const ClaimFrame &frame)
{
    const auto master = roster_.master();
    if (!roster_.claim(from, frame))
        return;
    claimed_.reset();
    if (from == roster_.self() && master)
        vacancy_ = "no sign of life from " + name_of(*master);
}

void Pair::on_frame(MemberId from, const WillFrame &frame)
{
    if (roster_.master() != from) {
        refuse(from, "it announces a switchover and is not the active unit");
        return;
    }
    if (from == roster_.self() || frame.to != roster_.self())
        return;
    planned_ = true;
    if (ready_)
        post_all(RDND_E_WILL_SWITCHOVER);
}

void Pair::on_frame(MemberId from, const YieldFrame &frame)
{
    if (!roster_.yield(from, frame)) {
        refuse(from, "it hands over and is not the active unit");
        return;
    }
    if (roster_.master() == roster_.self())
        vacancy_ = "an operator's command at " + name_of(from);
    else
        vacancy_ = "the unit that " + name_of(from) + " handed over to is gone";
    // The heir has all the time of a new master to give a sign of life.
    if (roster_.hear(frame.to, clock_()))
        beats_without_[frame.to] = 0;
    if (from != roster_.self())
        return;
    holds_ = false;
    sync_.forgive_contribution();
    if (switching_.kind == Switching::Kind::handover)
        end_switching();
}

void Pair::on_frame(MemberId from, const SyncRequestFrame &frame)
{
    // A unit that has just been told to hand over, or has just joined, asks the wrong one for a moment.
    if (from != roster_.self() && roster_.master() == roster_.self())
        static_cast<void>(sync_.request(from, frame));
}

/// Every member gets every frame: what the master sends is for its standby, what is contributed for the master.
bool Pair::is_for_others(MemberId from, bool contribution) const
{
    const auto master = roster_.master();
    return from == roster_.self() || (contribution ? master.has_value() && master != roster_.self()
                                                   : master == from && role_ != RDND_ROLE_SLAVE);
}

void Pair::on_frame(MemberId from, const BatchFrame &frame)
{
    if (is_for_others(from, frame.mark == BatchFrame::Mark::contribution_end))
        return;
    if (!sync_.mark(from, frame))
        refuse(from, "it marks a batch under " + frame.name + " and is not the partner for it");
}

void Pair::on_frame(MemberId from, DataFrame frame)
{
    if (is_for_others(from, frame.kind == DataFrame::Kind::contribution))
        return;
    const std::string name = frame.name;
    if (!sync_.data(from, std::move(frame)))
        refuse(from, "it sends data under " + name + " and is not the partner for it");
}

// ---- Signs of life ------------------------------------------------------------------------------------------------

/// Silence is counted in own heartbeats that came back, not in time: while the group itself stands still nobody is
/// heard.
void Pair::count_heartbeat()
{
    const PairTime now = clock_();
    if (now - beat_counted_ < heartbeat * 8 / 10)
        return;
    beat_counted_ = now;
    for (const auto &[id, member] : roster_.members())
        if (id != roster_.self())
            ++beats_without_[id];
}

bool Pair::silent(MemberId id) const
{
    const auto member = roster_.members().find(id);
    const auto beats = beats_without_.find(id);
    if (id == roster_.self() || member == roster_.members().end() || beats == beats_without_.end())
        return false;
    return beats->second * heartbeat >= settings_.peer_timeout &&
           clock_() - member->second.heard >= settings_.peer_timeout;
}

// ---- Roles --------------------------------------------------------------------------------------------------------

std::optional<MemberId> Pair::standby() const
{
    const auto master = roster_.master();
    if (!master)
        return std::nullopt;
    return roster_.oldest(
        [&](MemberId id, const PairRoster::Member &) { return id != *master && !silent(id); });
}

/// Brings this unit's role into line with what is known now. Called after everything that may have changed that.
void Pair::reconcile()
{
    if (!connected_)
        return;
    const auto master = roster_.master();
    const bool chosen = master == roster_.self();
    renouncing_ = renouncing_ && chosen;
    const Quorum quorum = quorum_now();
    if (holds_ && quorum == Quorum::no)
        step_down("no quorum");
    else if (holds_ && master && !chosen && outvoted())
        step_down(name_of(*master) + " is the active unit");
    else if (!holds_ && chosen && !renouncing_ && quorum == Quorum::yes)
        begin_takeover();
    if (!holds_)
        follow();
    refresh_situation();
    sync_.advance(clock_());
}

/// Where masters of two parts meet, one that works does not stop before it has been heard too: it may be the one that
/// stays.
bool Pair::outvoted() const
{
    return role_ != RDND_ROLE_MASTER || roster_.considers(roster_.self()) || exchange_overdue();
}

/// Whoever has not said by then what it is, is no unit of this pair, or none to wait for.
bool Pair::exchange_overdue() const
{
    return clock_() - roster_.exchange_began() >= settings_.peer_timeout;
}

/// What a unit does that is not the master.
void Pair::follow()
{
    const Quorum quorum = quorum_now();
    if (quorum == Quorum::no)
        set_role(RDND_ROLE_CANDIDATE);
    if (quorum != Quorum::yes)
        return;
    const auto master = roster_.master();
    if (master && *master != roster_.self())
        set_role(standby() == roster_.self() ? RDND_ROLE_SLAVE : RDND_ROLE_CANDIDATE);
    maybe_claim();
}

void Pair::set_role(rdnd_role role)
{
    if (role_ == role)
        return;
    role_ = role;
    announce_ = true;
    if (role == RDND_ROLE_SLAVE) {
        log(LOG_NOTICE, "ROLE", "this unit is the standby of " + name_of(*roster_.master()));
        make_ready();
    }
}

void Pair::maybe_claim()
{
    const PairTime now = clock_();
    const auto master = roster_.master();
    const bool vacant = !master || (*master != roster_.self() && silent(*master));
    if (!vacant)
        vacant_since_.reset();
    else if (!vacant_since_)
        vacant_since_ = now;
    if (!vacant || switching_.kind != Switching::Kind::none || roster_.state_of(roster_.self()) == nullptr)
        return;
    if (!roster_.complete() && !exchange_overdue())
        return;
    if (claimed_ && now - *claimed_ < claim_again)
        return;
    // The members of a view have quorum together, but do not learn of it at the same moment.
    const bool lenient = now - *vacant_since_ < settings_.peer_timeout;
    const auto first = roster_.oldest([&](MemberId id, const PairRoster::Member &member) {
        return (lenient || member.state->quorate) && !silent(id);
    });
    if (first != roster_.self())
        return;
    claimed_ = now;
    outbox_.control(ClaimFrame{.view = roster_.view_fingerprint(),
                               .term = roster_.known_term() + 1,
                               .deposed = master.value_or(MemberId{})});
}

void Pair::begin_takeover()
{
    holds_ = true;
    master_since_ = clock_();
    announce_ = true;
    if (ready_ && !planned_)
        post_all(RDND_E_FAST_SWITCHOVER);
    switching_.reason = vacancy_;
    begin_switching(Switching::Kind::takeover, takeover_patience);
}

void Pair::end_takeover()
{
    planned_ = false;
    sync_.forgive_contribution();
    role_ = RDND_ROLE_MASTER;
    announce_ = true;
    note_switchover("this unit became the active one: " + switching_.reason);
    vacancy_ = "no other unit is active";
    end_switching();
    make_ready();
}

void Pair::step_down(const std::string &reason)
{
    const bool was_master = role_ == RDND_ROLE_MASTER;
    holds_ = false;
    renouncing_ = roster_.master() == roster_.self();
    role_ = RDND_ROLE_CANDIDATE;
    announce_ = true;
    outbox_.drop_ordered();
    if (was_master) {
        sync_.owe_contribution();
        note_switchover("this unit stopped being the active one: " + reason);
    }
    vacancy_ = reason;
    begin_switching(Switching::Kind::demotion, farewell_patience);
    refresh_situation();
}

/// One change of roles may run into another; the clients are then asked to stop once.
void Pair::begin_switching(Switching::Kind kind, milliseconds patience)
{
    const bool asked = switching_.kind != Switching::Kind::none;
    switching_.kind = kind;
    switching_.deadline = clock_() + patience;
    switching_.yielded = false;
    if (ready_ && !asked) {
        for (const ClientInfo &client : sync_.clients())
            switching_.waiting.insert(client.name);
        post_all(RDND_E_SWITCHOVER);
    }
    advance_switching();
}

void Pair::advance_switching()
{
    if (switching_.kind == Switching::Kind::none || switching_.yielded)
        return;
    if (!switching_.waiting.empty() && clock_() < switching_.deadline)
        return;
    switch (switching_.kind) {
    case Switching::Kind::takeover:
        end_takeover();
        break;
    case Switching::Kind::handover:
        end_handover();
        break;
    case Switching::Kind::demotion:
        end_switching();
        break;
    case Switching::Kind::none:
        break;
    }
}

/// Not the master any more before the other one can be: the yield follows everything that the clients have sent.
void Pair::end_handover()
{
    role_ = RDND_ROLE_CANDIDATE;
    switching_.yielded = true;
    refresh_situation();
    outbox_.ordered(YieldFrame{.to = switching_.heir});
    note_switchover("this unit handed over to " + name_of(switching_.heir) + ": an operator's command");
}

void Pair::end_switching()
{
    switching_ = {};
    announce_ = true;
    if (ready_)
        post_all(RDND_E_SWITCHOVER_END);
}

std::string Pair::force_switchover()
{
    if (role_ != RDND_ROLE_MASTER)
        return "this unit is not the active one";
    if (switching_.kind != Switching::Kind::none)
        return "the roles are changing already";
    const auto heir = standby();
    if (!heir)
        return "there is no standby";
    if (sync_.exchanging() && !sync_.up_to_date())
        return "the standby is not up to date yet";
    switching_.heir = *heir;
    outbox_.ordered(WillFrame{.to = *heir});
    if (ready_)
        post_all(RDND_E_WILL_SWITCHOVER);
    begin_switching(Switching::Kind::handover, farewell_patience);
    return {};
}

// ---- Clients ------------------------------------------------------------------------------------------------------

bool Pair::add_client(const std::string &name, std::uint64_t version)
{
    if (!sync_.add_client(name, version))
        return false;
    announce_ = true;
    if (ready_)
        host_.post(name, RDND_E_STAT_READY, {});
    return true;
}

int Pair::enqueue(const std::string &name, std::span<const std::byte> message)
{
    return sync_.enqueue(name, message);
}

void Pair::completed(const std::string &name, rdnd_notify what)
{
    if (what == RDND_NOTIFY_BATCH) {
        sync_.batch_completed(name);
        announce_ = true;
        return;
    }
    switching_.waiting.erase(name);
    advance_switching();
    reconcile();
}

void Pair::handled(const std::string &name, RDND_EVENT event, int answer)
{
    sync_.handled(name, event, answer, clock_());
    if (event == RDND_E_VERSION_CHECK)
        reconcile();
}

void Pair::post_all(RDND_EVENT event)
{
    for (const ClientInfo &client : sync_.clients())
        host_.post(client.name, event, {});
}

void Pair::make_ready()
{
    if (std::exchange(ready_, true))
        return;
    post_all(RDND_E_STAT_READY);
}

void Pair::refresh_situation()
{
    PairSync::Situation situation;
    situation.role = role_;
    situation.settled = ready_ && switching_.kind == Switching::Kind::none;
    if (role_ == RDND_ROLE_MASTER)
        situation.partner = standby();
    else if (role_ == RDND_ROLE_SLAVE)
        situation.partner = roster_.master();
    if (situation.partner) {
        situation.partner_name = name_of(*situation.partner);
        if (const StateFrame *state = roster_.state_of(*situation.partner); state != nullptr) {
            situation.partner_instance = state->instance;
            situation.partner_state = state->state;
            situation.partner_clients = state->clients;
        }
    }
    if (sync_.situate(std::move(situation), clock_()) && !switching_.yielded)
        outbox_.drop_ordered();
}

rdnd_stat Pair::state() const
{
    if (!ready_)
        return RDND_STAT_INIT;
    if (switching_.kind != Switching::Kind::none)
        return RDND_STAT_SWITCHOVER;
    if (!sync_.exchanging())
        return RDND_STAT_ALONE;
    return sync_.up_to_date() ? RDND_STAT_REALTIME : RDND_STAT_BATCH;
}

} // namespace platform
