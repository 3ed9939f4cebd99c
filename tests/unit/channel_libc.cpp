// The parts of libc that the tests of the channel play: failures, waits that last and the server's threads.
#include "channel_support.h"

#include "sflow_lib_server.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace channel
{
namespace
{

/// One function of libc that can fail. No lock: these are called by locks, too.
struct Fallible {
    std::string_view name;
    std::atomic<int> error{0};
    std::atomic<int> skip{0};
};

std::array<Fallible, 8> &fallible()
{
    static std::array<Fallible, 8> functions{{{"pthread_mutex_init"},
                                              {"pthread_condattr_init"},
                                              {"pthread_condattr_setclock"},
                                              {"pthread_cond_init"},
                                              {"socket"},
                                              {"bind"},
                                              {"listen"},
                                              {"accept4"}}};
    return functions;
}

/// The error with which this call is to fail; 0: it is not.
int failure_of(std::string_view name)
{
    for (Fallible &function : fallible()) {
        if (function.name != name || function.error == 0)
            continue;
        if (function.skip > 0) {
            --function.skip;
            return 0;
        }
        return function.error.exchange(0);
    }
    return 0;
}

struct LockFailure {
    std::atomic<const void *> lock{nullptr};
    std::atomic<int> times{0};

    void set(const void *which, int count)
    {
        times = count;
        lock = which;
    }
    bool hits(const void *which)
    {
        if (lock != which)
            return false;
        if (times-- > 0)
            return true;
        lock = nullptr;
        return false;
    }
};

LockFailure lock_failure;
LockFailure unlock_failure;
thread_local std::size_t failing_allocation = 0;

std::atomic<int> accepts{0};
std::atomic<int> waits{0};
std::atomic<int> sleeps{0};
std::atomic<unsigned> slept_seconds{0};
std::atomic<int> retry_pauses{0};
std::atomic<int> longest_pause_ms{0};
std::atomic<std::int64_t> wait_ms{0};
std::atomic<bool> wait_times_out{false};

std::atomic<Threads> thread_mode{Threads::noted};
std::atomic<int> threads_to_failure{0};
std::atomic<int> requested{0};
std::atomic<bool> stopping{false};
thread_local bool is_server_thread = false;

struct Thread {
    pthread_t handle;
    bool joined;
};
std::vector<Thread> &threads()
{
    static std::vector<Thread> the_threads; // the test's own thread only
    return the_threads;
}

/// Readable once the server's threads are to end.
int stop_event()
{
    static const int fd = eventfd(0, EFD_CLOEXEC);
    return fd;
}

struct Start {
    void *(*routine)(void *);
    void *arg;
};

void *run_thread(void *arg)
{
    const Start start = *static_cast<Start *>(arg);
    delete static_cast<Start *>(arg);
    is_server_thread = true;
    return start.routine(start.arg);
}

[[noreturn]] void end_thread()
{
    pthread_exit(nullptr);
}

/// Which object of the server's control block this is; empty for any other.
std::string_view object_name(const void *object)
{
    const std::array<std::pair<const void *, std::string_view>, 4> names{
        {{&sflow_lib_server_cb.send_lock.mutex, "send_lock"},
         {&sflow_lib_server_cb.cmd_lock.mutex, "cmd_lock"},
         {&sflow_lib_server_cb.condattr, "condattr"},
         {&sflow_lib_server_cb.send_cond, "send_cond"}}};
    for (const auto &[address, name] : names) {
        if (address == object)
            return name;
    }
    return {};
}

std::vector<std::string> &objects()
{
    static std::vector<std::string> live; // the test's own thread only
    return live;
}

int created(const void *object, int result)
{
    if (result == 0 && !object_name(object).empty())
        objects().emplace_back(object_name(object));
    return result;
}

void destroyed(const void *object)
{
    const std::string_view name = object_name(object);
    if (!name.empty())
        objects().erase(std::remove(objects().begin(), objects().end(), name), objects().end());
}

} // namespace

void fail_next(std::string_view name, int error, int skip)
{
    for (Fallible &function : fallible()) {
        if (function.name == name) {
            function.skip = skip;
            function.error = error;
            return;
        }
    }
    std::fprintf(stderr, "%.*s cannot fail\n", static_cast<int>(name.size()), name.data());
    std::abort();
}

void fail_lock(const pthread_mutex_t *lock, int times)
{
    lock_failure.set(lock, times);
}

void fail_unlock(const pthread_mutex_t *lock, int times)
{
    unlock_failure.set(lock, times);
}

void fail_lock(const pthread_rwlock_t *lock)
{
    lock_failure.set(lock, 1);
}

void fail_unlock(const pthread_rwlock_t *lock)
{
    unlock_failure.set(lock, 1);
}

void fail_allocation(std::size_t size)
{
    failing_allocation = size;
}

LibcCounts libc_counts()
{
    return {.accepts = accepts,
            .waits = waits,
            .sleeps = sleeps,
            .slept_seconds = slept_seconds,
            .retry_pauses = retry_pauses,
            .longest_pause_ms = longest_pause_ms,
            .wait_ms = wait_ms};
}

std::vector<std::string> live_objects()
{
    return objects();
}

void time_out_next_wait()
{
    wait_times_out = true;
}

void set_threads(Threads mode)
{
    thread_mode = mode;
    threads_to_failure = 0;
    requested = 0;
    objects().clear();
    accepts = waits = sleeps = retry_pauses = longest_pause_ms = 0;
    slept_seconds = 0;
    wait_ms = 0;
    wait_times_out = false;
    lock_failure.set(nullptr, 0);
    unlock_failure.set(nullptr, 0);
    failing_allocation = 0;
    for (Fallible &function : fallible())
        function.error = 0;
}

void fail_thread(int nth)
{
    threads_to_failure = nth;
}

int threads_requested()
{
    return requested;
}

std::vector<pthread_t> running_threads()
{
    std::vector<pthread_t> handles;
    for (const Thread &thread : threads())
        handles.push_back(thread.handle);
    return handles;
}

void join_thread(std::size_t index)
{
    Thread &thread = threads().at(index);
    if (!thread.joined)
        pthread_join(thread.handle, nullptr);
    thread.joined = true;
}

void stop_threads()
{
    stopping = true;
    eventfd_write(stop_event(), 1);
    if (std::any_of(threads().begin(), threads().end(),
                    [](const Thread &thread) { return !thread.joined; })) {
        // With the lock, so that no thread is between looking at `stopping` and waiting.
        pthread_mutex_lock(&sflow_lib_server_cb.send_lock.mutex);
        pthread_cond_broadcast(&sflow_lib_server_cb.send_cond);
        pthread_mutex_unlock(&sflow_lib_server_cb.send_lock.mutex);
    }
    for (std::size_t i = 0; i < threads().size(); ++i)
        join_thread(i);
    threads().clear();
    eventfd_t ignored = 0;
    eventfd_read(stop_event(), &ignored);
    stopping = false;
    for (int32_t *sd : {&sflow_lib_server_cb.client_sd, &sflow_lib_server_cb.server_sd}) {
        if (*sd >= 0)
            close(*sd);
        *sd = -1;
    }
}

} // namespace channel

