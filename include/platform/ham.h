// Health monitor client: threads prove that they are alive, a process that is not is restarted.
//
// A thread registers itself with a deadline and renews the registration before the deadline passes. A thread
// that does not is reported by name in the log. As long as every registered thread is in time the platform's
// supervisor is told that the process is well; once one is late the supervisor hears nothing more, and
// restarts the process when its own patience ends. A late thread that renews is well again.
//
// Every function may be called from any thread, and none blocks on anything but a short lock.
#pragma once

#include <sys/types.h>

/// Registers a thread of this process. The first call starts the monitor.
///
/// @param pid          this process; another one is refused
/// @param tid          kernel thread id (gettid) of the thread. Registering it again renews it with the new
/// values.
/// @param deadline_s   seconds within which the thread renews each time, 1 or more
/// @param max_reports  log lines at most for one lapse, 1 or more: the first when the deadline passes, a
/// further one
///                     each time it passes again
/// @return 0, or -1 for arguments out of range
///
/// The thread is reported under the name that it has when the deadline passes. When the process's main thread
/// (tid == pid) registers, the supervisor is also told that the process has started.
int ham_client_reg_thread_notify(pid_t pid, pid_t tid, int deadline_s, int max_reports);

/// Renews a registration: the deadline counts from now, with the values given. 0, or -1 for arguments out of
/// range or a thread that is not registered.
int ham_client_reset_thread_notify(pid_t pid, pid_t tid, int deadline_s, int max_reports);

/// Removes a registration; a thread calls it before it ends. 0, or -1 when the thread is not registered.
int ham_client_unreg_thread_notify(pid_t tid);

/// Says what is to happen when this process ends.
///
/// @param scope    what ends: 0, this process alone, is the only value
/// @param restart  1: the supervisor starts the process again. 0 (leave it down) is refused: the supervisor's
/// own
///                 configuration decides it, not the process.
/// @return 0, or -1 for any other value
int reg_process_exit_action(int scope, int restart);
