#include "lsm_client.h"

#include "lock/immortal.h"

namespace platform::lsm
{

Client &client()
{
    static Immortal<Client> the_client;
    return *the_client;
}

bool Client::note_default(IFINDEX ifx)
{
    const MutexLock lock(mutex_);
    if (store_.find(ifx) == nullptr) {
        return false;
    }
    defaults_.push_back(ifx);
    return true;
}

void Client::start(std::set<std::string, std::less<>> management, const std::vector<LinkState> &dump)
{
    delivering_ = false;
    Store store(std::move(management));
    store.replace(dump);
    const MutexLock lock(mutex_);
    store_ = std::move(store);
    defaults_.clear();
}

void Client::begin_delivery()
{
    const auto [events, count] = query([this](const Store &store) {
        return std::pair(mode_ == LSM_CLIENT_MODE_DUPLICATOR ? store.everything() : Events{}, store.size());
    });
    delivering_ = true;
    deliver(events);
    deliver({Event{.number = INTF_EVENT_SYNC_DATA_OVER,
                   .stacks = ALL_STACKS,
                   .if_type = LSM_IF_TYPE_UNKNOWN,
                   .payload = intf_msg_sync_t{.if_count = static_cast<u_int32_t>(count)}}});
}

void Client::deliver_defaults()
{
    change([this](const Store &store) PLATFORM_REQUIRES(mutex_) {
        Events events;
        for (const IFINDEX ifx : std::exchange(defaults_, {})) {
            const Events one = store.returned_to_default(ifx);
            events.insert(events.end(), one.begin(), one.end());
        }
        return events;
    });
}

void Client::deliver(const Events &events) const
{
    if (!delivering_) {
        return;
    }
    for (const Event &event : events) {
        subscriptions_.deliver(event);
    }
}

} // namespace platform::lsm
