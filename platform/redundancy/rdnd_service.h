// The redundancy service of a process: registrations, and the delivery of events on the client's thread master.
//
// Handlers run on that master without a lock held; they may call anything of platform/rdnd.h.
#pragma once

#include "lock/mutex.h"
#include "redundancy/rdnd_edition.h"

#include "platform/rdnd.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace platform
{

class RdndService final : public RdndHost
{
public:
    /// Makes the edition at the first attach(); nullptr means that none can run.
    using EditionMaker = std::function<std::unique_ptr<RdndEdition>(RdndHost &host)>;

    explicit RdndService(EditionMaker make_edition) : make_edition_(std::move(make_edition)) {}

    [[nodiscard]] int attach(kx_thread_master_t *master);
    [[nodiscard]] int register_client(const std::string &name, unsigned long version, rdnd_handler_t handler,
                                      void *arg);
    /// nullptr before attach().
    [[nodiscard]] RdndEdition *edition();
    [[nodiscard]] bool is_registered(const std::string &name);

    bool post(const std::string &name, RDND_EVENT event, std::vector<std::byte> data) override;

private:
    struct Client {
        rdnd_handler_t handler;
        void *arg;
    };
    struct Event {
        std::string name;
        RDND_EVENT event;
        std::vector<std::byte> data;
    };

    static int on_master(kx_thread_t *thread);
    void deliver_next(const kx_thread_master_t *master);

    const EditionMaker make_edition_;
    Mutex mutex_;
    kx_thread_master_t *master_ PLATFORM_GUARDED_BY(mutex_) = nullptr;
    std::unique_ptr<RdndEdition> edition_ PLATFORM_GUARDED_BY(mutex_); ///< never replaced once made
    std::map<std::string, Client> clients_ PLATFORM_GUARDED_BY(mutex_);
    std::deque<Event> events_ PLATFORM_GUARDED_BY(mutex_); ///< one task on the master each
};

/// The process's service.
[[nodiscard]] RdndService &rdnd_service();

} // namespace platform
