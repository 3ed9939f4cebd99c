#include "reach.h"

#include <algorithm>
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

using std::chrono::milliseconds;

constexpr milliseconds between_attempts{100};
constexpr milliseconds least_patience{1000};

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

Reached attempt(const std::string &directory, bool interactive, milliseconds patience)
{
    Reached reached;
    reached.client = Client::connect(directory + std::string(cli::SOCKET_PATH));
    if (!reached.client) {
        reached.reason = unreachable_reason(directory, errno);
        return reached;
    }
    reached.state = reached.client.greet(interactive, patience);
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
    const auto deadline = std::chrono::steady_clock::now() + wait.value_or(milliseconds(0));
    const auto time_left = [&] {
        return std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    };
    for (;;) {
        const milliseconds patience = wait ? std::max(least_patience, time_left()) : ANSWER_PATIENCE;
        Reached reached = attempt(directory, interactive, patience);
        const bool enough = reached.state && (reached.state->ready || !wait);
        const milliseconds left = time_left();
        if (enough || !wait || left <= milliseconds(0)) {
            if (!enough)
                reached.state.reset();
            return reached;
        }
        std::this_thread::sleep_for(std::min(between_attempts, left));
    }
}

} // namespace shell
