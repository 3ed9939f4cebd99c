// Reads interfaces and addresses from the kernel's rtnetlink: full dumps, and the stream of changes.
//
// Used on the thread of the client's thread master only. Needs no privileges; sees the network namespace that
// the process is in when it opens.
#pragma once

#include "lsm_model.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

struct nl_msg;
struct nl_sock;

namespace platform::lsm
{

struct LinkGone {
    IFINDEX ifx = 0;
};
struct AddressChange {
    IFINDEX ifx = 0;
    Address address;
};
struct AddressGone {
    IFINDEX ifx = 0;
    Address address;
};
using Change = std::variant<Link, LinkGone, AddressChange, AddressGone>;

/// What an rtnetlink message says about interfaces; nothing for messages of other kinds, for the bridge's and
/// the wireless layer's own notifications, which use the same message type but describe a part of the link
/// only, and for messages that cannot be decoded.
[[nodiscard]] std::optional<Change> parse_change(nl_msg *msg) noexcept;

struct FreeSocket {
    void operator()(nl_sock *sock) const;
};
using Socket = std::unique_ptr<nl_sock, FreeSocket>;

class RouteReader
{
public:
    enum class Result {
        drained, ///< no more for now
        more,    ///< the limit was reached first
        lost,    ///< changes were dropped: only a dump tells what is there now
    };

    /// Opens the sockets and joins the groups: every change after this is either in a later dump, or
    /// received, or reported as lost. False with errno set when netlink is not to be had.
    [[nodiscard]] bool open();

    /// Descriptor that becomes readable when changes have arrived.
    [[nodiscard]] int fd() const;

    /// Hands at most `limit` pending changes to `sink`, oldest first; never waits.
    Result receive(const std::function<void(Change &&)> &sink, int limit);
    /// Throws away what is pending.
    void discard();

    /// All interfaces with their addresses, without Ethernet facts. Nothing with errno set when the kernel
    /// refuses or the data change faster than they can be read.
    [[nodiscard]] std::optional<std::vector<LinkState>> dump();

private:
    bool open_requests();
    bool request(int message_type, void *header, std::size_t header_bytes, std::vector<Change> &changes);

    Socket events_;
    Socket requests_;
};

} // namespace platform::lsm
