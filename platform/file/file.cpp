#include "file/file.h"

#include "file/descriptor.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace platform
{
namespace
{

std::string reason(std::string_view what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

std::string write_new(const std::string &path, std::string_view text, mode_t mode, Durable durable)
{
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file || ::fchmod(file.get(), mode) != 0)
        return reason("cannot create " + path);
    if (!write_all(file.get(), text))
        return reason("cannot write " + path);
    if (durable == Durable::yes && ::fsync(file.get()) != 0)
        return reason("cannot bring " + path + " onto the disk");
    return {};
}

} // namespace

bool read_all(int fd, std::size_t limit, std::string &text)
{
    std::array<char, 16384> buffer;
    while (text.size() <= limit) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return true;
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

std::string directory_of(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

std::string replace_file(const std::string &path, std::string_view text, mode_t mode, Durable durable)
{
    const std::string fresh = path + ".new";
    std::string error = write_new(fresh, text, mode, durable);
    if (error.empty() && std::rename(fresh.c_str(), path.c_str()) != 0)
        error = reason("cannot replace " + path);
    if (!error.empty()) {
        ::unlink(fresh.c_str());
        return error;
    }
    if (durable == Durable::no)
        return {};
    // Without this the new name may be lost in a power failure; the old file would then still be there, whole.
    const std::string directory = directory_of(path);
    const Descriptor holder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!holder || ::fsync(holder.get()) != 0)
        return reason("cannot bring " + directory + " onto the disk");
    return {};
}

} // namespace platform
