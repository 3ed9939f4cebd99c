// Tech-support collection.
//
// The collecting thread visits the modules one after another: it opens a report, posts an event to the module's
// thread master and waits. The module's thread finds the report by its number, remembers it in a thread-local while
// it writes, and closes it; a report that the collector gave up on is no longer found or takes no more text.

#include "platform/tech.h"

#include "lock/immortal.h"
#include "lock/mutex.h"
#include "tech_support/tech_registry.h"

#include "platform/zformat.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace
{

using platform::Mutex;
using platform::MutexLock;
using platform::TechProvider;
using platform::TechSnapshot;

/// One module's part of a collection, shared by the collecting thread and the module's.
class Report
{
public:
    Report(const tech_sink_t &sink, TechProvider provider, tech_event event, const TechSnapshot &snapshot)
        : provider_(std::move(provider)), event_(event), status_(snapshot.status), hooks_(snapshot.hooks),
          sink_(&sink)
    {
    }

    void write(std::string_view text)
    {
        const MutexLock lock(mutex_);
        if (sink_ != nullptr)
            (*sink_)(text);
    }

    void complete()
    {
        const MutexLock lock(mutex_);
        completed_ = true;
        sink_ = nullptr;
        changed_.notify_all();
    }

    /// Waits for complete(); after it, and after giving up, nothing reaches the sink any more.
    bool wait_and_close(std::chrono::milliseconds patience)
    {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        const MutexLock lock(mutex_);
        while (!completed_ && changed_.wait_until(mutex_, deadline) != std::cv_status::timeout) {
        }
        sink_ = nullptr;
        return completed_;
    }

    [[nodiscard]] bool is_open()
    {
        const MutexLock lock(mutex_);
        return sink_ != nullptr;
    }

    void write_status()
    {
        if (status_ == nullptr)
            return;
        if (hooks_)
            hooks_->capture(status_, [this](std::string_view text) { write(text); });
        else
            write("status: not available, no command-line service\n");
    }

    void call_module() const { provider_.callback(event_, nullptr); }

private:
    const TechProvider provider_;
    const tech_event event_;
    const tech_status_func_t status_;
    const std::optional<tech_cli_hooks_t> hooks_;
    Mutex mutex_;
    std::condition_variable_any changed_;
    const tech_sink_t *sink_ PLATFORM_GUARDED_BY(mutex_); ///< the collector's; null once closed
    bool completed_ PLATFORM_GUARDED_BY(mutex_) = false;
};

/// The report that this thread is writing: from the module's event until its completion.
thread_local std::shared_ptr<Report> current_report;

/// Reports by number. A task on a master carries the number, which stays harmless when the report is gone.
class Reports
{
public:
    std::uintptr_t add(std::shared_ptr<Report> report)
    {
        const MutexLock lock(mutex_);
        reports_.emplace(++last_, std::move(report));
        return last_;
    }

    std::shared_ptr<Report> find(std::uintptr_t number)
    {
        const MutexLock lock(mutex_);
        const auto found = reports_.find(number);
        return found != reports_.end() ? found->second : nullptr;
    }

    void remove(std::uintptr_t number)
    {
        const MutexLock lock(mutex_);
        reports_.erase(number);
    }

    std::atomic_flag collecting; ///< set while the one collection that may run does

private:
    Mutex mutex_;
    std::uintptr_t last_ PLATFORM_GUARDED_BY(mutex_) = 0;
    std::map<std::uintptr_t, std::shared_ptr<Report>> reports_ PLATFORM_GUARDED_BY(mutex_);
};

Reports &reports()
{
    static const platform::Immortal<Reports> instance;
    return *instance;
}

int write_report(kx_thread_t *thread)
{
    const auto report = reports().find(reinterpret_cast<std::uintptr_t>(kx_thread_arg(thread)));
    if (!report || !report->is_open())
        return 0;
    report->write_status();
    current_report = report;
    report->call_module();
    return 0;
}

/// Tells a module how its part ended; nobody waits for it.
template <tech_event Event>
int tell(kx_thread_t *thread)
{
    const auto callback = reinterpret_cast<tech_callback_t>(kx_thread_arg(thread));
    callback(Event, nullptr);
    return 0;
}

/// Which events a collection uses, and whether there is room for more of it.
struct Depth {
    tech_event report;
    kx_thread_func_t completed;
    kx_thread_func_t no_space;
    std::function<bool()> has_room;
};

bool collect_module(const tech_sink_t &sink, const TechProvider &provider, const TechSnapshot &snapshot,
                    std::chrono::milliseconds patience, const Depth &depth)
{
    const auto report = std::make_shared<Report>(sink, provider, depth.report, snapshot);
    const std::uintptr_t number = reports().add(report);
    const bool posted =
        kx_thread_add_event(provider.master, write_report, reinterpret_cast<void *>(number)) != nullptr;
    const bool answered = posted && report->wait_and_close(patience);
    reports().remove(number);
    if (!answered) {
        sink(provider.name +
             (posted ? ": no complete report within " + std::to_string(patience.count()) + " ms\n"
                     : ": no report, its thread has ended\n"));
    }
    if (posted)
        kx_thread_add_event(provider.master, depth.has_room() ? depth.completed : depth.no_space,
                            reinterpret_cast<void *>(provider.callback));
    return answered;
}

void collect_file(const tech_sink_t &sink, const std::string &path)
{
    const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "re"),
                                                                  &std::fclose);
    if (!file) {
        sink("----- " + path + ": " + std::strerror(errno) + " -----\n");
        return;
    }
    sink("----- " + path + " -----\n");
    std::array<char, 16384> block;
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), file.get()))
        sink({block.data(), got});
    sink("\n");
}

