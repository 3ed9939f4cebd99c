#include "identity.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string_view>
#include <sys/stat.h>

namespace sampling
{

namespace
{

// Fields of /proc/PID/stat behind the name in parentheses, up to the start time, which is the 22nd of all.
constexpr int fields_to_start_time = 20;

/// FNV-1a; never 0, which stands for "not known".
std::uint64_t hash_of(std::string_view text)
{
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char character : text)
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001b3;
    return std::max<std::uint64_t>(hash, 1);
}

std::string boot_id()
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string text;
    std::getline(file, text);
    return text;
}

/// Ticks between the boot and the start of the process; empty when it is not to be seen.
std::string start_time(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    // the name may itself hold blanks and parentheses
    const std::size_t name_end = line.rfind(')');
    if (name_end == std::string::npos)
        return {};
    std::istringstream fields(line.substr(name_end + 1));
    std::string field;
    for (int i = 0; i < fields_to_start_time; ++i)
        fields >> field;
    return fields ? field : std::string();
}

} // namespace

std::uint64_t boot_identity()
{
    const std::string id = boot_id();
    return id.empty() ? 0 : hash_of(id);
}

std::uint64_t process_identity(pid_t pid)
{
    const std::string started = start_time(pid);
    return started.empty() ? 0 : hash_of(boot_id() + " " + std::to_string(pid) + " " + started);
}

std::uint64_t socket_identity(const std::string &path)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        return 0;
    return hash_of(boot_id() + " " + std::to_string(status.st_dev) + " " + std::to_string(status.st_ino) +
                   " " + std::to_string(status.st_ctim.tv_sec) + "." +
                   std::to_string(status.st_ctim.tv_nsec));
}

} // namespace sampling
