// libc functions that the linker's --wrap leads here: real unless a test says otherwise. Nothing here
// allocates or takes a lock on the way to the real function, since these functions serve the test program as
// well.
#include "agent_doubles.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <sys/select.h>
#include <unistd.h>

namespace
{

constexpr const char *FALLIBLE[] = {
    "pthread_attr_init",
    "pthread_attr_setdetachstate",
    "pthread_attr_destroy",
    "pthread_rwlockattr_init",
    "pthread_rwlockattr_setkind_np",
    "pthread_rwlockattr_setpshared",
    "pthread_rwlock_init",
    "pthread_rwlock_wrlock",
    "pthread_rwlock_rdlock",
    "pthread_rwlock_unlock",
    "pthread_mutex_init",
    "pthread_mutex_lock",
    "pthread_mutex_unlock",
    "pthread_condattr_init",
    "pthread_condattr_setclock",
    "pthread_cond_init",
    "pthread_create",
    "calloc",
    "fcntl",
    "signal",
};

/// A function that is to fail.
struct armed_t {
    std::atomic<const char *> function{nullptr}; ///< null: free
    std::atomic<int> calls_before{0};
    int error = 0;
};

armed_t armed[4];

/// The error that this call is to fail with, 0 for none.
int scripted_error(const char *function)
{
    for (armed_t &slot : armed) {
        const char *name = slot.function.load();
        if (name == nullptr || std::strcmp(name, function) != 0)
            continue;
        if (slot.calls_before.fetch_sub(1) != 0)
            return 0;
        slot.function.store(nullptr);
        return slot.error;
    }
    return 0;
}

/// A lock, condition or attribute of the agent record.
struct object_t {
    const void *address;
    const char *name;
    bool alive;
};

object_t objects[] = {
    {&sflow_agent.config_lock.rwlock, "config_lock", false},
    {&sflow_agent.msg_lock.mutex, "msg_lock", false},
    {&sflow_agent.condattr, "condattr", false},
    {&sflow_agent.msg_send_ready, "msg_send_ready", false},
    {&sflow_agent.cli_lock.mutex, "cli_lock", false},
    {&familyid_lock, "familyid_lock", false},
};

int mark(const void *address, bool alive, int result)
{
    for (object_t &object : objects) {
        if (object.address == address && result == 0)
            object.alive = alive;
    }
    return result;
}

doubles::captured_thread_t captured;
doubles::pinned_t pinned_to;
doubles::rwlock_attr_t config_attr;

} // namespace

namespace doubles
{

void reset_wraps()
{
    for (armed_t &slot : armed)
        slot.function.store(nullptr);
    for (object_t &object : objects)
        object.alive = false;
    captured = {};
    pinned_to = {};
    config_attr = {};
}

rwlock_attr_t config_lock_attr()
{
    return config_attr;
}

void fail(const char *function, int error, int nth)
{
    bool known = false;
    for (const char *name : FALLIBLE)
        known = known || std::strcmp(name, function) == 0;
    if (!known) {
        std::fprintf(stderr, "%s cannot be made to fail\n", function);
        std::abort();
    }
    armed_t *chosen = nullptr;
    for (armed_t &slot : armed) {
        const char *name = slot.function.load();
        if (name != nullptr && std::strcmp(name, function) == 0)
            chosen = &slot;
        else if (name == nullptr && chosen == nullptr)
            chosen = &slot;
    }
    if (chosen != nullptr) {
        chosen->error = error;
        chosen->calls_before.store(nth);
        chosen->function.store(function);
        return;
    }
    std::fprintf(stderr, "too many functions are to fail\n");
    std::abort();
}

std::vector<std::string> alive()
{
    std::vector<std::string> names;
    for (const object_t &object : objects) {
        if (object.alive)
            names.emplace_back(object.name);
    }
    return names;
}

pinned_t pinned()
{
    return pinned_to;
}

captured_thread_t &capture_threads()
{
    captured = {};
    behaviour.pthread_create = [](pthread_t *tid, void *(*start)(void *), void *arg) {
        *tid = pthread_self();
        captured.created++;
        captured.start = start;
        captured.arg = arg;
        return 0;
    };
    return captured;
}

} // namespace doubles

using doubles::behaviour;

