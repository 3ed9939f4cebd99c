// The event loop of the sampling service: descriptors, timers and deferred work on one thread.
//
// A thin layer over epoll. Handlers run one at a time and must return soon: whoever has much to do works in slices
// and comes back through post() or through the level-triggered readiness of its descriptor. Never used from another
// thread.
#pragma once

#include "unique_fd.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

namespace sampling
{

using Clock = std::chrono::steady_clock;

class EventLoop
{
public:
    using IoHandler = std::function<void(std::uint32_t events)>;
    using Task = std::function<void()>;
    /// Names a timer; 0 names none.
    using TimerId = std::uint64_t;

    /// Throws std::system_error when the kernel gives no epoll instance.
    EventLoop();

    /// Watches `fd` (not owned) for `events` (EPOLLIN, EPOLLOUT; level-triggered). Throws std::system_error.
    void add(int fd, std::uint32_t events, IoHandler handler);
    /// Changes the events of a watched descriptor; 0 leaves it registered but silent.
    void modify(int fd, std::uint32_t events);
    /// Stops watching; call before closing the descriptor. Unknown descriptors are ignored.
    void remove(int fd);

    /// Runs `task` once, at or after `when`.
    TimerId call_at(Clock::time_point when, Task task);
    TimerId call_after(Clock::duration delay, Task task)
    {
        return call_at(Clock::now() + delay, std::move(task));
    }
    /// A timer that ran, was cancelled or is 0 is ignored.
    void cancel(TimerId id);

    /// Runs `task` in the next round, after descriptors that are ready have had their turn.
    void post(Task task);

    /// Serves until stop().
    void run();
    /// Waits for at most `max_wait` and serves what is due. One round of run().
    void run_once(Clock::duration max_wait);
    void stop() { running_ = false; }

private:
    void run_timers();
    void run_posted();
    [[nodiscard]] int wait_ms(Clock::duration max_wait) const;

    UniqueFd epoll_;
    std::unordered_map<int, std::shared_ptr<IoHandler>> handlers_;
    std::multimap<Clock::time_point, std::pair<TimerId, Task>> timers_;
    std::vector<Task> posted_;
    TimerId next_timer_ = 1;
    bool running_ = false;
};

} // namespace sampling
