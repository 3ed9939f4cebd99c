// The process's syslog client: one queue, its lines formatted in the caller's thread and written to the log by the
// thread master of syslog_single_thread_client_init(), or when the process exits.

#include "platform/syslog_client.h"

#include "config/platform_config.h"
#include "lock/immortal.h"
#include "log/log_target.h"
#include "syslog_client/syslog_queue.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>

namespace
{

using platform::SyslogQueue;

constexpr std::size_t text_bytes = 2048; ///< one text, its NUL included

SyslogQueue &queue();

void flush_at_exit()
{
    queue().drain(std::numeric_limits<std::size_t>::max());
}

struct Client {
    SyslogQueue lines{[](int level, const std::string &line) {
        platform::write_log_line(platform::platform_config().syslog_target, level, line);
    }};

    Client()
    {
        if (const auto &configured = platform::platform_config().syslog_queue)
            lines.set_capacity(static_cast<std::size_t>(*configured));
        std::atexit(flush_at_exit);
    }
};

SyslogQueue &queue()
{
    static const platform::Immortal<Client> client;
    return (*client).lines;
}

} // namespace

void printk_syslog_ext(int level, const char *module, const char *mnemonic, int dest, const char *format, ...)
try {
    std::array<char, text_bytes> text{};
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    if (length < 0)
        return;
    queue().push(level, dest,
                 platform::make_log_line(level, module != nullptr ? module : "UNKNOWN",
                                         mnemonic != nullptr ? mnemonic : "UNKNOWN", text.data()));
} catch (const std::bad_alloc &) {
    // A line that finds no memory is lost like one that finds the queue full.
    return;
}

int syslog_single_thread_client_init(kx_thread_master_t *master)
{
    return queue().attach(master) ? 0 : -1;
}

int syslog_set_snd_queue_size(int lines)
{
    if (lines < 1)
        return -1;
    if (!platform::platform_config().syslog_queue)
        queue().set_capacity(static_cast<std::size_t>(lines));
    return 0;
}
