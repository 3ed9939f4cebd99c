// Thread master on libevent.
//
// A master owns an event base and two lists of tasks: those that wait for their event, each with one libevent event,
// and those that are ready. libevent's callbacks only move tasks from the first list to the second; the daemon's
// callbacks run outside the event loop, from kx_thread_call().
//
// The master's mutex guards both lists and is held while a task is armed, so that the lists and the event base agree
// at every moment. libevent takes the base's own lock inside, and calls back without it: the order is always
// master, then base. libevent wakes the serving thread when another one adds or activates an event.

#include "platform/kx_thread.h"

#include "lock/immortal.h"
#include "lock/mutex.h"

#include <algorithm>
#include <chrono>
#include <event2/event.h>
#include <event2/thread.h>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <sys/time.h>
#include <vector>

namespace
{

using platform::Immortal;
using platform::Mutex;
using platform::MutexLock;
using Clock = std::chrono::steady_clock;

/// Bits of kx_thread_t::state. `claimed` says that somebody arms or has armed the record, `armed` that this is done.
///
/// The state is only ever changed by read-modify-write operations that acquire and release: what a caller did before
/// it found a record pending is then seen by the callback that it coalesced with.
enum State : int { idle = 0, claimed = 1, armed = 2 };

struct BaseDelete {
    void operator()(event_base *base) const { event_base_free(base); }
};
struct EventDelete {
    void operator()(event *ev) const { event_free(ev); }
};

struct Task {
    kx_thread_t own{};             ///< the record, unless a caller owns it
    kx_thread_t *record = nullptr; ///< &own or the caller's
    bool is_timer = false;
    bool is_ready = false;
    Clock::time_point deadline{}; ///< timers only
    std::unique_ptr<event, EventDelete> ev;
    std::list<Task>::iterator self;
};

/// Takes the right to arm a record; false when it is pending.
bool claim(kx_thread_t *record)
{
    return __atomic_fetch_or(&record->state, claimed, __ATOMIC_ACQ_REL) == idle;
}

void set_armed(kx_thread_t *record)
{
    __atomic_fetch_or(&record->state, claimed | armed, __ATOMIC_ACQ_REL);
}

void set_idle(kx_thread_t *record)
{
    __atomic_exchange_n(&record->state, idle, __ATOMIC_ACQ_REL);
}

int get_state(const kx_thread_t *record)
{
    return __atomic_load_n(&record->state, __ATOMIC_ACQUIRE);
}

/// What a task waits for.
struct Trigger {
    enum class Kind { timer, event, read, write } kind;
    std::chrono::milliseconds delay{0};
    int fd = -1;
};

/// Keeps arithmetic on deadlines far from overflow; nobody waits a century.
constexpr std::chrono::milliseconds longest_delay = std::chrono::hours(24 * 365 * 100);

std::chrono::milliseconds delay_of(long count, std::chrono::milliseconds unit)
{
    if (count <= 0)
        return std::chrono::milliseconds(0);
    return count > longest_delay / unit ? longest_delay : count * unit;
}

} // namespace

struct kx_thread_master {
    Mutex mutex;
    std::unique_ptr<event_base, BaseDelete> base PLATFORM_GUARDED_BY(mutex); ///< null once finished
    std::list<Task> waiting PLATFORM_GUARDED_BY(mutex);
    std::list<Task> ready PLATFORM_GUARDED_BY(mutex);
};

