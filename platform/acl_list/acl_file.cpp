#include "acl_list/acl_file.h"

#include "acl_list/acl_json.h"
#include "file/descriptor.h"
#include "file/file.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace acl
{

namespace
{

constexpr std::string_view magic = "sflow-access-list 1 ";
constexpr std::string_view suffix = ".acl";
constexpr std::string_view unfinished_suffix = ".acl.new";
/// More than the longest list takes.
constexpr std::size_t most_bytes = 1U << 20;
constexpr mode_t file_mode = 0644;
// The one above is shared with the platform's other services, and closed to strangers.
constexpr mode_t directory_mode = 0755;
constexpr mode_t parent_mode = 0750;

std::string reason(std::string_view what, const std::string &path)
{
    return path + ": " + std::string(what) + ": " + std::strerror(errno);
}

ReadError corrupt(std::string why)
{
    return {.fault = Fault::corrupt, .reason = std::move(why)};
}

unsigned long checksum(std::string_view text)
{
    return ::crc32_z(0, reinterpret_cast<const Bytef *>(text.data()), text.size());
}

/// Takes a number of exactly this base off the front, and the character that ends it.
template <typename T>
bool take_number(std::string_view &text, T &number, int base, char end)
{
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    if (error != std::errc{} || stop == text.data() + text.size() || *stop != end)
        return false;
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()) + 1);
    return true;
}

std::string make_directory(const std::string &directory)
{
    ::mkdir(platform::directory_of(directory).c_str(), parent_mode);
    if (::mkdir(directory.c_str(), directory_mode) != 0 && errno != EEXIST)
        return reason("cannot be created", directory);
    return {};
}

} // namespace

std::string directory_below(std::string_view tmpdir)
{
    return std::string(tmpdir) + "/platform/acl";
}

std::string file_of(std::string_view directory, std::int32_t id)
{
    return std::string(directory) + "/" + std::to_string(id) + std::string(suffix);
}

std::string encode_list(const List &list)
{
    const std::string text = to_json(list);
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "%08lx %zu\n", checksum(text), text.size());
    return std::string(magic) + head.data() + text;
}

ReadResult decode_list(std::string_view text)
{
    unsigned long sum = 0;
    std::size_t length = 0;
    if (!text.starts_with(magic))
        return corrupt("not an access list of format 1");
    text.remove_prefix(magic.size());
    if (!take_number(text, sum, 16, ' ') || !take_number(text, length, 10, '\n'))
        return corrupt("its first line cannot be read");
    if (text.size() != length)
        return corrupt(std::to_string(text.size()) + " bytes instead of " + std::to_string(length));
    if (checksum(text) != sum)
        return corrupt("the checksum is wrong");
    std::optional<List> list = from_json(text);
    if (!list)
        return corrupt("the contents are not an access list");
    if (const auto fault = find_fault(*list))
        return corrupt(*fault);
    return std::move(*list);
}

ReadResult read_list(std::string_view directory, std::int32_t id, std::string_view name)
{
    const std::string path = file_of(directory, id);
    const platform::Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        return ReadError{.fault = errno == ENOENT ? Fault::missing : Fault::unreadable,
                         .reason = reason("cannot be opened", path)};
    std::string text;
    if (!platform::read_all(file.get(), most_bytes, text))
        return ReadError{.fault = Fault::unreadable, .reason = reason("cannot be read", path)};
    if (text.size() > most_bytes)
        return ReadError{.fault = Fault::unreadable,
                         .reason = path + ": larger than " + std::to_string(most_bytes) + " bytes"};
    ReadResult result = decode_list(text);
    if (auto *const error = std::get_if<ReadError>(&result)) {
        error->reason.insert(0, path + ": ");
        return result;
    }
    const List &list = std::get<List>(result);
    if (list.id != id || (!name.empty() && list.name != name))
        return ReadError{.fault = Fault::stale,
                         .reason = path + ": holds access list " + list.name + " with id " +
                                   std::to_string(list.id)};
    return result;
}

std::string publish_list(std::string_view directory, const List &list)
{
    const std::string path = file_of(directory, list.id);
    if (const auto fault = find_fault(list))
        return path + ": the list is not sound: " + *fault;
    if (std::string error = make_directory(std::string(directory)); !error.empty())
        return error;
    // Not brought onto the disk: the lists are published anew at every start, and the checksum tells a torn file.
    return platform::replace_file(path, encode_list(list), file_mode, platform::Durable::no);
}

std::string withdraw_list(std::string_view directory, std::int32_t id)
{
    const std::string path = file_of(directory, id);
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? std::string() : reason("cannot be removed", path);
}

std::string withdraw_all(std::string_view directory)
{
    const std::string path(directory);
    const std::unique_ptr<DIR, int (*)(DIR *)> open(::opendir(path.c_str()), ::closedir);
    if (open == nullptr)
        return errno == ENOENT ? std::string() : reason("cannot be read", path);
    std::string error;
    while (const dirent *const entry = ::readdir(open.get())) {
        const std::string_view name = entry->d_name;
        if (!name.ends_with(suffix) && !name.ends_with(unfinished_suffix))
            continue;
        const std::string file = path + "/" + std::string(name);
        if (::unlink(file.c_str()) != 0 && errno != ENOENT)
            error = reason("cannot be removed", file);
    }
    return error;
}

} // namespace acl
