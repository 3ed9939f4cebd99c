// Messages that the units of a pair exchange in their group, and their wire format.
//
// A frame is "sfR1", one byte of kind, three zero bytes, the payload's length (32 bits), the payload. Integers are
// big-endian; a string is its length in one byte and its characters. What does not decode to the last byte is no
// frame: nothing in a group is trusted, since any process that corosync admits may send to it.
#pragma once

#include "platform/rdnd.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

namespace platform
{

using Bytes = std::vector<std::byte>;

/// Most bytes of one checkpoint message.
constexpr std::size_t CHECKPOINT_MAX = 65536;
/// Most characters of a registration's name, and of a host's.
constexpr std::size_t CLIENT_NAME_MAX = 31;
constexpr std::size_t UNIT_NAME_MAX = 63;
/// Most registrations of a unit.
constexpr std::size_t CLIENTS_MAX = 16;

/// A process in the group, as the group's engine names it.
struct MemberId {
    std::uint32_t node = 0;
    std::uint32_t pid = 0;
    bool operator==(const MemberId &) const = default;
    bool operator<(const MemberId &other) const
    {
        return std::tie(node, pid) < std::tie(other.node, other.pid);
    }
};

/// A registration and the version of its checkpoint messages.
struct ClientInfo {
    std::string name;
    std::uint64_t version = 0;
    bool operator==(const ClientInfo &) const = default;
};

/// What a unit says of itself: when it joins, at every change, and as its sign of life.
struct StateFrame {
    std::uint64_t instance = 0; ///< random, one a process
    std::uint64_t term = 0;     ///< highest term that the sender knows
    bool quorate = false;
    bool holds = false; ///< it is the master, or about to be
    rdnd_role role = RDND_ROLE_NONE;
    rdnd_stat state = RDND_STAT_INIT;
    std::uint64_t age_ms = 0;        ///< since it joined the group
    std::uint64_t master_age_ms = 0; ///< since it became master; 0 when it does not hold
    std::string host;
    std::vector<ClientInfo> clients;
    bool operator==(const StateFrame &) const = default;
};

/// The sender wants to be master. Frames have the same order everywhere, so that the first claim of a term wins.
struct ClaimFrame {
    std::uint64_t view = 0; ///< fingerprint of the membership that it was made in
    std::uint64_t term = 0;
    MemberId deposed; ///< master that gives no sign of life; zeros: there is none
    bool operator==(const ClaimFrame &) const = default;
};

/// The master is about to hand over.
struct WillFrame {
    MemberId to;
    bool operator==(const WillFrame &) const = default;
};

/// The master has stopped being master in favour of `to`.
struct YieldFrame {
    MemberId to;
    bool operator==(const YieldFrame &) const = default;
};

/// The standby asks for everything that is registered under a name.
struct SyncRequestFrame {
    std::uint32_t batch = 0; ///< the standby's number of the request
    std::string name;
    bool operator==(const SyncRequestFrame &) const = default;
};

/// Where a batch begins or ends among the checkpoint messages, and where a contribution ends.
struct BatchFrame {
    enum class Mark : std::uint8_t { begin, end, contribution_end };
    Mark mark = Mark::begin;
    std::uint32_t batch = 0; ///< of the request; 0 for a contribution
    std::string name;
    bool operator==(const BatchFrame &) const = default;
};

/// A client's message.
struct DataFrame {
    enum class Kind : std::uint8_t {
        checkpoint,   ///< master to standby
        contribution, ///< what a unit knows that was master itself, to the master that it comes back to
    };
    Kind kind = Kind::checkpoint;
    std::string name;
    Bytes data;
    bool operator==(const DataFrame &) const = default;
};

/// Why bytes are no frame.
struct Refusal {
    std::string why;
};

using Frame =
    std::variant<StateFrame, ClaimFrame, WillFrame, YieldFrame, SyncRequestFrame, BatchFrame, DataFrame>;

[[nodiscard]] Bytes encode_frame(const Frame &frame);
[[nodiscard]] std::variant<Refusal, Frame> decode_frame(std::span<const std::byte> bytes);

} // namespace platform
