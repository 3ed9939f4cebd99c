// Thread master: one event loop a thread, serving one-shot timers, descriptors and queued events.
//
// A thread that serves a master runs
//
//     kx_thread_t task;
//     while (kx_thread_fetch(master, &task) != nullptr)
//         kx_thread_call(&task);
//     kx_thread_master_finish(master);
//
// Every task is one-shot: a callback that wants to run again arms itself again. Callbacks run in the fetching
// thread, never inside an arming call. Order: tasks become ready in the order in which their event happened;
// timers that are found due together run by deadline, and by order of arming when the deadlines are equal. A
// timer never runs early. Time is CLOCK_MONOTONIC.
//
// A process may have any number of masters. One thread at a time serves a master: "the master's own thread"
// below. Threads: kx_thread_insert_timer(), kx_thread_add_event() and kx_thread_is_pending() may be called
// from any thread and wake a master that is waiting; everything else belongs to the master's own thread, or
// to the thread that creates the master as long as nobody serves it.
//
// Names and arguments are not copied: they must outlive the task. Nothing here throws.
#pragma once

#include <sys/types.h>
#include <type_traits>

/// An event loop; only the library looks inside.
struct kx_thread_master;
using kx_thread_master_t = kx_thread_master;

struct kx_thread_t;

/// A task's callback. It gets the record that kx_thread_fetch() filled in, valid until it returns; the result
/// is handed back by kx_thread_call() and means nothing to the library.
using kx_thread_func_t = int (*)(kx_thread_t *thread);

/// One task. Callers read `master`, `func`, `arg` and `name`; the library writes all of it.
///
/// A record that a caller owns (for kx_thread_insert_timer()) starts out zeroed, `memset` will do, and must
/// neither be moved, copied over nor freed while it is pending.
struct kx_thread_t {
    kx_thread_master_t *master;
    kx_thread_func_t func;
    void *arg;
    const char *name; ///< what the task is called in diagnostics; may be null
    void *task;       ///< the library's
    int fd;           ///< descriptor of a read or write task, otherwise -1
    int state;        ///< the library's, accessed atomically; 0 is idle. Ask kx_thread_is_pending().
};
static_assert(std::is_trivially_copyable_v<kx_thread_t> && std::is_standard_layout_v<kx_thread_t>);

/// Creates a master with nothing in it.
///
/// @return the master, or nullptr when the system lacks memory or descriptors
[[nodiscard]] kx_thread_master_t *kx_thread_master_create();

/// Ends a master: what is pending is dropped without being called, records that callers own become idle.
///
/// nullptr is allowed. The handle stays known as finished: later calls with it, from any thread, are refused
/// like calls with nullptr, so that a thread which still holds it does no harm.
void kx_thread_master_finish(kx_thread_master_t *master);

/// Waits for the next ready task and takes it off the master.
///
/// @param out  filled with the task. A caller-owned record becomes idle here, before its callback runs, so
/// that the
///             callback, or any other thread, may arm it again.
/// @return `out`, or nullptr when the master has nothing left that could ever become ready (no descriptor,
/// timer or
///         event), and when `master` or `out` is nullptr or the master is finished
kx_thread_t *kx_thread_fetch(kx_thread_master_t *master, kx_thread_t *out);

/// Runs the callback of a fetched task and returns its result; -1 without a callback.
int kx_thread_call(kx_thread_t *thread);

// ---- Tasks whose record the library owns
// -------------------------------------------------------------------------
//
// Each returns the task's record, which serves kx_thread_cancel() and stays valid until the task is fetched
// or cancelled, or nullptr when `master` or `func` is nullptr, the master is finished, memory is short, or
// (read, write) the descriptor cannot be watched: closed, or a regular file.

/// Runs `func` once `seconds` from now; 0 or less means at once.
kx_thread_t *kx_thread_add_timer(kx_thread_master_t *master, kx_thread_func_t func, void *arg, long seconds);
kx_thread_t *kx_thread_add_timer_withname(kx_thread_master_t *master, kx_thread_func_t func, void *arg,
                                          long seconds, const char *name);
/// The same in milliseconds.
kx_thread_t *kx_thread_add_timer_msec(kx_thread_master_t *master, kx_thread_func_t func, void *arg,
                                      long milliseconds);

/// Runs `func` as soon as the master gets to it, after the events queued before. Any thread; a caller on
/// another thread must not use the returned record, which may be gone by then, other than to see that it is
/// not nullptr.
kx_thread_t *kx_thread_add_event(kx_thread_master_t *master, kx_thread_func_t func, void *arg);

/// Runs `func` once when `fd` can be read (end of file and errors included) or written. Level-triggered:
/// armed again while the condition holds, it runs again. The caller cancels the task before it closes the
/// descriptor.
kx_thread_t *kx_thread_add_read(kx_thread_master_t *master, kx_thread_func_t func, void *arg, int fd);
kx_thread_t *kx_thread_add_write(kx_thread_master_t *master, kx_thread_func_t func, void *arg, int fd);

// ---- Tasks whose record the caller owns
// --------------------------------------------------------------------------

/// Arms `record` as a timer on `master`. Any thread; wakes the master.
///
/// @param record   zeroed or idle; see kx_thread_t
/// @param seconds  0 or less means at once
/// @param name     may be nullptr
/// @return 0 when the record is pending: armed now, or found pending already, in which case nothing of it
/// changes
///         (of any number of concurrent callers one arms it and the others coalesce with it); -1 when
///         `master`, `record` or `func` is nullptr, the master is finished or memory is short, the record
///         staying idle
int kx_thread_insert_timer(kx_thread_master_t *master, kx_thread_t *record, kx_thread_func_t func, void *arg,
                           long seconds, const char *name);

/// Whether the record waits for its callback: from arming until kx_thread_fetch() hands it out. Any thread.
/// False for nullptr and for the record that a callback gets.
bool kx_thread_is_pending(const kx_thread_t *record);

/// Takes a pending task off its master; it will not be called. Nothing happens for nullptr and for a record
/// that is idle. The master's own thread only: an insertion that another thread makes at the same moment may
/// take effect after it.
void kx_thread_cancel(kx_thread_t *record);

/// The argument and the descriptor a task was armed with.
inline void *kx_thread_arg(const kx_thread_t *thread)
{
    return thread->arg;
}
inline int kx_thread_fd(const kx_thread_t *thread)
{
    return thread->fd;
}
