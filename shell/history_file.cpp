#include "history_file.h"

#include "descriptor.h"
#include "file/file.h"
#include "words.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace shell
{
namespace
{

constexpr mode_t file_mode = 0600;
/// A file that is larger is not this program's.
constexpr std::size_t size_limit = 16 << 20;

std::optional<std::string> read_history(int file)
{
    struct stat status {
    };
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    std::string text;
    if (!platform::read_all(file, size_limit, text) || text.size() > size_limit)
        return std::nullopt;
    return text;
}

bool can_be_a_command(std::string_view line)
{
    return line.size() <= cli::LINE_LIMIT && line.find_first_not_of(" \t") != std::string_view::npos &&
           !cli::find_control_character(line);
}

} // namespace

std::string history_path()
{
    const char *const named = std::getenv("SFLOW_CLI_HISTORY");
    if (named != nullptr)
        return named;
    const char *const home = std::getenv("HOME");
    return home == nullptr || *home == '\0' ? std::string() : std::string(home) + "/.sflow_cli_history";
}

std::vector<std::string> HistoryFile::load() const
{
    std::vector<std::string> lines;
    const cli::Descriptor file(
        path_.empty() ? -1 : open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    // Appending sessions hold the lock for one write.
    if (!file || flock(file.get(), LOCK_EX) != 0)
        return lines;
    const std::optional<std::string> text = read_history(file.get());
    if (!text)
        return lines;
    std::size_t count = 0;
    for (std::size_t begin = 0, end = 0; begin < text->size(); begin = end + 1, ++count) {
        end = std::min(text->find('\n', begin), text->size());
        if (can_be_a_command(std::string_view(*text).substr(begin, end - begin)))
            lines.push_back(text->substr(begin, end - begin));
    }
    if (lines.size() > HISTORY_LINES)
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(HISTORY_LINES));
    if (count <= 2 * HISTORY_LINES)
        return lines;
    std::string kept;
    for (const std::string &line : lines)
        kept.append(line).push_back('\n');
    if (ftruncate(file.get(), 0) == 0 && lseek(file.get(), 0, SEEK_SET) == 0)
        static_cast<void>(platform::write_all(file.get(), kept));
    return lines;
}

void HistoryFile::add(std::string_view line)
{
    if (path_.empty() || line == last_ || !can_be_a_command(line))
        return;
    last_ = line;
    const cli::Descriptor file(
        open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, file_mode));
    if (file && flock(file.get(), LOCK_EX) == 0)
        static_cast<void>(platform::write_all(file.get(), std::string(line) + "\n"));
}

} // namespace shell
