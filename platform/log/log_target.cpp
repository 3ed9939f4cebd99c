#include "log/log_target.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <paths.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace platform
{

namespace
{

bool is_control(char c)
{
    // Bytes above 0x7f belong to multi-byte characters.
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

struct CloseDescriptor {
    int fd;
    ~CloseDescriptor()
    {
        if (fd >= 0)
            close(fd);
    }
};

/// Why nothing takes what is sent to /dev/log by a socket of this type, as errno; 0 when something does.
int reach_system_log(int type)
{
    constexpr char path[] = _PATH_LOG;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof path <= sizeof address.sun_path);
    std::copy(std::begin(path), std::end(path), address.sun_path);
    const CloseDescriptor probe{socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (probe.fd < 0)
        return errno;
    return connect(probe.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
}

/// Whether somebody listens. The file alone does not tell: it outlives a log daemon that has ended, and syslog(3) would
/// lose the line without a word.
bool has_system_log()
{
    int reason = reach_system_log(SOCK_DGRAM);
    if (reason == EPROTOTYPE)
        reason = reach_system_log(SOCK_STREAM);
    return reason == 0 || reason == EAGAIN; // EAGAIN: it has much to do
}

int clamp_level(int level)
{
    return std::clamp(level, LOG_EMERG, LOG_DEBUG);
}

} // namespace

std::string make_log_line(int level, std::string_view module, std::string_view mnemonic,
                          std::string_view text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.remove_suffix(1);
    std::string line;
    line.reserve(module.size() + mnemonic.size() + text.size() + 6);
    line.append("%").append(module).append("-").append(std::to_string(clamp_level(level)));
    line.append("-").append(mnemonic).append(": ").append(text);
    std::replace_if(line.begin(), line.end(), is_control, ' ');
    return line;
}

void write_log_line(LogTarget target, int level, const std::string &line)
{
    const bool to_syslog =
        target == LogTarget::syslog || (target == LogTarget::automatic && has_system_log());
    if (to_syslog) {
        static std::once_flag opened;
        std::call_once(opened, [] { openlog(nullptr, LOG_PID, LOG_DAEMON); });
        syslog(clamp_level(level), "%s", line.c_str());
        return;
    }
    // One write, so that lines of several threads or processes do not mix.
    const std::string with_newline = line + "\n";
    const ssize_t written = write(STDERR_FILENO, with_newline.data(), with_newline.size());
    static_cast<void>(written); // there is nowhere left to report it
}

} // namespace platform
