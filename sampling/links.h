// Table of the kernel's interfaces, kept up to date from rtnetlink.
//
// Answers three questions: is there an interface with this index, can its frames be sampled, and has it gone. Works
// on one non-blocking rtnetlink socket on the event loop; does not change any interface.
#pragma once

#include "backend.h"
#include "event_loop.h"
#include "log.h"
#include "sflow_types.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

struct nl_msg;
struct nl_sock;
struct rtnl_link_stats64;

namespace sampling
{

struct NlSockDeleter {
    void operator()(nl_sock *socket) const;
};
using NlSock = std::unique_ptr<nl_sock, NlSockDeleter>;

struct NlMsgDeleter {
    void operator()(nl_msg *message) const;
};
using NlMsg = std::unique_ptr<nl_msg, NlMsgDeleter>;

/// A blocking netlink socket for requests that are answered by data or by an error, without an acknowledgement. A
/// kernel that answers nothing at all ends the read after a second. Empty when the kernel gives none.
[[nodiscard]] NlSock open_request_socket(int protocol);

struct Link {
    std::string name;
    std::string kind;           ///< kernel's link kind ("vlan", "bond", "vrf" …), empty for hardware
    std::uint16_t arp_type = 0; ///< ARPHRD_*
    std::uint32_t flags = 0;    ///< IFF_*
    bool oper_up = false;       ///< operational state is up, or unknown with a running carrier
    bool promiscuous = false;
    IFINDEX parent = 0; ///< device below, in this namespace; 0 none
    std::optional<VlanTag>
        device_tag; ///< the tag that a VLAN device takes off what it receives and adds to what it sends
};

/// True when frames of the interface begin with an Ethernet header and pass through its hooks.
[[nodiscard]] bool can_be_sampled(const Link &link);

class LinkTable
{
public:
    /// Reads the whole table and subscribes to changes. Throws std::runtime_error when the kernel refuses.
    LinkTable(EventLoop &loop, Log &log);
    ~LinkTable();
    LinkTable(const LinkTable &) = delete;
    LinkTable &operator=(const LinkTable &) = delete;

    /// The interface, or nullptr. Notices that wait in the socket are read first when the index is unknown, so a
    /// request never fails for having overtaken the notice of its interface. Valid until the next call.
    [[nodiscard]] const Link *find(IFINDEX ifindex);
    /// Whether the interface is there as of the notices read so far; reads none, and so changes nothing.
    [[nodiscard]] bool contains(IFINDEX ifindex) const { return links_.contains(ifindex); }
    /// Name for logs: the interface's, or "#<index>".
    [[nodiscard]] std::string name_of(IFINDEX ifindex) const;
    /// Index by name, 0 when there is none.
    [[nodiscard]] IFINDEX index_of(const std::string &name) const;
    /// True when the index names a VRF device: the kernel shows it as the input of what its members received.
    [[nodiscard]] bool is_vrf(IFINDEX ifindex) const;

    /// Tags that the VLAN device, and the VLAN devices below it, take off and add: the outermost, which is the lowest
    /// device's, in front. Their priority is 0: it is decided for each packet. Empty for other interfaces.
    [[nodiscard]] std::vector<VlanTag> device_tags(IFINDEX ifindex) const;

    /// Called for each interface that has gone, in a later round of the event loop than its leaving the table.
    void on_removal(std::function<void(IFINDEX)> handler) { removed_ = std::move(handler); }

    /// Called for each interface that has gone at the moment when it leaves the table, inside find() perhaps: the handler
    /// must not use the table. With the interface's last statistics, or nullptr when the notice was lost or had none.
    void on_farewell(std::function<void(IFINDEX, const rtnl_link_stats64 *)> handler)
    {
        farewell_ = std::move(handler);
    }

    /// Takes one RTM_NEWLINK or RTM_DELLINK message (tests use it directly).
    void take(nl_msg *message);

private:
    void read_all();
    void read_notices();
    void announce_removal(IFINDEX ifindex, const rtnl_link_stats64 *farewell);

    EventLoop &loop_;
    Log &log_;
    NlSock socket_;
    std::unordered_map<IFINDEX, Link> links_;
    std::function<void(IFINDEX)> removed_;
    std::function<void(IFINDEX, const rtnl_link_stats64 *)> farewell_;
};

} // namespace sampling
