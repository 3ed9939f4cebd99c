#include "event_loop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/epoll.h>
#include <system_error>

namespace sampling
{

namespace
{

[[noreturn]] void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

EventLoop::EventLoop() : epoll_(::epoll_create1(EPOLL_CLOEXEC))
{
    if (!epoll_)
        fail("event loop: epoll_create1");
}

void EventLoop::add(int fd, std::uint32_t events, IoHandler handler)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        fail("event loop: epoll_ctl");
    handlers_[fd] = std::make_shared<IoHandler>(std::move(handler));
}

void EventLoop::modify(int fd, std::uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    if (handlers_.contains(fd) && ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event) != 0)
        fail("event loop: epoll_ctl");
}

void EventLoop::remove(int fd)
{
    if (handlers_.erase(fd) != 0)
        ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
}

EventLoop::TimerId EventLoop::call_at(Clock::time_point when, Task task)
{
    const TimerId id = next_timer_++;
    timers_.emplace(when, std::pair{id, std::move(task)});
    return id;
}

void EventLoop::cancel(TimerId id)
{
    const auto timer = std::find_if(timers_.begin(), timers_.end(),
                                    [id](const auto &entry) { return entry.second.first == id; });
    if (timer != timers_.end())
        timers_.erase(timer);
}

void EventLoop::post(Task task)
{
    posted_.push_back(std::move(task));
}

int EventLoop::wait_ms(Clock::duration max_wait) const
{
    if (!posted_.empty())
        return 0;
    Clock::duration wait = max_wait;
    if (!timers_.empty())
        wait = std::min(wait, timers_.begin()->first - Clock::now());
    // rounded up: waking before the timer is due would spin
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    return static_cast<int>(std::clamp<decltype(ms)>(ms, 0, 60'000));
}

void EventLoop::run_timers()
{
    const auto now = Clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        auto due = timers_.extract(timers_.begin());
        due.mapped().second();
    }
}

void EventLoop::run_posted()
{
    std::vector<Task> round;
    round.swap(posted_);
    for (Task &task : round)
        task();
}

void EventLoop::run_once(Clock::duration max_wait)
{
    std::array<epoll_event, 32> events = {};
    const int count =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), wait_ms(max_wait));
    if (count < 0 && errno != EINTR)
        fail("event loop: epoll_wait");
    for (int i = 0; i < count; ++i) {
        const epoll_event &event = events[static_cast<std::size_t>(i)];
        const auto found = handlers_.find(event.data.fd);
        if (found == handlers_.end())
            continue;
        // kept alive here: a handler may remove itself
        const std::shared_ptr<IoHandler> handler = found->second;
        (*handler)(event.events);
    }
    run_timers();
    run_posted();
}

void EventLoop::run()
{
    running_ = true;
    while (running_)
        run_once(std::chrono::hours(1));
}

} // namespace sampling
