// One command in progress: its record, where its output goes, and the threads that carry it on.
//
// A command belongs to the service's thread. Other threads reach it through its record (cli_printf and the
// cli_proc_thread_ functions): they append to a bounded queue and have the service's thread deliver it.
#pragma once

#include "lock/mutex.h"
#include "modifier.h"
#include "platform/cli.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <pthread.h>
#include <string>
#include <string_view>
#include <vector>

namespace cli
{

class Console;
class Core;
class RunningConfig;

enum class Status {
    ok,
    failed,    ///< the handler marked it failed
    refused,   ///< not a command
    not_ready, ///< the daemon does not take configuration yet
    cancelled, ///< the operator did not wait for its end
};

/// Output of threads that waits for the service's thread, in bytes; what exceeds it is lost and the command fails.
constexpr std::size_t THREAD_OUTPUT_LIMIT = 4U << 20;

} // namespace cli

struct cli_session_t : std::enable_shared_from_this<cli_session_t> {
public:
    using Sink = std::function<void(std::string_view text)>;
    using Done = std::function<void(cli::Status status)>;

    /// @param console  whose command this is; nullptr for one that nobody typed
    /// @param sink     called on the service's thread only
    /// @param done     called there once, when the handler has returned and every thread has ended; may be empty
    cli_session_t(cli::Core &core, cli::Console *console, Sink sink, Done done);

    // On the service's thread.

    /// A copy of `record` that belongs to this command and stays until the command is gone.
    struct_command_data_block &add_record(const struct_command_data_block &record);
    void filter(cli::Modifier modifier) { filter_.emplace(std::move(modifier)); }
    /// Calls a handler; cli_printf on this thread goes to this command meanwhile.
    void call(cli_handler_t handler, struct_command_data_block &record);
    /// The same for any body of code.
    void call(const std::function<void()> &body);
    /// The command goes on without a thread; released as many times as it is held.
    void hold() { ++holds_; }
    void release();
    /// Every handler has been called: the command is done when no thread carries it on.
    void handlers_called() PLATFORM_EXCLUDES(lock_);
    /// Nobody waits any more: output is dropped, `done` is not called.
    void abandon();
    [[nodiscard]] cli::Console *console() const { return console_; }
    /// The first status that is not ok stays.
    void set_status(cli::Status status) PLATFORM_EXCLUDES(lock_);
    /// Where c2p_printf adds its lines; nullptr outside a c2p pass.
    void collect_into(cli::RunningConfig *config) { config_ = config; }
    [[nodiscard]] cli::RunningConfig *config() const { return config_; }
    /// Whether the command waits for threads.
    [[nodiscard]] bool carried_on() PLATFORM_EXCLUDES(lock_);

    // Any thread.

    void write(std::string_view text) PLATFORM_EXCLUDES(lock_);
    void fail() PLATFORM_EXCLUDES(lock_);
    /// How often fail() was called.
    [[nodiscard]] unsigned failures() PLATFORM_EXCLUDES(lock_);
    void thread_starts(pthread_t tid) PLATFORM_EXCLUDES(lock_);
    void thread_ends(pthread_t tid) PLATFORM_EXCLUDES(lock_);
    [[nodiscard]] cli::Core &core() const { return core_; }

    /// The command whose handler runs on the calling thread; nullptr outside handlers.
    [[nodiscard]] static cli_session_t *current();

private:
    struct Carrier {
        pthread_t tid;
        bool announced_by_other; ///< cli_proc_thread_start was called for it by another thread
    };

    void deliver(std::string_view text);
    void drain() PLATFORM_EXCLUDES(lock_);
    void finish_if_done() PLATFORM_EXCLUDES(lock_);

    cli::Core &core_;
    cli::Console *console_;
    Sink sink_;
    Done done_;
    std::deque<struct_command_data_block> records_;
    std::optional<cli::LineFilter> filter_;
    cli::RunningConfig *config_ = nullptr;
    int holds_ = 0;
    bool handlers_called_ = false;
    bool finished_ = false;

    platform::Mutex lock_;
    cli::Status status_ PLATFORM_GUARDED_BY(lock_) = cli::Status::ok;
    unsigned failures_ PLATFORM_GUARDED_BY(lock_) = 0;
    std::string queued_ PLATFORM_GUARDED_BY(lock_);
    bool drain_posted_ PLATFORM_GUARDED_BY(lock_) = false;
    std::vector<Carrier> carriers_ PLATFORM_GUARDED_BY(lock_);
    /// Threads that ended before the handler announced them.
    std::vector<pthread_t> ended_early_ PLATFORM_GUARDED_BY(lock_);
};
