// The platform's configuration: $SFLOW_CONFIG_DIR/platform.toml (default directory /etc/sflow).
//
// The file is read once, at the first question, and never again. docs/platform-toml.md lists the keys for operators;
// a key is added in the table of platform_config.cpp, here and there.
#pragma once

#include "log/log_target.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace platform
{

enum class RedundancyMode {
    standalone, ///< this unit has no partner and is the active one
    corosync,   ///< this unit is a node of a corosync cluster, and one of a pair
};

/// Values of the file; the initialisers are the defaults.
struct Config {
    LogTarget syslog_target = LogTarget::automatic; ///< [syslog] target
    std::optional<int> syslog_queue;                ///< [syslog] queue: lines; empty when the file names none
    RedundancyMode redundancy = RedundancyMode::standalone;     ///< [redundancy] mode
    std::string redundancy_group = "sflow";                     ///< [redundancy] group: 1 to 64 characters
    std::chrono::milliseconds redundancy_peer_timeout{1500};    ///< [redundancy] peer_timeout_ms
    std::map<std::string, std::vector<int>, std::less<>> cores; ///< [cpu.PROCESS] cores, by process name
    std::vector<std::string> management_interfaces;             ///< [interfaces] management: kernel names
};

/// Why a file cannot be used: one line "FILE:LINE: what, what is accepted".
struct ConfigError {
    std::string text;
};

using ConfigResult = std::variant<Config, ConfigError>;

/// Reads a configuration from text; `file_name` is for messages. The first mistake ends it.
[[nodiscard]] ConfigResult parse_config(std::string_view text, std::string_view file_name);

/// Reads platform.toml of a directory. A missing file or directory gives the defaults.
[[nodiscard]] ConfigResult read_config(const std::string &directory);

/// The process's configuration; the defaults when the file is broken. Any thread. The first call reads the file and
/// logs its mistake.
[[nodiscard]] const Config &platform_config();

/// Whether the process's configuration file has a mistake, which makes platform_config() the defaults. For services
/// that must not run on a guess.
[[nodiscard]] bool platform_config_is_broken();

} // namespace platform