using namespace channel;

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
int __real_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);
int __real_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __real_pthread_rwlock_rdlock(pthread_rwlock_t *lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t *lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t *lock);
int __real_pthread_condattr_init(pthread_condattr_t *attr);
int __real_pthread_condattr_destroy(pthread_condattr_t *attr);
int __real_pthread_condattr_setclock(pthread_condattr_t *attr, clockid_t clock);
int __real_pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr);
int __real_pthread_cond_destroy(pthread_cond_t *cond);
int __real_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline);
int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr *addr, socklen_t len);
int __real_listen(int fd, int backlog);
int __real_accept4(int fd, sockaddr *addr, socklen_t *len, int flags);
int __real_poll(pollfd *fds, nfds_t count, int timeout);

void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr);
int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex);
int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t *lock);
int __wrap_pthread_rwlock_unlock(pthread_rwlock_t *lock);
int __wrap_pthread_condattr_init(pthread_condattr_t *attr);
int __wrap_pthread_condattr_destroy(pthread_condattr_t *attr);
int __wrap_pthread_condattr_setclock(pthread_condattr_t *attr, clockid_t clock);
int __wrap_pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr);
int __wrap_pthread_cond_destroy(pthread_cond_t *cond);
int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline);
int __wrap_socket(int domain, int type, int protocol);
int __wrap_bind(int fd, const sockaddr *addr, socklen_t len);
int __wrap_listen(int fd, int backlog);
int __wrap_accept4(int fd, sockaddr *addr, socklen_t *len, int flags);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout);
unsigned __wrap_sleep(unsigned seconds);

