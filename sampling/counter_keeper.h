// Keeps what the daemon exports growing: remembers every polled interface, and settles with the daemon what its base
// must be before it gets the next report.
//
// The daemon acknowledges no update. Its counter cache file, which it writes after each one and reads when it starts,
// tells instead. An update is sent when the base that the daemon has is not the one that is wanted; the wanted base is
// in the state file before the update leaves, and until the daemon's file shows it, the interface's reports wait. So
// whichever process is killed when, its successor finds out what is still missing:
//
// - a new process of the daemon has the bases of its file;
// - the same process as before has the base that was confirmed last; one that was sent and not confirmed is on its way,
//   or was never sent, which the file tells after a while.
//
// Runs on the event loop's thread; reads and writes two small files, sends nothing itself.
#pragma once

#include "counter_state.h"
#include "daemon_cache.h"
#include "event_loop.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>

namespace sampling
{

struct CounterOptions {
    std::string state_path;                               ///< of this service
    std::string cache_path;                               ///< of the daemon
    Clock::duration pause = std::chrono::milliseconds(5); ///< between looks for a confirmation
    /// How long the daemon may take to show an update. A base that it never shows counts as arrived when this
    /// connection sent it, as never sent when that was before.
    Clock::duration patience = std::chrono::seconds(10);
    std::size_t most_remembered = 16384;
};

class CounterKeeper
{
public:
    /// Tells whether there is an interface with this index now. Asked in the middle of the keeper's work: it must not
    /// come back to it.
    using Exists = std::function<bool(IFINDEX)>;

    CounterKeeper(Log &log, CounterOptions options, Exists exists);

    /// A connection to this process of the daemon has begun; 0: it is not known which.
    void connected(DaemonId daemon);
    /// The daemon begins to use an interface's counters, or does so again: it may have dropped its base.
    void reconsider(const CounterOrigin &origin, const std::string &name);
    /// An interface has gone, and the daemon's base with it.
    /// @param farewell  its last statistics, if the kernel told them
    void depart(const CounterOrigin &origin, const rtnl_link_stats64 *farewell);

    /// The daemon's cache file is read again when it is needed next.
    void cache_outdated() { cache_read_ = false; }
    /// Whether the daemon's base of the interface is known, so that a look can be settled: not while a confirmation is
    /// outstanding.
    [[nodiscard]] bool ready(const CounterOrigin &origin, const std::string &name, Clock::time_point now);

    struct Settlement {
        FieldWords report = {};
        /// What the daemon must add to its base. The report is void then and the interface not ready until the sum has
        /// been confirmed.
        std::optional<FieldWords> update;
    };
    /// Takes in a look at an interface that is ready. What comes of it may be sent after save().
    [[nodiscard]] Settlement settle(const std::string &name, const CounterLook &look);

    /// Writes what has changed to the state file.
    void save();

private:
    /// What is known of an interface since it was first seen by this process.
    struct Seen {
        std::optional<CounterSlot> slot; ///< nothing: not remembered yet
        // Since the connection began.
        std::optional<FieldWords> daemons_base;
        bool sent = false;     ///< the base that is not confirmed was sent on this connection
        bool doubtful = false; ///< the daemon may have dropped it meanwhile
        std::optional<Clock::time_point> deadline; ///< of the confirmation
    };

    [[nodiscard]] Seen &seen(const CounterOrigin &origin, const std::string &name);
    [[nodiscard]] std::optional<CounterSlot> find(const CounterOrigin &origin, const std::string &name) const;
    [[nodiscard]] CounterSlot add(const std::string &name, const CounterLook &look, const FieldWords &from);
    void rename(CounterSlot slot, const std::string &name);
    void make_room();
    [[nodiscard]] FieldWords cached_base(IFINDEX ifindex);
    [[nodiscard]] bool confirmed(Seen &seen, IFINDEX ifindex, Clock::time_point now);

    Log &log_;
    CounterOptions options_;
    Exists exists_;
    CounterStateFile file_;
    std::map<CounterSlot, RememberedCounters> slots_;
    std::set<CounterSlot> changed_;
    CounterSlot next_slot_ = 0;
    std::unordered_map<IFINDEX, Seen> seen_;
    DaemonCache cache_;
    bool cache_read_ = false;
    DaemonId daemon_ = 0;
};

} // namespace sampling
