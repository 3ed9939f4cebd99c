#include "lsm_ethtool.h"

#include "file/descriptor.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/if.h>
#include <linux/sockios.h>
#include <netlink/attr.h>
#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace platform::lsm
{
namespace
{

constexpr int MONITOR_LIMIT = 1000; // notifications a round

EthInfo to_info(u_int32_t speed, u_int8_t duplex)
{
    EthInfo info;
    info.speed = speed == static_cast<u_int32_t>(SPEED_UNKNOWN) ? 0 : speed;
    if (duplex == DUPLEX_FULL) {
        info.duplex = LSM_DUPLEX_FULL;
    } else if (duplex == DUPLEX_HALF) {
        info.duplex = LSM_DUPLEX_HALF;
    }
    return info;
}

using Attributes = std::array<nlattr *, ETHTOOL_A_LINKMODES_MAX + 1>;

/// Index of the interface in the header attribute, which has the same number in every ethtool message; 0
/// without.
IFINDEX header_index(nlattr *header)
{
    std::array<nlattr *, ETHTOOL_A_HEADER_MAX + 1> parts{};
    if (header == nullptr || nla_parse_nested(parts.data(), ETHTOOL_A_HEADER_MAX, header, nullptr) < 0 ||
        parts[ETHTOOL_A_HEADER_DEV_INDEX] == nullptr) {
        return 0;
    }
    return nla_get_u32(parts[ETHTOOL_A_HEADER_DEV_INDEX]);
}

int on_linkmodes(nl_msg *msg, void *arg) noexcept
{
    Attributes attributes{};
    if (genlmsg_parse(nlmsg_hdr(msg), 0, attributes.data(), ETHTOOL_A_LINKMODES_MAX, nullptr) < 0) {
        return NL_SKIP;
    }
    const IFINDEX ifx = header_index(attributes[ETHTOOL_A_LINKMODES_HEADER]);
    const nlattr *speed = attributes[ETHTOOL_A_LINKMODES_SPEED];
    const nlattr *duplex = attributes[ETHTOOL_A_LINKMODES_DUPLEX];
    if (ifx == 0 || (speed == nullptr && duplex == nullptr)) {
        return NL_SKIP;
    }
    static_cast<std::unordered_map<IFINDEX, EthInfo> *>(arg)->insert_or_assign(
        ifx, to_info(speed != nullptr ? nla_get_u32(speed) : 0,
                     duplex != nullptr ? nla_get_u8(duplex) : u_int8_t{DUPLEX_UNKNOWN}));
    return NL_OK;
}

int on_monitor(nl_msg *msg, void *arg) noexcept
{
    const auto *header = static_cast<const genlmsghdr *>(nlmsg_data(nlmsg_hdr(msg)));
    if (header->cmd != ETHTOOL_MSG_LINKMODES_NTF) {
        return NL_SKIP;
    }
    Attributes attributes{};
    if (genlmsg_parse(nlmsg_hdr(msg), 0, attributes.data(), ETHTOOL_A_LINKMODES_MAX, nullptr) < 0) {
        return NL_SKIP;
    }
    if (const IFINDEX ifx = header_index(attributes[ETHTOOL_A_LINKMODES_HEADER]); ifx != 0) {
        (*static_cast<const std::function<void(IFINDEX)> *>(arg))(ifx);
    }
    return NL_OK;
}

std::optional<EthInfo> query_by_ioctl(const std::string &name)
{
    const Descriptor control(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    if (control.get() < 0 || name.empty() || name.size() >= sizeof request.ifr_name) {
        return std::nullopt;
    }
    // The kernel first tells, as a negative number, how many words its link-mode masks have, then wants that
    // many words of room, three times, behind the settings.
    constexpr std::size_t MOST_WORDS = 127;
    alignas(ethtool_link_settings)
        std::array<std::byte, sizeof(ethtool_link_settings) + 3 * MOST_WORDS * sizeof(u_int32_t)>
            room{};
    auto *settings = reinterpret_cast<ethtool_link_settings *>(room.data());
    std::memcpy(request.ifr_name, name.data(), name.size());
    request.ifr_data = reinterpret_cast<char *>(room.data());
    settings->cmd = ETHTOOL_GLINKSETTINGS;
    if (ioctl(control.get(), SIOCETHTOOL, &request) != 0 || settings->link_mode_masks_nwords >= 0) {
        return std::nullopt;
    }
    const auto words = static_cast<__s8>(-settings->link_mode_masks_nwords);
    room = {};
    settings->cmd = ETHTOOL_GLINKSETTINGS;
    settings->link_mode_masks_nwords = words;
    if (ioctl(control.get(), SIOCETHTOOL, &request) != 0) {
        return std::nullopt;
    }
    return to_info(settings->speed, settings->duplex);
}

} // namespace

void EthtoolReader::open()
{
    monitor_.reset();
    family_ = -1;
    if (!open_requests()) {
        return;
    }
    family_ = genl_ctrl_resolve(requests_.get(), ETHTOOL_GENL_NAME);
    if (family_ >= 0) {
        open_monitor();
    }
}

bool EthtoolReader::open_requests()
{
    requests_.reset(nl_socket_alloc());
    if (requests_ == nullptr || genl_connect(requests_.get()) < 0) {
        return false;
    }
    // An answer is one message; an acknowledgement behind it would be taken for the answer to the next
    // request.
    nl_socket_disable_auto_ack(requests_.get());
    return true;
}

void EthtoolReader::open_monitor()
{
    const int group = genl_ctrl_resolve_grp(requests_.get(), ETHTOOL_GENL_NAME, ETHTOOL_MCGRP_MONITOR_NAME);
    Socket monitor(nl_socket_alloc());
    if (group < 0 || monitor == nullptr) {
        return;
    }
    nl_socket_disable_seq_check(monitor.get());
    if (genl_connect(monitor.get()) < 0 || nl_socket_add_memberships(monitor.get(), group, 0) < 0 ||
        nl_socket_set_nonblocking(monitor.get()) < 0) {
        return;
    }
    monitor_ = std::move(monitor);
}

int EthtoolReader::fd() const
{
    return monitor_ == nullptr ? -1 : nl_socket_get_fd(monitor_.get());
}

bool EthtoolReader::receive(const std::function<void(IFINDEX)> &sink)
{
    if (monitor_ == nullptr) {
        return true;
    }
    nl_socket_modify_cb(monitor_.get(), NL_CB_VALID, NL_CB_CUSTOM, on_monitor,
                        const_cast<std::function<void(IFINDEX)> *>(&sink));
    bool complete = true;
    for (int i = 0; i < MONITOR_LIMIT; ++i) {
        const int result = nl_recvmsgs_default(monitor_.get());
        if (result == -NLE_AGAIN) {
            break;
        }
        complete = complete && result >= 0;
    }
    return complete;
}

/// Asks for one interface, or with 0 for all.
bool EthtoolReader::request(IFINDEX ifx, std::unordered_map<IFINDEX, EthInfo> &answers)
{
    struct FreeMessage {
        void operator()(nl_msg *msg) const { nlmsg_free(msg); }
    };
    const std::unique_ptr<nl_msg, FreeMessage> msg(nlmsg_alloc());
    if (msg == nullptr ||
        genlmsg_put(msg.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family_, 0, ifx == 0 ? NLM_F_DUMP : 0,
                    ETHTOOL_MSG_LINKMODES_GET, ETHTOOL_GENL_VERSION) == nullptr) {
        return false;
    }
    nlattr *header = nla_nest_start(msg.get(), ETHTOOL_A_LINKMODES_HEADER);
    if (header == nullptr || (ifx != 0 && nla_put_u32(msg.get(), ETHTOOL_A_HEADER_DEV_INDEX, ifx) < 0) ||
        // Without the (possibly long) lists of modes as text.
        nla_put_u32(msg.get(), ETHTOOL_A_HEADER_FLAGS, ETHTOOL_FLAG_COMPACT_BITSETS) < 0) {
        return false;
    }
    nla_nest_end(msg.get(), header);
    nl_socket_modify_cb(requests_.get(), NL_CB_VALID, NL_CB_CUSTOM, on_linkmodes, &answers);
    if (nl_send_auto(requests_.get(), msg.get()) >= 0 && nl_recvmsgs_default(requests_.get()) >= 0) {
        return true;
    }
    // Most interfaces that have no Ethernet facts fail here. An answer that could not be read would stay behind and
    // be taken for the next one's.
    if (!open_requests()) {
        family_ = -1;
    }
    return false;
}

std::optional<EthInfo> EthtoolReader::query(IFINDEX ifx, const std::string &name)
{
    if (family_ < 0) {
        return query_by_ioctl(name);
    }
    std::unordered_map<IFINDEX, EthInfo> answers;
    request(ifx, answers);
    const auto it = answers.find(ifx);
    return it == answers.end() ? std::nullopt : std::optional(it->second);
}

std::unordered_map<IFINDEX, EthInfo> EthtoolReader::query_all(const std::vector<LinkState> &links)
{
    std::unordered_map<IFINDEX, EthInfo> answers;
    if (family_ >= 0 && request(0, answers)) {
        return answers;
    }
    answers.clear();
    for (const LinkState &state : links) {
        if (const std::optional<EthInfo> info = query(state.link.ifx, state.link.name)) {
            answers.emplace(state.link.ifx, *info);
        }
    }
    return answers;
}

} // namespace platform::lsm
