// The claim on the tc hooks of a network namespace: one service at a time has it.
//
// A service takes away, when it starts, the hooks that an earlier run left behind. Those of a service that still runs
// look the same; without them it would sample nothing any more and not notice. The claim is a listening socket of an
// abstract name: the kernel keeps these names apart by network namespace, as it does the hooks, and frees them with the
// process however it ends. Nobody ever accepts on it.
#pragma once

#include "unique_fd.h"

#include <chrono>
#include <string_view>

namespace sampling
{

class HookClaim
{
public:
    /// Name of every service's claim.
    static constexpr std::string_view service_name = "sflow-samplingd";

    /// Takes the claim `name` of this thread's network namespace; it is given back with the object.
    ///
    /// While another process of this user or of root has it, waits up to `patience` for that process to end, since a
    /// service that was killed may still be about to. Then throws std::runtime_error with one line that names the
    /// process. A stranger cannot keep root from sampling: a claim of another user, or a name that nobody answers for
    /// in all that time, counts as not there, and held() is false. Throws std::system_error when the kernel has no
    /// socket for it.
    HookClaim(std::string_view name, std::chrono::milliseconds patience);

    [[nodiscard]] bool held() const { return static_cast<bool>(socket_); }

private:
    UniqueFd socket_;
};

} // namespace sampling
