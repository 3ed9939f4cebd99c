#include "hook_claim.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

namespace sampling
{

namespace
{

using SteadyTime = std::chrono::steady_clock::time_point;

// Between bind() and listen() of another process it can neither be asked nor waited for.
constexpr std::chrono::milliseconds between_tries{10};

// Services that wait for the holder's end at the same time.
constexpr int waiting = 64;

struct Address {
    sockaddr_un bytes = {};
    socklen_t length = 0;

    /// An abstract name begins with a zero byte and is as long as it says.
    explicit Address(std::string_view name)
    {
        bytes.sun_family = AF_UNIX;
        const std::size_t copied = std::min(name.size(), sizeof bytes.sun_path - 1);
        std::memcpy(bytes.sun_path + 1, name.data(), copied);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + copied);
    }
    [[nodiscard]] const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&bytes); }
};

UniqueFd make_socket()
{
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        throw std::system_error(errno, std::generic_category(), "tc hooks: socket of the claim");
    return fd;
}

/// A connection that lasts as long as the holder of the claim, and who that is.
struct Holder {
    UniqueFd connection;
    ucred who = {};
};

/// Nothing when the claim has just been given back, or is not ready to be asked.
std::optional<Holder> find_holder(const Address &address)
{
    Holder holder{.connection = make_socket()};
    socklen_t size = sizeof holder.who;
    if (::connect(holder.connection.get(), address.get(), address.length) != 0 ||
        ::getsockopt(holder.connection.get(), SOL_SOCKET, SO_PEERCRED, &holder.who, &size) != 0)
        return std::nullopt;
    return holder;
}

int milliseconds_until(SteadyTime end)
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
}

} // namespace

HookClaim::HookClaim(std::string_view name, std::chrono::milliseconds patience)
{
    const Address address(name);
    const SteadyTime end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        UniqueFd socket = make_socket();
        if (::bind(socket.get(), address.get(), address.length) == 0) {
            if (::listen(socket.get(), waiting) != 0)
                throw std::system_error(errno, std::generic_category(), "tc hooks: listening for the claim");
            socket_ = std::move(socket);
            return;
        }
        if (errno != EADDRINUSE)
            throw std::system_error(errno, std::generic_category(), "tc hooks: name of the claim");
        const std::optional<Holder> holder = find_holder(address);
        if (holder && holder->who.uid != 0 && holder->who.uid != ::geteuid())
            return;
        const int left = milliseconds_until(end);
        if (left == 0 && !holder)
            return;
        if (left == 0)
            throw std::runtime_error("tc hooks: another sflow-samplingd (process " +
                                     std::to_string(holder->who.pid) + ") samples in this network namespace");
        pollfd watched = {.fd = holder ? holder->connection.get() : -1, .events = 0, .revents = 0};
        ::poll(&watched, 1, holder ? left : std::min<int>(left, between_tries.count()));
    }
}

} // namespace sampling
