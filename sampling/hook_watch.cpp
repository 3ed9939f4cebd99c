#include "hook_watch.h"

#include <array>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <utility>

namespace sampling
{

namespace
{

// A notice of a filter is some hundred bytes; thousands may go at once.
constexpr int socket_buffer_bytes = 2 * 1024 * 1024;

int take_message(nl_msg *message, void *watch)
{
    static_cast<HookWatch *>(watch)->take(message);
    return NL_OK;
}

bool is_clsact(nlmsghdr *header)
{
    std::array<nlattr *, TCA_MAX + 1> attributes = {};
    return nlmsg_parse(header, sizeof(tcmsg), attributes.data(), TCA_MAX, nullptr) >= 0 &&
           attributes[TCA_KIND] != nullptr &&
           std::string_view(nla_get_string(attributes[TCA_KIND])) == "clsact";
}

} // namespace

HookWatch::HookWatch(EventLoop &loop, Log &log, Handler handler)
    : loop_(loop), log_(log), handler_(std::move(handler)), socket_(nl_socket_alloc())
{
    int error = socket_ ? nl_connect(socket_.get(), NETLINK_ROUTE) : -NLE_NOMEM;
    if (error == 0)
        error = nl_socket_add_memberships(socket_.get(), RTNLGRP_TC, 0);
    if (error < 0) {
        log_.warning("tc hooks: notices: ", nl_geterror(error),
                     ", a hook that somebody else removes will not be noticed");
        socket_.reset();
        return;
    }
    nl_socket_disable_seq_check(socket_.get());
    nl_socket_modify_cb(socket_.get(), NL_CB_VALID, NL_CB_CUSTOM, take_message, this);
    nl_socket_set_buffer_size(socket_.get(), socket_buffer_bytes, 0);
    nl_socket_set_nonblocking(socket_.get());
    loop_.add(nl_socket_get_fd(socket_.get()), EPOLLIN, [this](std::uint32_t) { read_notices(); });
}

HookWatch::~HookWatch()
{
    loop_.cancel(timer_);
    if (socket_)
        loop_.remove(nl_socket_get_fd(socket_.get()));
}

void HookWatch::read_notices()
{
    for (;;) {
        const int error = nl_recvmsgs_default(socket_.get());
        if (error == -NLE_AGAIN)
            return;
        if (error == -NLE_NOMEM) { // the kernel's name for "notices were lost"
            note(0, false);
        } else if (error < 0) {
            log_.warning("tc hooks: read of a notice: ", nl_geterror(error));
            return;
        }
    }
}

void HookWatch::take(nl_msg *message)
{
    nlmsghdr *header = nlmsg_hdr(message);
    if ((header->nlmsg_type != RTM_DELTFILTER && header->nlmsg_type != RTM_DELQDISC) ||
        nlmsg_datalen(header) < static_cast<int>(sizeof(tcmsg)))
        return;
    const auto *tc = static_cast<const tcmsg *>(nlmsg_data(header));
    if (tc->tcm_ifindex > 0)
        note(static_cast<IFINDEX>(tc->tcm_ifindex), header->nlmsg_type == RTM_DELQDISC && is_clsact(header));
}

void HookWatch::note(IFINDEX ifindex, bool qdisc_gone)
{
    bool &gone = noted_[ifindex];
    gone = gone || qdisc_gone;
    if (timer_ == 0)
        timer_ = loop_.call_after(settling, [this] { tell(); });
}

void HookWatch::tell()
{
    timer_ = 0;
    for (const auto &[ifindex, qdisc_gone] : std::exchange(noted_, {}))
        handler_(ifindex, qdisc_gone);
}

} // namespace sampling
