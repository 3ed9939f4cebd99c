#include "server.h"

#include "platform/syslog_client.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <vector>

namespace cli
{
namespace
{

constexpr int log_warning = 4;
constexpr mode_t directory_mode = 0750;
constexpr mode_t socket_mode = 0660;
constexpr int backlog = 64;
/// Sessions taken from the queue before those that are there get their turn.
constexpr int accepted_per_turn = 64;
constexpr long accept_retry_seconds = 1;

std::string reason(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

/// Group of the operators, or -1, "leave as it is", when the system has none.
gid_t operators_group()
{
    std::vector<char> buffer(16384);
    group entry{};
    group *found = nullptr;
    if (getgrnam_r("sflow", &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
        return static_cast<gid_t>(-1);
    return entry.gr_gid;
}

/// An ordinary user who runs the daemon for himself cannot give files away, and need not.
bool secure(const std::string &path, mode_t mode)
{
    const bool given = chown(path.c_str(), static_cast<uid_t>(-1), operators_group()) == 0 || geteuid() != 0;
    return given && chmod(path.c_str(), mode) == 0;
}

/// The process at the other end; nothing when the kernel does not say.
std::optional<ucred> peer_of(int socket)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0)
        return std::nullopt;
    return peer;
}

/// By numbers: looking up a user's name may ask another machine.
std::string owner_of(const std::optional<ucred> &peer)
{
    if (!peer)
        return "an unknown user";
    return "user " + std::to_string(peer->uid) + " (process " + std::to_string(peer->pid) + ")";
}

/// Somebody unknown has nobody's rights.
User user_of(const std::optional<ucred> &peer)
{
    constexpr uid_t nobody = 65534;
    return peer ? User{.uid = peer->uid, .gid = peer->gid} : User{.uid = nobody, .gid = nobody};
}

} // namespace

Server::~Server()
{
    if (acceptor_ != nullptr)
        kx_thread_cancel(acceptor_);
    for (Connection &connection : connections_)
        cancel_tasks(connection);
}

void Server::master_is_gone()
{
    acceptor_ = nullptr;
    connections_.clear();
    socket_ = Descriptor();
    master_ = nullptr;
}

std::string Server::open(const std::string &directory, kx_thread_master_t *master)
{
    master_ = master;
    path_ = directory + "/cli_socket";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path)
        return path_ + ": the path is too long for a socket";
    path_.copy(address.sun_path, path_.size());