void *__wrap_malloc(size_t size)
{
    if (size == failing_allocation && size != 0) {
        failing_allocation = 0;
        return nullptr;
    }
    return __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    if (count * size == failing_allocation && failing_allocation != 0) {
        failing_allocation = 0;
        return nullptr;
    }
    return __real_calloc(count, size);
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attr)
{
    const int error = failure_of("pthread_mutex_init");
    return created(mutex, error != 0 ? error : __real_pthread_mutex_init(mutex, attr));
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t *mutex)
{
    destroyed(mutex);
    return __real_pthread_mutex_destroy(mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    return lock_failure.hits(mutex) ? EINVAL : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    const int result = __real_pthread_mutex_unlock(mutex);
    return unlock_failure.hits(mutex) ? EPERM : result;
}

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t *lock)
{
    const int result = __real_pthread_rwlock_rdlock(lock);
    return lock_failure.hits(lock) ? EAGAIN : result;
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t *lock)
{
    // Taken all the same: the daemon goes on, and releases it.
    const int result = __real_pthread_rwlock_wrlock(lock);
    return lock_failure.hits(lock) ? EDEADLK : result;
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t *lock)
{
    const int result = __real_pthread_rwlock_unlock(lock);
    return unlock_failure.hits(lock) ? EPERM : result;
}

int __wrap_pthread_condattr_init(pthread_condattr_t *attr)
{
    const int error = failure_of("pthread_condattr_init");
    return created(attr, error != 0 ? error : __real_pthread_condattr_init(attr));
}

int __wrap_pthread_condattr_destroy(pthread_condattr_t *attr)
{
    destroyed(attr);
    return __real_pthread_condattr_destroy(attr);
}

int __wrap_pthread_condattr_setclock(pthread_condattr_t *attr, clockid_t clock)
{
    const int error = failure_of("pthread_condattr_setclock");
    return error != 0 ? error : __real_pthread_condattr_setclock(attr, clock);
}

int __wrap_pthread_cond_init(pthread_cond_t *cond, const pthread_condattr_t *attr)
{
    const int error = failure_of("pthread_cond_init");
    return created(cond, error != 0 ? error : __real_pthread_cond_init(cond, attr));
}

int __wrap_pthread_cond_destroy(pthread_cond_t *cond)
{
    destroyed(cond);
    return __real_pthread_cond_destroy(cond);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline)
{
    if (cond != &sflow_lib_server_cb.send_cond)
        return __real_pthread_cond_timedwait(cond, mutex, deadline);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    wait_ms = (deadline->tv_sec - now.tv_sec) * 1000 + (deadline->tv_nsec - now.tv_nsec) / 1000000;
    ++waits;
    int result = 0;
    if (wait_times_out.exchange(false))
        result = ETIMEDOUT;
    else if (!stopping)
        result = __real_pthread_cond_timedwait(cond, mutex, deadline);
    if (stopping) {
        __real_pthread_mutex_unlock(mutex);
        end_thread();
    }
    return result;
}

int __wrap_socket(int domain, int type, int protocol)
{
    errno = failure_of("socket");
    return errno != 0 ? -1 : __real_socket(domain, type, protocol);
}

int __wrap_bind(int fd, const sockaddr *addr, socklen_t len)
{
    errno = failure_of("bind");
    return errno != 0 ? -1 : __real_bind(fd, addr, len);
}

int __wrap_listen(int fd, int backlog)
{
    errno = failure_of("listen");
    return errno != 0 ? -1 : __real_listen(fd, backlog);
}

int __wrap_accept4(int fd, sockaddr *addr, socklen_t *len, int flags)
{
    ++accepts;
    errno = failure_of("accept4");
    if (errno != 0)
        return -1;
    std::array<pollfd, 2> fds{{{fd, POLLIN, 0}, {stop_event(), POLLIN, 0}}};
    if (is_server_thread && __real_poll(fds.data(), fds.size(), -1) > 0 && stopping)
        end_thread();
    return __real_accept4(fd, addr, len, flags);
}

int __wrap_poll(pollfd *fds, nfds_t count, int timeout)
{
    if (is_server_thread) {
        ++retry_pauses;
        longest_pause_ms = std::max<int>(longest_pause_ms, timeout < 0 ? 1000000 : timeout);
        if (stopping)
            end_thread();
    }
    return __real_poll(fds, count, timeout);
}

unsigned __wrap_sleep(unsigned seconds)
{
    ++sleeps;
    slept_seconds += seconds;
    return 0;
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

int real_create_thread(pthread_t *, void *(*)(void *),
                       void *) __asm__("__real__Z27sflow_create_depatch_threadPmPFPvS0_ES0_");
int wrap_create_thread(pthread_t *, void *(*)(void *),
                       void *) __asm__("__wrap__Z27sflow_create_depatch_threadPmPFPvS0_ES0_");

int wrap_create_thread(pthread_t *tid, void *(*routine)(void *), void *arg)
{
    ++requested;
    if (threads_to_failure > 0 && --threads_to_failure == 0)
        return -1;
    if (thread_mode == Threads::noted)
        return 0;
    pthread_t handle{};
    if (pthread_create(&handle, nullptr, run_thread, new Start{routine, arg}) != 0)
        std::abort();
    *tid = handle;
    threads().push_back({handle, false});
    return 0;
}
