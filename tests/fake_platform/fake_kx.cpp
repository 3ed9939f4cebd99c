// Thread masters on a virtual clock.
#include "fake_state.h"

#include <algorithm>
#include <poll.h>

struct kx_thread_master {
    int number = 0;
    bool finished = false;
};

namespace fake
{
namespace
{

constexpr int RUNAWAY = 10'000; // tasks run at one moment

// kx_thread_t::state
constexpr int IDLE = 0;
constexpr int PENDING = 1;

struct Task {
    kx_thread_t *record = nullptr;      ///< what the caller sees
    std::unique_ptr<kx_thread_t> owned; ///< set when the record is ours
    TaskKind kind = TaskKind::timer;
    long due_ms = 0;
    long number = 0; ///< order of arming
};

struct Threads {
    // Masters are kept for ever: threads and statics of the code under test hold on to them.
    std::vector<std::unique_ptr<kx_thread_master>> masters;
    std::vector<Task> tasks;
    long now_ms = 0;
    long armed = 0;
    int made = 0; ///< masters since reset()
    Fetch fetch = Fetch::returns_null;
    bool fetch_ended = false;
    std::function<bool()> idle_hook;
};

Threads &threads()
{
    static Threads the_threads;
    return the_threads;
}

void set_state(kx_thread_t &record, int state)
{
    __atomic_store_n(&record.state, state, __ATOMIC_RELEASE);
}

bool usable(const kx_thread_master_t *master)
{
    return master != nullptr && !master->finished;
}

bool is_ready(const Task &task)
{
    if (task.kind == TaskKind::timer || task.kind == TaskKind::event) {
        return task.due_ms <= threads().now_ms;
    }
    const short wanted = task.kind == TaskKind::read ? POLLIN : POLLOUT;
    pollfd poll_fd{.fd = task.record->fd, .events = wanted, .revents = 0};
    return poll(&poll_fd, 1, 0) > 0;
}

bool runs_before(const Task &a, const Task &b)
{
    return a.due_ms != b.due_ms ? a.due_ms < b.due_ms : a.number < b.number;
}

/// Takes the first due task off; of one master or, with nullptr, of any.
bool take_due(const kx_thread_master_t *master, kx_thread_t &out)
{
    std::vector<Task> &tasks = threads().tasks;
    auto first = tasks.end();
    for (auto it = tasks.begin(); it != tasks.end(); ++it) {
        if ((master == nullptr || it->record->master == master) && is_ready(*it) &&
            (first == tasks.end() || runs_before(*it, *first))) {
            first = it;
        }
    }
    if (first == tasks.end()) {
        return false;
    }
    set_state(*first->record, IDLE);
    out = *first->record;
    out.task = nullptr;
    tasks.erase(first);
    return true;
}

kx_thread_t *arm(kx_thread_master_t *master, kx_thread_t *caller_record, TaskKind kind,
                 const kx_thread_t &values, long delay_ms)
{
    Task task;
    if (caller_record == nullptr) {
        task.owned = std::make_unique<kx_thread_t>();
        caller_record = task.owned.get();
    }
    task.record = caller_record;
    task.kind = kind;
    task.due_ms = threads().now_ms + std::max(delay_ms, 0L);
    task.number = ++threads().armed;
    caller_record->master = master;
    caller_record->func = values.func;
    caller_record->arg = values.arg;
    caller_record->name = values.name;
    caller_record->fd = values.fd;
    set_state(*caller_record, PENDING);
    threads().tasks.push_back(std::move(task));
    state_changed().notify_all();
    return caller_record;
}

kx_thread_t *add(kx_thread_master_t *master, TaskKind kind, const kx_thread_t &values, long delay_ms)
{
    const Lock lock = lock_state();
    return usable(master) && values.func != nullptr ? arm(master, nullptr, kind, values, delay_ms) : nullptr;
}

void drop_tasks(const kx_thread_master_t *master)
{
    std::erase_if(threads().tasks, [&](const Task &task) {
        const bool drop = master == nullptr || task.record->master == master;
        if (drop) {
            set_state(*task.record, IDLE);
        }
        return drop;
    });
}

kx_thread_t values(kx_thread_func_t func, void *arg, const char *name, int fd)
{
    kx_thread_t result{};
    result.func = func;
    result.arg = arg;
    result.name = name;
    result.fd = fd;
    return result;
}

std::string master_name(const kx_thread_master_t *master)
{
    return text("master=%d", master == nullptr ? 0 : master->number);
}

std::string timer_text(const kx_thread_master_t *master, const char *name, long ms)
{
    return master_name(master) + text(" ms=%ld name=%s", ms, name != nullptr ? name : "");
}

kx_thread_t *add_timer(kx_thread_master_t *master, kx_thread_func_t func, void *arg, long ms,
                       const char *name)
{
    if (record("kx_thread_add_timer", timer_text(master, name, ms))) {
        return nullptr;
    }
    return add(master, TaskKind::timer, values(func, arg, name, -1), ms);
}

} // namespace

void reset_threads()
{
    const Lock lock = lock_state();
    Threads &all = threads();
    drop_tasks(nullptr);
    for (const auto &master : all.masters) {
        master->finished = true;
    }
    all.now_ms = 0;
    all.made = 0;
    all.fetch = Fetch::returns_null;
    all.fetch_ended = false;
    all.idle_hook = nullptr;
    state_changed().notify_all();
}

std::chrono::milliseconds now()
{
    const Lock lock = lock_state();
    return std::chrono::milliseconds(threads().now_ms);
}

std::vector<ArmedTask> armed()
{
    const Lock lock = lock_state();
    std::vector<const Task *> order;
    for (const Task &task : threads().tasks) {
        order.push_back(&task);
    }
    std::sort(order.begin(), order.end(), [](const Task *a, const Task *b) { return runs_before(*a, *b); });
    std::vector<ArmedTask> result;
    for (const Task *task : order) {
        result.push_back({.name = task->record->name != nullptr ? task->record->name : "",
                          .kind = task->kind,
                          .master = task->record->master,
                          .func = task->record->func,
                          .due_in_ms = std::max(task->due_ms - threads().now_ms, 0L)});
    }
    return result;
}

std::size_t armed_count(std::string_view name)
{
    const std::vector<ArmedTask> tasks = armed();
    return static_cast<std::size_t>(
        std::count_if(tasks.begin(), tasks.end(), [&](const ArmedTask &task) { return task.name == name; }));
}

int run_due()
{
    for (int run = 0; run < RUNAWAY; ++run) {
        kx_thread_t task{};
        {
            const Lock lock = lock_state();
            if (!take_due(nullptr, task)) {
                return run;
            }
        }
        kx_thread_call(&task);
    }
    give_up("tasks keep arming tasks that are due at once");
}

int advance(std::chrono::milliseconds time)
{
    long end = 0;
    bool run_here = true; // otherwise the waiting threads run what is due
    {
        const Lock lock = lock_state();
        end = threads().now_ms + time.count();
        run_here = threads().fetch == Fetch::returns_null;
    }
    int run = run_here ? run_due() : 0;
    for (;;) {
        {
            const Lock lock = lock_state();
            long next = end;
            for (const Task &task : threads().tasks) {
                if (task.kind == TaskKind::timer && task.due_ms > threads().now_ms) {
                    next = std::min(next, task.due_ms);
                }
            }
            if (threads().now_ms >= end) {
                return run;
            }
            threads().now_ms = next;
            state_changed().notify_all();
        }
        run += run_here ? run_due() : 0;
    }
}

void set_fetch(Fetch fetch)
{
    const Lock lock = lock_state();
    threads().fetch = fetch;
}

void set_idle_hook(std::function<bool()> hook)
{
    const Lock lock = lock_state();
    threads().idle_hook = std::move(hook);
}

void end_fetch()
{
    const Lock lock = lock_state();
    threads().fetch_ended = true;
    state_changed().notify_all();
}

} // namespace fake

