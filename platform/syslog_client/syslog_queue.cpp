#include "syslog_client/syslog_queue.h"

#include "log/log_target.h"

#include <algorithm>
#include <iterator>
#include <syslog.h>

namespace platform
{

void SyslogQueue::push(int level, int dest, std::string line)
{
    const MutexLock lock(mutex_);
    const std::size_t reserved = dest == SYSLOG_DEST_DEBUG ? capacity_ / 8 : 0;
    if (lines_.size() >= capacity_ - reserved) {
        ++lost_;
        return;
    }
    lines_.push_back({level, std::move(line)});
    schedule();
}

void SyslogQueue::set_capacity(std::size_t lines)
{
    const MutexLock lock(mutex_);
    capacity_ = lines;
}

bool SyslogQueue::attach(kx_thread_master_t *master)
{
    const MutexLock lock(mutex_);
    if (kx_thread_add_event(master, on_master, this) == nullptr)
        return false;
    master_ = master;
    scheduled_ = true;
    return true;
}

void SyslogQueue::schedule()
{
    // A master that has ended refuses; the lines then wait for another one, or for the end of the process.
    if (master_ != nullptr && !scheduled_)
        scheduled_ = kx_thread_add_event(master_, on_master, this) != nullptr;
}

int SyslogQueue::on_master(kx_thread_t *thread)
{
    auto *queue = static_cast<SyslogQueue *>(kx_thread_arg(thread));
    queue->drain(batch_lines);
    const MutexLock lock(queue->mutex_);
    if (thread->master != queue->master_)
        return 0; // moved to another master, which has an event of its own
    queue->scheduled_ = false;
    if (!queue->lines_.empty())
        queue->schedule();
    return 0;
}

std::vector<SyslogQueue::Line> SyslogQueue::take(std::size_t limit)
{
    const MutexLock lock(mutex_);
    const auto count = static_cast<std::ptrdiff_t>(std::min(limit, lines_.size()));
    std::vector<Line> batch;
    batch.reserve(static_cast<std::size_t>(count) + 1);
    std::move(lines_.begin(), lines_.begin() + count, std::back_inserter(batch));
    lines_.erase(lines_.begin(), lines_.begin() + count);
    if (lines_.empty() && lost_ > 0) {
        const std::string text = std::to_string(lost_) + " lines lost, the queue of " +
                                 std::to_string(capacity_) + " lines was full";
        batch.push_back({LOG_WARNING, make_log_line(LOG_WARNING, "SYSLOG", "OVERFLOW", text)});
        lost_ = 0;
    }
    return batch;
}

std::size_t SyslogQueue::drain(std::size_t limit)
{
    const MutexLock lock(drain_mutex_);
    const std::vector<Line> batch = take(limit);
    for (const Line &line : batch)
        sink_(line.level, line.text);
    return batch.size();
}

} // namespace platform
