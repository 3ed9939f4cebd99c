#include "redundancy/rdnd_service.h"

namespace platform
{

int RdndService::attach(kx_thread_master_t *master)
{
    if (master == nullptr)
        return -1;
    const MutexLock lock(mutex_);
    if (!edition_)
        edition_ = make_edition_(*this);
    if (!edition_)
        return -1;
    if (master != master_)
        events_.clear(); // their tasks are with the master before
    master_ = master;
    return 0;
}

int RdndService::register_client(const std::string &name, unsigned long version, rdnd_handler_t handler,
                                 void *arg)
{
    RdndEdition *edition = nullptr;
    {
        const MutexLock lock(mutex_);
        if (!edition_)
            return -1;
        edition = edition_.get();
        clients_.insert_or_assign(name, Client{.handler = handler, .arg = arg});
    }
    return edition->client_registered(name, version) ? 0 : -1;
}

RdndEdition *RdndService::edition()
{
    const MutexLock lock(mutex_);
    return edition_.get();
}

bool RdndService::is_registered(const std::string &name)
{
    const MutexLock lock(mutex_);
    return clients_.contains(name);
}

bool RdndService::post(const std::string &name, RDND_EVENT event, std::vector<std::byte> data)
{
    const MutexLock lock(mutex_);
    if (!clients_.contains(name))
        return false;
    if (kx_thread_add_event(master_, on_master, this) == nullptr)
        return false;
    events_.push_back({.name = name, .event = event, .data = std::move(data)});
    return true;
}

int RdndService::on_master(kx_thread_t *thread)
{
    static_cast<RdndService *>(kx_thread_arg(thread))->deliver_next(thread->master);
    return 0;
}

void RdndService::deliver_next(const kx_thread_master_t *master)
{
    Event event;
    Client client{};
    RdndEdition *edition = nullptr;
    {
        const MutexLock lock(mutex_);
        if (master != master_ || events_.empty())
            return;
        event = std::move(events_.front());
        events_.pop_front();
        client = clients_.at(event.name);
        edition = edition_.get();
    }
    std::string name = event.name; // the handler's to write to
    const int answer = client.handler(name.data(), event.event, static_cast<int>(event.data.size()),
                                      event.data.empty() ? nullptr : event.data.data(), client.arg);
    edition->handled(event.name, event.event, answer);
}

} // namespace platform