/// A function that returns an error number, 0 when it succeeds.
#define WRAP_ERROR_FUNCTION(function, parameters, arguments)                                                 \
    int __real_##function parameters;                                                                        \
    int __wrap_##function parameters                                                                         \
    {                                                                                                        \
        const int error = scripted_error(#function);                                                         \
        return error != 0 ? error : __real_##function arguments;                                             \
    }

/// The same for one that creates or destroys its first argument.
#define WRAP_LIFE_FUNCTION(function, is_alive, parameters, arguments, object)                                \
    int __real_##function parameters;                                                                        \
    int __wrap_##function parameters                                                                         \
    {                                                                                                        \
        const int error = scripted_error(#function);                                                         \
        return mark(object, is_alive, error != 0 ? error : __real_##function arguments);                     \
    }

extern "C" {

WRAP_ERROR_FUNCTION(pthread_attr_init, (pthread_attr_t * attr), (attr))
WRAP_ERROR_FUNCTION(pthread_attr_setdetachstate, (pthread_attr_t * attr, int state), (attr, state))
WRAP_ERROR_FUNCTION(pthread_attr_destroy, (pthread_attr_t * attr), (attr))
WRAP_ERROR_FUNCTION(pthread_rwlockattr_init, (pthread_rwlockattr_t * attr), (attr))
WRAP_ERROR_FUNCTION(pthread_rwlockattr_setkind_np, (pthread_rwlockattr_t * attr, int kind), (attr, kind))
WRAP_ERROR_FUNCTION(pthread_rwlockattr_setpshared, (pthread_rwlockattr_t * attr, int shared), (attr, shared))
WRAP_ERROR_FUNCTION(pthread_rwlock_wrlock, (pthread_rwlock_t * lock), (lock))
WRAP_ERROR_FUNCTION(pthread_rwlock_rdlock, (pthread_rwlock_t * lock), (lock))
WRAP_ERROR_FUNCTION(pthread_rwlock_unlock, (pthread_rwlock_t * lock), (lock))
WRAP_ERROR_FUNCTION(pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
WRAP_ERROR_FUNCTION(pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex))
WRAP_ERROR_FUNCTION(pthread_condattr_setclock, (pthread_condattr_t * attr, clockid_t clock), (attr, clock))

int __real_pthread_rwlock_init(pthread_rwlock_t *lock, const pthread_rwlockattr_t *attr);
int __wrap_pthread_rwlock_init(pthread_rwlock_t *lock, const pthread_rwlockattr_t *attr)
{
    if (lock == &sflow_agent.config_lock.rwlock && attr != nullptr) {
        pthread_rwlockattr_getkind_np(attr, &config_attr.kind);
        pthread_rwlockattr_getpshared(attr, &config_attr.shared);
    }
    const int error = scripted_error("pthread_rwlock_init");
    return mark(lock, true, error != 0 ? error : __real_pthread_rwlock_init(lock, attr));
}

WRAP_LIFE_FUNCTION(pthread_rwlock_destroy, false, (pthread_rwlock_t * lock), (lock), lock)
WRAP_LIFE_FUNCTION(pthread_mutex_init, true, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attr),
                   (mutex, attr), mutex)
WRAP_LIFE_FUNCTION(pthread_mutex_destroy, false, (pthread_mutex_t * mutex), (mutex), mutex)
WRAP_LIFE_FUNCTION(pthread_condattr_init, true, (pthread_condattr_t * attr), (attr), attr)
WRAP_LIFE_FUNCTION(pthread_condattr_destroy, false, (pthread_condattr_t * attr), (attr), attr)
WRAP_LIFE_FUNCTION(pthread_cond_init, true, (pthread_cond_t * cond, const pthread_condattr_t *attr),
                   (cond, attr), cond)
WRAP_LIFE_FUNCTION(pthread_cond_destroy, false, (pthread_cond_t * cond), (cond), cond)

int __real_pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*start)(void *), void *arg);
int __wrap_pthread_create(pthread_t *tid, const pthread_attr_t *attr, void *(*start)(void *), void *arg)
{
    const int error = scripted_error("pthread_create");
    if (error != 0)
        return error;
    int state = PTHREAD_CREATE_JOINABLE;
    if (attr != nullptr)
        pthread_attr_getdetachstate(attr, &state);
    if (!behaviour.pthread_create)
        return __real_pthread_create(tid, attr, start, arg);
    const int result = behaviour.pthread_create(tid, start, arg);
    captured.detached = state == PTHREAD_CREATE_DETACHED;
    return result;
}

int __real_pthread_cancel(pthread_t tid);
int __wrap_pthread_cancel(pthread_t tid)
{
    doubles::record("cancel");
    return behaviour.cancel ? __real_pthread_cancel(tid) : 0;
}

int __real_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline);
int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline)
{
    return behaviour.cond_timedwait ? behaviour.cond_timedwait(deadline)
                                    : __real_pthread_cond_timedwait(cond, mutex, deadline);
}

int __real_sysinfo(struct sysinfo *info);
int __wrap_sysinfo(struct sysinfo *info)
{
    return behaviour.sysinfo ? behaviour.sysinfo(info) : __real_sysinfo(info);
}

int __real_select(int count, fd_set *reads, fd_set *writes, fd_set *errors, timeval *timeout);
int __wrap_select(int count, fd_set *reads, fd_set *writes, fd_set *errors, timeval *timeout)
{
    const bool is_sleep = count == 0 && reads == nullptr && writes == nullptr && errors == nullptr;
    return behaviour.select && is_sleep ? behaviour.select(timeout)
                                        : __real_select(count, reads, writes, errors, timeout);
}

unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds)
{
    return behaviour.sleep ? behaviour.sleep(seconds) : __real_sleep(seconds);
}

int __real_pause();
int __wrap_pause()
{
    return behaviour.pause ? behaviour.pause() : __real_pause();
}

void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size)
{
    return scripted_error("calloc") != 0 ? nullptr : __real_calloc(count, size);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...)
{
    va_list args;
    va_start(args, command);
    void *argument = va_arg(args, void *);
    va_end(args);
    const int error = command == F_SETLK ? scripted_error("fcntl") : 0;
    if (error != 0) {
        errno = error;
        return -1;
    }
    return __real_fcntl(fd, command, argument);
}

using signal_handler_t = void (*)(int);
signal_handler_t __real_signal(int number, signal_handler_t handler);
signal_handler_t __wrap_signal(int number, signal_handler_t handler)
{
    if (scripted_error("signal") != 0)
        return SIG_ERR;
    return __real_signal(number, handler);
}

struct tm *__real_localtime_r(const time_t *now, struct tm *local);
struct tm *__wrap_localtime_r(const time_t *now, struct tm *local)
{
    return behaviour.local_time ? __real_localtime_r(now, local) : nullptr;
}

/// Never carried out: the test program is not to be confined.
int __wrap_sched_setaffinity(pid_t pid, size_t bytes, const cpu_set_t *cpus)
{
    pinned_to.bytes = pid == getpid() ? bytes : 0;
    for (int core = 0; core < CPU_SETSIZE; core++) {
        if (CPU_ISSET(static_cast<size_t>(core), cpus))
            pinned_to.cores.push_back(core);
    }
    return 0;
}

} // extern "C"
