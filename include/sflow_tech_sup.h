// The daemon's contribution to the platform's tech-support collection (module sflow_tech_sup).
#pragma once

#include "platform/cli.h"
#include "platform/kx_thread.h"
#include "platform/tech.h"

/// Registers with the tech-support service; 0, else the failing call's result with the reason in the debug file.
/// What was registered before the failure stays. CLI thread, once.
int sflow_tech_init(kx_thread_master_t *master);
/// Has the debug file collected: 0, or non-zero with the reason in the debug file.
int sflow_tech_reg_dump_file();
/// Registers `show tech-support sflow`.
void sflow_tech_cmd_init();
/// Writes the daemon's sections for the basic and the detailed collection, which do not differ; ignores every other
/// event. Returns 0. CLI thread, no lock held.
int sflow_tech_callback(tech_event event, void *tech_arg);
/// Has a thread of its own run the show commands of the collection, so that the CLI thread stays free to execute
/// them.
void sflow_tech_show_sflow_command(struct_command_data_block *record);
/// Body of that thread, "sflow-show-tech"; `argument` is the command record. Returns null.
void *sflow_tech_show_thread(void *argument);
/// Prints whether any interface is configured for sampling. Takes `config_lock` for reading.
void sflow_show_current_status_cmd(struct_command_data_block *record);
