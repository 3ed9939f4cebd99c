// The network at the desk: links and addresses of every kind that the commands tell apart, given to the interface
// manager in the place of what netlink reads. Everything above netlink is the interface manager's own.
#pragma once

#include "platform/lsm.h"

#include <string>

namespace desk
{

/// Everything as it is at the start, with the events that lead there from what is.
void restore_network();
/// The interface, and with a VRF its hold on its members, is gone. False when there is none of this name.
bool remove_link(const std::string &name);
/// Takes the interface out of its VRF or puts it into another; "" is the default VRF. False for an unknown name.
bool move_to_vrf(const std::string &name, const std::string &vrf);
bool add_address(const std::string &name, const std::string &address);
bool remove_address(const std::string &name, const std::string &address);

} // namespace desk
