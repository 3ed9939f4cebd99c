// One unit of a pair: its role, and the events that its clients get for it.
//
// Fed by a group layer (views, frames, quorum), by the clients and by the clock; answers with events to the clients and
// with frames to send. It calls nothing that could block and knows no thread: its owner serialises the calls. All the
// decisions of a pair are made here, in PairRoster (what the units agree on) and in PairSync (checkpoints), so that a
// test can play every course of events without a cluster.
//
// A unit is master from the moment at which its own claim has been delivered, it has quorum, and its clients have
// stopped what belongs to the old role, until one of these ends. Where its own quorum or a sign of its own life is in
// doubt it is none: the other one may have taken over.
#pragma once

#include "redundancy/pair_outbox.h"
#include "redundancy/pair_roster.h"
#include "redundancy/pair_sync.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace platform
{

struct PairSettings {
    /// A member that is silent for so long while the group works is not counted on any more.
    std::chrono::milliseconds peer_timeout{1500};
    std::string host;           ///< name that the other units show
    std::uint64_t instance = 0; ///< another one for each process
};

/// A change of roles that is over.
struct LastSwitchover {
    std::chrono::system_clock::time_point when;
    std::string what; ///< and why
};

class Pair
{
public:
    using Clock = std::function<PairTime()>;

    Pair(PairSettings settings, PairHost &host, Clock clock);
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;

    // Group.

    /// This unit is a process of the group's engine; a view with it follows.
    void connected(MemberId self);
    /// The engine is gone, or refuses this unit.
    void disconnected(const std::string &why);
    void view(const GroupView &view);
    /// @param nodes  of the partition that the answer is about
    void quorum(bool quorate, std::span<const std::uint32_t> nodes);
    void deliver(MemberId from, std::span<const std::byte> bytes);

    /// Lets time pass; at least every `heartbeat`, and before the group's news are looked at.
    void tick();
    /// This unit stood still for so long that another one may have taken over: it is not the master until the group
    /// says so again. tick() notices by itself when it was not called.
    void lapsed(std::chrono::milliseconds pause);

    /// What to send next, the same until sent() takes it out; nothing while not connected.
    [[nodiscard]] PairOutbox::Sealed next_frame();
    void sent(const PairOutbox::Sealed &frame);
    /// The group did not take the frame.
    void blocked();

    // Clients.

    bool add_client(const std::string &name, std::uint64_t version);
    int enqueue(const std::string &name, std::span<const std::byte> message);
    void completed(const std::string &name, rdnd_notify what);
    void handled(const std::string &name, RDND_EVENT event, int answer);

    // Operators.

    /// Why that cannot be; empty when it has begun.
    std::string force_switchover();
    /// @param role  of this unit as clients are told: the lease is the owner's affair
    [[nodiscard]] std::vector<RdndReportLine> report(rdnd_role role) const;

    [[nodiscard]] rdnd_role role() const { return role_; }
    [[nodiscard]] rdnd_stat state() const;
    /// How long a unit that does not get to tick() may be taken for the master: shorter than the time after which
    /// another one takes over.
    [[nodiscard]] std::chrono::milliseconds lease() const { return settings_.peer_timeout * 7 / 10; }

    static constexpr std::chrono::milliseconds heartbeat{250};

private:
    enum class Quorum { unknown, no, yes };

    /// A change of roles under way. Clients have got RDND_E_SWITCHOVER and owe RDND_NOTIFY_SWITCHOVER.
    struct Switching {
        enum class Kind { none, takeover, demotion, handover };
        Kind kind = Kind::none;
        std::set<std::string> waiting;
        PairTime deadline;
        MemberId heir;        ///< of a handover
        bool yielded = false; ///< of a handover: the yield is on its way
        std::string reason;
    };

    // Frames of members.
    void on_frame(MemberId from, StateFrame frame);
    void on_frame(MemberId from, const ClaimFrame &frame);
    void on_frame(MemberId from, const WillFrame &frame);
    void on_frame(MemberId from, const YieldFrame &frame);
    void on_frame(MemberId from, const SyncRequestFrame &frame);
    void on_frame(MemberId from, const BatchFrame &frame);
    void on_frame(MemberId from, DataFrame frame);
    [[nodiscard]] bool is_for_others(MemberId from, bool contribution) const;

    // Roles.
    void reconcile();
    [[nodiscard]] bool outvoted() const;
    [[nodiscard]] bool exchange_overdue() const;
    void follow();
    void set_role(rdnd_role role);
    [[nodiscard]] Quorum quorum_now() const;
    /// A unit that has not heard of its quorum for so long after a change of the membership is taken to have none.
    [[nodiscard]] std::chrono::milliseconds quorum_patience() const { return settings_.peer_timeout * 2 / 3; }
    [[nodiscard]] bool silent(MemberId id) const;
    [[nodiscard]] std::optional<MemberId> standby() const;
    void maybe_claim();
    void begin_takeover();
    void step_down(const std::string &reason);
    void begin_switching(Switching::Kind kind, std::chrono::milliseconds patience);
    void advance_switching();
    void end_takeover();
    void end_handover();
    void end_switching();
    void count_heartbeat();

    // Clients.
    void post_all(RDND_EVENT event);
    void make_ready();
    void refresh_situation();

    [[nodiscard]] StateFrame own_state() const;
    [[nodiscard]] std::string name_of(MemberId id) const;
    [[nodiscard]] std::string describe_peer() const;
    void refuse(MemberId from, const std::string &why);
    void note_switchover(const std::string &what);
    void log(int level, const char *mnemonic, const std::string &text) { host_.log(level, mnemonic, text); }

    const PairSettings settings_;
    PairHost &host_;
    const Clock clock_;

    PairRoster roster_;
    PairOutbox outbox_;
    PairSync sync_{host_, outbox_};

    bool connected_ = false;
    PairTime joined_;
    PairTime last_tick_;
    std::optional<PairTime> last_announced_;
    bool announce_ = false;
    std::optional<PairTime> blocked_since_;

    // Signs of life.
    PairTime beat_counted_;
    std::map<MemberId, int> beats_without_; ///< own heartbeats delivered since a member's last frame

    // Quorum.
    bool quorate_ = false;
    bool quorum_known_ = false;
    std::set<std::uint32_t> quorum_nodes_;
    std::set<std::uint32_t> departed_; ///< nodes that are down and that the last answer still counts
    PairTime quorum_unknown_since_;

    // Role.
    rdnd_role role_ = RDND_ROLE_CANDIDATE;
    bool ready_ = false;      ///< the clients have been told that roles are known
    bool holds_ = false;      ///< the roster's master is this unit, and it goes by that
    bool renouncing_ = false; ///< this unit has stopped being master and the roster does not know yet
    PairTime master_since_;
    std::optional<PairTime> claimed_;
    std::optional<PairTime> vacant_since_;
    Switching switching_;
    std::string vacancy_;  ///< why there is no master
    bool planned_ = false; ///< the next takeover was told of beforehand

    // For operators.
    std::optional<LastSwitchover> last_switchover_;
    std::uint64_t refused_ = 0;
    std::optional<PairTime> refusal_logged_;
};

} // namespace platform
