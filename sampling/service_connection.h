// The service's end of the domain socket: connects to the daemon, keeps trying when there is none, cuts what arrives
// into records, and sends.
//
// Knows the transport and nothing of what records mean. One connection at a time, on the event loop's thread; never
// blocks. While the outbox has too many answers waiting, nothing is read, so that a daemon which asks without
// reading its answers waits for itself.
#pragma once

#include "event_loop.h"
#include "log.h"
#include "outbox.h"
#include "records.h"
#include "unique_fd.h"

#include <string>

namespace sampling
{

/// What a connection tells its owner.
class ConnectionHandler
{
public:
    ConnectionHandler(const ConnectionHandler &) = delete;
    ConnectionHandler &operator=(const ConnectionHandler &) = delete;
    virtual ~ConnectionHandler() = default;

    /// A connection has begun, to the daemon's process of this identity (socket_identity).
    virtual void on_connect(std::uint64_t daemon) = 0;
    /// One well-formed record (its length is at least a header's and all of it is there).
    virtual void on_record(const RecordView &record) = 0;
    /// The connection has ended; the next attempt is already scheduled.
    virtual void on_disconnect() = 0;
    /// The socket takes data again after it had been full, and nothing waits any more.
    virtual void on_writable() = 0;

protected:
    ConnectionHandler() = default;
};

struct ReconnectDelays {
    Clock::duration first = std::chrono::milliseconds(100);
    Clock::duration most = std::chrono::seconds(2);
};

/// The delay after `current`: doubled, up to the most.
[[nodiscard]] Clock::duration next_delay(Clock::duration current, const ReconnectDelays &delays);

class ServiceConnection
{
public:
    ServiceConnection(EventLoop &loop, Log &log, std::string path, ConnectionHandler &handler,
                      ReconnectDelays delays = {});
    ~ServiceConnection();
    ServiceConnection(const ServiceConnection &) = delete;
    ServiceConnection &operator=(const ServiceConnection &) = delete;

    /// Tries to connect at once, and from then on whenever there is no connection.
    void start();
    /// Serves this connected SOCK_SEQPACKET socket instead of connecting by path (tests).
    void adopt(UniqueFd socket);

    [[nodiscard]] bool connected() const { return static_cast<bool>(socket_); }
    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] const Outbox &outbox() const { return outbox_; }

    /// Queues a record; it goes out, with others queued in the same round of the event loop, before any further
    /// sample. Without a connection it is dropped.
    void send_answer(Bytes record);
    /// Room for a sample; complete it with commit_sample().
    [[nodiscard]] sflow_flow_spl_t &next_sample() { return outbox_.next_sample(); }
    /// False: bring no more samples before on_writable().
    [[nodiscard]] bool commit_sample();
    /// Sends everything that waits, also a packet of samples that is not full.
    void flush_samples();

    /// Traces each record that passes, in either direction.
    void set_trace(bool on) { trace_ = on; }

private:
    void try_connect();
    void schedule_retry();
    void on_events(std::uint32_t events);
    void read_packets();
    void walk(Bytes packet);
    void settle(Outbox::State state);
    void fail_later(std::string reason);
    void disconnect(std::string_view reason);

    EventLoop &loop_;
    Log &log_;
    std::string path_;
    ConnectionHandler &handler_;
    ReconnectDelays delays_;
    Clock::duration delay_;
    EventLoop::TimerId retry_ = 0;
    UniqueFd socket_;
    Outbox outbox_;
    std::uint32_t watched_ = 0;
    bool was_blocked_ = false;
    bool failing_ = false;
    bool flush_posted_ = false;
    bool failure_logged_ = false;
    bool trace_ = false;
};

} // namespace sampling
