#include "reach.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace shell
{
namespace
{

constexpr std::chrono::milliseconds between_attempts{100};

/// Whether a daemon runs with this directory: it holds a write lock on its lock file for as long as it lives.
bool daemon_runs(const std::string &directory)
{
    const int file = open((directory + "/sflow/sflow_lock").c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    struct flock lock {
    };
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool asked = fcntl(file, F_GETLK, &lock) == 0;
    close(file);
    return asked && lock.l_type != F_UNLCK;
}

Reached attempt(const std::string &directory, bool interactive)
{
    Reached reached;
    reached.client = Client::connect(directory + std::string(cli::SOCKET_PATH));
    if (!reached.client) {
        reached.reason = unreachable_reason(directory, errno);
        return reached;
    }
    reached.state = reached.client.greet(interactive);
    if (!reached.state)
        reached.reason = reached.client.reason();
    else if (!reached.state->ready)
        reached.reason = reached.state->reason;
    return reached;
}

} // namespace

std::string runtime_directory()
{
    const char *const directory = std::getenv("TMPDIR");
    return directory == nullptr || *directory == '\0' ? "/run" : directory;
}

std::string unreachable_reason(const std::string &directory, int error)
{
    const std::string socket = directory + std::string(cli::SOCKET_PATH);
    if (error == EACCES || error == EPERM)
        return "no permission for " + socket + ": it is open to root and to members of the group sflow";
    if (daemon_runs(directory))
        return "sflowd runs but still waits for the sampling service (sflow-samplingd)";
    if (error == ENOENT || error == ECONNREFUSED)
        return "sflowd is not running (TMPDIR is " + directory + ")";
    return socket + ": " + std::strerror(error);
}

Reached reach(const std::string &directory, bool interactive, std::optional<std::chrono::milliseconds> wait)
{
    const auto deadline = std::chrono::steady_clock::now() + wait.value_or(std::chrono::milliseconds(0));
    for (;;) {
        Reached reached = attempt(directory, interactive);
        const bool enough = reached.state && (reached.state->ready || !wait);
        const auto left = deadline - std::chrono::steady_clock::now();
        if (enough || !wait || left <= std::chrono::milliseconds(0)) {
            if (!enough)
                reached.state.reset();
            return reached;
        }
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(between_attempts, left));
    }
}

} // namespace shell
