// Entry point of the daemon. Options are looked at here; everything else is sflow_main's.

#include "sflow_process.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr char USAGE[] =
    "Usage: sflowd [--help | --version]\n"
    "\n"
    "sFlow version 5 agent daemon. Runs in the foreground and is configured with sflow-cli.\n"
    "\n"
    "Options:\n"
    "  --help     show this text\n"
    "  --version  show the version\n"
    "\n"
    "Environment:\n"
    "  TMPDIR            directory below which the daemon keeps its files (required); they lie in\n"
    "                    $TMPDIR/sflow: app_debug, sflow_lock, tmp_file, domain_socket\n"
    "  SFLOW_CONFIG_DIR  directory of platform.toml and startup-config (default /etc/sflow)\n"
    "\n"
    "Exit status: 0 after an option; 255 when start-up fails, and 0 when one of the platform's services\n"
    "cannot be used, with the reason on standard error; 2 for an unknown argument. The daemon otherwise "
    "runs\n"
    "until it is killed.\n";

constexpr int EXIT_USAGE = 2;

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return sflow_main();
    if (std::strcmp(argv[1], "--help") == 0) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        std::puts("sflowd " SFLOW_VERSION);
        return 0;
    }
    std::fprintf(stderr, "sflowd: unknown argument \"%s\"\n%s", argv[1], USAGE);
    return EXIT_USAGE;
}
