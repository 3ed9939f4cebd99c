// For tests of the parser alone: the services' functions that the sample client calls, collecting into place.
#include "cli_services_double.h"

#include "graph_walk.h"
#include "platform/cli.h"
#include "platform/zformat.h"
#include "running_config.h"

#include <cstdarg>

namespace services
{

State state;

}

int cli_printf(const char *format, ...)
{
    char text[1024];
    std::va_list args;
    va_start(args, format);
    const int length = zvsnprintf(text, sizeof text, format, args);
    va_end(args);
    services::state.printed += text;
    return length;
}

int c2p_printf(int non_default, struct_command_data_block *record, const char *format, ...)
{
    char text[1024];
    std::va_list args;
    va_start(args, format);
    const int length = zvsnprintf(text, sizeof text, format, args);
    va_end(args);
    services::state.config.add(non_default != 0, record->mode_name, text);
    return length < 0 ? -1 : 0;
}

void cli_client_execmd_fail(struct_command_data_block * /*record*/)
{
    services::state.failed = true;
}

int cli_change_mode(struct_command_data_block *record, const char *mode_name, int /*how*/)
{
    record->mode_name = mode_name;
    return 0;
}

const struct_transtion *cli_get_mode_root(const char *mode_name)
{
    const auto mode = cli::mode_by_name(mode_name);
    return mode ? cli::mode_root(*mode) : nullptr;
}

int cli_walkthrought_node(struct_command_data_block *record, const char * /*mode_name*/,
                          const struct_transtion *root)
{
    return cli::ConfigWalk(*services::state.grammar).walk(root, *record) ? 0 : -1;
}
