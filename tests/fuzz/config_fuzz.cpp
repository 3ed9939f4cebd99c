// Feeds the reader of platform.toml with any text. It must give values within their limits, or one line that names the
// file, and the same for the same text.
#include "must.h"

#include "config/platform_config.h"

#include <algorithm>
#include <cstdint>

namespace
{

void check(const platform::ConfigError &error)
{
    MUST(error.text.starts_with("platform.toml"));
    MUST(error.text.find('\n') == std::string::npos);
}

void check(const platform::Config &config)
{
    MUST(!config.syslog_queue || (*config.syslog_queue >= 1 && *config.syslog_queue <= 1000000));
    for (const auto &[process, cores] : config.cores) {
        MUST(!process.empty() && !cores.empty());
        MUST(std::all_of(cores.begin(), cores.end(), [](int core) { return core >= 0 && core <= 1023; }));
    }
    for (const std::string &name : config.management_interfaces)
        MUST(!name.empty() && name.size() <= 15);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const platform::ConfigResult result = platform::parse_config(text, "platform.toml");
    std::visit([](const auto &outcome) { check(outcome); }, result);
    MUST(platform::parse_config(text, "platform.toml").index() == result.index());
    return 0;
}