namespace
{

/// Moves a task whose event has happened to the ready list. In the serving thread, inside event_base_loop().
void on_event(evutil_socket_t, short, void *arg)
{
    auto *task = static_cast<Task *>(arg);
    kx_thread_master *master = task->record->master;
    const MutexLock lock(master->mutex);
    task->is_ready = true;
    master->ready.splice(master->ready.end(), master->waiting, task->self);
}

bool start_event(Task &task, const Trigger &trigger)
{
    switch (trigger.kind) {
    case Trigger::Kind::timer: {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(trigger.delay);
        const auto rest = std::chrono::microseconds(trigger.delay - seconds);
        const timeval delay{seconds.count(), rest.count()};
        return event_add(task.ev.get(), &delay) == 0;
    }
    case Trigger::Kind::event:
        event_active(task.ev.get(), EV_TIMEOUT, 0);
        return true;
    case Trigger::Kind::read:
    case Trigger::Kind::write:
        return event_add(task.ev.get(), nullptr) == 0;
    }
    return false;
}

short event_mask(Trigger::Kind kind)
{
    if (kind == Trigger::Kind::read)
        return EV_READ;
    return kind == Trigger::Kind::write ? EV_WRITE : short{0};
}

/// Arms a task on a master. `record` is a claimed record of a caller, or nullptr for one of the library's.
///
/// @return the task's record, or nullptr with a caller's record left claimed
kx_thread_t *arm(kx_thread_master *master, kx_thread_t *record, kx_thread_func_t func, void *arg,
                 const char *name, const Trigger &trigger)
try {
    const MutexLock lock(master->mutex);
    if (!master->base)
        return nullptr;
    std::list<Task> fresh(1);
    Task &task = fresh.front();
    task.self = fresh.begin();
    task.record = record != nullptr ? record : &task.own;
    task.record->master = master;
    task.record->func = func;
    task.record->arg = arg;
    task.record->name = name;
    task.record->task = &task;
    task.record->fd = trigger.fd;
    task.is_timer = trigger.kind == Trigger::Kind::timer;
    task.deadline = Clock::now() + trigger.delay;
    task.ev.reset(event_new(master->base.get(), trigger.fd, event_mask(trigger.kind), on_event, &task));
    if (!task.ev)
        return nullptr;
    if (!start_event(task, trigger))
        return nullptr;
    set_armed(task.record);
    master->waiting.splice(master->waiting.end(), fresh);
    return task.record;
} catch (const std::bad_alloc &) {
    return nullptr;
}

kx_thread_t *add(kx_thread_master *master, kx_thread_func_t func, void *arg, const char *name,
                 const Trigger &trigger)
{
    if (master == nullptr || func == nullptr)
        return nullptr;
    return arm(master, nullptr, func, arg, name, trigger);
}

/// Hands out the first ready task. False when none is ready.
bool take_ready(kx_thread_master *master, kx_thread_t *out)
{
    const MutexLock lock(master->mutex);
    if (master->ready.empty())
        return false;
    std::list<Task> taken;
    taken.splice(taken.begin(), master->ready, master->ready.begin());
    kx_thread_t *record = taken.front().record;
    // Not a copy of the whole record: other threads may be looking at its state.
    *out = {.master = record->master,
            .func = record->func,
            .arg = record->arg,
            .name = record->name,
            .task = nullptr,
            .fd = record->fd,
            .state = idle};
    set_idle(record);
    return true;
}

/// The base to wait on; nullptr when nothing can become ready any more.
event_base *base_to_wait_on(kx_thread_master *master)
{
    const MutexLock lock(master->mutex);
    return master->waiting.empty() ? nullptr : master->base.get();
}

/// libevent finds due timers in an order of its own when their deadlines are equal to it.
void sort_timers(kx_thread_master *master)
{
    const MutexLock lock(master->mutex);
    master->ready.sort([](const Task &a, const Task &b) {
        if (a.is_timer != b.is_timer)
            return b.is_timer;
        return a.is_timer && a.deadline < b.deadline;
    });
}

/// Every master ever made. Masters are few, and a handle that stays valid after its end lets other threads be
/// refused instead of crashing.
struct Registry {
    Mutex mutex;
    std::vector<std::unique_ptr<kx_thread_master>> masters PLATFORM_GUARDED_BY(mutex);
};

void set_up_libevent()
{
    static std::once_flag done;
    std::call_once(done, [] {
        evthread_use_pthreads();
        // What libevent would print is told by return values already.
        event_set_log_callback([](int, const char *) {});
    });
}

std::unique_ptr<event_base, BaseDelete> make_base()
{
    const std::unique_ptr<event_config, decltype(&event_config_free)> config(event_config_new(),
                                                                             &event_config_free);
    if (!config)
        return nullptr;
    // The default timer is too coarse (milliseconds) to keep the order of arming.
    event_config_set_flag(config.get(), EVENT_BASE_FLAG_PRECISE_TIMER | EVENT_BASE_FLAG_IGNORE_ENV);
    return std::unique_ptr<event_base, BaseDelete>(event_base_new_with_config(config.get()));
}

} // namespace

