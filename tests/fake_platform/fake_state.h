// What the parts of the fake platform share. One mutex guards everything; nothing is called back while it is
// held.
#pragma once

#include "fake_platform.h"

#include <condition_variable>
#include <cstdarg>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace fake
{

std::mutex &state_mutex();
std::condition_variable &state_changed();

using Lock = std::unique_lock<std::mutex>;
[[nodiscard]] inline Lock lock_state()
{
    return Lock(state_mutex());
}

/// Adds a call and tells whether, and how, it is to fail. `function` must be in the table of fake_core.cpp.
std::optional<long> record(std::string_view function, const std::string &arguments = {});
/// The failure only, for functions that are not recorded.
std::optional<long> scripted(std::string_view function);

/// printf into a string.
std::string vtext(const char *format, va_list args) __attribute__((format(printf, 1, 0)));
std::string text(const char *format, ...) __attribute__((format(printf, 1, 2)));
/// "(null)" for nullptr.
std::string string_or_null(const char *value);

/// Notes what the code under test hands to the log or to an operator. When the environment names a file in
/// SFLOW_NOTE_FORMATS, all formats are appended to it, each ended by a NUL, as the program ends. Nothing otherwise.
void note_format(const char *format);

/// Says what is wrong and ends the test program.
[[noreturn]] void give_up(const std::string &reason);

// Each part forgets what it holds; called by reset().
void reset_core();
void reset_threads();
void reset_lsm();
void reset_cli();
void reset_services();
void reset_tech();

} // namespace fake
