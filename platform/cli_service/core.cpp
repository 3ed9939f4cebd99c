#include "core.h"

#include "config_file.h"
#include "console.h"
#include "lock/immortal.h"
#include "platform/lsm.h"
#include "platform/syslog_client.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

namespace cli
{
namespace
{

constexpr int log_warning = 4;
constexpr int log_notice = 5;
/// How many settle times somebody who waits for the configuration to settle is kept waiting at most.
constexpr int settle_patience = 5;

/// The operator's word for an interface: internal ones do not exist.
IFINDEX index_of(std::string_view name)
{
    const IFINDEX ifindex = lsm_if_get_index(std::string(name).c_str());
    return ifindex != 0 && (lsm_if_get_flags(ifindex) & LSM_IF_FLAG_INTERNAL) == 0 ? ifindex : 0;
}

std::vector<std::string> interface_names()
{
    std::vector<std::string> names;
    for (lsm_if_record_t &interface : lsm_if_walk())
        if ((interface.flags & (LSM_IF_FLAG_INTERNAL | LSM_IF_FLAG_TRANSIENT)) == 0)
            names.push_back(std::move(interface.name));
    return names;
}

std::vector<std::string> vrf_names()
{
    std::vector<std::string> names;
    for (lsm_if_record_t &interface : lsm_if_walk())
        if (interface.type == LSM_IF_TYPE_VRF && (interface.flags & LSM_IF_FLAG_INTERNAL) == 0)
            names.push_back(std::move(interface.name));
    return names;
}

std::string config_file_heading()
{
    std::array<char, 32> now{};
    const std::time_t seconds = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr ||
        std::strftime(now.data(), now.size(), "%Y-%m-%d %H:%M:%S", &local) == 0)
        now[0] = '\0';
    return "! Startup configuration of the sFlow agent " SFLOW_VERSION ", written " +
           std::string(now.data()) + "\n!\n";
}

std::string without_comments(std::string_view text)
{
    std::string lines;
    for_each_line(text, [&](int /*number*/, std::string_view line) {
        const std::size_t first = line.find_first_not_of(" \t");
        if (first != std::string_view::npos && line[first] != '!')
            lines.append(line).push_back('\n');
    });
    return lines;
}

/// What an operator would have read, in one line.
std::string one_line(std::string text)
{
    const std::size_t percent = text.find('%');
    text.erase(0, percent == std::string::npos ? 0 : percent);
    std::replace(text.begin(), text.end(), '\n', ' ');
    text.erase(text.find_last_not_of(' ') + 1);
    return text.empty() ? "the command failed" : text;
}

} // namespace

Core &Core::instance()
{
    static platform::Immortal<Core> core;
    return *core;
}

Core::Core()
    : interfaces_{.index_of = index_of,
                  .kinds_of = [](u_int32_t ifindex) -> u_int64_t { return lsm_if_get_kind_mask(ifindex); },
                  .names = interface_names,
                  .named_behind =
                      [this](std::string_view keyword) {
                          const auto names = names_.find(keyword);
                          return names == names_.end() ? std::vector<std::string>() : names->second();
                      }},
      names_{{"vrf", vrf_names}}, grammar_(std::make_shared<const Grammar>())
{
}

bool Core::add(cli_attach_t attach, const struct_transtion *root, std::string_view name)
{
    const platform::MutexLock guard(grammar_lock_);
    auto next = std::make_shared<Grammar>(*grammar_);
    if (!next->add(attach, root, name))
        return false;
    grammar_ = std::move(next);
    return true;
}

std::shared_ptr<const Grammar> Core::grammar() const
{
    const platform::MutexLock guard(grammar_lock_);
    return grammar_;
}

void Core::serve(std::string name, kx_thread_master_t *master)
{
    client_name_ = std::move(name);
    ready_ = false;
    const platform::MutexLock guard(post_lock_);
    master_ = master;
    thread_ = pthread_self();
    run_armed_ = !posted_.empty() && kx_thread_add_event(master_, run_posted, this) != nullptr;
    if (!awaiting_settled_.empty()) // the timer was the old master's
        kx_thread_add_event(master_, on_settle_timer, this);
}

