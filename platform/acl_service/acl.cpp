// ACL service client: the functions of platform/acl.h over the process's one service.

#include "platform/acl.h"

#include "acl_service/acl_commands.h"
#include "acl_service/acl_service.h"

#include <new>

using platform::acl_service;

int acl_agent_init(const char *name, kx_thread_master_t *master, const acl_reg_t *registration)
try {
    if (name == nullptr || *name == '\0' || master == nullptr || registration == nullptr)
        return ACL_ERR_INVALID;
    const int result = acl_service().attach(name, master, *registration);
    if (result != ACL_OK)
        return result;
    // Operators enter lists only where somebody can use them.
    return platform::add_acl_commands() == 0 ? ACL_OK : ACL_ERR_NOT_READY;
} catch (const std::bad_alloc &) {
    return ACL_ERR_NO_MEMORY;
}

const char *acl_strerror(int code)
{
    switch (code) {
    case ACL_OK:
        return "success";
    case ACL_ERR_INVALID:
        return "invalid argument";
    case ACL_ERR_NOT_FOUND:
        return "access list does not exist";
    case ACL_ERR_NOT_READY:
        return "access-list service is not ready";
    case ACL_ERR_NO_MEMORY:
        return "out of memory";
    case ACL_ERR_NOT_HELD:
        return "no reference is held on the access list";
    default:
        return "unknown error";
    }
}

int acl_info_get(acl_id_args_t *args)
{
    return args != nullptr && args->vdev_id == 0 ? acl_service().look_up(*args) : ACL_ERR_INVALID;
}

int acl_ref(acl_ref_args_t *args)
{
    if (args == nullptr || args->acl.vdev_id != 0 || args->cache_flag)
        return ACL_ERR_INVALID;
    return acl_service().take_reference(args->acl);
}

int acl_unref(acl_unref_args_t *args)
{
    return args != nullptr && args->acl.vdev_id == 0 ? acl_service().release_reference(args->acl)
                                                     : ACL_ERR_INVALID;
}
