#include "tc_hook.h"

#include "bpf_shared.h"

#include <algorithm>
#include <array>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <linux/pkt_cls.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace sampling
{

namespace
{

// libbpf has one log for the whole process; it is set and read on the service's thread only.
struct LibbpfState {
    Log *log = nullptr;
    std::string last_warning;
};

LibbpfState &libbpf_state()
{
    static LibbpfState state;
    return state;
}

void keep_libbpf_line(libbpf_print_level level, std::string_view line)
{
    constexpr std::string_view prefix = "libbpf: ";
    if (line.substr(0, prefix.size()) == prefix)
        line.remove_prefix(prefix.size());
    while (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    LibbpfState &state = libbpf_state();
    if (level == LIBBPF_WARN)
        state.last_warning = line;
    if (state.log != nullptr)
        state.log->debug("libbpf: ", line);
}

__attribute__((format(printf, 2, 0))) int print_libbpf(libbpf_print_level level, const char *format,
                                                       va_list arguments)
{
    if (level == LIBBPF_DEBUG)
        return 0; // a hundred lines a load
    std::array<char, 2048> text = {};
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    keep_libbpf_line(level, text.data());
    return length;
}

/// Runs a call of libbpf without its prints to standard error.
template <typename Call>
int quietly(Call call)
{
    const KernelWords words;
    return call();
}

/// The error, and what libbpf or the kernel said about it.
std::string with_last_warning(int error)
{
    std::string text = error_text(error);
    if (!LibbpfLog::last_warning().empty())
        text += " (" + LibbpfLog::last_warning() + ")";
    return text;
}

bpf_tc_hook tc_hook(SamplerKey key)
{
    bpf_tc_hook hook = {};
    hook.sz = sizeof(hook);
    hook.ifindex = static_cast<int>(key.ifindex);
    hook.attach_point = key.hook == Hook::egress ? BPF_TC_EGRESS : BPF_TC_INGRESS;
    return hook;
}

bpf_tc_opts tc_place()
{
    bpf_tc_opts place = {};
    place.sz = sizeof(place);
    place.handle = tc_handle;
    place.priority = tc_priority;
    return place;
}

/// One filter as the kernel lists it.
struct Filter {
    std::uint32_t priority = 0;
    std::uint32_t handle = 0;
    bool ours = false; ///< a BPF filter that carries the name of one of our programs
};

bool is_our_name(std::string_view name)
{
    // the kernel keeps what libbpf called the filter: the program's name, then ":[" and its id
    const std::string_view program = name.substr(0, name.find(":["));
    return program == SFLOW_PROG_INGRESS || program == SFLOW_PROG_EGRESS;
}

struct QdiscAnswer {
    std::vector<IFINDEX> clsact;
    std::string kind;
};

int take_qdisc(nl_msg *message, void *argument)
{
    auto *answer = static_cast<QdiscAnswer *>(argument);
    nlmsghdr *header = nlmsg_hdr(message);
    std::array<nlattr *, TCA_MAX + 1> attributes = {};
    if (header->nlmsg_type != RTM_NEWQDISC ||
        nlmsg_parse(header, sizeof(tcmsg), attributes.data(), TCA_MAX, nullptr) < 0 ||
        attributes[TCA_KIND] == nullptr)
        return NL_OK;
    const auto *tc = static_cast<const tcmsg *>(nlmsg_data(header));
    answer->kind = nla_get_string(attributes[TCA_KIND]);
    if (answer->kind == "clsact")
        answer->clsact.push_back(static_cast<IFINDEX>(tc->tcm_ifindex));
    return NL_OK;
}

int take_filter(nl_msg *message, void *filters)
{
    nlmsghdr *header = nlmsg_hdr(message);
    std::array<nlattr *, TCA_MAX + 1> attributes = {};
    if (header->nlmsg_type != RTM_NEWTFILTER ||
        nlmsg_parse(header, sizeof(tcmsg), attributes.data(), TCA_MAX, nullptr) < 0)
        return NL_OK;
    const auto *tc = static_cast<const tcmsg *>(nlmsg_data(header));
    Filter filter = {.priority = tc->tcm_info >> 16, .handle = tc->tcm_handle};
    std::array<nlattr *, TCA_BPF_MAX + 1> options = {};
    if (attributes[TCA_KIND] != nullptr && std::string_view(nla_get_string(attributes[TCA_KIND])) == "bpf" &&
        attributes[TCA_OPTIONS] != nullptr &&
        nla_parse_nested(options.data(), TCA_BPF_MAX, attributes[TCA_OPTIONS], nullptr) >= 0 &&
        options[TCA_BPF_NAME] != nullptr)
        filter.ours = is_our_name(nla_get_string(options[TCA_BPF_NAME]));
    static_cast<std::vector<Filter> *>(filters)->push_back(filter);
    return NL_OK;
}

/// Sends one request about qdiscs or filters and runs `take` for each answer; 0 or a negative libnl code.
int ask(nl_sock *socket, int type, int flags, const tcmsg &request, nl_recvmsg_msg_cb_t take, void *argument)
{
    tcmsg copy = request;
    int error = nl_send_simple(socket, type, flags, &copy, sizeof(copy));
    if (error < 0)
        return error;
    nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take, argument);
    return nl_recvmsgs_default(socket);
}

/// All filters on one side of an interface's clsact; nothing when the kernel does not tell.
std::optional<std::vector<Filter>> list_filters(nl_sock *socket, IFINDEX ifindex, Hook side)
{
    std::vector<Filter> filters;
    tcmsg request = {};
    request.tcm_ifindex = static_cast<int>(ifindex);
    request.tcm_parent = TC_H_MAKE(TC_H_CLSACT, side == Hook::egress ? TC_H_MIN_EGRESS : TC_H_MIN_INGRESS);
    if (ask(socket, RTM_GETTFILTER, NLM_F_DUMP, request, take_filter, &filters) < 0)
        return std::nullopt;
    return filters;
}

} // namespace

LibbpfLog::LibbpfLog(Log &log)
{
    libbpf_state() = {.log = &log, .last_warning = {}};
    libbpf_set_print(print_libbpf);
}

LibbpfLog::~LibbpfLog()
{
    libbpf_set_print(nullptr);
    libbpf_state() = {};
}

const std::string &LibbpfLog::last_warning()
{
    return libbpf_state().last_warning;
}

void LibbpfLog::clear()
{
    libbpf_state().last_warning.clear();
}

KernelWords::KernelWords() : stream_(::open_memstream(&text_, &size_)), saved_(stderr)
{
    if (stream_ != nullptr)
        stderr = stream_;
}

KernelWords::~KernelWords()
{
    stderr = saved_;
    if (stream_ == nullptr)
        return;
    std::fclose(stream_);
    if (size_ != 0)
        keep_libbpf_line(LIBBPF_WARN, {text_, size_});
    std::free(text_);
}

TcControl::TcControl(Log &log) : log_(log), socket_(open_request_socket(NETLINK_ROUTE))
{
    if (!socket_)
        throw std::runtime_error("tc hooks: rtnetlink socket: cannot be opened");
}

TcControl::Occupant TcControl::occupant(SamplerKey key)
{
    const auto filters = list_filters(socket_.get(), key.ifindex, key.hook);
    for (const Filter &filter : filters.value_or(std::vector<Filter>{})) {
        if (filter.priority == tc_priority && filter.handle == tc_handle)
            return filter.ours ? Occupant::ours : Occupant::foreign;
    }
    return Occupant::none;
}

bool TcControl::has_hook(SamplerKey key)
{
    const auto filters = list_filters(socket_.get(), key.ifindex, key.hook);
    return !filters || std::any_of(filters->begin(), filters->end(), [](const Filter &filter) {
        return filter.priority == tc_priority && filter.handle == tc_handle && filter.ours;
    });
}

std::string TcControl::qdisc_kind(IFINDEX ifindex)
{
    QdiscAnswer answer;
    tcmsg request = {};
    request.tcm_ifindex = static_cast<int>(ifindex);
    request.tcm_parent = TC_H_CLSACT;
    // without the echo flag the kernel tells the answer to listeners only
    if (ask(socket_.get(), RTM_GETQDISC, NLM_F_ECHO, request, take_qdisc, &answer) < 0)
        return {};
    return answer.kind;
}

int TcControl::ensure_qdisc(IFINDEX ifindex)
{
    bpf_tc_hook hook = tc_hook({.ifindex = ifindex, .hook = Hook::ingress});
    LibbpfLog::clear();
    const int error = quietly([&hook] { return bpf_tc_hook_create(&hook); });
    if (error == 0) {
        made_qdisc_.insert(ifindex);
        return 0;
    }
    if (error != -EEXIST) {
        reason_ = "clsact qdisc: " + with_last_warning(error);
        return error;
    }
    // An "ingress" qdisc has the same handle but no egress side; a filter meant for egress would land on ingress.
    if (const std::string kind = qdisc_kind(ifindex); kind != "clsact") {
        reason_ = "the interface has a qdisc of kind \"" + kind + "\" in the place of clsact";
        return -EBUSY;
    }
    return 0;
}

int TcControl::attach(SamplerKey key, int prog_fd)
{
    if (const int error = ensure_qdisc(key.ifindex); error != 0)
        return error;
    if (occupant(key) == Occupant::foreign) {
        reason_ = "a foreign filter has priority " + std::to_string(tc_priority) + " and our handle";
        remove_empty_qdisc(key.ifindex);
        return -EBUSY;
    }
    const bpf_tc_hook hook = tc_hook(key);
    bpf_tc_opts place = tc_place();
    place.prog_fd = prog_fd;
    place.flags = BPF_TC_F_REPLACE;
    LibbpfLog::clear();
    const int error = quietly([&] { return bpf_tc_attach(&hook, &place); });
    if (error == 0)
        return 0;
    reason_ = with_last_warning(error);
    remove_empty_qdisc(key.ifindex);
    return error;
}

void TcControl::detach(SamplerKey key)
{
    if (occupant(key) == Occupant::ours) {
        const bpf_tc_hook hook = tc_hook(key);
        const bpf_tc_opts place = tc_place();
        if (const int error = quietly([&] { return bpf_tc_detach(&hook, &place); });
            error != 0 && error != -ENOENT && error != -ENODEV)
            log_.warning("interface #", key.ifindex, ": removal of the ", hook_name(key.hook),
                         " hook: ", error_text(error), ", the filter stays and counts nothing");
    }
    remove_empty_qdisc(key.ifindex);
}

bool TcControl::has_filters(IFINDEX ifindex)
{
    for (const Hook side : {Hook::ingress, Hook::egress}) {
        const auto filters = list_filters(socket_.get(), ifindex, side);
        if (!filters || !filters->empty())
            return true; // not known counts as used: leave it alone
    }
    return false;
}

void TcControl::remove_empty_qdisc(IFINDEX ifindex)
{
    if (!made_qdisc_.contains(ifindex) || has_filters(ifindex))
        return;
    bpf_tc_hook hook = tc_hook({.ifindex = ifindex, .hook = Hook::ingress});
    hook.attach_point = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS);
    if (const int error = quietly([&hook] { return bpf_tc_hook_destroy(&hook); });
        error != 0 && error != -ENODEV)
        log_.debug("interface #", ifindex, ": removal of the clsact qdisc: ", error_text(error));
    made_qdisc_.erase(ifindex);
}

void TcControl::forget(IFINDEX ifindex)
{
    made_qdisc_.erase(ifindex);
}

int TcControl::sweep()
{
    QdiscAnswer answer;
    const tcmsg request = {};
    if (const int error = ask(socket_.get(), RTM_GETQDISC, NLM_F_DUMP, request, take_qdisc, &answer);
        error < 0) {
        log_.warning("tc hooks: list of qdiscs: ", nl_geterror(error),
                     ", filters of an earlier run may remain");
        return 0;
    }
    int removed = 0;
    for (const IFINDEX ifindex : answer.clsact) {
        for (const Hook side : {Hook::ingress, Hook::egress}) {
            const SamplerKey key = {.ifindex = ifindex, .hook = side};
            if (occupant(key) != Occupant::ours)
                continue;
            detach(key);
            ++removed;
        }
    }
    return removed;
}

int TcControl::probe(int prog_fd, IFINDEX loopback)
{
    const SamplerKey key = {.ifindex = loopback, .hook = Hook::ingress};
    const int error = attach(key, prog_fd);
    if (error == 0)
        detach(key);
    return error;
}

} // namespace sampling