    if (mkdir(directory.c_str(), directory_mode) != 0 && errno != EEXIST)
        return reason("cannot create " + directory);
    if (!secure(directory, directory_mode))
        return reason("cannot set the permissions of " + directory);
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket)
        return reason("cannot create a socket");
    // The daemon is the only instance; whoever left this one has died.
    if (unlink(path_.c_str()) != 0 && errno != ENOENT)
        return reason("cannot remove " + path_);
    if (bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return reason("cannot bind " + path_);
    if (!secure(path_, socket_mode))
        return reason("cannot set the permissions of " + path_);
    if (::listen(socket.get(), backlog) != 0)
        return reason("cannot listen at " + path_);
    socket_ = std::move(socket);
    listen();
    return acceptor_ == nullptr ? "cannot watch " + path_ : std::string();
}

void Server::listen()
{
    acceptor_ = kx_thread_add_read(master_, on_accept, this, socket_.get());
}

int Server::on_accept(kx_thread_t *thread)
{
    static_cast<Server *>(kx_thread_arg(thread))->accept_all();
    return 0;
}

int Server::on_retry(kx_thread_t *thread)
{
    static_cast<Server *>(kx_thread_arg(thread))->listen();
    return 0;
}

void Server::accept_all()
{
    acceptor_ = nullptr;
    for (int taken = 0; taken < accepted_per_turn; ++taken) {
        Descriptor socket(accept4(socket_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket) {
            add(std::move(socket));
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            break;
        // Out of descriptors, most likely. The caller stays in the queue; asking at once again would spin.
        printk_syslog_ext(log_warning, "CLI", "ACCEPT", SYSLOG_DEST_OPERATOR,
                          "%s: cannot accept a session: %s, trying again in a second", path_.c_str(),
                          std::strerror(errno));
        acceptor_ = kx_thread_add_timer(master_, on_retry, this, accept_retry_seconds);
        return;
    }
    listen();
}

void Server::add(Descriptor socket)
{
    if (connections_.size() >= limits_.sessions) {
        const std::string bye =
            encode_frame("bye", "there are " + std::to_string(connections_.size()) + " sessions already");
        // What does not fit into the fresh socket's buffer is not worth waiting for.
        static_cast<void>(::send(socket.get(), bye.data(), bye.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
        return;
    }
    Connection &connection = connections_.emplace_back();
    connection.server = this;
    const std::optional<ucred> peer = peer_of(socket.get());
    connection.owner = owner_of(peer);
    connection.socket = std::move(socket);
    connection.session = std::make_unique<Session>(
        core_, [this, &connection] { arm(connection); }, connection.owner);
    connection.session->set_user(user_of(peer));
    arm(connection);
}

// Watches for what the session can use now.
void Server::arm(Connection &connection)
{
    if (connection.session == nullptr || connection.closer != nullptr)
        return;
    // A task of its own: this may be a call from inside the session.
    if (connection.session->overflowed() ||
        (connection.session->over() && !connection.session->has_output())) {
        connection.closer = kx_thread_add_event(master_, on_close, &connection);
        return;
    }
    const int fd = connection.socket.get();
    if (connection.reader == nullptr && connection.session->wants_input())
        connection.reader = kx_thread_add_read(master_, on_read, &connection, fd);
    if (connection.turn == nullptr && connection.session->wants_turn())
        connection.turn = kx_thread_add_event(master_, on_turn, &connection);
    if (connection.writer == nullptr && connection.session->has_output())
        connection.writer = kx_thread_add_write(master_, on_write, &connection, fd);
    if (connection.stall == nullptr && connection.session->has_output()) {
        connection.progressed = false;
        connection.stall = kx_thread_add_timer_msec(master_, on_stall, &connection,
                                                    static_cast<long>(limits_.stall.count()));
    }
}

int Server::on_read(kx_thread_t *thread)
{
    Connection &connection = *static_cast<Connection *>(kx_thread_arg(thread));
    Server &server = *connection.server;
    connection.reader = nullptr;
    char buffer[4096];
    const ssize_t got = ::recv(connection.socket.get(), buffer, sizeof buffer, 0);
    if (got < 0 && errno != EAGAIN && errno != EINTR) {
        server.close(connection);
        return 0;
    }
    if (got == 0)
        connection.session->input_ended();
    else if (got > 0)
        connection.session->receive({buffer, static_cast<std::size_t>(got)});
    server.arm(connection);
    return 0;
}

// Sends what the socket takes. False when the session's other end has gone.
bool Server::push(Connection &connection)
{
    for (std::string_view rest = connection.session->output(); !rest.empty();
         rest = connection.session->output()) {
        const ssize_t sent = ::send(connection.socket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK;
        connection.session->sent(static_cast<std::size_t>(sent));
        connection.progressed = true;
    }
    return true;
}

int Server::on_write(kx_thread_t *thread)
{
    Connection &connection = *static_cast<Connection *>(kx_thread_arg(thread));
    Server &server = *connection.server;
    connection.writer = nullptr;
    if (push(connection))
        server.arm(connection);
    else
        server.close(connection);
    return 0;
}

int Server::on_turn(kx_thread_t *thread)
{
    Connection &connection = *static_cast<Connection *>(kx_thread_arg(thread));
    connection.turn = nullptr;
    connection.session->take_turn();
    connection.server->arm(connection);
    return 0;
}

int Server::on_close(kx_thread_t *thread)
{
    Connection &connection = *static_cast<Connection *>(kx_thread_arg(thread));
    connection.closer = nullptr;
    if (connection.session->overflowed())
        printk_syslog_ext(log_warning, "CLI", "SESSION", SYSLOG_DEST_OPERATOR,
                          "the session of %s lets more than %zu MiB of output gather: closed",
                          connection.owner.c_str(), OUTPUT_LIMIT >> 20);
    connection.server->close(connection);
    return 0;
}

int Server::on_stall(kx_thread_t *thread)
{
    Connection &connection = *static_cast<Connection *>(kx_thread_arg(thread));
    Server &server = *connection.server;
    connection.stall = nullptr;
    // A loop that was held up itself finds this timer due before it has written: ask the socket, not the clock.
    const bool there = push(connection);
    if (there && (connection.progressed || !connection.session->has_output())) {
        server.arm(connection);
        return 0;
    }
    if (there)
        printk_syslog_ext(log_warning, "CLI", "SESSION", SYSLOG_DEST_OPERATOR,
                          "the session of %s does not take its output: closed", connection.owner.c_str());
    server.close(connection);
    return 0;
}

void Server::cancel_tasks(Connection &connection)
{
    for (kx_thread_t *const task :
         {connection.reader, connection.writer, connection.stall, connection.turn, connection.closer})
        if (task != nullptr)
            kx_thread_cancel(task);
    connection.reader = connection.writer = connection.stall = connection.turn = connection.closer = nullptr;
}

void Server::close(Connection &connection)
{
    cancel_tasks(connection);
    connections_.remove_if([&](const Connection &c) { return &c == &connection; });
}

} // namespace cli
