// The platform's formatter: printf with two conversions for addresses.
//
//   %a   IPv4 address, dotted decimal; the argument is a u_int32_t by value in network byte order
//   %v   IPv6 address, RFC 5952 text; the argument is a pointer to its 16 bytes; "(null)" for nullptr
//
// Width, "-" and precision (a limit to the characters printed) apply to both as they do to "%s", so "%-45a"
// fills a column; other flags are ignored. printf's own "%a" (hexadecimal floating point) is given up for it.
//
// The other conversions are those of C: d i o u x X c s p e E f F g G and %% with the flags "-+ #0'", width
// and precision as numbers or "*", and the sizes hh h l ll j z t L. "%n" and numbered arguments ("%1$d") do
// not exist here. At the first conversion that does not exist, the rest of the format is printed as it
// stands.
//
// Formats carry no compiler attribute because of the two additions: arguments are the caller's
// responsibility. Any thread; nothing here throws except zvformat(), which allocates.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

/// Formats into `buffer`. The text is cut off at size - 1 characters and always terminated when `size` is not
/// 0; `buffer` may be nullptr when `size` is 0.
///
/// @return length of the whole text without the NUL, also when it was cut off; -1 when a conversion fails
int zsnprintf(char *buffer, size_t size, const char *format, ...);

/// The same; `args` is indeterminate afterwards.
int zvsnprintf(char *buffer, size_t size, const char *format, va_list args);

/// The whole text as a string; empty when a conversion fails. `args` is indeterminate afterwards.
[[nodiscard]] std::string zvformat(const char *format, va_list args);
