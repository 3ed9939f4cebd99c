// Speed and duplex of interfaces from ethtool: generic netlink where the kernel has it, the older ioctl
// elsewhere.
//
// Used on the thread of the client's thread master only.
#pragma once

#include "lsm_model.h"
#include "lsm_netlink.h"

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>

namespace platform::lsm
{

class EthtoolReader
{
public:
    /// Never fails: without ethtool netlink the ioctl answers, without both there are no Ethernet facts.
    void open();

    /// Facts of one interface; nothing when it has none or is gone.
    [[nodiscard]] std::optional<EthInfo> query(IFINDEX ifx, const std::string &name);

    /// Facts of many interfaces, by index.
    [[nodiscard]] std::unordered_map<IFINDEX, EthInfo> query_all(const std::vector<LinkState> &links);

    /// Descriptor that becomes readable when an operator changed a setting; -1 when the kernel does not tell.
    [[nodiscard]] int fd() const;

    /// Hands the interfaces whose settings changed to `sink`; never waits. False when notifications were lost.
    bool receive(const std::function<void(IFINDEX)> &sink);

private:
    bool open_requests();
    bool request(IFINDEX ifx, std::unordered_map<IFINDEX, EthInfo> &answers);
    void open_monitor();

    Socket requests_;
    Socket monitor_;
    int family_ = -1; ///< number of ethtool's generic netlink family, -1 without
};

} // namespace platform::lsm
