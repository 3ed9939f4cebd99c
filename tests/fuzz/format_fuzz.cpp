// Feeds the platform's formatter with conversions and with whole formats. Conversions of C must print what the C
// library prints, addresses what "%s" prints of their text, at every size of the buffer; a format of any bytes must be
// taken without a step outside of its arguments.
#include "must.h"

#include "platform/zformat.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

/// Bytes of the input, zeros behind its end.
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t size) : data_(data), left_(size) {}

    template <typename T>
    T take()
    {
        T value{};
        const std::size_t bytes = std::min(left_, sizeof value);
        std::memcpy(&value, data_, bytes);
        data_ += bytes;
        left_ -= bytes;
        return value;
    }
    std::string text(std::size_t most)
    {
        const std::size_t bytes = std::min(left_, most);
        std::string text(reinterpret_cast<const char *>(data_), bytes);
        data_ += bytes;
        left_ -= bytes;
        return text;
    }

private:
    const std::uint8_t *data_;
    std::size_t left_;
};

constexpr std::size_t most_bytes = 700; // more than the formatter's buffer on the stack

std::string directive(Input &input, std::string_view tail)
{
    constexpr std::string_view flags = "-+ #0'";
    std::string text = "%";
    for (const auto choice = input.take<std::uint8_t>(); const char flag : flags)
        if ((choice >> flags.find(flag) & 1) != 0)
            text += flag;
    if (const auto width = input.take<std::uint16_t>(); width % 3 != 0)
        text += std::to_string(width % 600);
    if (const auto precision = input.take<std::uint8_t>(); precision % 3 != 0)
        text += "." + std::to_string(precision % 60);
    return text.append(tail);
}

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"
/// Compares with the C library: the whole text and what is left of it in a smaller buffer.
template <typename Value>
void compare(const std::string &ours, const std::string &theirs, std::size_t room, Value our_value)
{
    std::array<char, most_bytes> expected{};
    const auto value = [&] {
        if constexpr (std::is_same_v<Value, const char *>)
            return our_value == nullptr ? "(null)" : our_value;
        else
            return our_value;
    }();
    const int length = std::snprintf(expected.data(), expected.size(), theirs.c_str(), value);
    MUST(length >= 0 && static_cast<std::size_t>(length) < expected.size());

    std::array<char, most_bytes> printed{};
    printed.fill('\x7f');
    MUST(zsnprintf(printed.data(), room, ours.c_str(), our_value) == length);
    const std::size_t kept = room == 0 ? 0 : std::min(room - 1, static_cast<std::size_t>(length));
    MUST(std::memcmp(printed.data(), expected.data(), kept) == 0);
    MUST(room == 0 || printed[kept] == '\0');
    MUST(std::all_of(printed.begin() + static_cast<std::ptrdiff_t>(std::max(room, kept)), printed.end(),
                     [](char c) { return c == '\x7f'; }));
}
#pragma clang diagnostic pop

/// The directive of "%s" that prints an address the way `ours` does: flags other than "-" mean nothing for text.
std::string as_text(std::string ours)
{
    const std::size_t digits = std::min(ours.find_first_of("123456789."), ours.size() - 1);
    const bool left = ours.substr(0, digits).find('-') != std::string::npos;
    ours.back() = 's';
    return (left ? "%-" : "%") + ours.substr(digits);
}

void one_conversion(Input &input)
{
    const auto kind = input.take<std::uint8_t>();
    const std::size_t room = input.take<std::uint16_t>() % most_bytes;
    constexpr std::array integers{"d", "i", "o", "u", "x", "X"};
    const std::string letter = integers[input.take<std::uint8_t>() % integers.size()];
    const auto both = [&](const std::string &tail, auto value) {
        const std::string text = directive(input, tail);
        compare(text, text, room, value);
    };
    switch (kind % 12) {
    case 0:
        return both(letter, input.take<int>());
    case 1:
        return both("hh" + letter, static_cast<int>(input.take<signed char>()));
    case 2:
        return both("h" + letter, static_cast<int>(input.take<short>()));
    case 3:
        return both("l" + letter, input.take<long>());
    case 4:
        return both("ll" + letter, input.take<long long>());
    case 5:
        return both("j" + letter, input.take<std::intmax_t>());
    case 6:
        return both("z" + letter, input.take<std::size_t>());
    case 7:
        return both("t" + letter, input.take<std::ptrdiff_t>());
    case 8:
        return both("c", input.take<int>() | 1);
    case 9: {
        const std::string text = input.text(100);
        return both("s", text.size() == 99 ? static_cast<const char *>(nullptr) : text.c_str());
    }
    case 10: {
        const in_addr address{.s_addr = input.take<std::uint32_t>()};
        std::array<char, INET_ADDRSTRLEN> text{};
        inet_ntop(AF_INET, &address, text.data(), text.size());
        const std::string ours = directive(input, "a");
        std::array<char, most_bytes> expected{};
        std::array<char, most_bytes> printed{};
        zsnprintf(expected.data(), room, as_text(ours).c_str(), text.data());
        zsnprintf(printed.data(), room, ours.c_str(), address.s_addr);
        MUST(expected == printed);
        return;
    }
    default: {
        const auto address = input.take<in6_addr>();
        std::array<char, INET6_ADDRSTRLEN> text{};
        inet_ntop(AF_INET6, &address, text.data(), text.size());
        const std::string ours = directive(input, "v");
        std::array<char, most_bytes> expected{};
        std::array<char, most_bytes> printed{};
        zsnprintf(expected.data(), room, as_text(ours).c_str(), text.data());
        zsnprintf(printed.data(), room, ours.c_str(), &address);
        MUST(expected == printed);
        return;
    }
    }
}

std::string format_to_string(const char *format, ...)
{
    std::va_list args;
    va_start(args, format);
    std::string text = zvformat(format, args);
    va_end(args);
    return text;
}

/// Any bytes as a format. Every argument is the address of text, so that each conversion finds something to print.
void whole_format(Input &input)
{
    alignas(16) static const std::array<char, 64> text{"text"};
    const std::string format = input.text(200);
    const bool has_large_number = [&] {
        std::size_t digits = 0;
        for (const char c : format)
            if ((digits = std::isdigit(static_cast<unsigned char>(c)) != 0 ? digits + 1 : 0) > 3)
                return true;
        return false;
    }();
    // "*" would take an address for a width.
    if (has_large_number || std::count(format.begin(), format.end(), '%') > 6 ||
        format.find('*') != std::string::npos || format.find('\0') != std::string::npos)
        return;
    const char *const t = text.data();
    const std::string whole = format_to_string(format.c_str(), t, t, t, t, t, t, t, t, t, t, t, t, t, t, t, t,
                                               1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0);
    std::array<char, most_bytes> cut{};
    const std::size_t room = input.take<std::uint16_t>() % most_bytes;
    const int length = zsnprintf(cut.data(), room, format.c_str(), t, t, t, t, t, t, t, t, t, t, t, t, t, t,
                                 t, t, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0);
    MUST(length < 0 ? whole.empty() : whole.size() == static_cast<std::size_t>(length));
    if (format.find('%') == std::string::npos)
        MUST(whole == format);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input(data, size);
    if (input.take<std::uint8_t>() % 4 == 0)
        whole_format(input);
    else
        one_conversion(input);
    return 0;
}
