#include "literals.h"

#include <arpa/inet.h>
#include <charconv>
#include <string>
#include <system_error>

namespace cli
{
namespace
{

/// All of `word` as a number of the base, without a sign.
template <typename T>
std::optional<T> parse_whole(std::string_view word, int base)
{
    T value = 0;
    const char *const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value, base);
    if (word.empty() || word.front() == '-' || error != std::errc{} || stop != end)
        return std::nullopt;
    return value;
}

} // namespace

std::optional<int64_t> parse_number(std::string_view word, bool hex)
{
    if (hex && (word.starts_with("0x") || word.starts_with("0X")))
        return parse_whole<int64_t>(word.substr(2), 16);
    return parse_whole<int64_t>(word, 10);
}

std::optional<Prefix> parse_prefix(std::string_view word, bool v6)
{
    const std::size_t slash = word.find('/');
    if (slash == std::string_view::npos)
        return std::nullopt;
    Prefix prefix;
    const std::string address(word.substr(0, slash));
    const auto length = parse_number(word.substr(slash + 1), false);
    if (inet_pton(v6 ? AF_INET6 : AF_INET, address.c_str(), prefix.address.data()) != 1 || !length ||
        *length > (v6 ? 128 : 32))
        return std::nullopt;
    prefix.length = *length;
    return prefix;
}

std::optional<std::array<u_int8_t, 6>> parse_mac(std::string_view word)
{
    constexpr std::size_t digits = 12;
    constexpr std::size_t dotted = digits + 2;
    constexpr std::size_t paired = digits + 5;
    const char separator = word.size() == dotted ? '.' : word.size() == paired ? word[2] : '\0';
    if (separator != '.' && separator != ':' && separator != '-')
        return std::nullopt;
    if (word.size() == paired && separator == '.')
        return std::nullopt;
    const std::size_t group = word.size() == dotted ? 4 : 2;
    std::array<u_int8_t, 6> address{};
    std::string hex;
    for (std::size_t i = 0; i < word.size(); ++i) {
        const bool between = i % (group + 1) == group;
        if (between != (word[i] == separator))
            return std::nullopt;
        if (!between)
            hex.push_back(word[i]);
    }
    for (std::size_t i = 0; i < address.size(); ++i) {
        const auto byte = parse_whole<u_int8_t>(std::string_view(hex).substr(2 * i, 2), 16);
        if (!byte)
            return std::nullopt;
        address[i] = *byte;
    }
    return address;
}

} // namespace cli
