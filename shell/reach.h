// Finding the daemon: where its socket is, and why it does not answer.
#pragma once

#include "client.h"

#include <chrono>
#include <optional>
#include <string>

namespace shell
{

/// The directory that the daemon calls TMPDIR: the shell's own, or /run.
[[nodiscard]] std::string runtime_directory();

/// Why nobody answers at the socket of a daemon with this directory, after connect() failed with `error`: it does not
/// run, or it waits for the sampling service before it opens its command line.
[[nodiscard]] std::string unreachable_reason(const std::string &directory, int error);

struct Reached {
    Client client;
    std::optional<State> state; ///< empty: not reached
    std::string reason;         ///< not reached, or not ready when that was asked for
};

/// Connects and greets.
///
/// @param wait  how long to wait for a daemon that is ready; without it, one that is starting will do
[[nodiscard]] Reached reach(const std::string &directory, bool interactive,
                            std::optional<std::chrono::milliseconds> wait);

} // namespace shell