/// Holds the right to collect, if it was free.
class CollectingTurn
{
public:
    CollectingTurn() : taken_(!reports().collecting.test_and_set()) {}
    ~CollectingTurn()
    {
        if (taken_)
            reports().collecting.clear();
    }
    CollectingTurn(const CollectingTurn &) = delete;
    CollectingTurn &operator=(const CollectingTurn &) = delete;
    [[nodiscard]] bool taken() const { return taken_; }

private:
    const bool taken_;
};

int collect(const tech_sink_t &sink, std::chrono::milliseconds patience, const Depth &depth)
{
    const CollectingTurn turn;
    if (!turn.taken())
        return -1;
    const TechSnapshot snapshot = platform::tech_registry().snapshot();
    int answered = 0;
    for (const TechProvider &provider : snapshot.providers) {
        if (!depth.has_room())
            return answered;
        sink("----- " + snapshot.module + " " + provider.name + " -----\n");
        answered += collect_module(sink, provider, snapshot, patience, depth) ? 1 : 0;
    }
    for (const std::string &path : snapshot.files) {
        if (depth.has_room())
            collect_file(sink, path);
    }
    return answered;
}

} // namespace

int tech_collect(const tech_sink_t &sink, std::chrono::milliseconds patience)
{
    return collect(sink, patience,
                   {.report = TECH_E_BASIC,
                    .completed = tell<TECH_E_BASIC_COMPLETION>,
                    .no_space = tell<TECH_E_BASIC_COMPLETION>,
                    .has_room = [] { return true; }});
}

int tech_collect_detail(const tech_sink_t &sink, const std::function<bool()> &has_room,
                        std::chrono::milliseconds patience)
{
    return collect(sink, patience,
                   {.report = TECH_E_DETAIL,
                    .completed = tell<TECH_E_DETAIL_COMPLETION>,
                    .no_space = tell<TECH_E_DETAIL_NOSPC>,
                    .has_room = has_room});
}

void tech_module_msg_output(const char *format, ...)
{
    if (!current_report)
        return;
    va_list args;
    va_start(args, format);
    const std::string text = zvformat(format, args);
    va_end(args);
    current_report->write(text);
}

void tech_module_msg_deal_completion()
{
    if (!current_report)
        return;
    current_report->complete();
    current_report.reset();
}
