#include "redundancy/rdnd_commands.h"

#include "redundancy/rdnd_service.h"

#include "platform/cli.h"

namespace platform
{

namespace
{

// The commands come with the edition: it is there whenever one of them runs.

void show_redundancy(struct_command_data_block * /*record*/)
{
    for (const RdndReportLine &line : rdnd_service().edition()->report())
        cli_printf("%-32s%s\n", (line.heading + ":").c_str(), line.value.c_str());
}

void force_switchover(struct_command_data_block *record)
{
    const std::string error = rdnd_service().edition()->force_switchover();
    if (error.empty()) {
        cli_printf("The standby is taking over; \"show redundancy\" tells when it has\n");
        return;
    }
    cli_printf("%% No switchover: %s\n", error.c_str());
    cli_client_execmd_fail(record);
}

CLI_NODES(show_top, show, show_end, exec_top, exec, redundancy, force, force_end);

CLI_APPEND_POINT(show_top, show);
CLI_KEYWORD(show, "redundancy", "Role of this unit and of its partner", CLI_PRIV_USER, show_end, Tno_alt);
CLI_EOL(show_end, show_redundancy);

CLI_APPEND_POINT(exec_top, exec);
CLI_NOPREFIX(exec, Tno_alt, redundancy);
CLI_KEYWORD(redundancy, "redundancy", "Redundancy of control units", CLI_PRIV_PRIVILEGED, force, Tno_alt);
CLI_KEYWORD(force, "force-switchover", "Hand over to the standby", CLI_PRIV_PRIVILEGED, force_end, Tno_alt);
CLI_EOL(force_end, force_switchover);

} // namespace

void add_redundancy_commands()
{
    cli_add_command(PARSE_ADD_SHOW_CMD, &show_top, "redundancy show");
    cli_add_command(PARSE_ADD_EXEC_TOP_CMD, &exec_top, "redundancy exec");
}

} // namespace platform
