#include "lsm_store.h"

#include "lsm_diff.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <linux/if_addr.h>
#include <sys/socket.h>
#include <utility>

namespace platform::lsm
{
namespace
{

/// Whether `link` is not the device that `known` was but another one that took over its index.
bool is_other_device(const Link &known, const Link &link)
{
    return known.kind != link.kind || known.hw_type != link.hw_type;
}

/// The same for a gap in which notifications were lost: a rename alone, or a new MAC address alone, does not
/// make another device.
bool is_other_device_after_gap(const Link &known, const Link &link)
{
    return is_other_device(known, link) || (known.name != link.name && known.mac != link.mac);
}

bool can_have_members(const Link &link)
{
    const lsm_if_type_t type = type_of(link);
    return type == LSM_IF_TYPE_AGGREGATE || type == LSM_IF_TYPE_BRIDGE || type == LSM_IF_TYPE_VRF;
}

/// Order of preference, the lowest first; equal ranks keep the kernel's order.
std::array<unsigned, 4> rank(const Address &address)
{
    const unsigned unusable = is_usable(address) ? 0 : 1;
    const unsigned secondary = is_secondary(address) ? 1 : 0;
    if (address.family == AF_INET) {
        return {unusable, secondary, address.scope, 0};
    }
    const unsigned deprecated = (address.flags & IFA_F_DEPRECATED) != 0 ? 1 : 0;
    return {unusable, address.scope, deprecated, secondary};
}

/// Puts a new address where the kernel's list has it: IPv4 at the end, IPv6 before the first address of the
/// same or a narrower scope.
void insert_in_kernel_order(std::vector<Address> &addresses, const Address &address)
{
    auto position = addresses.end();
    if (address.family == AF_INET6) {
        position = std::find_if(addresses.begin(), addresses.end(),
                                [&](const Address &a) { return a.scope >= address.scope; });
    }
    addresses.insert(position, address);
}

std::vector<const LinkState *> masters_first(const std::vector<LinkState> &dump)
{
    std::vector<const LinkState *> order;
    order.reserve(dump.size());
    for (const LinkState &state : dump) {
        order.push_back(&state);
    }
    std::stable_partition(order.begin(), order.end(),
                          [](const LinkState *state) { return can_have_members(state->link); });
    return order;
}

std::vector<Address> of_family(const std::vector<Address> &addresses, int family)
{
    std::vector<Address> result;
    std::copy_if(addresses.begin(), addresses.end(), std::back_inserter(result),
                 [&](const Address &a) { return a.family == family; });
    return result;
}

} // namespace

// ---- Control block ----------------------------------------------------------------------------------------

ControlBlock::ControlBlock(const Link &link, const std::optional<EthInfo> &eth)
    : lsm_intfcb_t{.ifx = link.ifx,
                   .if_type = type_of(link),
                   .admin_state = is_admin_up(link) ? INTF_ADMIN_UP : INTF_ADMIN_DOWN,
                   .line_state = is_line_up(link) ? INTF_UP : INTF_DOWN,
                   .eth_info = nullptr}
{
    if (eth) {
        eth_ = {.duplex = eth->duplex, .speed = eth->speed};
        eth_info = &eth_;
    }
}

void ControlBlock::release() const
{
    if (owners_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        const std::unique_ptr<const ControlBlock> last(this);
    }
}

// ---- One interface ----------------------------------------------------------------------------------------

const Address *Interface::first(int family) const
{
    const std::vector<Address> &addresses = family == AF_INET ? v4 : v6;
    const auto best = std::min_element(addresses.begin(), addresses.end(),
                                       [](const Address &a, const Address &b) { return rank(a) < rank(b); });
    return best != addresses.end() && is_usable(*best) ? &*best : nullptr;
}

std::vector<Address> Interface::by_preference(int family) const
{
    std::vector<Address> addresses = family == AF_INET ? v4 : v6;
    std::stable_sort(addresses.begin(), addresses.end(),
                     [](const Address &a, const Address &b) { return rank(a) < rank(b); });
    return addresses;
}

// ---- Store ------------------------------------------------------------------------------------------------

Store::Store(std::set<std::string, std::less<>> management) : management_(std::move(management)) {}

u_int32_t Store::next_version()
{
    if (++version_ == 0) {
        ++version_;
    }
    return version_;
}

/// Recomputes what follows from the link and its Ethernet facts.
void Store::refresh(Interface &intf)
{
    intf.kind = kind_of(intf.link);
    // Only inside a VRF: a collector reached through it is told apart, and saved, by that.
    if (management_.count(intf.link.name) != 0 && vrf_of(intf.link) != 0) {
        intf.kind |= LSM_IF_KIND_MANAGEMENT;
    }
    intf.physical_version = exists_on(intf.link, LSM_IF_STACK_PHYSICAL) ? next_version() : 0;
    intf.tcpip_version = exists_on(intf.link, LSM_IF_STACK_TCPIP) ? next_version() : 0;
    intf.block.reset(std::make_unique<const ControlBlock>(intf.link, intf.eth).release());
}

Interface &Store::apply_into(const Link &link, Events &events)
{
    const auto known = interfaces_.find(link.ifx);
    if (known != interfaces_.end() && is_other_device(known->second.link, link)) {
        remove_into(link.ifx, events);
    }
    const auto [it, created] = interfaces_.try_emplace(link.ifx);
    Interface &intf = it->second;
    if (!created && intf.link == link) {
        return intf;
    }
    const Link before = std::exchange(intf.link, link);
    if (before.name != link.name) {
        const auto old_name = names_.find(before.name);
        if (old_name != names_.end() && old_name->second == link.ifx) {
            names_.erase(old_name);
        }
        names_.insert_or_assign(link.name, link.ifx);
    }
    refresh(intf);
    add_link_events(created ? nullptr : &before, &link, events);
    return intf;
}

Events Store::apply(const Link &link)
{
    Events events;
    apply_into(link, events);
    return events;
}

/// The kernel releases the members of a device before it removes it; after a gap nobody else would.
void Store::release_members(IFINDEX master, Events &events)
{
    std::vector<Link> members;
    for (const auto &[ifx, intf] : interfaces_) {
        if (intf.link.master == master) {
            members.push_back(intf.link);
        }
    }
    std::sort(members.begin(), members.end(), [](const Link &a, const Link &b) { return a.ifx < b.ifx; });
    for (Link &member : members) {
        member.master = 0;
        member.slave_kind.clear();
        apply_into(member, events);
    }
}

void Store::remove_into(IFINDEX ifx, Events &events)
{
    const auto it = interfaces_.find(ifx);
    if (it == interfaces_.end()) {
        return;
    }
    if (can_have_members(it->second.link)) {
        release_members(ifx, events);
    }
    const Interface &intf = it->second;
    add_address_events(intf.link, AF_INET, intf.v4, {}, events);
    add_address_events(intf.link, AF_INET6, intf.v6, {}, events);
    add_link_events(&intf.link, nullptr, events);
    const auto name = names_.find(intf.link.name);
    if (name != names_.end() && name->second == ifx) {
        names_.erase(name);
    }
    interfaces_.erase(it);
}

Events Store::remove(IFINDEX ifx)
{
    Events events;
    remove_into(ifx, events);
    return events;
}

void Store::set_addresses(Interface &intf, int family, std::vector<Address> addresses, Events &events)
{
    std::vector<Address> &held = family == AF_INET ? intf.v4 : intf.v6;
    if (held == addresses) {
        return;
    }
    const std::optional<Address> first_before =
        intf.first(family) != nullptr ? std::optional(*intf.first(family)) : std::nullopt;
    const std::vector<Address> before = std::exchange(held, std::move(addresses));
    if (exists_on(intf.link, LSM_IF_STACK_TCPIP)) {
        intf.tcpip_version = next_version();
    }
    const std::size_t count = events.size();
    add_address_events(intf.link, family, before, held, events);
    const Address *first = intf.first(family);
    if (events.size() == count && first != nullptr && first_before && !same_address(*first, *first_before)) {
        add_first_address_event(intf.link, family, events);
    }
}

Events Store::apply(IFINDEX ifx, const Address &address)
{
    Events events;
    Interface *intf = find_mutable(ifx);
    if (intf == nullptr) {
        return events;
    }
    std::vector<Address> addresses = address.family == AF_INET ? intf->v4 : intf->v6;
    const auto known = std::find_if(addresses.begin(), addresses.end(),
                                    [&](const Address &a) { return same_address(a, address); });
    if (known == addresses.end()) {
        insert_in_kernel_order(addresses, address);
    } else if (address.family == AF_INET && is_secondary(*known) && !is_secondary(address)) {
        addresses.erase(known); // promoted: becomes the last of the primary addresses
        insert_in_kernel_order(addresses, address);
    } else {
        *known = address;
    }
    set_addresses(*intf, address.family, std::move(addresses), events);
    return events;
}

Events Store::remove(IFINDEX ifx, const Address &address)
{
    Events events;
    Interface *intf = find_mutable(ifx);
    if (intf == nullptr) {
        return events;
    }
    std::vector<Address> addresses = address.family == AF_INET ? intf->v4 : intf->v6;
    std::erase_if(addresses, [&](const Address &a) { return same_address(a, address); });
    set_addresses(*intf, address.family, std::move(addresses), events);
    return events;
}

void Store::apply_eth(Interface &intf, const std::optional<EthInfo> &eth, Events &events)
{
    if (intf.eth == eth) {
        return;
    }
    intf.eth = eth;
    refresh(intf);
    add_eth_event(intf.link, eth, events);
}

Events Store::set_eth(IFINDEX ifx, const std::optional<EthInfo> &eth)
{
    Events events;
    if (Interface *intf = find_mutable(ifx); intf != nullptr) {
        apply_eth(*intf, eth, events);
    }
    return events;
}

void Store::remove_missing(const std::vector<LinkState> &dump, Events &events)
{
    std::unordered_map<IFINDEX, const Link *> present;
    for (const LinkState &state : dump) {
        present.emplace(state.link.ifx, &state.link);
    }
    std::vector<IFINDEX> gone;
    for (const auto &[ifx, intf] : interfaces_) {
        const auto it = present.find(ifx);
        if (it == present.end() || is_other_device_after_gap(intf.link, *it->second)) {
            gone.push_back(ifx);
        }
    }
    std::sort(gone.begin(), gone.end());
    for (const IFINDEX ifx : gone) {
        remove_into(ifx, events);
    }
}

Events Store::replace(const std::vector<LinkState> &dump)
{
    Events events;
    remove_missing(dump, events);
    for (const LinkState *state : masters_first(dump)) {
        Interface &intf = apply_into(state->link, events);
        set_addresses(intf, AF_INET, of_family(state->addresses, AF_INET), events);
        set_addresses(intf, AF_INET6, of_family(state->addresses, AF_INET6), events);
        apply_eth(intf, state->eth, events);
    }
    return events;
}

Events Store::everything() const
{
    std::vector<const Interface *> order = all();
    std::stable_partition(order.begin(), order.end(),
                          [](const Interface *intf) { return can_have_members(intf->link); });
    Events events;
    for (const Interface *intf : order) {
        add_link_events(nullptr, &intf->link, events);
        add_address_events(intf->link, AF_INET, {}, intf->v4, events);
        add_address_events(intf->link, AF_INET6, {}, intf->v6, events);
        if (intf->eth) {
            add_eth_event(intf->link, intf->eth, events);
        }
    }
    return events;
}

Events Store::returned_to_default(IFINDEX ifx) const
{
    Events events;
    if (const Interface *intf = find(ifx); intf != nullptr) {
        add_default_event(intf->link, events);
    }
    return events;
}

const Interface *Store::find(IFINDEX ifx) const
{
    const auto it = interfaces_.find(ifx);
    return it == interfaces_.end() ? nullptr : &it->second;
}

Interface *Store::find_mutable(IFINDEX ifx)
{
    const auto it = interfaces_.find(ifx);
    return it == interfaces_.end() ? nullptr : &it->second;
}

const Interface *Store::find(std::string_view name) const
{
    const auto it = names_.find(std::string(name));
    return it == names_.end() ? nullptr : find(it->second);
}

std::vector<const Interface *> Store::all() const
{
    std::vector<const Interface *> result;
    result.reserve(interfaces_.size());
    for (const auto &[ifx, intf] : interfaces_) {
        result.push_back(&intf);
    }
    std::sort(result.begin(), result.end(),
              [](const Interface *a, const Interface *b) { return a->link.ifx < b->link.ifx; });
    return result;
}

std::vector<IFINDEX> Store::speed_followers(IFINDEX ifx) const
{
    std::vector<IFINDEX> followers;
    const Interface *leader = find(ifx);
    if (leader == nullptr) {
        return followers;
    }
    if (const IFINDEX aggregate = aggregate_of(leader->link); aggregate != 0) {
        followers.push_back(aggregate);
    }
    for (const auto &[other, intf] : interfaces_) {
        if (intf.link.parent == ifx && !intf.link.parent_elsewhere && is_subinterface(intf.link)) {
            followers.push_back(other);
        }
    }
    return followers;
}

} // namespace platform::lsm
