// Answers the daemon's requests for counters, in slices between other work.
//
// Requests queue here and are answered in their order, a slice at a time, so that a burst of a thousand does not keep
// samples waiting. When many wait, one request to the kernel for all interfaces serves the whole queue. An interface
// that does not exist gets no answer: there are no counters to tell. A request for an interface whose base the daemon
// has not confirmed yet is put aside until it has.
#pragma once

#include "counter_keeper.h"
#include "event_loop.h"
#include "kernel_counters.h"

#include <deque>
#include <functional>
#include <vector>

namespace sampling
{

class CounterServer
{
public:
    /// Requests answered before others get their turn.
    static constexpr std::size_t slice = 32;
    /// Waiting requests from which on all interfaces are read at once.
    static constexpr std::size_t bulk = 16;

    /// Gives facts and, for interfaces that the backend makes up, counters of an interface. The facts stay until the
    /// next lookup, which may find out that interfaces have gone (depart).
    using LinkLookup = std::function<const Link *(IFINDEX)>;
    using OwnCounters = std::function<std::optional<rtnl_link_stats64>(IFINDEX)>;
    /// Takes each finished record, in order.
    using Send = std::function<void(const sflow_counter_ret_t &)>;

    CounterServer(EventLoop &loop, Log &log, CounterSource &source, const CounterOptions &options,
                  LinkLookup links, CounterKeeper::Exists exists, OwnCounters own, Send send);
    ~CounterServer();

    /// A connection to this process of the daemon has begun.
    void connected(DaemonId daemon) { keeper_.connected(daemon); }
    void request(const sflow_counter_t &request);
    /// The daemon begins, again perhaps, to use the interface's counters.
    void reconsider(IFINDEX ifindex);
    /// Drops all requests: their connection has gone.
    void clear();
    /// The interface has gone; `farewell` are its last statistics, or nullptr.
    void depart(IFINDEX ifindex, const rtnl_link_stats64 *farewell);

    /// Requests that have no answer yet.
    [[nodiscard]] std::size_t waiting() const { return waiting_.size() + held_.size(); }

private:
    void post_slice();
    void serve_slice();
    void serve(const sflow_counter_t &request);
    [[nodiscard]] std::optional<CounterLook> look(const sflow_counter_t &request, const Link *link);
    [[nodiscard]] std::optional<rtnl_link_stats64> read_link(IFINDEX ifindex);
    void answer(const sflow_counter_t &request, const Link *link,
                const CounterKeeper::Settlement &settlement);
    void await_confirmation();

    EventLoop &loop_;
    Log &log_;
    CounterSource &source_;
    LinkLookup links_;
    OwnCounters own_;
    Send send_;
    Clock::duration pause_;
    CounterKeeper keeper_;
    std::uint64_t boot_;
    std::uint64_t process_;
    std::deque<sflow_counter_t> waiting_;
    std::vector<sflow_counter_t> held_;         ///< until their interface's base is confirmed
    std::vector<sflow_counter_ret_t> outgoing_; ///< of this slice, until the keeper has saved
    CounterSource::LinkStats all_;              ///< read at once for the next `all_serves_` requests
    std::size_t all_serves_ = 0;
    EventLoop::TimerId confirmation_ = 0;
    Clock::duration delay_;
    bool posted_ = false;
};

} // namespace sampling
