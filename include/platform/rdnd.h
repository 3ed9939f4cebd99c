// Redundancy client: which of the two control CPUs this one is, and checkpoint messages from the active to
// the standby one.
//
// A client registers under a name, which its checkpoint messages carry too, and gets its events as calls of
// one handler on the thread master given to rdnd_kx_thread_init(), one at a time. The other functions may be
// called from any thread and do not block.
#pragma once

#include "platform/kx_thread.h"

/// Events that the handler gets. Its answer is 0 unless stated.
enum rdnd_event : int {
    RDND_E_STAT_READY = 0, ///< role and state are known; delivered once, after the registration
    RDND_E_VERSION_CHECK =
        1, ///< a peer appeared; the data go to rdnd_get_version(), the answer is rdnd_issu_result
    RDND_E_BATCH_SYN_REQ = 2,   ///< the standby wants the full state; ends with RDND_NOTIFY_BATCH
    RDND_E_WILL_SWITCHOVER = 3, ///< a planned change of roles is near
    RDND_E_FAST_SWITCHOVER = 4, ///< the active unit is gone, this one takes over at once
    RDND_E_SWITCHOVER = 5,     ///< stop work that only the active unit does; ends with RDND_NOTIFY_SWITCHOVER
    RDND_E_SWITCHOVER_END = 6, ///< the new roles hold
    RDND_E_BACKUP_MSG = 7,     ///< a checkpoint message; data and length are the sender's
};
using RDND_EVENT = rdnd_event;

/// Role of this unit.
enum rdnd_role : int {
    RDND_ROLE_NONE = 0,      ///< not known yet
    RDND_ROLE_ALONE = 1,     ///< the service has no partner unit and does not manage a role
    RDND_ROLE_MASTER = 2,    ///< active
    RDND_ROLE_SLAVE = 3,     ///< standby
    RDND_ROLE_CANDIDATE = 4, ///< may become standby
};

/// State of the pair of units.
enum rdnd_stat : int {
    RDND_STAT_INIT = 0,       ///< the service has not reported ready
    RDND_STAT_ALONE = 1,      ///< ready, no partner
    RDND_STAT_BATCH = 2,      ///< ready, the standby is being brought up to date
    RDND_STAT_REALTIME = 3,   ///< ready, the standby is up to date and follows
    RDND_STAT_SWITCHOVER = 4, ///< the roles are changing
};

/// Answer to RDND_E_VERSION_CHECK.
enum rdnd_issu_result : int {
    RDND_VERCHK_ERROR = -1, ///< cannot be judged
    RDND_VERCHK_PASS = 0,   ///< the versions work together
    RDND_VERCHK_NG = 1,     ///< they do not: no checkpoint messages are exchanged
};

/// What rdnd_notify_completion() reports as done.
enum rdnd_notify : int {
    RDND_NOTIFY_BATCH = 0,
    RDND_NOTIFY_SWITCHOVER = 1,
};

/// Results of rdnd_chkpnt_enqueue().
enum rdnd_enqueue_result : int {
    RDND_ENQUEUE_FAILED = -1,
    RDND_ENQUEUE_OK = 0,
    RDND_ENQUEUE_STOP = 2, ///< nobody takes messages: send none until the next RDND_E_BATCH_SYN_REQ
};

/// @param name      the registration name; not to be changed although it is not const
/// @param data_len  bytes at `data_buf`, 0 for events without data
/// @param data_buf  valid during the call
/// @param arg       as registered
using rdnd_handler_t = int (*)(char *name, RDND_EVENT event, int data_len, void *data_buf, void *arg);

/// Attaches the service to the thread master that will run the handler.
///
/// @param slot, flags  reserved, 0
/// @return 0, or -1 when `master` is nullptr or the platform's configuration cannot be followed (the reason
/// is
///         logged): a unit that does not know its role must not act as the active one by mistake
int rdnd_kx_thread_init(kx_thread_master_t *master, int slot, int flags);

/// Registers the handler; after rdnd_kx_thread_init(). RDND_E_STAT_READY follows on the master.
///
/// @param name     name of the registration, at most 31 characters; copied. A second registration under the
/// same
///                 name replaces the first.
/// @param version  version of the checkpoint messages under this name; the peer sees it in
/// RDND_E_VERSION_CHECK
/// @param flags    reserved, 0
/// @param arg      handed to the handler
/// @return 0, or -1 when the arguments are unusable or the service is not attached
int rdnd_callback_register(const char *name, unsigned long version, rdnd_handler_t handler, int flags,
                           void *arg);

rdnd_role rdnd_get_role();
rdnd_stat rdnd_get_state();

/// The peer's version in the data of RDND_E_VERSION_CHECK; 0, which no peer has, when the data are not such
/// data.
unsigned long rdnd_get_version(int data_len, const void *data_buf);

/// Queues one checkpoint message for the standby's handler under the same name; order is kept.
///
/// @param len    bytes at `data`, 1 or more; copied before the call returns
/// @param flags  reserved, 0
/// @return rdnd_enqueue_result
int rdnd_chkpnt_enqueue(const char *name, int len, const void *data, int flags);

/// Reports that the batch synchronisation or the switch-over step asked for is done. 0, or -1 for an unknown
/// name.
int rdnd_notify_completion(const char *name, rdnd_notify what);
