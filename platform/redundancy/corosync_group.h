// The group of a pair on corosync: a closed process group (libcpg) and the quorum (libquorum).
//
// One thread calls everything; the listener is called inside dispatch(). Calls may wait for corosync: a corosync that
// hangs stops that thread, which is why the thread's own progress counts as a sign of life.
#pragma once

#include "redundancy/pair_roster.h"

#include <array>
#include <memory>
#include <span>
#include <string>

namespace platform
{

class CorosyncGroup
{
public:
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void on_view(const GroupView &view) = 0;
        virtual void on_message(MemberId from, std::span<const std::byte> bytes) = 0;
        virtual void on_quorum(bool quorate, std::span<const std::uint32_t> nodes) = 0;
    };

    explicit CorosyncGroup(Listener &listener);
    ~CorosyncGroup();
    CorosyncGroup(const CorosyncGroup &) = delete;
    CorosyncGroup &operator=(const CorosyncGroup &) = delete;

    /// Connects and joins. Why that failed, for the log; empty when it did not.
    [[nodiscard]] std::string open(const std::string &group);
    void close();
    [[nodiscard]] bool is_open() const { return connection_ != nullptr; }

    /// Who this process is; valid while open.
    [[nodiscard]] MemberId self() const;
    /// Readable when there is something to dispatch.
    [[nodiscard]] std::array<int, 2> descriptors() const;
    /// Calls the listener with what has arrived. Why the connection is lost; empty while it is not.
    [[nodiscard]] std::string dispatch();

    enum class Sent { ok, blocked, lost };
    /// Sends to all members, this one included. `blocked`: later.
    [[nodiscard]] Sent send(std::span<const std::byte> bytes);
    /// Asks corosync something that it answers at once while it is alive. False when the connection is lost.
    [[nodiscard]] bool ping();

private:
    struct Connection;
    Listener &listener_;
    std::unique_ptr<Connection> connection_;
};

} // namespace platform
