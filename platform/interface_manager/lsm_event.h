// Events of the interface manager and the subscriptions that choose among them. Pure logic: delivery calls
// the handlers on the caller's thread and takes no lock.
#pragma once

#include "platform/lsm.h"

#include <array>
#include <variant>
#include <vector>

namespace platform::lsm
{

using Payload =
    std::variant<intf_msg_create_t, intf_msg_destroy_t, intf_msg_state_t, intf_msg_ap_t, intf_msg_ip_t,
                 intf_msg_ipv6_t, intf_msg_vrf_t, intf_msg_eth_info_t, intf_msg_sync_t>;

/// Set of stacks: bit `n` for stack `n`.
using StackSet = unsigned;
constexpr StackSet stack_bit(int stack)
{
    return 1U << stack;
}
constexpr StackSet ALL_STACKS =
    stack_bit(LSM_IF_STACK_PHYSICAL) | stack_bit(LSM_IF_STACK_BRIDGE) | stack_bit(LSM_IF_STACK_TCPIP);

struct Event {
    int number = 0;      ///< intf_event_type_index
    StackSet stacks = 0; ///< where it happened
    int if_type = 0;     ///< lsm_if_type_t of the interface; LSM_IF_TYPE_UNKNOWN passes every filter
    Payload payload;
};

using Events = std::vector<Event>;

/// The client's registrations, one a stack.
class Subscriptions
{
public:
    /// False for an unknown stack.
    bool subscribe(int stack, const lsm_iftype_filter &filter, const lsm_msg_set &set);
    bool set_handler(int stack, lsm_msg_handler_t handler);

    /// Calls the handler of every stack on which the event happened and that subscribed to it, in the order
    /// physical, bridge, TCP/IP; INTF_EVENT_SYNC_DATA_OVER goes to each different handler once.
    void deliver(const Event &event) const;

private:
    struct Registration {
        int stack;
        bool subscribed = false;
        lsm_iftype_filter filter{};
        lsm_msg_set set{};
        lsm_msg_handler_t handler = nullptr;
    };

    Registration *find(int stack);
    static bool wants(const Registration &registration, const Event &event);
    void deliver_to_all(const Event &event) const;

    std::array<Registration, 3> registrations_{Registration{.stack = LSM_IF_STACK_PHYSICAL},
                                               Registration{.stack = LSM_IF_STACK_BRIDGE},
                                               Registration{.stack = LSM_IF_STACK_TCPIP}};
};

} // namespace platform::lsm
