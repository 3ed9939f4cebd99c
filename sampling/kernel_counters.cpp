#include "kernel_counters.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <stdexcept>

namespace sampling
{

namespace
{

struct MacRow {
    int attribute;
    MacCounters::Value MacCounters::*value;
};

constexpr MacRow mac_table[] = {
    {ETHTOOL_A_STATS_ETH_MAC_3_SINGLE_COL, &MacCounters::single_collisions},
    {ETHTOOL_A_STATS_ETH_MAC_4_MULTI_COL, &MacCounters::multiple_collisions},
    {ETHTOOL_A_STATS_ETH_MAC_6_FCS_ERR, &MacCounters::fcs_errors},
    {ETHTOOL_A_STATS_ETH_MAC_7_ALIGN_ERR, &MacCounters::alignment_errors},
    {ETHTOOL_A_STATS_ETH_MAC_9_TX_DEFER, &MacCounters::deferred},
    {ETHTOOL_A_STATS_ETH_MAC_10_LATE_COL, &MacCounters::late_collisions},
    {ETHTOOL_A_STATS_ETH_MAC_11_XS_COL, &MacCounters::excessive_collisions},
    {ETHTOOL_A_STATS_ETH_MAC_12_TX_INT_ERR, &MacCounters::internal_tx_errors},
    {ETHTOOL_A_STATS_ETH_MAC_13_CS_ERR, &MacCounters::carrier_sense_errors},
    {ETHTOOL_A_STATS_ETH_MAC_15_RX_INT_ERR, &MacCounters::internal_rx_errors},
    {ETHTOOL_A_STATS_ETH_MAC_18_TX_MCAST, &MacCounters::tx_multicast},
    {ETHTOOL_A_STATS_ETH_MAC_19_TX_BCAST, &MacCounters::tx_broadcast},
    {ETHTOOL_A_STATS_ETH_MAC_21_RX_MCAST, &MacCounters::rx_multicast},
    {ETHTOOL_A_STATS_ETH_MAC_22_RX_BCAST, &MacCounters::rx_broadcast},
    {ETHTOOL_A_STATS_ETH_MAC_25_TOO_LONG_ERR, &MacCounters::frame_too_long},
};

constexpr MacRow phy_table[] = {
    {ETHTOOL_A_STATS_ETH_PHY_5_SYM_ERR, &MacCounters::symbol_errors},
};

int take_link_stats(nl_msg *message, void *all)
{
    nlmsghdr *header = nlmsg_hdr(message);
    nlattr *stats = nullptr;
    if (header->nlmsg_type == RTM_NEWSTATS)
        stats = nlmsg_find_attr(header, sizeof(if_stats_msg), IFLA_STATS_LINK_64);
    if (stats == nullptr)
        return NL_OK;
    const auto *info = static_cast<const if_stats_msg *>(nlmsg_data(header));
    // a kernel older or newer than our header gives fewer or more fields
    rtnl_link_stats64 &row = (*static_cast<CounterSource::LinkStats *>(all))[info->ifindex];
    nla_memcpy(&row, stats, sizeof(row));
    return NL_OK;
}

/// The counters in one nested group, by the rows of its table.
template <std::size_t Rows>
void take_group(nlattr *group, const MacRow (&table)[Rows], MacCounters &counters)
{
    int left = 0;
    nlattr *stat = nullptr;
    nla_for_each_nested(stat, group, left)
    {
        // a group is a sequence of nests, each with one statistic in it
        if (nla_type(stat) != ETHTOOL_A_STATS_GRP_STAT)
            continue;
        const auto *entry = static_cast<nlattr *>(nla_data(stat));
        if (!nla_ok(entry, nla_len(stat)) || nla_len(entry) < static_cast<int>(sizeof(std::uint64_t)))
            continue;
        for (const MacRow &row : table) {
            if (row.attribute == nla_type(entry))
                counters.*row.value = nla_get_u64(entry);
        }
    }
}

int take_mac_stats(nl_msg *message, void *argument)
{
    auto &counters = *static_cast<MacCounters *>(argument);
    nlmsghdr *header = nlmsg_hdr(message);
    auto *generic = static_cast<genlmsghdr *>(nlmsg_data(header));
    int left = 0;
    nlattr *attribute = nullptr;
    nlmsg_for_each_attr(attribute, header, GENL_HDRLEN, left)
    {
        if (generic->cmd != ETHTOOL_MSG_STATS_GET_REPLY || nla_type(attribute) != ETHTOOL_A_STATS_GRP)
            continue;
        nlattr *id =
            nla_find(static_cast<nlattr *>(nla_data(attribute)), nla_len(attribute), ETHTOOL_A_STATS_GRP_ID);
        if (id == nullptr)
            continue;
        if (nla_get_u32(id) == ETHTOOL_STATS_ETH_MAC)
            take_group(attribute, mac_table, counters);
        else if (nla_get_u32(id) == ETHTOOL_STATS_ETH_PHY)
            take_group(attribute, phy_table, counters);
    }
    return NL_OK;
}

int ask_link_stats(nl_sock *socket, IFINDEX ifindex, int flags, CounterSource::LinkStats &stats)
{
    if_stats_msg request = {};
    request.ifindex = ifindex;
    request.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take_link_stats, &stats);
    const int error = nl_send_simple(socket, RTM_GETSTATS, flags, &request, sizeof(request));
    return error < 0 ? error : nl_recvmsgs_default(socket);
}

/// Asks for both groups in the compact form, where a bit set is one word.
NlMsg mac_request(int family, IFINDEX ifindex)
{
    NlMsg message(nlmsg_alloc());
    if (!message || genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, 0, ETHTOOL_MSG_STATS_GET,
                                ETHTOOL_GENL_VERSION) == nullptr)
        return nullptr;
    constexpr std::uint32_t groups = 1U << ETHTOOL_STATS_ETH_MAC | 1U << ETHTOOL_STATS_ETH_PHY;
    nlattr *header = nla_nest_start(message.get(), ETHTOOL_A_STATS_HEADER | NLA_F_NESTED);
    nla_put_u32(message.get(), ETHTOOL_A_HEADER_DEV_INDEX, ifindex);
    nla_nest_end(message.get(), header);
    nlattr *bits = nla_nest_start(message.get(), ETHTOOL_A_STATS_GROUPS | NLA_F_NESTED);
    nla_put_flag(message.get(), ETHTOOL_A_BITSET_NOMASK);
    nla_put_u32(message.get(), ETHTOOL_A_BITSET_SIZE, __ETHTOOL_STATS_CNT);
    nla_put_u32(message.get(), ETHTOOL_A_BITSET_VALUE, groups);
    nla_nest_end(message.get(), bits);
    return message;
}

} // namespace

