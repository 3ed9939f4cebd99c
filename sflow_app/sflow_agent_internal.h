// What the files of module sflow_agent share among themselves.
#pragma once

#include "sflow_agent.h"
#include "sflow_process.h"

/// One line of the debug file; the module's lines have carried this source name since its first release, and
/// whoever reads those files searches for it.
#define SFLOW_AGENT_DEBUG(text)                                                                              \
    sflow_app_write_log(sflow_load(sflow_app_debug_fd), "sflow_agent.c", __LINE__, text)

/// Tells on standard error, in one line, why the daemon does not run: whoever starts it by hand or reads the
/// service manager's journal does not see the debug file, and without TMPDIR there is none.
void sflow_tell_starter(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// Whether the calling thread holds `config_lock` for reading.
bool sflow_config_is_reading();

/// Frees every interface record without looking at the list, which is made empty along with it. No other
/// thread uses the record.
void sflow_clear_intf_config();

/// Frees the interface records that were given up under a read lock. Caller has just taken `config_lock` for
/// writing.
void sflow_reap_intf_config();
