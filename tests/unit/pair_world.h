// Units of a pair in a world of their own: a clock that stands still until a test moves it, and a group that delivers
// views and frames in one order to all members of a part, as a cluster engine does.
//
// Each unit has a client like the agent: a cache of numbers by interface that it sends in batches and keeps equal.
#pragma once

#include "redundancy/pair.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace pair_test
{

using platform::Bytes;
using platform::GroupView;
using platform::MemberId;
using std::chrono::milliseconds;

constexpr char CLIENT[] = "SFLOW_RDND";

/// A checkpoint message of the agent's shape.
Bytes record(std::uint32_t ifx, std::uint64_t in_octets, bool removed = false);
std::uint32_t record_ifx(const Bytes &message);
std::uint64_t record_octets(const Bytes &message);

class World;

class Unit final : public platform::PairHost
{
public:
    Unit(World &world, std::uint32_t node);

    // Host.
    bool post(const std::string &name, RDND_EVENT event, Bytes data) override;
    void log(int level, const char *mnemonic, const std::string &text) override;

    /// Role as others may rely on: none while the unit does not run beyond its lease.
    [[nodiscard]] bool is_master() const;
    [[nodiscard]] bool running() const { return pair != nullptr && !stopped; }
    [[nodiscard]] bool logged(const std::string &text) const;
    /// Events of the client so far without the messages, in short: "R V B W F S E"; forgets them.
    std::string take_events();
    /// What the operator is shown under a heading.
    [[nodiscard]] std::string shown(const std::string &heading) const;
    /// Counts `more` octets on an interface, as an update of the forwarding plane does.
    void count(std::uint32_t ifx, std::uint64_t more);
    void remove(std::uint32_t ifx);
    void send(const Bytes &message);

    World &world;
    MemberId id;
    std::unique_ptr<platform::Pair> pair;
    unsigned long version = 1;
    std::map<std::uint32_t, std::uint64_t> cache;
    bool can_backup = false;
    bool acknowledges = true; ///< reports the end of a switch-over step
    bool handles = true;      ///< deals with its events
    bool stopped = false;     ///< does not run; what arrives waits
    bool engine = true;       ///< its cluster engine runs
    bool blocked = false;     ///< the group takes no frame of it
    milliseconds latency{0};  ///< between a frame's sending and its delivery to everybody, itself included
    int part = 0;
    std::vector<std::string> logs;
    int results[3] = {0, 0, 0}; ///< enqueue's: OK, STOP, FAILED

private:
    friend class World;
    struct Posted {
        std::string name;
        RDND_EVENT event;
        Bytes data;
    };
    struct Quorum {
        bool quorate;
        std::vector<std::uint32_t> nodes;
    };
    struct Delivery {
        MemberId from;
        Bytes bytes;
    };
    struct Sent {
        platform::PairTime due;
        Bytes bytes;
    };
    void run_client();
    void handle(const Posted &posted);
    void receive();
    void note_result(int result);

    std::deque<Posted> posted_;
    std::deque<Sent> under_way_; ///< taken by the group; belongs to the part the unit is in when it is due
    std::deque<std::variant<GroupView, Quorum, Delivery>> inbox_;
    std::set<MemberId> known_;
    std::string events_;
    platform::PairTime last_ran_;
};

class World
{
public:
    /// Whether the units of a part have quorum; asked with the number of its nodes whose engine runs.
    using QuorumRule = bool (*)(const World &world, const std::set<std::uint32_t> &nodes);

    explicit World(int units = 2);

    Unit &unit(std::uint32_t node) { return *units_.at(node - 1); }
    /// Starts the unit's process, which joins the group.
    void start(std::uint32_t node);
    /// Ends the process.
    void kill(std::uint32_t node);
    /// The process stops running for a while, as after SIGSTOP.
    void stop(std::uint32_t node);
    void resume(std::uint32_t node);
    /// The unit's cluster engine ends, and is started again.
    void kill_engine(std::uint32_t node);
    void start_engine(std::uint32_t node);
    void split();
    void merge();
    void set_quorum_rule(QuorumRule rule);

    /// Moves the clock on in small steps and lets everything happen that is due.
    void run(milliseconds time);
    /// Runs until the condition holds; false when it does not within `most`.
    template <typename Condition>
    bool run_until(Condition condition, milliseconds most = milliseconds(10000))
    {
        for (milliseconds spent{0}; !condition(); spent += step) {
            if (spent >= most)
                return false;
            run(step);
        }
        return true;
    }

    /// A frame of any sender to every unit of its part.
    void inject(MemberId from, const Bytes &bytes, int part = 0);

    [[nodiscard]] std::vector<std::uint32_t> masters() const;
    [[nodiscard]] platform::PairTime now() const { return now_; }
    [[nodiscard]] milliseconds time() const
    {
        return std::chrono::duration_cast<milliseconds>(now_.time_since_epoch());
    }
    [[nodiscard]] const std::vector<std::unique_ptr<Unit>> &units() const { return units_; }
    /// Called after every step: what must hold at all times.
    void check_always();

    static constexpr milliseconds step{10};
    int third_vote = 0; ///< part that the third vote goes to
    /// How long after a change of the parts two masters may not know of each other yet.
    milliseconds two_masters_allowed{0};

private:
    void change_view(int part, const std::map<MemberId, GroupView::Cause> &left);
    void tell_quorum(int part);
    [[nodiscard]] std::set<MemberId> members_of(int part) const;
    [[nodiscard]] std::set<std::uint32_t> nodes_of(int part) const;
    bool send_frames();
    bool deliver_frames();

    platform::PairTime now_{std::chrono::hours(1)};
    std::vector<std::unique_ptr<Unit>> units_;
    std::map<int, std::set<MemberId>> views_;
    std::uint32_t next_pid_ = 100;
    QuorumRule quorum_rule_;
};

// Quorum rules.
bool every_part_has_quorum(const World &world, const std::set<std::uint32_t> &nodes);
/// Two nodes, or one with the third vote.
bool third_vote_decides(const World &world, const std::set<std::uint32_t> &nodes);
bool nobody_has_quorum(const World &world, const std::set<std::uint32_t> &nodes);
bool two_nodes_needed(const World &world, const std::set<std::uint32_t> &nodes);

} // namespace pair_test