bool Core::serving() const
{
    const platform::MutexLock guard(post_lock_);
    return master_ != nullptr;
}

bool Core::on_service_thread() const
{
    const platform::MutexLock guard(post_lock_);
    return master_ != nullptr && pthread_equal(thread_, pthread_self()) != 0;
}

void Core::post(std::function<void()> run)
{
    const platform::MutexLock guard(post_lock_);
    posted_.push_back(std::move(run));
    if (!run_armed_ && master_ != nullptr)
        run_armed_ = kx_thread_add_event(master_, run_posted, this) != nullptr;
}

int Core::run_posted(kx_thread_t *thread)
{
    Core &core = *static_cast<Core *>(kx_thread_arg(thread));
    std::deque<std::function<void()>> batch;
    {
        const platform::MutexLock guard(core.post_lock_);
        batch.swap(core.posted_);
        core.run_armed_ = false;
    }
    for (const std::function<void()> &run : batch)
        run();
    return 0;
}

void Core::add_carrier(pthread_t tid, std::shared_ptr<cli_session_t> command)
{
    const platform::MutexLock guard(carriers_lock_);
    carriers_[tid] = std::move(command);
}

void Core::remove_carrier(pthread_t tid, const cli_session_t *command)
{
    std::shared_ptr<cli_session_t> removed; // released outside the lock
    const platform::MutexLock guard(carriers_lock_);
    const auto found = carriers_.find(tid);
    if (found == carriers_.end() || found->second.get() != command)
        return;
    removed = std::move(found->second);
    carriers_.erase(found);
}

std::shared_ptr<cli_session_t> Core::carried_here()
{
    const platform::MutexLock guard(carriers_lock_);
    const auto found = carriers_.find(pthread_self());
    return found == carriers_.end() ? nullptr : found->second;
}

std::vector<std::string> Core::others_configuring(const Console &asking) const
{
    std::vector<std::string> owners;
    for (const Console *const console : consoles_)
        if (console != &asking && console->mode() != Mode::exec && !console->owner().empty())
            owners.push_back(console->owner());
    return owners;
}

bool Core::collect(int64_t status_bit)
{
    RunningConfig config;
    const auto pass = std::make_shared<cli_session_t>(*this, nullptr, nullptr, nullptr);
    pass->collect_into(&config);
    struct_command_data_block record{};
    record.parser_status = status_bit;
    struct_command_data_block &own = pass->add_record(record);
    bool complete = false;
    pass->call([&] { complete = collect_config(*grammar(), own, config); });
    config_ = std::move(config);
    return complete;
}

std::string Core::running_config(bool all)
{
    if (!collect(CLI_PARSER_C2P))
        printk_syslog_ext(log_warning, "CLI", "RUNNING_CONFIG", SYSLOG_DEST_OPERATOR,
                          "a command tree of %s could not be walked: the running configuration is incomplete",
                          client_name_.c_str());
    return config_.text(all);
}

void Core::mark_changed()
{
    changed_.store(true, std::memory_order_relaxed);
    last_change_.store(std::chrono::steady_clock::now(), std::memory_order_relaxed);
    mirror_.changed();
}

std::chrono::milliseconds Core::until_settled() const
{
    using std::chrono::milliseconds;
    const auto now = std::chrono::steady_clock::now();
    const auto quiet_at = last_change_.load(std::memory_order_relaxed) + settle_time_;
    const auto wait = std::min(quiet_at, settle_deadline_) - now;
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(wait));
}

// False when there is nothing to wait for, or no loop to wait in.
bool Core::await_settled()
{
    const std::chrono::milliseconds wait = until_settled();
    const platform::MutexLock guard(post_lock_);
    return wait.count() > 0 && kx_thread_add_timer_msec(master_, on_settle_timer, this,
                                                        static_cast<long>(wait.count())) != nullptr;
}

void Core::run_settled()
{
    const std::vector<std::function<void()>> due = std::exchange(awaiting_settled_, {});
    for (const std::function<void()> &run : due)
        run();
}

