// Sessions over a Unix stream socket, as tasks of the service's thread master. Nothing here waits: a shell that does
// not take its output is cut off, and one that sends without end is not read.
#pragma once

#include "core.h"
#include "descriptor.h"
#include "platform/kx_thread.h"
#include "session.h"

#include <chrono>
#include <list>
#include <memory>
#include <string>

namespace cli
{

struct ServerLimits {
    std::size_t sessions = 64;
    /// How long a shell may leave output untouched.
    std::chrono::milliseconds stall{30000};
};

class Server
{
public:
    explicit Server(Core &core, ServerLimits limits = {}) : core_(core), limits_(limits) {}
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    /// Listens at `directory`/cli_socket. Makes the directory (0750) and the socket (0660) reachable by their owner and
    /// the group "sflow", when there is one; replaces a socket that an earlier process left behind.
    /// @return why that failed; empty on success
    [[nodiscard]] std::string open(const std::string &directory, kx_thread_master_t *master);

    /// The master is gone, and the tasks with it: closes everything without touching them.
    void master_is_gone();

    [[nodiscard]] std::size_t sessions() const { return connections_.size(); }

private:
    struct Connection {
        Server *server = nullptr;
        Descriptor socket;
        std::string owner; ///< for the log
        std::unique_ptr<Session> session;
        kx_thread_t *reader = nullptr;
        kx_thread_t *writer = nullptr;
        kx_thread_t *stall = nullptr;
        kx_thread_t *turn = nullptr;
        kx_thread_t *closer = nullptr;
        bool progressed = false; ///< bytes were taken since the stall timer was armed
    };

    static int on_accept(kx_thread_t *thread);
    static int on_retry(kx_thread_t *thread);
    static int on_read(kx_thread_t *thread);
    static int on_write(kx_thread_t *thread);
    static int on_stall(kx_thread_t *thread);
    static int on_turn(kx_thread_t *thread);
    static int on_close(kx_thread_t *thread);

    void listen();
    void accept_all();
    void add(Descriptor socket);
    static bool push(Connection &connection);
    void arm(Connection &connection);
    void close(Connection &connection);
    void cancel_tasks(Connection &connection);

    Core &core_;
    ServerLimits limits_;
    kx_thread_master_t *master_ = nullptr;
    Descriptor socket_;
    std::string path_;
    kx_thread_t *acceptor_ = nullptr;
    std::list<Connection> connections_;
};

} // namespace cli
