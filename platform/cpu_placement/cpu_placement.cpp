// CPU placement from platform.toml, section [cpu.PROCESS].

#include "platform/cpu_placement.h"

#include "config/platform_config.h"

#include "log/log_target.h"

#include <cstring>
#include <string>
#include <string_view>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace
{

/// The kernel leaves cores that are not there out of a process's set, and refuses a set of nothing else, in silence.
void warn_of_missing_cores(std::string_view process, const std::vector<int> &assigned)
{
    const long there = ::sysconf(_SC_NPROCESSORS_CONF);
    std::string missing;
    bool any_there = false;
    for (const int core : assigned) {
        if (core < there)
            any_there = true;
        else
            missing += " " + std::to_string(core);
    }
    if (missing.empty())
        return;
    platform::write_log_line(platform::platform_config().syslog_target, LOG_WARNING,
                             platform::make_log_line(LOG_WARNING, "PLATFORM", "CPU",
                                                     "platform.toml assigns " + std::string(process) +
                                                         " cores that this machine does not have:" + missing +
                                                         (any_there ? "; only the others count"
                                                                    : "; the process runs on any core")));
}

} // namespace

int get_cores_affinity(cores_affinity_req_t *request)
{
    if (request == nullptr)
        return -1;
    const std::string_view name(request->process_name,
                                strnlen(request->process_name, CORES_AFFINITY_NAME_LEN));
    const auto &assigned = platform::platform_config().cores;
    const auto found = assigned.find(name);
    if (found == assigned.end())
        return -1;
    CPU_ZERO(&request->cpus);
    for (const int core : found->second)
        CPU_SET(static_cast<size_t>(core), &request->cpus);
    warn_of_missing_cores(name, found->second);
    return 0;
}
