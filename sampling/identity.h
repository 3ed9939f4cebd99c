// What tells one boot from the next, and one process from the next one with its number.
#pragma once

#include <cstdint>
#include <sys/types.h>

namespace sampling
{

/// The same value until the machine boots again; 0 when the kernel does not tell.
[[nodiscard]] std::uint64_t boot_identity();

/// The same value as long as the process lives, and another one for every other process of this machine, also in other
/// boots; 0 when there is no such process to be seen.
[[nodiscard]] std::uint64_t process_identity(pid_t pid);

/// The process that listens at the other end of a connected Unix socket; 0 when it cannot be told.
[[nodiscard]] std::uint64_t peer_identity(int socket);

} // namespace sampling
