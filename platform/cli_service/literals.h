// Arguments of command lines that are more than a word: numbers, prefixes, Ethernet addresses. Any thread; no state.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/types.h>

namespace cli
{

/// Decimal digits and nothing else.
/// @param hex  0x and hexadecimal digits are a number too
[[nodiscard]] std::optional<int64_t> parse_number(std::string_view word, bool hex);

struct Prefix {
    std::array<u_int8_t, 16> address{}; ///< network order, IPv4 in the first four bytes; host bits as typed
    int64_t length = 0;
};
/// A.B.C.D/LEN, or X:X::X:X/LEN when `v6`.
[[nodiscard]] std::optional<Prefix> parse_prefix(std::string_view word, bool v6);

/// 00:11:22:33:44:55, 00-11-22-33-44-55 or 0011.2233.4455.
[[nodiscard]] std::optional<std::array<u_int8_t, 6>> parse_mac(std::string_view word);

} // namespace cli
