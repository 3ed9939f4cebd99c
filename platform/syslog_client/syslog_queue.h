// The syslog client's queue: bounded, filled by any thread, written out in order by one at a time.
//
// Never waits for the log while its lock is held: lines are taken out in batches and written without it.
#pragma once

#include "lock/mutex.h"

#include "platform/kx_thread.h"
#include "platform/syslog_client.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace platform
{

class SyslogQueue
{
public:
    /// Writes one line; may wait. Called by one thread at a time.
    using Sink = std::function<void(int level, const std::string &line)>;

    static constexpr std::size_t default_capacity = 2048;
    /// Lines written out in one turn, so that the master's other tasks get theirs.
    static constexpr std::size_t batch_lines = 64;

    explicit SyslogQueue(Sink sink) : sink_(std::move(sink)) {}

    /// Queues a line, or counts it as lost. The last eighth of the capacity is not open to SYSLOG_DEST_DEBUG.
    void push(int level, int dest, std::string line);

    void set_capacity(std::size_t lines);

    /// Writes the queue out on `master` from now on; false when the master refuses.
    [[nodiscard]] bool attach(kx_thread_master_t *master);

    /// Writes at most `limit` lines in the calling thread. Once the queue is empty the number of lost lines follows
    /// in a line of its own. Returns the number of lines written.
    std::size_t drain(std::size_t limit);

private:
    struct Line {
        int level;
        std::string text;
    };

    static int on_master(kx_thread_t *thread);
    std::vector<Line> take(std::size_t limit) PLATFORM_EXCLUDES(mutex_);
    void schedule() PLATFORM_REQUIRES(mutex_);

    Sink sink_ PLATFORM_GUARDED_BY(drain_mutex_);
    Mutex drain_mutex_; ///< keeps the order of lines when the exiting thread drains too; taken before mutex_
    Mutex mutex_;
    std::deque<Line> lines_ PLATFORM_GUARDED_BY(mutex_);
    std::size_t capacity_ PLATFORM_GUARDED_BY(mutex_) = default_capacity;
    std::size_t lost_ PLATFORM_GUARDED_BY(mutex_) = 0;
    kx_thread_master_t *master_ PLATFORM_GUARDED_BY(mutex_) = nullptr;
    bool scheduled_ PLATFORM_GUARDED_BY(mutex_) = false;
};

} // namespace platform
