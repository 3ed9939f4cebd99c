// The process: its files under TMPDIR, its debug file, its threads and their liveness (module sflow_agent).
#pragma once

#include "platform/kx_thread.h"

#include <pthread.h>

/// Bytes of a path below TMPDIR, its terminating NUL included.
constexpr int SFLOW_TMP_PATH_LEN = 100;

/// Descriptor of the debug file; -1 means there is none and every debug line is dropped.
extern int sflow_app_debug_fd;

/// The value of TMPDIR followed by `suffix`, in a static buffer that the next call on the same thread
/// overwrites; null without TMPDIR or when the two lengths plus one exceed SFLOW_TMP_PATH_LEN. Any thread.
char *sflow_make_tmp_path(const char *suffix);

/// Sets the umask of the process to 0 for good and creates $TMPDIR/sflow (mode 0777). 0 when it is there
/// afterwards, else -1 with errno set, or without a path.
int sflow_make_dir();

/// Opens $TMPDIR/sflow/app_debug for reading and appending, created when missing (mode 0777) and truncated.
/// The descriptor is the caller's; -1 when there is no path or the file cannot be opened.
int sflow_app_open_debug_file();
/// Closes it and stores -1.
void sflow_app_close_debug_file(int *fd);
/// Appends "TIME FILE,LINE,TEXT\n", TIME being local time as YYYY/MM/DD HH:MM:SS; a file above 1048575 bytes
/// is started again first. `file` is the name that the writing module uses for itself. Nothing happens for
/// `fd` -1 or a descriptor that is not open, and errors are ignored. Any thread; no lock: lines of two
/// threads may interleave.
void sflow_app_write_log(int fd, const char *file, int line, const char *text);

/// Takes the single-instance lock on $TMPDIR/sflow/sflow_lock: 0 taken, held for the life of the process; -1
/// not, because another instance holds it or the file cannot be opened, with the reason in the debug file and
/// on standard error. A lock that fails for any other reason ends the process with status 0. Main thread,
/// once: the lock belongs to the process and is lost when any descriptor of the file is closed.
int sflow_is_running();

/// Creates a detached thread that runs `start(arg)`, its handle in `*tid`; 0 or -1. Every thread of the
/// daemon is made here. The handle is good for pthread_cancel only, and only while the thread is known to
/// run.
int sflow_create_depatch_thread(pthread_t *tid, void *(*start)(void *), void *arg);

/// Register the calling thread with the health monitor, renew its deadline, remove it; 0, or -1 with a line
/// in the debug file. A registered thread renews at least every 120 seconds and is removed before it ends.
int sflow_reg_ham_client_notify();
int sflow_reset_ham_client_notify();
void sflow_unreg_ham_client_notify();
/// Registers the calling thread, which runs `master`'s loop, and renews its deadline every 60 seconds with a
/// timer of that master. Failures go to the debug file only.
void sflow_init_dead_detection(kx_thread_master_t *master);
/// That timer's callback: renews and arms itself again; always 0.
int sflow_reset_thread_notify(kx_thread_t *thread);

/// The daemon, but for its options: starts every subsystem in order and runs the main thread's loop. Returns
/// only on failure, with -1, the reason being in the debug file and on standard error; threads that run by
/// then end with the process. A syslog client that refuses ends the process with status -1.
int sflow_main();
