// What tells one boot, one process and one start of a server from the next.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace sampling
{

/// The same value until the machine boots again; 0 when the kernel does not tell.
[[nodiscard]] std::uint64_t boot_identity();

/// The same value as long as the process lives, and another one for every other process of this machine, also in other
/// boots; 0 when there is no such process to be seen.
[[nodiscard]] std::uint64_t process_identity(pid_t pid);

/// The same value as long as the file at this path is the same one, unchanged in owner and mode; 0 when there is none. A
/// server makes its socket's file anew each time it starts.
[[nodiscard]] std::uint64_t socket_identity(const std::string &path);

} // namespace sampling
