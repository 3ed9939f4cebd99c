#include "command.h"

#include "core.h"

#include <algorithm>
#include <utility>

namespace
{

thread_local cli_session_t *current_command = nullptr;

} // namespace

using cli::Status;

cli_session_t::cli_session_t(cli::Core &core, cli::Console *console, Sink sink, Done done)
    : core_(core), console_(console), sink_(std::move(sink)), done_(std::move(done))
{
}

cli_session_t *cli_session_t::current()
{
    return current_command;
}

struct_command_data_block &cli_session_t::add_record(const struct_command_data_block &record)
{
    struct_command_data_block &own = records_.emplace_back(record);
    own.session = this;
    return own;
}

void cli_session_t::call(const std::function<void()> &body)
{
    cli_session_t *const outer = std::exchange(current_command, this);
    body();
    current_command = outer;
}

void cli_session_t::call(cli_handler_t handler, struct_command_data_block &record)
{
    call([&] { handler(&record); });
}

void cli_session_t::handlers_called()
{
    handlers_called_ = true;
    finish_if_done();
}

void cli_session_t::release()
{
    --holds_;
    finish_if_done();
}

void cli_session_t::abandon()
{
    console_ = nullptr;
    sink_ = nullptr;
    done_ = nullptr;
}

void cli_session_t::set_status(Status status)
{
    const platform::MutexLock guard(lock_);
    if (status_ == Status::ok)
        status_ = status;
}

void cli_session_t::fail()
{
    set_status(Status::failed);
    const platform::MutexLock guard(lock_);
    ++failures_;
}

unsigned cli_session_t::failures()
{
    const platform::MutexLock guard(lock_);
    return failures_;
}

bool cli_session_t::carried_on()
{
    const platform::MutexLock guard(lock_);
    return !carriers_.empty();
}

void cli_session_t::deliver(std::string_view text)
{
    if (!sink_)
        return;
    if (!filter_) {
        sink_(text);
        return;
    }
    const std::string passed = filter_->write(text);
    if (!passed.empty())
        sink_(passed);
}

void cli_session_t::drain()
{
    std::string text;
    {
        const platform::MutexLock guard(lock_);
        text.swap(queued_);
        drain_posted_ = false;
    }
    deliver(text);
}

void cli_session_t::write(std::string_view text)
{
    if (core_.on_service_thread()) {
        drain();
        deliver(text);
        return;
    }
    bool post = false;
    {
        const platform::MutexLock guard(lock_);
        if (queued_.size() + text.size() > cli::THREAD_OUTPUT_LIMIT) {
            status_ = Status::failed;
            return;
        }
        queued_ += text;
        post = !std::exchange(drain_posted_, true);
    }
    if (post)
        core_.post([self = shared_from_this()] { self->drain(); });
}

void cli_session_t::finish_if_done()
{
    if (!handlers_called_ || finished_ || holds_ > 0 || carried_on())
        return;
    finished_ = true;
    drain();
    if (filter_ && sink_)
        sink_(filter_->finish());
    Status status = Status::ok;
    {
        const platform::MutexLock guard(lock_);
        status = status_;
    }
    // What a thread has queued may still be on its way here when whom it was meant for is gone.
    const Done done = std::exchange(done_, nullptr);
    abandon();
    if (done)
        done(status);
}

void cli_session_t::thread_starts(pthread_t tid)
{
    const bool by_other = pthread_equal(tid, pthread_self()) == 0;
    {
        const platform::MutexLock guard(lock_);
        const auto same = [&](pthread_t other) { return pthread_equal(tid, other) != 0; };
        if (by_other) {
            // The thread can be through before the handler that created it announces it.
            const auto early = std::find_if(ended_early_.begin(), ended_early_.end(), same);
            if (early != ended_early_.end()) {
                ended_early_.erase(early);
                return;
            }
        }
        const auto known =
            std::find_if(carriers_.begin(), carriers_.end(), [&](const Carrier &c) { return same(c.tid); });
        if (known != carriers_.end()) {
            known->announced_by_other = known->announced_by_other || by_other;
            return;
        }
        carriers_.push_back({tid, by_other});
        core_.add_carrier(tid, shared_from_this());
    }
}

void cli_session_t::thread_ends(pthread_t tid)
{
    const std::shared_ptr<cli_session_t> self = shared_from_this();
    {
        const platform::MutexLock guard(lock_);
        const auto known = std::find_if(carriers_.begin(), carriers_.end(),
                                        [&](const Carrier &c) { return pthread_equal(c.tid, tid) != 0; });
        if (known == carriers_.end() || !known->announced_by_other)
            ended_early_.push_back(tid);
        if (known != carriers_.end())
            carriers_.erase(known);
        core_.remove_carrier(tid, this);
    }
    core_.post([self] { self->finish_if_done(); });
}
