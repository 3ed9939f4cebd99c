#include "config_file.h"

#include "descriptor.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace cli
{
namespace
{

constexpr mode_t file_mode = 0644;
constexpr mode_t directory_mode = 0755;

std::string reason(std::string_view what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

std::string directory_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

/// Writes `text` to a new file and onto the disk.
std::string write_durably(const std::string &path, std::string_view text)
{
    const Descriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, file_mode));
    // The process's mask is not known here.
    if (!file || ::fchmod(file.get(), file_mode) != 0)
        return reason("cannot create " + path);
    if (!write_all(file.get(), text))
        return reason("cannot write " + path);
    if (::fsync(file.get()) != 0)
        return reason("cannot bring " + path + " onto the disk");
    return {};
}

} // namespace

std::string startup_config_path()
{
    const char *const directory = std::getenv("SFLOW_CONFIG_DIR");
    return std::string(directory == nullptr || *directory == '\0' ? "/etc/sflow" : directory) +
           "/startup-config";
}

ConfigText read_config_file(const std::string &path)
{
    ConfigText result;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        result.missing = errno == ENOENT;
        result.error = reason("cannot open " + path);
        return result;
    }
    struct stat status {
    };
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        result.error = path + " is not a regular file";
        return result;
    }
    std::string text;
    char buffer[16384];
    while (text.size() <= CONFIG_FILE_LIMIT) {
        const ssize_t got = ::read(file.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            result.error = reason("cannot read " + path);
            return result;
        }
        if (got == 0) {
            result.text = std::move(text);
            return result;
        }
        text.append(buffer, static_cast<std::size_t>(got));
    }
    result.error = path + " is larger than " + std::to_string(CONFIG_FILE_LIMIT >> 20) + " MiB";
    return result;
}

std::string write_config_file(const std::string &path, std::string_view text)
{
    const std::string directory = directory_of(path);
    if (::mkdir(directory.c_str(), directory_mode) != 0 && errno != EEXIST)
        return reason("cannot create " + directory);
    const std::string fresh = path + ".new";
    std::string error = write_durably(fresh, text);
    if (error.empty() && ::rename(fresh.c_str(), path.c_str()) != 0)
        error = reason("cannot replace " + path);
    if (!error.empty()) {
        ::unlink(fresh.c_str());
        return error;
    }
    // Without this the new name may be lost in a power failure; the old file would then still be there, whole.
    const Descriptor holder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!holder || ::fsync(holder.get()) != 0)
        return reason("cannot bring " + directory + " onto the disk");
    return {};
}

void for_each_line(std::string_view text, const std::function<void(int number, std::string_view line)> &line)
{
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t newline = text.find('\n');
        std::string_view one = text.substr(0, newline);
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
        if (!one.empty() && one.back() == '\r')
            one.remove_suffix(1);
        line(number, one);
    }
}

} // namespace cli
