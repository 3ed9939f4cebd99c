#include "redundancy/corosync_group.h"

#include <algorithm>
#include <corosync/cpg.h>
#include <corosync/quorum.h>
#include <corosync/votequorum.h>
#include <sys/uio.h>
#include <unistd.h>

namespace platform
{

namespace
{

/// What an operator can do about the errors that a connection ends in.
std::string explain(const char *what, cs_error_t error)
{
    switch (error) {
    case CS_ERR_LIBRARY:
    case CS_ERR_BAD_HANDLE:
        return "corosync does not answer: is it running, and is its corosync.conf in order?";
    case CS_ERR_ACCESS:
        return "corosync does not admit this user: root, or a uidgid section in corosync.conf";
    case CS_ERR_TRY_AGAIN:
        return "corosync is starting";
    default:
        return std::string("corosync: ") + what + ": " + cs_strerror(error);
    }
}

GroupView::Cause cause_of(std::uint32_t reason)
{
    switch (reason) {
    case CPG_REASON_LEAVE:
        return GroupView::Cause::process_left;
    case CPG_REASON_PROCDOWN:
        return GroupView::Cause::process_ended;
    default:
        return GroupView::Cause::node_down;
    }
}

MemberId member_of(const cpg_address &address)
{
    return {.node = address.nodeid, .pid = address.pid};
}

} // namespace

struct CorosyncGroup::Connection {
    explicit Connection(Listener &l) : listener(l) {}
    ~Connection()
    {
        if (has_votes)
            votequorum_finalize(votes);
        if (has_quorum)
            quorum_finalize(quorum);
        if (has_cpg)
            cpg_finalize(cpg);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    [[nodiscard]] std::string open(const std::string &group);
    [[nodiscard]] std::string open_cpg();
    [[nodiscard]] std::string open_quorum();
    [[nodiscard]] std::string open_votes();

    Listener &listener;
    Listener *listener_address = nullptr; ///< what libquorum's context points to
    cpg_handle_t cpg = 0;
    quorum_handle_t quorum = 0;
    votequorum_handle_t votes = 0;
    bool has_cpg = false;
    bool has_quorum = false;
    bool has_votes = false;
    MemberId self;
    std::array<int, 2> fds{-1, -1};
};

namespace
{

CorosyncGroup::Listener *listener_of_cpg(cpg_handle_t handle)
{
    void *context = nullptr;
    return cpg_context_get(handle, &context) == CS_OK ? static_cast<CorosyncGroup::Listener *>(context)
                                                      : nullptr;
}

void on_deliver(cpg_handle_t handle, const cpg_name *, std::uint32_t node, std::uint32_t pid, void *message,
                std::size_t length)
{
    if (CorosyncGroup::Listener *listener = listener_of_cpg(handle); listener != nullptr)
        listener->on_message({.node = node, .pid = pid}, {static_cast<const std::byte *>(message), length});
}

void on_change(cpg_handle_t handle, const cpg_name *, const cpg_address *members, std::size_t member_count,
               const cpg_address *left, std::size_t left_count, const cpg_address *joined,
               std::size_t joined_count)
{
    CorosyncGroup::Listener *listener = listener_of_cpg(handle);
    if (listener == nullptr)
        return;
    GroupView view;
    for (const cpg_address &address : std::span(members, member_count))
        view.members.push_back(member_of(address));
    for (const cpg_address &address : std::span(left, left_count))
        view.left.push_back({.id = member_of(address), .cause = cause_of(address.reason)});
    for (const cpg_address &address : std::span(joined, joined_count))
        view.joined.push_back(member_of(address));
    listener->on_view(view);
}

void on_quorum_change(quorum_handle_t handle, std::uint32_t quorate, std::uint64_t /*ring*/,
                      std::uint32_t node_count, std::uint32_t *nodes)
{
    const void *context = nullptr;
    if (quorum_context_get(handle, &context) != CS_OK || context == nullptr)
        return;
    auto *const *listener = static_cast<CorosyncGroup::Listener *const *>(context);
    (*listener)->on_quorum(quorate != 0, {nodes, node_count});
}

} // namespace

std::string CorosyncGroup::Connection::open_cpg()
{
    cpg_model_v1_data_t model{};
    model.model = CPG_MODEL_V1;
    model.cpg_deliver_fn = on_deliver;
    model.cpg_confchg_fn = on_change;
    // libcpg takes the model by its common beginning.
    if (const cs_error_t error =
            cpg_model_initialize(&cpg, CPG_MODEL_V1, reinterpret_cast<cpg_model_data_t *>(&model), &listener);
        error != CS_OK)
        return explain("cpg_model_initialize", error);
    has_cpg = true;
    unsigned node = 0;
    if (const cs_error_t error = cpg_local_get(cpg, &node); error != CS_OK)
        return explain("cpg_local_get", error);
    self = {.node = node, .pid = static_cast<std::uint32_t>(getpid())};
    if (const cs_error_t error = cpg_fd_get(cpg, &fds[0]); error != CS_OK)
        return explain("cpg_fd_get", error);
    return {};
}

std::string CorosyncGroup::Connection::open_quorum()
{
    quorum_callbacks_t callbacks{.quorum_notify_fn = on_quorum_change};
    std::uint32_t type = QUORUM_FREE;
    if (const cs_error_t error = quorum_initialize(&quorum, &callbacks, &type); error != CS_OK)
        return explain("quorum_initialize", error);
    has_quorum = true;
    // Without a provider every part of a cluster would believe itself to have quorum.
    if (type == QUORUM_FREE)
        return "corosync.conf names no quorum provider: quorum { provider: corosync_votequorum … }";
    if (const cs_error_t error = quorum_fd_get(quorum, &fds[1]); error != CS_OK)
        return explain("quorum_fd_get", error);
    listener_address = &listener;
    if (const cs_error_t error = quorum_context_set(quorum, &listener_address); error != CS_OK)
        return explain("quorum_context_set", error);
    if (const cs_error_t error = quorum_trackstart(quorum, CS_TRACK_CURRENT | CS_TRACK_CHANGES);
        error != CS_OK)
        return explain("quorum_trackstart", error);
    return {};
}

std::string CorosyncGroup::Connection::open_votes()
{
    votequorum_callbacks_t none{};
    if (const cs_error_t error = votequorum_initialize(&votes, &none); error != CS_OK)
        return explain("votequorum_initialize", error);
    has_votes = true;
    return {};
}

std::string CorosyncGroup::Connection::open(const std::string &group)
{
    if (std::string error = open_cpg(); !error.empty())
        return error;
    if (std::string error = open_quorum(); !error.empty())
        return error;
    if (std::string error = open_votes(); !error.empty())
        return error;
    cpg_name name{};
    name.length = static_cast<std::uint32_t>(std::min(group.size(), sizeof(name.value)));
    std::copy_n(group.begin(), name.length, name.value);
    if (const cs_error_t error = cpg_join(cpg, &name); error != CS_OK)
        return explain("cpg_join", error);
    return {};
}

CorosyncGroup::CorosyncGroup(Listener &listener) : listener_(listener) {}
CorosyncGroup::~CorosyncGroup() = default;

std::string CorosyncGroup::open(const std::string &group)
{
    auto connection = std::make_unique<Connection>(listener_);
    std::string error = connection->open(group);
    if (error.empty())
        connection_ = std::move(connection);
    return error;
}

void CorosyncGroup::close()
{
    connection_.reset();
}

MemberId CorosyncGroup::self() const
{
    return connection_->self;
}

std::array<int, 2> CorosyncGroup::descriptors() const
{
    return connection_->fds;
}

std::string CorosyncGroup::dispatch()
{
    const cs_error_t cpg = cpg_dispatch(connection_->cpg, CS_DISPATCH_ALL);
    if (cpg != CS_OK && cpg != CS_ERR_TRY_AGAIN)
        return cpg == CS_ERR_LIBRARY ? "corosync has ended" : explain("cpg_dispatch", cpg);
    const cs_error_t quorum = quorum_dispatch(connection_->quorum, CS_DISPATCH_ALL);
    if (quorum != CS_OK && quorum != CS_ERR_TRY_AGAIN)
        return quorum == CS_ERR_LIBRARY ? "corosync has ended" : explain("quorum_dispatch", quorum);
    return {};
}

CorosyncGroup::Sent CorosyncGroup::send(std::span<const std::byte> bytes)
{
    // The library only reads it.
    iovec part{.iov_base = const_cast<std::byte *>(bytes.data()), .iov_len = bytes.size()};
    switch (cpg_mcast_joined(connection_->cpg, CPG_TYPE_AGREED, &part, 1)) {
    case CS_OK:
        return Sent::ok;
    case CS_ERR_TRY_AGAIN:
        return Sent::blocked;
    default:
        return Sent::lost;
    }
}

bool CorosyncGroup::ping()
{
    // The one service that also answers while the nodes of a new membership are coming to terms, which a third vote can
    // make last for seconds.
    votequorum_info info{};
    const cs_error_t error = votequorum_getinfo(connection_->votes, connection_->self.node, &info);
    return error == CS_OK || error == CS_ERR_TRY_AGAIN;
}

} // namespace platform
