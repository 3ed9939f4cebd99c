#include "lsm_event.h"

#include <algorithm>

namespace platform::lsm
{
namespace
{

constexpr int LAST_FILTER_BIT = 55;

template <std::size_t N>
bool test_bit(const u_int8_t (&bits)[N], int bit)
{
    return (bits[bit / 8] & (1U << (bit % 8))) != 0;
}

void call(lsm_msg_handler_t handler, const Event &event)
{
    std::visit(
        [&](auto record) { // a copy: the handler gets a pointer that it may write through
            handler(event.number, reinterpret_cast<char *>(&record), static_cast<int>(sizeof record));
        },
        event.payload);
}

} // namespace

Subscriptions::Registration *Subscriptions::find(int stack)
{
    auto *it = std::find_if(registrations_.begin(), registrations_.end(),
                            [&](const Registration &r) { return r.stack == stack; });
    return it == registrations_.end() ? nullptr : it;
}

bool Subscriptions::subscribe(int stack, const lsm_iftype_filter &filter, const lsm_msg_set &set)
{
    Registration *registration = find(stack);
    if (registration == nullptr) {
        return false;
    }
    registration->subscribed = true;
    registration->filter = filter;
    registration->set = set;
    return true;
}

bool Subscriptions::set_handler(int stack, lsm_msg_handler_t handler)
{
    Registration *registration = find(stack);
    if (registration == nullptr) {
        return false;
    }
    registration->handler = handler;
    return true;
}

bool Subscriptions::wants(const Registration &registration, const Event &event)
{
    if (registration.handler == nullptr || !registration.subscribed ||
        (event.stacks & stack_bit(registration.stack)) == 0 ||
        !test_bit(registration.set.bits, event.number)) {
        return false;
    }
    return event.if_type == LSM_IF_TYPE_UNKNOWN ||
           test_bit(registration.filter.bits, std::min(event.if_type, LAST_FILTER_BIT));
}

void Subscriptions::deliver_to_all(const Event &event) const
{
    for (auto it = registrations_.begin(); it != registrations_.end(); ++it) {
        const bool again = std::any_of(registrations_.begin(), it,
                                       [&](const Registration &r) { return r.handler == it->handler; });
        if (it->handler != nullptr && !again) {
            call(it->handler, event);
        }
    }
}

void Subscriptions::deliver(const Event &event) const
{
    if (event.number == INTF_EVENT_SYNC_DATA_OVER) {
        deliver_to_all(event);
        return;
    }
    for (const Registration &registration : registrations_) {
        if (wants(registration, event)) {
            call(registration.handler, event);
        }
    }
}

} // namespace platform::lsm
