// The interface manager's copy of the interface data.
//
// Every change goes in as a whole object in the kernel's terms; the store compares it with what it holds,
// takes it over and returns the events that lead from the old state to the new one. A lost notification
// therefore costs nothing but time: the next full dump, given to replace(), yields exactly the events that
// are missing.
//
// Pure logic, not thread-safe: the owner locks. Look-ups by index and by name take constant time.
#pragma once

#include "lsm_event.h"
#include "lsm_model.h"

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace platform::lsm
{

/// A control block with its count of owners: the store and every caller that has not put it back yet.
class ControlBlock final : public lsm_intfcb_t
{
public:
    /// Owned once, by the caller.
    ControlBlock(const Link &link, const std::optional<EthInfo> &eth);
    ControlBlock(const ControlBlock &) = delete;
    ControlBlock &operator=(const ControlBlock &) = delete;

    void acquire() const { owners_.fetch_add(1, std::memory_order_relaxed); }
    /// Gives one ownership back; the last one frees the block, which must live on the heap.
    void release() const;

private:
    lsm_eth_info_t eth_{};
    mutable std::atomic<u_int32_t> owners_{1};
};

struct ReleaseBlock {
    void operator()(const ControlBlock *block) const { block->release(); }
};

struct Interface {
    Link link;
    std::vector<Address> v4; ///< in the kernel's order
    std::vector<Address> v6;
    std::optional<EthInfo> eth;
    u_int32_t kind = 0; ///< lsm_if_kind_t bits, LSM_IF_KIND_MANAGEMENT included
    u_int32_t physical_version = 0;
    u_int32_t tcpip_version = 0;
    std::unique_ptr<const ControlBlock, ReleaseBlock> block;

    /// The address that the first-address queries answer, nullptr when no address is usable. Allocates
    /// nothing.
    [[nodiscard]] const Address *first(int family) const;
    /// All addresses: the usable ones in the order of preference, then the others.
    [[nodiscard]] std::vector<Address> by_preference(int family) const;
};

class Store
{
public:
    /// @param management  names of the interfaces of the management network; each counts as one while it is in a VRF
    explicit Store(std::set<std::string, std::less<>> management = {});

    /// Each returns the events that the change means, in the order in which they are to be delivered.
    Events apply(const Link &link);
    Events remove(IFINDEX ifx);
    /// An address of an unknown interface is ignored: its link is announced first.
    Events apply(IFINDEX ifx, const Address &address);
    Events remove(IFINDEX ifx, const Address &address);
    Events set_eth(IFINDEX ifx, const std::optional<EthInfo> &eth);
    /// Takes over a full dump.
    Events replace(const std::vector<LinkState> &dump);

    /// The events that lead from nothing to what is there, masters before their members.
    [[nodiscard]] Events everything() const;
    /// INTF_EVENT_DEFAULT_INDEX; empty for an unknown interface.
    [[nodiscard]] Events returned_to_default(IFINDEX ifx) const;

    /// nullptr when unknown; valid until the next change.
    [[nodiscard]] const Interface *find(IFINDEX ifx) const;
    [[nodiscard]] const Interface *find(std::string_view name) const;
    /// Sorted by index.
    [[nodiscard]] std::vector<const Interface *> all() const;
    [[nodiscard]] std::size_t size() const { return interfaces_.size(); }

    /// Interfaces whose speed follows from that of `ifx`: its aggregate and the subinterfaces above it.
    [[nodiscard]] std::vector<IFINDEX> speed_followers(IFINDEX ifx) const;

private:
    Interface &apply_into(const Link &link, Events &events);
    void set_addresses(Interface &intf, int family, std::vector<Address> addresses, Events &events);
    void apply_eth(Interface &intf, const std::optional<EthInfo> &eth, Events &events);
    void remove_into(IFINDEX ifx, Events &events);
    void release_members(IFINDEX master, Events &events);
    void remove_missing(const std::vector<LinkState> &dump, Events &events);
    void refresh(Interface &intf);
    u_int32_t next_version();
    Interface *find_mutable(IFINDEX ifx);

    std::set<std::string, std::less<>> management_;
    std::unordered_map<IFINDEX, Interface> interfaces_;
    std::unordered_map<std::string, IFINDEX> names_;
    u_int32_t version_ = 0;
};

} // namespace platform::lsm
