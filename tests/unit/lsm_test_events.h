// Interface-manager events as one line of text each, and short ways to make links and addresses.
#pragma once

#include "interface_manager/lsm_event.h"
#include "interface_manager/lsm_model.h"

#include <string>
#include <vector>

namespace lsm_test
{

/// Stacks, what, whom: "3+7 create 5", "7 ipv4 5 add 10.0.0.1/24", "3 agg 5 join 8", "7 vrf gone 9".
std::string describe(const platform::lsm::Event &event);
std::vector<std::string> describe(const platform::lsm::Events &events);

constexpr unsigned UP = 0x1 | 0x40 | 0x10000; // IFF_UP, IFF_RUNNING, IFF_LOWER_UP

/// A hardware port that is down.
platform::lsm::Link port(IFINDEX ifx, const std::string &name);
/// A device of a kind that is up.
platform::lsm::Link device(IFINDEX ifx, const std::string &name, const std::string &kind);
/// `link` as a member of `master`, which is of kind `kind`.
platform::lsm::Link member_of(platform::lsm::Link link, IFINDEX master, const std::string &kind);
platform::lsm::Link with_flags(platform::lsm::Link link, unsigned flags);

/// "10.0.0.1/24" or "2001:db8::1/64"; `flags` are IFA_F_*. The scope follows from the address.
platform::lsm::Address address(const std::string &text, unsigned flags = 0);

} // namespace lsm_test
