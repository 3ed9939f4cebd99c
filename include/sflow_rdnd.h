// Redundancy: the handlers of the redundancy service's events (module sflow_agent). The checkpoint message
// and the senders of single updates stand with the counter cache, in sflow_poller.h.
//
// Only the active unit ticks and exports. What a standby encodes is dropped where it would be sent, and every change of
// roles begins with an empty datagram, so that a unit which becomes active again never sends samples from its last
// time; counters would seem to run backwards. The active unit keeps the standby's counter cache equal to its own, so that the
// counters that a new active unit exports go on without a jump. Everything here runs on the redundancy thread
// "sflow_rdnd", which enters its loop when the agent record is complete: no event meets a lock that does not
// exist yet.
#pragma once

#include "platform/rdnd.h"

/// Version of the checkpoint messages (rdnd_sflow_counter_t); a peer must speak the same.
constexpr unsigned long SFLOW_RDND_VERSION = 1;

/// Whether another unit exports, so that this one must not: it is a standby, or a candidate for one. A unit whose role is
/// not known yet, or not managed, exports. Any thread, any lock.
inline bool sflow_rdnd_is_passive()
{
    const rdnd_role role = rdnd_get_role();
    return role == RDND_ROLE_SLAVE || role == RDND_ROLE_CANDIDATE;
}

/// Judges the peer's version of the checkpoint messages: RDND_VERCHK_ERROR on a unit that is neither master
/// nor slave, RDND_VERCHK_PASS for SFLOW_RDND_VERSION, RDND_VERCHK_NG for any other.
rdnd_issu_result sflow_version_check(unsigned long remote_ver);

/// The service knows role and state: from now on the one-second thread asks for the role and ticks on a
/// master.
void rdnd_sflow_event_ready();

/// Sends the whole cache to the standby and lets single updates follow. Reports completion unless the service
/// says stop, which forbids further messages until the next request. Takes `config_lock` for writing.
void rdnd_sflow_batch_sync();

/// Applies one record of the active unit to the cache; `data_len` bytes at `data_buf`, any alignment. Any
/// other length than a record's is refused. Does not write the cache file: the end of a switch-over does.
/// Takes `config_lock` for writing.
void rdnd_sflow_proc_backup_msg(int data_len, const void *data_buf);
