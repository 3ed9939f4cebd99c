// The startup configuration: $SFLOW_CONFIG_DIR/startup-config, default directory /etc/sflow.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace cli
{

/// Larger files are not read.
constexpr std::size_t CONFIG_FILE_LIMIT = 16U << 20;

/// Path of the file, from the environment.
[[nodiscard]] std::string startup_config_path();

struct ConfigText {
    std::optional<std::string> text; ///< the file as it is
    bool missing = false;            ///< without text: there is no such file
    std::string error;               ///< without text: why it cannot be read
};

[[nodiscard]] ConfigText read_config_file(const std::string &path);

/// Replaces the file: readers, and a restart at any moment, see the old text or the new one. Makes the directory when
/// it is missing. The file's permissions become 0644.
/// @return why it could not be written, the old file being as it was; empty on success
[[nodiscard]] std::string write_config_file(const std::string &path, std::string_view text);

/// Calls `line` for each line of `text`, numbered from 1, without its newline (or carriage return).
void for_each_line(std::string_view text, const std::function<void(int number, std::string_view line)> &line);

} // namespace cli
