// ACL service client: access lists by name, references on them, and notices about them.
//
// A reference tells the service that a list is in use. References belong to the connection: they end when the
// service does, and the client takes them again when acl_svr_status_notify(true) says that it is back.
// Notices run on the thread master given to acl_agent_init(), one at a time. Calls may be made from any
// thread, notices included, and do not block.
#pragma once

#include "platform/kx_thread.h"

#include <sys/types.h>
#include <type_traits>

/// Bytes of a list's name, its terminating NUL included.
constexpr int ACL_NAME_LEN = 100;

/// Results of the calls; acl_strerror() has their texts.
enum acl_error_t : int {
    ACL_OK = 0,
    ACL_ERR_INVALID = -1,   ///< an argument is missing or out of range
    ACL_ERR_NOT_FOUND = -2, ///< no such list
    ACL_ERR_NOT_READY = -3, ///< acl_agent_init() has not been called, or the service is down
    ACL_ERR_NO_MEMORY = -4,
    ACL_ERR_NOT_HELD = -5, ///< the client holds no reference on the list
};

/// Kind of a list (acl_id_args_t::acl_cls).
enum acl_class_t : int {
    ACL_CLASS_UNKNOWN = 0,
    ACL_CLASS_IPV4 = 1,
    ACL_CLASS_IPV6 = 2,
    ACL_CLASS_MAC = 3,
};

/// Names a list: by `acl_id` when that is not 0, otherwise by `acl_name`.
struct acl_id_args_t {
    int32_t vdev_id;             ///< virtual device, 0
    int32_t acl_id;              ///< the service's id; a numbered list's id is its number
    char acl_name[ACL_NAME_LEN]; ///< NUL-terminated unless it fills the array
    int32_t acl_cls;             ///< acl_class_t; filled by the service
};

struct acl_ref_args_t {
    acl_id_args_t acl;
    bool
        cache_flag; ///< remember the reference for a list that does not exist yet; not offered, must be false
};

struct acl_unref_args_t {
    acl_id_args_t acl;
};

/// One entry of a list, for the notices about entries.
struct ace_args_t {
    acl_id_args_t acl;
    u_int32_t sequence; ///< sequence number of the entry within the list
};

static_assert(std::is_trivially_copyable_v<acl_ref_args_t> &&
              std::is_trivially_copyable_v<acl_unref_args_t> && std::is_trivially_copyable_v<ace_args_t>);

/// A client's notice functions; an empty one is not called. The records are valid during the call.
///
/// `..._callback` functions are for clients that install lists and answer with 0 or an error; `..._notify`
/// functions tell what has happened.
struct acl_reg_t {
    int (*acl_ref_callback)(acl_id_args_t *args);
    int (*acl_unref_callback)(acl_id_args_t *args);
    int (*acl_create_callback)(acl_id_args_t *args);
    int (*acl_delete_callback)(acl_id_args_t *args);
    int (*ace_add_callback)(ace_args_t *args);
    int (*ace_delete_callback)(ace_args_t *args);
    void (*acl_create_notify)(acl_id_args_t *args);
    void (*acl_delete_notify)(acl_id_args_t *args); ///< the list is gone, references on it have ended
    void (*ace_add_notify)(ace_args_t *args);
    void (*ace_delete_notify)(ace_args_t *args);
    void (*acl_reseq_notify)(acl_id_args_t *args);
    void (*acl_svr_status_notify)(bool status); ///< the service came up (true) or went down
    int (*acl_start_recover_callback)();
    int (*acl_end_recover_callback)();
    int (*acl_ref_end_callback)(acl_id_args_t *args);
    int (*acl_apply_callback)(acl_id_args_t *args);
    int (*acl_unapply_callback)(acl_id_args_t *args);
};
static_assert(sizeof(acl_reg_t) == 17 * sizeof(void (*)()));

/// Registers a client. acl_svr_status_notify(true) follows on `master` as soon as the service is up.
///
/// @param name          the client's name in the service's listings; copied. A second call with the same name
///                      replaces the registration: every reference has ended, and every client, this one
///                      included, is told that the service is up
/// @param registration  copied
/// @return 0, ACL_ERR_INVALID or ACL_ERR_NO_MEMORY
int acl_agent_init(const char *name, kx_thread_master_t *master, const acl_reg_t *registration);

/// Text of a result code, never nullptr; "unknown error" for a code that does not exist.
const char *acl_strerror(int code);

/// Looks a list up and fills the record (`acl_id`, `acl_name`, `acl_cls`). 0, or an error with the record
/// unchanged.
int acl_info_get(acl_id_args_t *args);

/// Takes and releases one reference; they are counted. 0 or an error.
int acl_ref(acl_ref_args_t *args);
int acl_unref(acl_unref_args_t *args);
