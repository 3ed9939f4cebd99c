#include "config_file.h"

#include "descriptor.h"
#include "file/file.h"

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
    if (!platform::read_all(file.get(), CONFIG_FILE_LIMIT, text))
        result.error = reason("cannot read " + path);
    else if (text.size() > CONFIG_FILE_LIMIT)
        result.error = path + " is larger than " + std::to_string(CONFIG_FILE_LIMIT >> 20) + " MiB";
    else
        result.text = std::move(text);
    return result;
}

std::string write_config_file(const std::string &path, std::string_view text)
{
    const std::string directory = platform::directory_of(path);
    if (::mkdir(directory.c_str(), directory_mode) != 0 && errno != EEXIST)
        return reason("cannot create " + directory);
    return platform::replace_file(path, text, file_mode, platform::Durable::yes);
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
