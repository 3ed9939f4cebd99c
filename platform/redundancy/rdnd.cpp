// Redundancy client: the functions of platform/rdnd.h over the process's one service.

#include "platform/rdnd.h"

#include "config/platform_config.h"
#include "lock/immortal.h"
#include "log/log_target.h"
#include "redundancy/rdnd_commands.h"
#include "redundancy/rdnd_service.h"

#include <cstring>
#include <syslog.h>

namespace
{

using platform::rdnd_service;
using platform::RdndEdition;
using platform::RdndHost;
using platform::RdndService;

constexpr std::size_t name_max = 31;

std::unique_ptr<RdndEdition> configured_edition(RdndHost &host)
{
    const auto refuse = [](const char *why) {
        platform::write_log_line(platform::LogTarget::automatic, LOG_ERR,
                                 platform::make_log_line(LOG_ERR, "RDND", "CONFIG", why));
        return nullptr;
    };
    // Two units that fall back to the default would both be the active one.
    if (platform::platform_config_is_broken())
        return refuse(
            "the role of this unit is not known: platform.toml has a mistake, the service does not start");
    switch (platform::platform_config().redundancy) {
    case platform::RedundancyMode::standalone:
        return platform::make_standalone_edition(host);
    case platform::RedundancyMode::corosync:
        return platform::make_corosync_edition(host, platform::platform_config());
    }
    return refuse("the configured mode has no edition, the service does not start");
}

bool is_usable(const char *name)
{
    return name != nullptr && *name != '\0' && std::strlen(name) <= name_max;
}

} // namespace

platform::RdndService &platform::rdnd_service()
{
    static const Immortal<RdndService> instance(configured_edition);
    return *instance;
}

int rdnd_kx_thread_init(kx_thread_master_t *master, int slot, int flags)
{
    if (slot != 0 || flags != 0 || rdnd_service().attach(master) != 0)
        return -1;
    platform::add_redundancy_commands();
    return 0;
}

int rdnd_callback_register(const char *name, unsigned long version, rdnd_handler_t handler, int flags,
                           void *arg)
{
    if (!is_usable(name) || handler == nullptr || flags != 0)
        return -1;
    return rdnd_service().register_client(name, version, handler, arg);
}

rdnd_role rdnd_get_role()
{
    const RdndEdition *edition = rdnd_service().edition();
    return edition != nullptr ? edition->role() : RDND_ROLE_NONE;
}

rdnd_stat rdnd_get_state()
{
    const RdndEdition *edition = rdnd_service().edition();
    return edition != nullptr ? edition->state() : RDND_STAT_INIT;
}

unsigned long rdnd_get_version(int data_len, const void *data_buf)
{
    unsigned long version = 0;
    if (data_buf != nullptr && data_len == static_cast<int>(sizeof(version)))
        std::memcpy(&version, data_buf, sizeof(version));
    return version;
}

int rdnd_chkpnt_enqueue(const char *name, int len, const void *data, int flags)
{
    if (!is_usable(name) || len < 1 || data == nullptr || flags != 0 || !rdnd_service().is_registered(name))
        return RDND_ENQUEUE_FAILED;
    return rdnd_service().edition()->enqueue(
        name, {static_cast<const std::byte *>(data), static_cast<std::size_t>(len)});
}

int rdnd_notify_completion(const char *name, rdnd_notify what)
{
    if (!is_usable(name) || !rdnd_service().is_registered(name))
        return -1;
    return rdnd_service().edition()->completed(name, what);
}
