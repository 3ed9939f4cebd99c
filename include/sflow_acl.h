// Access lists that limit ingress sampling: look-up, references and the ACL service's notices (module sflow_acl).
//
// A reference tells the ACL service that sampling uses the list. Each enabled slot of an interface's configuration
// (sflow_intf_config_t::acl) stands for one. Names are NUL-terminated; of a longer one the first SFLOW_ACL_NAME_LEN
// bytes count; null is as empty.
#pragma once

#include "platform/kx_thread.h"

/// Registers with the ACL service, whose notices then run on `master`; 0 or -1. CLI thread, once.
int sflow_acl_init(kx_thread_master_t *master);

/// 0 when the list exists, with the service's id in `*acl_id`; -1 otherwise, `*acl_id` unchanged. On entry `*acl_id`
/// is the list's number, or 0 to look for the name. Any thread.
int sflow_acl_lookup(int *acl_id, const char *acl_name);

/// Take and release one reference; 0 or -1. Neither blocks nor calls back, so that `config_lock` may be held. Any
/// thread.
int sflow_acl_ref(int acl_id, const char *acl_name);
int sflow_acl_unref(int acl_id, const char *acl_name);
