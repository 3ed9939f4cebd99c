#include "log.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace sampling
{

bool stderr_is_journal()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0)
        return false;
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

std::string error_text(int error)
{
    return std::strerror(error < 0 ? -error : error);
}

Log::Log(bool verbose) : verbose_(verbose)
{
    writer_ = [journal = stderr_is_journal()](LogLevel level, std::string_view text) {
        std::string line;
        if (journal)
            line = "<" + std::to_string(static_cast<int>(level)) + ">";
        line += text;
        line += '\n';
        // one write a line, so that lines of several processes do not mix; a lost log line is not worth more
        if (::write(STDERR_FILENO, line.data(), line.size()) < 0)
            return;
    };
}

} // namespace sampling
