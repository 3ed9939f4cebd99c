// Answers the daemon's requests for counters, in slices between other work.
//
// Requests queue here and are answered in their order, a slice at a time, so that a burst of a thousand does not keep
// samples waiting. When many wait, one request to the kernel for all interfaces serves the whole queue. An interface
// that does not exist gets no answer: there are no counters to tell.
#pragma once

#include "event_loop.h"
#include "kernel_counters.h"

#include <deque>
#include <functional>

namespace sampling
{

class CounterServer
{
public:
    /// Requests answered before others get their turn.
    static constexpr std::size_t slice = 32;
    /// Waiting requests from which on all interfaces are read at once.
    static constexpr std::size_t bulk = 16;

    /// Gives facts and, for interfaces that the backend makes up, counters of an interface.
    using LinkLookup = std::function<const Link *(IFINDEX)>;
    using OwnCounters = std::function<std::optional<rtnl_link_stats64>(IFINDEX)>;
    /// Takes each finished record, in order.
    using Send = std::function<void(const sflow_counter_ret_t &)>;

    CounterServer(EventLoop &loop, Log &log, CounterSource &source, LinkLookup links, OwnCounters own,
                  Send send);

    void request(const sflow_counter_t &request);
    /// Drops all waiting requests: their connection has gone.
    void clear();
    void forget_interface(IFINDEX ifindex) { history_.forget(ifindex); }

    [[nodiscard]] std::size_t waiting() const { return waiting_.size(); }

private:
    void serve_slice();
    void serve(const sflow_counter_t &request);
    [[nodiscard]] std::optional<LinkCounters> read(IFINDEX ifindex);

    EventLoop &loop_;
    Log &log_;
    CounterSource &source_;
    LinkLookup links_;
    OwnCounters own_;
    Send send_;
    std::deque<sflow_counter_t> waiting_;
    CounterSource::LinkStats all_; ///< read at once for the next `all_serves_` requests
    std::size_t all_serves_ = 0;
    CounterHistory history_;
    bool posted_ = false;
};

} // namespace sampling
