// The events that a change of one interface means. Pure functions; each appends to `events`.
#pragma once

#include "lsm_event.h"
#include "lsm_model.h"

#include <optional>
#include <vector>

namespace platform::lsm
{

/// From `before` to `after`; nullptr stands for "not there". What is lost is announced before what is gained,
/// and everything that an interface had before its destruction, so that a subscriber sees each thing end.
void add_link_events(const Link *before, const Link *after, Events &events);

/// Addresses of `family` that became usable or ceased to be.
void add_address_events(const Link &link, int family, const std::vector<Address> &before,
                        const std::vector<Address> &after, Events &events);
/// The addresses are the same but another one is the first.
void add_first_address_event(const Link &link, int family, Events &events);

void add_eth_event(const Link &link, const std::optional<EthInfo> &eth, Events &events);
void add_default_event(const Link &link, Events &events);

} // namespace platform::lsm
