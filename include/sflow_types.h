// Basic types shared by the daemon, the platform headers and the sampling service.
#pragma once

#include <cstdint>
#include <sys/types.h>

/// Interface index as the interface manager assigns it (on Linux: the kernel's ifindex). 0 names no interface.
using IFINDEX = u_int32_t;

/// Bytes of an access-list name, its terminating NUL included.
constexpr int SFLOW_ACL_NAME_LEN = 100;
