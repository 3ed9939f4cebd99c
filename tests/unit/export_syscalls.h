// The system calls of the export modules under a test's control. Link with export_syscalls: each call is recorded
// and then either played (descriptors from 1000 on, everything succeeds) or handed to the kernel; single calls can be
// made to fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace export_test
{

enum class Kernel { played, real };

/// A datagram that was given to sendmsg().
struct Sent {
    std::string to; ///< "ADDRESS:PORT", IPv6 addresses in brackets
    std::vector<std::uint8_t> bytes;
};

/// Forgets the calls and the failures.
void reset_syscalls(Kernel kernel = Kernel::played);

/// Fails the `nth` call (from 1, counted from now on) of `name` with `error`. For "write", "pwrite" and "sendmsg" an
/// error of 0 means that one byte too few is taken. Memory functions ("calloc", "new") ignore `error`.
void fail_call(const std::string &name, int nth, int error);

/// Local address that a played getsockname() tells.
void play_local_address(const std::string &address);

/// The calls on sockets since the reset, in order: "socket inet", "reuse", "vrf 0/53=7", "bind 127.0.0.1:0",
/// "connect 127.0.0.1:6343", "getsockname", "sendmsg 188", "close".
const std::vector<std::string> &socket_calls();
const std::vector<Sent> &sent();
/// The calls that change files since the reset, in order: "write 336", "pwrite 168 at 336", "ftruncate 168", "rename".
const std::vector<std::string> &file_calls();

/// Status with which end_process_at() ends the process.
constexpr int ENDED_AT_CALL = 77;
/// Ends the process at the `nth` (from 1, counted from now on) of the calls that change files: writes take `taken`
/// bytes at most before it ends, other calls do nothing.
void end_process_at(int nth, std::size_t taken);

/// Counts calls without recording them: for programs that run for long.
void record_nothing();
/// Called with each datagram while nothing is recorded.
void watch_sent(void (*watcher)(const std::uint8_t *bytes, std::size_t len));

} // namespace export_test