KernelCounters::KernelCounters(Log &log)
    : log_(log), route_(open_request_socket(NETLINK_ROUTE)), ethtool_(open_request_socket(NETLINK_GENERIC))
{
    if (!route_)
        throw std::runtime_error("counters: rtnetlink socket: cannot be opened");
    if (ethtool_) {
        // libnl's resolver waits for an acknowledgement, so it gets a socket in the ordinary mode
        const NlSock resolver(nl_socket_alloc());
        if (resolver && nl_connect(resolver.get(), NETLINK_GENERIC) == 0)
            ethtool_family_ = std::max(0, genl_ctrl_resolve(resolver.get(), ETHTOOL_GENL_NAME));
    }
    if (ethtool_family_ == 0)
        log_.info("counters: ethtool netlink: not available, MAC counters come from rtnetlink alone");
}

std::optional<rtnl_link_stats64> KernelCounters::read_link(IFINDEX ifindex)
{
    LinkStats stats;
    if (ask_link_stats(route_.get(), ifindex, 0, stats) < 0 || !stats.contains(ifindex))
        return std::nullopt;
    return stats[ifindex];
}

CounterSource::LinkStats KernelCounters::read_all_links()
{
    LinkStats stats;
    if (const int error = ask_link_stats(route_.get(), 0, NLM_F_DUMP, stats); error < 0)
        log_.warning("counters: read of all interfaces: ", nl_geterror(error), ", each is read alone");
    return stats;
}

MacCounters KernelCounters::read_mac(IFINDEX ifindex)
{
    MacCounters counters;
    if (ethtool_family_ == 0)
        return counters;
    const NlMsg request = mac_request(ethtool_family_, ifindex);
    if (!request || nl_send_auto(ethtool_.get(), request.get()) < 0)
        return counters;
    nl_socket_modify_cb(ethtool_.get(), NL_CB_VALID, NL_CB_CUSTOM, take_mac_stats, &counters);
    // an error means that this kind of interface has no such statistics, which is what "nothing" says
    if (nl_recvmsgs_default(ethtool_.get()) < 0)
        return {};
    return counters;
}

} // namespace sampling
