// The CLI service's one state: registered trees, readiness, the thread that serves it, the running configuration.
//
// cli.h's functions (service.cpp), consoles and their own commands work on it. Members belong to the service's thread
// unless they say otherwise.
#pragma once

#include "command.h"
#include "grammar.h"
#include "lock/mutex.h"
#include "matcher.h"
#include "mirror.h"
#include "running_config.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace cli
{

class Core
{
public:
    /// The process's service.
    static Core &instance();

    Core();
    Core(const Core &) = delete;
    Core &operator=(const Core &) = delete;

    // Trees. Any thread.

    [[nodiscard]] bool add(cli_attach_t attach, const struct_transtion *root, std::string_view name)
        PLATFORM_EXCLUDES(grammar_lock_);
    /// The trees as they are now; later additions do not change what is returned.
    [[nodiscard]] std::shared_ptr<const Grammar> grammar() const PLATFORM_EXCLUDES(grammar_lock_);
    [[nodiscard]] const InterfaceDirectory &interfaces() const { return interfaces_; }

    // The service's thread.

    /// The calling thread serves `master` from now on; what was posted and has not run yet runs there.
    void serve(std::string name, kx_thread_master_t *master) PLATFORM_EXCLUDES(post_lock_);
    [[nodiscard]] bool on_service_thread() const PLATFORM_EXCLUDES(post_lock_);
    [[nodiscard]] bool serving() const PLATFORM_EXCLUDES(post_lock_);
    /// Has `run` called on the service's thread, after what was posted before. Any thread.
    void post(std::function<void()> run) PLATFORM_EXCLUDES(post_lock_);

    // Threads that carry commands on. Any thread.

    void add_carrier(pthread_t tid, std::shared_ptr<cli_session_t> command) PLATFORM_EXCLUDES(carriers_lock_);
    void remove_carrier(pthread_t tid, const cli_session_t *command) PLATFORM_EXCLUDES(carriers_lock_);
    /// The command that the calling thread carries on, or nullptr.
    [[nodiscard]] std::shared_ptr<cli_session_t> carried_here() PLATFORM_EXCLUDES(carriers_lock_);

    // Readiness.

    [[nodiscard]] bool ready() const { return ready_; }
    /// What a daemon that is not ready is said to do, and what it waits for as far as that has been told.
    [[nodiscard]] std::string starting() const;
    /// See cli_client_awaits.
    void set_awaited(std::string what) { awaited_ = std::move(what); }
    /// See cli_client_ready.
    void set_ready();

    /// Offers names for the free word behind a keyword, in help and completion; `names` is called on the service's
    /// thread, as this function is. Replaces what was offered there before.
    void offer_names(std::string keyword, std::function<std::vector<std::string>()> names)
    {
        names_.insert_or_assign(std::move(keyword), std::move(names));
    }

    // Consoles.

    void add_console(const Console &console) { consoles_.push_back(&console); }
    void remove_console(const Console &console) { std::erase(consoles_, &console); }
    /// Owners of the other consoles that are in a configuration mode, in the order in which they came.
    [[nodiscard]] std::vector<std::string> others_configuring(const Console &asking) const;

    // Configuration.

    /// Collects the running configuration and keeps it.
    /// @param status_bit  CLI_PARSER_C2P or CLI_PARSER_C2P_REFORM
    [[nodiscard]] bool collect(int64_t status_bit);
    /// Collected anew.
    [[nodiscard]] std::string running_config(bool all);
    /// Has `run` called on the service's thread when no change of the configuration has been told of for a while, or
    /// that has been awaited long enough. What a command sets in the sampling service becomes part of the running
    /// configuration with the service's answer: saved at once, it would be missing.
    void when_settled(std::function<void()> run);
    /// How long a change counts as recent, also for those who wait already. For tests.
    void set_settle_time(std::chrono::milliseconds time);

    /// Writes the running configuration to the startup configuration's file.
    /// @return why that failed; empty on success
    [[nodiscard]] std::string save_config();
    /// Somebody changed the configuration. Any thread.
    void mark_changed();
    /// Whether the startup configuration, as it was read or written last, says what the running one says.
    [[nodiscard]] bool saved();
    /// Whether `text` is what the startup configuration says.
    [[nodiscard]] bool is_saved(std::string_view text) const;
    /// Makes the active unit's startup configuration this unit's own.
    void save_mirrored(const std::string &text);

    [[nodiscard]] ConfigMirror &mirror() { return mirror_; }
    [[nodiscard]] const std::string &client_name() const { return client_name_; }

private:
    static int run_posted(kx_thread_t *thread);
    static int on_settle_timer(kx_thread_t *thread);
    [[nodiscard]] std::chrono::milliseconds until_settled() const;
    bool await_settled() PLATFORM_EXCLUDES(post_lock_);
    void begin_settling();
    void run_settled();
    void apply_startup_config();

    InterfaceDirectory interfaces_;
    std::map<std::string, std::function<std::vector<std::string>()>, std::less<>> names_; ///< by keyword
    std::string client_name_;
    bool ready_ = false;
    std::string awaited_;
    bool startup_applied_ = false;
    std::vector<const Console *> consoles_;
    RunningConfig config_;
    ConfigMirror mirror_{*this};
    std::chrono::milliseconds settle_time_{1000};
    std::atomic<std::chrono::steady_clock::time_point> last_change_{std::chrono::steady_clock::time_point{}};
    std::chrono::steady_clock::time_point settle_deadline_; ///< valid while somebody waits
    std::vector<std::function<void()>> awaiting_settled_;
    std::string saved_config_;         ///< lines of the startup configuration without comments
    std::atomic<bool> changed_{false}; ///< since the two were last known to be the same

    mutable platform::Mutex grammar_lock_;
    std::shared_ptr<const Grammar> grammar_ PLATFORM_GUARDED_BY(grammar_lock_);

    mutable platform::Mutex post_lock_;
    kx_thread_master_t *master_ PLATFORM_GUARDED_BY(post_lock_) = nullptr;
    pthread_t thread_ PLATFORM_GUARDED_BY(post_lock_){};
    std::deque<std::function<void()>> posted_ PLATFORM_GUARDED_BY(post_lock_);
    bool run_armed_ PLATFORM_GUARDED_BY(post_lock_) = false;

    platform::Mutex carriers_lock_;
    std::map<pthread_t, std::shared_ptr<cli_session_t>> carriers_ PLATFORM_GUARDED_BY(carriers_lock_);
};

} // namespace cli
