#include "counter_server.h"

#include "identity.h"
#include "records.h"

#include <algorithm>
#include <unistd.h>

namespace sampling
{

namespace
{

// How far the looks for a confirmation spread, in pauses.
constexpr int most_pauses = 40;

} // namespace

CounterServer::CounterServer(EventLoop &loop, Log &log, CounterSource &source, const CounterOptions &options,
                             LinkLookup links, CounterKeeper::Exists exists, OwnCounters own, Send send)
    : loop_(loop), log_(log), source_(source), links_(std::move(links)), own_(std::move(own)),
      send_(std::move(send)), pause_(options.pause), keeper_(log, options, std::move(exists)),
      boot_(boot_identity()), process_(process_identity(::getpid())), delay_(options.pause)
{
}

CounterServer::~CounterServer()
{
    loop_.cancel(confirmation_);
}

void CounterServer::post_slice()
{
    if (!waiting_.empty() && !std::exchange(posted_, true))
        loop_.post([this] { serve_slice(); });
}

void CounterServer::request(const sflow_counter_t &request)
{
    waiting_.push_back(request);
    post_slice();
}

void CounterServer::clear()
{
    waiting_.clear();
    held_.clear();
    all_.clear();
    all_serves_ = 0;
    loop_.cancel(std::exchange(confirmation_, 0));
}

void CounterServer::depart(IFINDEX ifindex, const rtnl_link_stats64 *farewell)
{
    all_.erase(ifindex);
    keeper_.depart({.instance = boot_, .ifindex = ifindex}, farewell);
}

void CounterServer::reconsider(IFINDEX ifindex)
{
    const Link *link = links_(ifindex);
    const bool own = own_(ifindex).has_value();
    if (link != nullptr)
        keeper_.reconsider({.instance = own ? process_ : boot_, .ifindex = ifindex}, link->name);
}

void CounterServer::serve_slice()
{
    posted_ = false;
    keeper_.cache_outdated();
    for (std::size_t i = 0; i < slice && !waiting_.empty(); ++i) {
        const sflow_counter_t request = waiting_.front();
        waiting_.pop_front();
        serve(request);
        if (all_serves_ != 0 && --all_serves_ == 0)
            all_.clear();
    }
    // first on record, then out: an update that nobody remembers having sent would be sent twice
    keeper_.save();
    for (const sflow_counter_ret_t &record : outgoing_)
        send_(record);
    outgoing_.clear();
    post_slice();
    await_confirmation();
}

void CounterServer::await_confirmation()
{
    if (held_.empty()) {
        delay_ = pause_;
        return;
    }
    if (confirmation_ != 0 || !waiting_.empty())
        return;
    confirmation_ = loop_.call_after(delay_, [this] {
        confirmation_ = 0;
        waiting_.insert(waiting_.end(), held_.begin(), held_.end());
        held_.clear();
        post_slice();
    });
    delay_ = std::min(delay_ * 2, pause_ * most_pauses);
}

std::optional<rtnl_link_stats64> CounterServer::read_link(IFINDEX ifindex)
{
    if (all_serves_ == 0 && waiting_.size() + 1 >= bulk) {
        all_ = source_.read_all_links();
        all_serves_ = waiting_.size() + 1;
    }
    const auto found = all_.find(ifindex);
    return found != all_.end() ? std::optional(found->second) : source_.read_link(ifindex);
}

std::optional<CounterLook> CounterServer::look(const sflow_counter_t &request, const Link *link)
{
    CounterLook look;
    if (const auto own = own_(request.ifx)) {
        look.origin = {.instance = process_, .ifindex = request.ifx};
        look.software = true;
        look.counters.link = *own;
        return look;
    }
    const auto counters = read_link(request.ifx);
    if (!counters)
        return std::nullopt;
    look.origin = {.instance = boot_, .ifindex = request.ifx};
    look.software = link != nullptr && !link->kind.empty();
    look.counters.link = *counters;
    look.counters.mac = source_.read_mac(request.ifx);
    return look;
}

void CounterServer::serve(const sflow_counter_t &request)
{
    // first of all: it may find that an interface has gone, which changes what is remembered
    const Link *link = links_(request.ifx);
    const std::string name = link != nullptr ? link->name : "#" + std::to_string(request.ifx);
    const std::uint64_t instance = own_(request.ifx) ? process_ : boot_;
    if (!keeper_.ready({.instance = instance, .ifindex = request.ifx}, name, Clock::now())) {
        held_.push_back(request);
        return;
    }
    const std::optional<CounterLook> seen = look(request, link);
    if (!seen) {
        log_.debug("interface #", request.ifx, ": counters: no such interface, the request stays unanswered");
        return;
    }
    answer(request, link, keeper_.settle(name, *seen));
}

void CounterServer::answer(const sflow_counter_t &request, const Link *link,
                           const CounterKeeper::Settlement &settlement)
{
    sflow_counter_ret_t record = {};
    if (settlement.update) {
        log_.info("interface ", link != nullptr ? link->name : "#" + std::to_string(request.ifx),
                  ": counters: the daemon lacks a part of what they had reached, it goes out as an update");
        record.head = head_of<sflow_counter_ret_t>(SFLOW_CMD_UPDATE_COUNTER);
        record.ifx = request.ifx;
        record.ifx_type = request.ifx_type;
        record.generic.ifIndex = request.ifx;
        put_words(record, *settlement.update);
        held_.push_back(request);
    } else {
        record = counter_report(request, link);
        put_words(record, settlement.report);
    }
    outgoing_.push_back(record);
}

} // namespace sampling
