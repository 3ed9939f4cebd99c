// CPU placement: which cores the platform assigns to a process.
#pragma once

#include <sched.h>

/// Bytes of a process name, its terminating NUL included.
constexpr int CORES_AFFINITY_NAME_LEN = 32;

struct cores_affinity_req_t {
    char process_name[CORES_AFFINITY_NAME_LEN]; ///< in: the name the platform knows the process by
    cpu_set_t cpus;                             ///< out: the cores assigned
};

/// Looks up the cores assigned to `process_name`. 0 with `cpus` filled in; -1, `cpus` unchanged, when the
/// platform assigns none. Cores that the machine does not have are among them; the log warns of those. Any thread.
int get_cores_affinity(cores_affinity_req_t *request);
