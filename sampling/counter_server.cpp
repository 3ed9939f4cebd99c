#include "counter_server.h"

#include "records.h"

namespace sampling
{

CounterServer::CounterServer(EventLoop &loop, Log &log, CounterSource &source, LinkLookup links,
                             OwnCounters own, Send send)
    : loop_(loop), log_(log), source_(source), links_(std::move(links)), own_(std::move(own)),
      send_(std::move(send))
{
}

void CounterServer::request(const sflow_counter_t &request)
{
    waiting_.push_back(request);
    if (!std::exchange(posted_, true))
        loop_.post([this] { serve_slice(); });
}

void CounterServer::clear()
{
    waiting_.clear();
    all_.clear();
    all_serves_ = 0;
}

void CounterServer::serve_slice()
{
    posted_ = false;
    for (std::size_t i = 0; i < slice && !waiting_.empty(); ++i) {
        if (all_serves_ == 0 && waiting_.size() >= bulk) {
            all_ = source_.read_all_links();
            all_serves_ = waiting_.size();
        }
        const sflow_counter_t request = waiting_.front();
        waiting_.pop_front();
        serve(request);
        if (all_serves_ != 0 && --all_serves_ == 0)
            all_.clear();
    }
    if (!waiting_.empty() && !std::exchange(posted_, true))
        loop_.post([this] { serve_slice(); });
}

std::optional<LinkCounters> CounterServer::read(IFINDEX ifindex)
{
    LinkCounters counters;
    if (const auto own = own_(ifindex)) {
        counters.link = *own;
        return counters;
    }
    if (const auto found = all_.find(ifindex); found != all_.end()) {
        counters.link = found->second;
    } else {
        const auto link = source_.read_link(ifindex);
        if (!link)
            return std::nullopt;
        counters.link = *link;
    }
    counters.mac = source_.read_mac(ifindex);
    return counters;
}

void CounterServer::serve(const sflow_counter_t &request)
{
    const std::optional<LinkCounters> counters = read(request.ifx);
    if (!counters) {
        log_.debug("interface #", request.ifx, ": counters: no such interface, the request stays unanswered");
        return;
    }
    const sflow_counter_ret_t report = counter_report(request, links_(request.ifx), *counters);
    if (const auto update = history_.compare(report, *counters)) {
        log_.info("interface #", request.ifx, ": counters: the kernel started them again",
                  ", the lost part goes out as an update");
        send_(*update);
    }
    send_(report);
}

} // namespace sampling
