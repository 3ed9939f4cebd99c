// The process's one client of the interface manager: the interface data, who may see them from which thread,
// and what of their changes reaches the client's handlers.
//
// Queries come from any thread. Everything that registers, changes the data or delivers events belongs to the
// thread that serves the client's thread master. Handlers are called without the lock, so they may query.
#pragma once

#include "lsm_event.h"
#include "lsm_store.h"

#include "lock/mutex.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace platform::lsm
{

class Client
{
public:
    // ---- Any thread

    /// Runs `function` on the data, which must not escape.
    template <typename Function>
    auto query(Function &&function) const PLATFORM_EXCLUDES(mutex_)
    {
        const MutexLock lock(mutex_);
        const Store &store = store_;
        return std::forward<Function>(function)(store);
    }

    /// Notes that an interface was returned to its defaults, for deliver_defaults(). False when it is
    /// unknown.
    bool note_default(IFINDEX ifx) PLATFORM_EXCLUDES(mutex_);

    // ---- The master's thread

    Subscriptions &subscriptions() { return subscriptions_; }
    void set_mode(lsm_client_mode_t mode) { mode_ = mode; }

    /// Starts over with these data; nothing is delivered until begin_delivery().
    void start(std::set<std::string, std::less<>> management, const std::vector<LinkState> &dump)
        PLATFORM_EXCLUDES(mutex_);

    /// Delivers what exists, as the mode wants it, and INTF_EVENT_SYNC_DATA_OVER; from then on every change.
    void begin_delivery() PLATFORM_EXCLUDES(mutex_);

    /// Changes the data by `function`, which takes the store and returns the events, and delivers these.
    template <typename Function>
    void change(Function &&function) PLATFORM_EXCLUDES(mutex_)
    {
        deliver(changed(std::forward<Function>(function)));
    }

    void deliver_defaults() PLATFORM_EXCLUDES(mutex_);

private:
    template <typename Function>
    Events changed(Function &&function) PLATFORM_EXCLUDES(mutex_)
    {
        const MutexLock lock(mutex_);
        return std::forward<Function>(function)(store_);
    }
    void deliver(const Events &events) const;

    mutable Mutex mutex_;
    Store store_ PLATFORM_GUARDED_BY(mutex_);
    std::vector<IFINDEX> defaults_ PLATFORM_GUARDED_BY(mutex_);

    Subscriptions subscriptions_;
    lsm_client_mode_t mode_ = LSM_CLIENT_MODE_NOTIFY;
    bool delivering_ = false;
};

/// The process's client.
Client &client();

} // namespace platform::lsm