using namespace fake;

kx_thread_master_t *kx_thread_master_create()
{
    if (record("kx_thread_master_create")) {
        return nullptr;
    }
    const Lock lock = lock_state();
    threads().masters.push_back(std::make_unique<kx_thread_master>());
    kx_thread_master &master = *threads().masters.back();
    master.number = ++threads().made;
    return &master;
}

void kx_thread_master_finish(kx_thread_master_t *master)
{
    record("kx_thread_master_finish", master_name(master));
    if (master == nullptr) {
        return;
    }
    const Lock lock = lock_state();
    master->finished = true;
    drop_tasks(master);
    state_changed().notify_all();
}

kx_thread_t *kx_thread_fetch(kx_thread_master_t *master, kx_thread_t *out)
{
    if (scripted("kx_thread_fetch") || master == nullptr || out == nullptr) {
        return nullptr;
    }
    Lock lock = lock_state();
    for (;;) {
        if (master->finished || threads().fetch_ended) {
            return nullptr;
        }
        if (take_due(master, *out)) {
            return out;
        }
        if (const std::function<bool()> hook = threads().idle_hook) {
            lock.unlock();
            const bool again = hook();
            lock.lock();
            if (again) {
                continue;
            }
        }
        if (threads().fetch == Fetch::returns_null) {
            return nullptr;
        }
        state_changed().wait(lock);
    }
}

