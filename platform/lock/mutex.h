// Mutex with clang's thread-safety attributes, for the platform services. It is a std::mutex that the analysis can
// see; std::condition_variable_any waits on it directly.
#pragma once

#include <mutex>

#if defined(__clang__)
#define PLATFORM_TSA(x) __attribute__((x))
#else
#define PLATFORM_TSA(x)
#endif
#define PLATFORM_GUARDED_BY(lock) PLATFORM_TSA(guarded_by(lock))
#define PLATFORM_REQUIRES(...) PLATFORM_TSA(requires_capability(__VA_ARGS__))
#define PLATFORM_EXCLUDES(...) PLATFORM_TSA(locks_excluded(__VA_ARGS__))

namespace platform
{

class PLATFORM_TSA(capability("mutex")) Mutex
{
public:
    void lock() PLATFORM_TSA(acquire_capability()) { mutex_.lock(); }
    bool try_lock() PLATFORM_TSA(try_acquire_capability(true)) { return mutex_.try_lock(); }
    void unlock() PLATFORM_TSA(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

/// Holds a Mutex for the length of a scope.
class PLATFORM_TSA(scoped_lockable) MutexLock
{
public:
    explicit MutexLock(Mutex &mutex) PLATFORM_TSA(acquire_capability(mutex)) : mutex_(mutex)
    {
        mutex_.lock();
    }
    ~MutexLock() PLATFORM_TSA(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock &) = delete;
    MutexLock &operator=(const MutexLock &) = delete;

private:
    Mutex &mutex_;
};

} // namespace platform
