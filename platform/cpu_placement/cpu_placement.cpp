// CPU placement from platform.toml, section [cpu.PROCESS].

#include "platform/cpu_placement.h"

#include "config/platform_config.h"

#include <cstring>
#include <string_view>

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
    return 0;
}
