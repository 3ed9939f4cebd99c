// The last step of a log line: syslog(3) or standard error.
//
// Writes in the calling thread and may wait for the log daemon. The queued, non-blocking way is the syslog client's;
// this is for its own use and for what must get out while the queue's thread may be stuck.
#pragma once

#include <string>
#include <string_view>

namespace platform
{

enum class LogTarget {
    automatic, ///< syslog(3) while something listens at /dev/log, otherwise standard error
    syslog,
    standard_error,
};

/// "%MODULE-LEVEL-MNEMONIC: text". Newlines at the end of `text` are removed, other control characters become
/// blanks. `level` is taken to the nearest of 0 to 7.
[[nodiscard]] std::string make_log_line(int level, std::string_view module, std::string_view mnemonic,
                                        std::string_view text);

/// Writes one line without a newline of its own. `level` as for syslog(3), facility daemon. Any thread.
void write_log_line(LogTarget target, int level, const std::string &line);

} // namespace platform
