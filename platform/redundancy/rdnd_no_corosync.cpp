// Stands in for the corosync edition in a build without corosync's libraries.
#include "log/log_target.h"
#include "redundancy/rdnd_edition.h"

#include <syslog.h>

namespace platform
{

std::unique_ptr<RdndEdition> make_corosync_edition(RdndHost &, const Config &)
{
    write_log_line(LogTarget::automatic, LOG_ERR,
                   make_log_line(LOG_ERR, "RDND", "CONFIG",
                                 "platform.toml asks for corosync, this build has none: libcpg-dev and "
                                 "libquorum-dev were missing; the service does not start"));
    return nullptr;
}

} // namespace platform