int Core::on_settle_timer(kx_thread_t *thread)
{
    Core &core = *static_cast<Core *>(kx_thread_arg(thread));
    if (!core.await_settled())
        core.run_settled();
    return 0;
}

void Core::when_settled(std::function<void()> run)
{
    awaiting_settled_.push_back(std::move(run));
    if (awaiting_settled_.size() == 1)
        begin_settling();
}

void Core::set_settle_time(std::chrono::milliseconds time)
{
    settle_time_ = time;
    if (!awaiting_settled_.empty())
        begin_settling(); // the timer that is armed finds nobody any more
}

void Core::begin_settling()
{
    settle_deadline_ = std::chrono::steady_clock::now() + settle_patience * settle_time_;
    if (!await_settled())
        run_settled();
}

std::string Core::save_config()
{
    // What changes while the file is written counts as not saved.
    changed_.store(false, std::memory_order_relaxed);
    const std::string text = running_config(false);
    std::string error = write_config_file(startup_config_path(), config_file_heading() + text);
    if (error.empty())
        saved_config_ = without_comments(text);
    else
        mark_changed();
    mirror_.saved();
    return error;
}

bool Core::is_saved(std::string_view text) const
{
    return !saved_config_.empty() && without_comments(text) == saved_config_;
}

void Core::save_mirrored(const std::string &text)
{
    if (is_saved(text))
        return;
    const std::string error = write_config_file(startup_config_path(), config_file_heading() + text);
    if (error.empty())
        saved_config_ = without_comments(text);
    else
        printk_syslog_ext(log_warning, "CLI", "MIRROR", SYSLOG_DEST_OPERATOR,
                          "the active unit's startup configuration could not be saved here: %s",
                          error.c_str());
}

bool Core::saved()
{
    if (!changed_.exchange(false, std::memory_order_relaxed))
        return true;
    const bool same = without_comments(running_config(false)) == saved_config_;
    if (!same)
        mark_changed();
    return same;
}

std::string Core::starting() const
{
    return awaited_.empty() ? "sflowd is starting" : "sflowd is starting: it waits for " + awaited_;
}

void Core::set_ready()
{
    if (ready_)
        return;
    // Opened first: the configuration's lines need it. Sessions get their turn when all lines have been run.
    ready_ = true;
    if (!std::exchange(startup_applied_, true))
        apply_startup_config();
    mirror_.ready();
}

void Core::apply_startup_config()
{
    const std::string path = startup_config_path();
    const ConfigText file = read_config_file(path);
    if (!file.text) {
        if (!file.missing)
            printk_syslog_ext(log_warning, "CLI", "STARTUP_CONFIG", SYSLOG_DEST_OPERATOR,
                              "%s, the startup configuration is not applied", file.error.c_str());
        return;
    }
    saved_config_ = without_comments(*file.text);
    mark_changed();
    Console console(*this, Level::privileged, Mode::config);
    console.set_internal();
    int lines = 0;
    int failed = 0;
    for_each_line(*file.text, [&](int number, std::string_view line) {
        std::string said;
        Status status = Status::refused;
        if (line.size() > LINE_LIMIT || console.busy())
            said = line.size() > LINE_LIMIT ? "the line is too long" : "the line before has not ended";
        else
            console.run(
                line, 0, [&](std::string_view text) { said += text; }, [&](Status s) { status = s; });
        ++lines;
        if (status == Status::ok)
            return;
        ++failed;
        printk_syslog_ext(log_warning, "CLI", "STARTUP_CONFIG", SYSLOG_DEST_OPERATOR,
                          "%s line %d: \"%s\": %s", path.c_str(), number,
                          std::string(line.substr(0, LINE_LIMIT)).c_str(), one_line(std::move(said)).c_str());
    });
    printk_syslog_ext(log_notice, "CLI", "STARTUP_CONFIG", SYSLOG_DEST_OPERATOR,
                      "%s applied: %d lines, %d failed", path.c_str(), lines, failed);
}

} // namespace cli
