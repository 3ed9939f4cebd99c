#include "service_connection.h"

#include "identity.h"

#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace sampling
{

namespace
{

// Room for samples between the service and the daemon, as large as the daemon's own.
constexpr int socket_buffer_bytes = 4 * 1024 * 1024;
// Packets read before others get their turn.
constexpr int packets_per_turn = 64;
// Packets of waiting answers beyond which nothing more is read.
constexpr std::size_t most_waiting_answers = 4096;

void enlarge_send_buffer(int fd)
{
    // the first needs CAP_NET_ADMIN; the second is cut to the system's limit
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &socket_buffer_bytes, sizeof(socket_buffer_bytes)) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &socket_buffer_bytes, sizeof(socket_buffer_bytes));
}

} // namespace

Clock::duration next_delay(Clock::duration current, const ReconnectDelays &delays)
{
    return std::min(current * 2, delays.most);
}

ServiceConnection::ServiceConnection(EventLoop &loop, Log &log, std::string path, ConnectionHandler &handler,
                                     ReconnectDelays delays)
    : loop_(loop), log_(log), path_(std::move(path)), handler_(handler), delays_(delays), delay_(delays.first)
{
}

ServiceConnection::~ServiceConnection()
{
    loop_.cancel(retry_);
    loop_.remove(socket_.get());
}

void ServiceConnection::start()
{
    try_connect();
}

void ServiceConnection::schedule_retry()
{
    retry_ = loop_.call_after(delay_, [this] {
        retry_ = 0;
        try_connect();
    });
    delay_ = next_delay(delay_, delays_);
}

void ServiceConnection::try_connect()
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket || ::connect(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        if (!failure_logged_)
            log_.info("daemon ", path_, ": connect: ", error_text(errno), ", trying again until it is there");
        failure_logged_ = true;
        schedule_retry();
        return;
    }
    failure_logged_ = false;
    log_.info("daemon ", path_, ": connected");
    adopt(std::move(socket));
}

void ServiceConnection::adopt(UniqueFd socket)
{
    socket_ = std::move(socket);
    enlarge_send_buffer(socket_.get());
    outbox_.reset(socket_.get());
    was_blocked_ = false;
    watched_ = EPOLLIN;
    loop_.add(socket_.get(), watched_, [this](std::uint32_t events) { on_events(events); });
    handler_.on_connect(socket_identity(path_));
}

void ServiceConnection::on_events(std::uint32_t events)
{
    if ((events & EPOLLOUT) != 0)
        settle(outbox_.flush());
    if (connected() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0)
        read_packets();
}

void ServiceConnection::read_packets()
{
    std::array<std::byte, 4096> buffer;
    for (int turn = 0; turn < packets_per_turn && connected(); ++turn) {
        if (outbox_.waiting_answers() > most_waiting_answers)
            break;
        const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
            break;
        if (size <= 0) {
            disconnect(size == 0 ? "closed by the daemon" : error_text(errno));
            return;
        }
        if (static_cast<std::size_t>(size) > buffer.size()) {
            log_.warning("daemon ", path_, ": packet of ", size, " bytes: longer than any may be, ignored");
            continue;
        }
        delay_ = delays_.first; // there is a daemon behind the socket
        walk(Bytes(buffer).first(static_cast<std::size_t>(size)));
    }
    if (connected())
        settle(outbox_.flush());
}

void ServiceConnection::walk(Bytes packet)
{
    while (const auto record = next_record(packet)) {
        if (trace_)
            log_.info("trace: received ", record_name(record->type), " (", record->type, "), ",
                      record->bytes.size(), " bytes");
        handler_.on_record(*record);
        if (!connected())
            return;
    }
    if (!packet.empty())
        log_.warning("daemon ", path_, ": ", packet.size(),
                     " bytes at the end of a packet: not a record, ignored");
}

void ServiceConnection::settle(Outbox::State state)
{
    if (state == Outbox::State::broken) {
        fail_later(error_text(errno));
        return;
    }
    const bool blocked = state == Outbox::State::blocked;
    std::uint32_t wanted = blocked ? EPOLLOUT : 0U;
    if (outbox_.waiting_answers() <= most_waiting_answers)
        wanted |= EPOLLIN;
    if (wanted != watched_) {
        watched_ = wanted;
        loop_.modify(socket_.get(), watched_);
    }
    if (std::exchange(was_blocked_, blocked) && !blocked)
        handler_.on_writable();
}

void ServiceConnection::fail_later(std::string reason)
{
    // Not at once: this may run in the middle of a backend's hand-over, and the handler will take its samplers away.
    if (std::exchange(failing_, true))
        return;
    loop_.post([this, reason = std::move(reason)] {
        if (failing_)
            disconnect(reason);
    });
}

void ServiceConnection::disconnect(std::string_view reason)
{
    failing_ = false;
    log_.warning("daemon ", path_, ": connection lost: ", reason, ", all sampling stops");
    loop_.remove(socket_.get());
    socket_.reset();
    outbox_.reset(-1);
    was_blocked_ = false;
    schedule_retry();
    handler_.on_disconnect();
}

void ServiceConnection::send_answer(Bytes record)
{
    if (!connected())
        return;
    if (trace_) {
        Bytes rest = record;
        if (const auto view = next_record(rest))
            log_.info("trace: sent ", record_name(view->type), " (", view->type, "), ", record.size(),
                      " bytes");
    }
    outbox_.add_answer(record);
    if (!outbox_.blocked() && !std::exchange(flush_posted_, true))
        loop_.post([this] {
            flush_posted_ = false;
            flush_samples();
        });
}

bool ServiceConnection::commit_sample()
{
    if (trace_)
        log_.info("trace: sent flow sample (", std::uint32_t{SFLOW_CMD_FLOW_SAMPLING}, ")");
    if (!connected())
        return true;
    settle(outbox_.commit_sample());
    return !connected() || !outbox_.blocked();
}

void ServiceConnection::flush_samples()
{
    if (connected())
        settle(outbox_.flush());
}

} // namespace sampling
