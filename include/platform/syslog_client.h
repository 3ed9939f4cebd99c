// Syslog client: lines of the form "%MODULE-LEVEL-MNEMONIC: text" for the system log.
//
// A line is formatted in the caller's thread and put into a bounded queue; the thread master given to
// syslog_single_thread_client_init() writes the queue out. Before that the queue keeps what comes, and what
// is left when the process exits is written then. The caller never waits for the log: a line that finds the
// queue full is counted and dropped, and the number lost is reported in one line once the queue has been written out.
#pragma once

#include "platform/kx_thread.h"

/// Where a line is meant to go.
enum syslog_dest_t : int {
    SYSLOG_DEST_OPERATOR = 1, ///< the operator's log
    SYSLOG_DEST_DEBUG =
        2, ///< debugging output; gives way first: the last eighth of the queue is not open to it
};

/// Queues one line. Any thread; never blocks, never fails visibly.
///
/// @param level     0 (emergency) to 7 (debug), RFC 5424 severities; values outside are taken as the nearest
/// @param module    upper-case name of the module; copied
/// @param mnemonic  upper-case name of the message; copied
/// @param dest      syslog_dest_t
/// @param format    printf format. Newlines at the end of the text are removed, control characters within
/// become
///                  blanks, bytes past 2047 are cut off.
void printk_syslog_ext(int level, const char *module, const char *mnemonic, int dest, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

/// Has the queue written out on `master` from now on; a second call moves it to the new master. 0, or -1 when
/// `master` is nullptr or finished. While the queue is empty nothing is pending on the master.
int syslog_single_thread_client_init(kx_thread_master_t *master);

/// Sets how many lines the queue holds (2048 before the first call); lines above a smaller size stay queued.
/// A size in the platform's configuration takes precedence. 0, or -1 when `lines` is below 1.
int syslog_set_snd_queue_size(int lines);
