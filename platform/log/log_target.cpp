#include "log/log_target.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <paths.h>
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
        target == LogTarget::syslog || (target == LogTarget::automatic && access(_PATH_LOG, W_OK) == 0);
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