kx_thread_master_t *kx_thread_master_create()
try {
    set_up_libevent();
    auto base = make_base();
    if (!base)
        return nullptr;
    auto master = std::make_unique<kx_thread_master>();
    {
        const MutexLock lock(master->mutex);
        master->base = std::move(base);
    }
    static const Immortal<Registry> registry;
    const MutexLock lock((*registry).mutex);
    (*registry).masters.push_back(std::move(master));
    return (*registry).masters.back().get();
} catch (const std::bad_alloc &) {
    return nullptr;
}

void kx_thread_master_finish(kx_thread_master_t *master)
{
    if (master == nullptr)
        return;
    const MutexLock lock(master->mutex);
    for (std::list<Task> *list : {&master->waiting, &master->ready}) {
        for (Task &task : *list)
            set_idle(task.record);
        list->clear();
    }
    master->base.reset();
}

kx_thread_t *kx_thread_fetch(kx_thread_master_t *master, kx_thread_t *out)
{
    if (master == nullptr || out == nullptr)
        return nullptr;
    while (!take_ready(master, out)) {
        event_base *base = base_to_wait_on(master);
        if (base == nullptr)
            return nullptr;
        event_base_loop(base, EVLOOP_ONCE);
        sort_timers(master);
    }
    return out;
}

int kx_thread_call(kx_thread_t *thread)
{
    return thread != nullptr && thread->func != nullptr ? thread->func(thread) : -1;
}

kx_thread_t *kx_thread_add_timer(kx_thread_master_t *master, kx_thread_func_t func, void *arg, long seconds)
{
    return kx_thread_add_timer_withname(master, func, arg, seconds, nullptr);
}

kx_thread_t *kx_thread_add_timer_withname(kx_thread_master_t *master, kx_thread_func_t func, void *arg,
                                          long seconds, const char *name)
{
    return add(master, func, arg, name,
               {.kind = Trigger::Kind::timer, .delay = delay_of(seconds, std::chrono::seconds(1))});
}

kx_thread_t *kx_thread_add_timer_msec(kx_thread_master_t *master, kx_thread_func_t func, void *arg,
                                      long milliseconds)
{
    return add(master, func, arg, nullptr,
               {.kind = Trigger::Kind::timer, .delay = delay_of(milliseconds, std::chrono::milliseconds(1))});
}

kx_thread_t *kx_thread_add_event(kx_thread_master_t *master, kx_thread_func_t func, void *arg)
{
    return add(master, func, arg, nullptr, {.kind = Trigger::Kind::event});
}

kx_thread_t *kx_thread_add_read(kx_thread_master_t *master, kx_thread_func_t func, void *arg, int fd)
{
    return fd < 0 ? nullptr : add(master, func, arg, nullptr, {.kind = Trigger::Kind::read, .fd = fd});
}

kx_thread_t *kx_thread_add_write(kx_thread_master_t *master, kx_thread_func_t func, void *arg, int fd)
{
    return fd < 0 ? nullptr : add(master, func, arg, nullptr, {.kind = Trigger::Kind::write, .fd = fd});
}

int kx_thread_insert_timer(kx_thread_master_t *master, kx_thread_t *record, kx_thread_func_t func, void *arg,
                           long seconds, const char *name)
{
    if (master == nullptr || record == nullptr || func == nullptr)
        return -1;
    if (!claim(record))
        return 0;
    const Trigger trigger{.kind = Trigger::Kind::timer, .delay = delay_of(seconds, std::chrono::seconds(1))};
    if (arm(master, record, func, arg, name, trigger) != nullptr)
        return 0;
    set_idle(record);
    return -1;
}

bool kx_thread_is_pending(const kx_thread_t *record)
{
    return record != nullptr && get_state(record) != idle;
}

void kx_thread_cancel(kx_thread_t *record)
{
    // Only this thread takes `armed` away; without it there is nothing to take back.
    if (record == nullptr || (get_state(record) & armed) == 0)
        return;
    kx_thread_master *master = record->master;
    const MutexLock lock(master->mutex);
    auto *task = static_cast<Task *>(record->task);
    std::list<Task> taken;
    taken.splice(taken.begin(), task->is_ready ? master->ready : master->waiting, task->self);
    set_idle(record);
}