int kx_thread_call(kx_thread_t *thread)
{
    return thread != nullptr && thread->func != nullptr ? thread->func(thread) : -1;
}

kx_thread_t *kx_thread_add_timer(kx_thread_master_t *master, kx_thread_func_t func, void *arg, long seconds)
{
    return add_timer(master, func, arg, seconds * 1000, nullptr);
}

kx_thread_t *kx_thread_add_timer_withname(kx_thread_master_t *master, kx_thread_func_t func, void *arg,
                                          long seconds, const char *name)
{
    return add_timer(master, func, arg, seconds * 1000, name);
}

kx_thread_t *kx_thread_add_timer_msec(kx_thread_master_t *master, kx_thread_func_t func, void *arg,
                                      long milliseconds)
{
    return add_timer(master, func, arg, milliseconds, nullptr);
}

kx_thread_t *kx_thread_add_event(kx_thread_master_t *master, kx_thread_func_t func, void *arg)
{
    if (record("kx_thread_add_event", master_name(master))) {
        return nullptr;
    }
    return add(master, TaskKind::event, values(func, arg, nullptr, -1), 0);
}

kx_thread_t *kx_thread_add_read(kx_thread_master_t *master, kx_thread_func_t func, void *arg, int fd)
{
    if (record("kx_thread_add_read", master_name(master))) {
        return nullptr;
    }
    return add(master, TaskKind::read, values(func, arg, nullptr, fd), 0);
}

kx_thread_t *kx_thread_add_write(kx_thread_master_t *master, kx_thread_func_t func, void *arg, int fd)
{
    if (record("kx_thread_add_write", master_name(master))) {
        return nullptr;
    }
    return add(master, TaskKind::write, values(func, arg, nullptr, fd), 0);
}

int kx_thread_insert_timer(kx_thread_master_t *master, kx_thread_t *rec, kx_thread_func_t func, void *arg,
                           long seconds, const char *name)
{
    if (const auto result = record("kx_thread_insert_timer", timer_text(master, name, seconds * 1000))) {
        return static_cast<int>(*result);
    }
    const Lock lock = lock_state();
    if (rec == nullptr || func == nullptr || !usable(master)) {
        return -1;
    }
    if (!kx_thread_is_pending(rec)) {
        arm(master, rec, TaskKind::timer, values(func, arg, name, -1), seconds * 1000);
    }
    return 0;
}

bool kx_thread_is_pending(const kx_thread_t *rec)
{
    return rec != nullptr && __atomic_load_n(&rec->state, __ATOMIC_ACQUIRE) == PENDING;
}

void kx_thread_cancel(kx_thread_t *rec)
{
    record("kx_thread_cancel");
    const Lock lock = lock_state();
    std::erase_if(threads().tasks, [&](const Task &task) {
        if (task.record == rec) {
            set_state(*rec, IDLE);
        }
        return task.record == rec;
    });
}
