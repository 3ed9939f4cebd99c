// Command line of sflow-samplingd.
#pragma once

#include "bpf_backend.h"
#include "counter_keeper.h"
#include "replay_backend.h"

#include <string>
#include <variant>
#include <vector>

namespace sampling
{

enum class BackendKind { ebpf, replay };

struct Options {
    BackendKind backend = BackendKind::ebpf;
    BpfOptions bpf;
    ReplayOptions replay;
    CounterOptions counters;
    std::string socket_path;          ///< of the daemon
    std::string acl_directory;        ///< where access lists are published
    bool socket_path_assumed = false; ///< neither --socket nor TMPDIR was given
    bool verbose = false;
};

/// Ends the program before it starts: --help and --version (status 0, text for standard output), or a mistake
/// (status 1, one line for standard error).
struct EarlyExit {
    int status = 0;
    std::string text;
};

/// What the options' defaults come from: values of environment variables, or nullptr.
struct Environment {
    const char *tmpdir = nullptr;          ///< TMPDIR
    const char *state_directory = nullptr; ///< STATE_DIRECTORY, which systemd sets
};

[[nodiscard]] std::variant<Options, EarlyExit> parse_options(const std::vector<std::string> &arguments,
                                                             const Environment &environment);

} // namespace sampling
