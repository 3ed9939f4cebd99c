// The platform's formatter.

#include "platform/zformat.h"

#include <arpa/inet.h>
#include <array>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

namespace
{

std::string format(const char *text, ...)
{
    va_list args;
    va_start(args, text);
    std::string result = zvformat(text, args);
    va_end(args);
    return result;
}

const uint32_t ipv4 = inet_addr("192.0.2.1");
const uint32_t longest_ipv4 = inet_addr("255.255.255.255");

std::array<uint8_t, 16> ipv6(const char *text)
{
    std::array<uint8_t, 16> bytes{};
    EXPECT_EQ(1, inet_pton(AF_INET6, text, bytes.data()));
    return bytes;
}

} // namespace

TEST(zsnprintf, prints_ipv4_addresses)
{
    const std::string spaces = std::string(36, ' ');
    struct Row {
        const char *format;
        std::string expected;
    };
    const Row rows[] = {
        {"%a", "192.0.2.1"},
        {"[%-45a]", "[192.0.2.1" + spaces + "]"},
        {"[%45a]", "[" + spaces + "192.0.2.1]"},
        {"[%4a]", "[192.0.2.1]"},
        {"[%.3a]", "[192]"},
        {"[%-6.3a]", "[192   ]"},
        {"[%012a]", "[   192.0.2.1]"},
        {"[%+# 'a]", "[192.0.2.1]"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.expected, format(row.format, ipv4)) << row.format;
    EXPECT_EQ("[   192.0.2.1]", format("[%*a]", 12, ipv4));
    EXPECT_EQ("[192.0.2.1   ]", format("[%*a]", -12, ipv4));
    EXPECT_EQ("[192.0]", format("[%.*a]", 5, ipv4));
    EXPECT_EQ("[192.0.2.1]", format("[%.*a]", -1, ipv4));
    EXPECT_EQ("255.255.255.255", format("%a", longest_ipv4));
    EXPECT_EQ("0.0.0.0", format("%a", uint32_t{0}));
}

TEST(zsnprintf, prints_ipv6_addresses)
{
    struct Row {
        const char *format;
        const char *address;
        std::string expected;
    };
    const Row rows[] = {
        {"%v", "2001:db8::1", "2001:db8::1"},
        {"%v", "::", "::"},
        {"%v", "2001:DB8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"%v", "::ffff:192.0.2.1", "::ffff:192.0.2.1"},
        {"[%-45v]", "fe80::1", "[fe80::1" + std::string(38, ' ') + "]"},
        {"[%9v]", "fe80::1", "[  fe80::1]"},
        {"[%.4v]", "fe80::1", "[fe80]"},
        {"%v", "1111:2222:3333:4444:5555:6666:7777:8888", "1111:2222:3333:4444:5555:6666:7777:8888"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.expected, format(row.format, ipv6(row.address).data()))
            << row.format << " " << row.address;
    EXPECT_EQ("[(null)  ]", format("[%-8v]", nullptr));
}

TEST(zsnprintf, mixes_addresses_with_other_conversions)
{
    EXPECT_EQ("Source IP[2]: 192.0.2.1(used: 255.255.255.255)\n",
              format("Source IP[%d]: %a(used: %a)\n", 2, ipv4, longest_ipv4));
    const auto address = ipv6("2001:db8::5");
    EXPECT_EQ("7 2001:db8::5 x 3.50 192.0.2.1 5000000000 %",
              format("%d %v %s %.2f %a %lld %%", 7, address.data(), "x", 3.5, ipv4, 5000000000LL));
    EXPECT_EQ(
        "1    192.0.2.1                                    6343  1400 mgmt                            \n",
        format("%-5d%-45a%-6u%-5d%-32s\n", 1, ipv4, 6343U, 1400, "mgmt"));
}

#define SAME(text, ...)                                                                                      \
    do {                                                                                                     \
        std::array<char, 256> expected{};                                                                    \
        std::snprintf(expected.data(), expected.size(), text, __VA_ARGS__);                                  \
        EXPECT_EQ(expected.data(), format(text, __VA_ARGS__)) << text;                                       \
    } while (0)

TEST(zsnprintf, agrees_with_printf_on_everything_else)
{
    SAME("%d|%i|%u|%o|%x|%X", -1, INT_MIN, UINT_MAX, 8U, 255U, 255U);
    SAME("%5d|%-5d|%05d|%+d|% d|%.3d|%#x|%#o", 7, 7, 7, 7, 7, 7, 7U, 7U);
    SAME("%ld|%lld", LONG_MIN, LLONG_MAX);
    SAME("%lu|%llx", ULONG_MAX, ULLONG_MAX);
    SAME("%jd|%zd|%td|%zu|%jx", intmax_t{-5}, ssize_t{-6}, ptrdiff_t{-7}, SIZE_MAX, uintmax_t{10});
    SAME("%c|%3c|%-3c|", 'a', 'b', 'c');
    SAME("%s|%10s|%-10s|%.2s|", "text", "right", "left", "cut");
    SAME("%*d|%-*d|%.*f|%*.*f", 6, 1, 6, 2, 1, 2.25, 8, 3, 3.14159);
    SAME("%e|%E|%f|%F|%g|%G", 1.5, 1.5, 1.5, 1.5, 1e20, 1e-20);
    SAME("%Lf|%10.1Lf", 1.25L, 2.5L);
    SAME("%p|%20p", static_cast<const void *>("x"), static_cast<const void *>("y"));
    SAME("%ls|%lc", L"wide", wint_t{L'w'});
    EXPECT_EQ("(null)", format("%s", nullptr));
    EXPECT_EQ("100%", format("100%%"));
    EXPECT_EQ("", format(""));
    EXPECT_EQ("plain", format("plain"));
}

TEST(zsnprintf, narrow_sizes_cut_the_value)
{
    // printf's own result is not asked for: the compiler objects to these arguments.
    EXPECT_EQ("-1|-2|255|65535", format("%hhd|%hd|%hhu|%hu", -1, -2, 255, 65535));
    EXPECT_EQ("1|255|1|65535", format("%hhd|%hhu|%hd|%hu", 257, -1, 65537, -1));
}

TEST(zsnprintf, prints_the_rest_as_it_stands_from_the_first_conversion_that_does_not_exist)
{
    struct Row {
        const char *format;
        const char *expected;
    };
    const Row rows[] = {
        {"%d %n %d", "1 %n %d"},
        {"%d %", "1 %"},
        {"%d %5", "1 %5"},
        {"%d %l", "1 %l"},
        {"%d %.", "1 %."},
        {"%d %1$d", "1 %1$d"},
        {"%d %q", "1 %q"},
        {"%d %00000000000000000000000000000000000000000000000000005d",
         "1 %00000000000000000000000000000000000000000000000000005d"},
    };
    for (const Row &row : rows)
        EXPECT_EQ(row.expected, format(row.format, 1, 2, 3)) << row.format;
}

// Every size of buffer: the text is cut, terminated, the byte behind untouched, and the length is that of the whole.
TEST(zsnprintf, cuts_off_at_any_size)
{
    const auto address = ipv6("2001:db8::1");
    const std::string whole = "a=192.0.2.1 v=2001:db8::1 d=42 %.";
    for (size_t size = 0; size <= whole.size() + 2; ++size) {
        std::string buffer(size + 1, '#');
        const int length = zsnprintf(buffer.data(), size, "a=%a v=%v d=%d %%.", ipv4, address.data(), 42);
        EXPECT_EQ(static_cast<int>(whole.size()), length) << size;
        EXPECT_EQ('#', buffer[size]) << size;
        if (size > 0) {
            EXPECT_EQ(whole.substr(0, size - 1), buffer.c_str()) << size;
        }
    }
    EXPECT_EQ(9, zsnprintf(nullptr, 0, "%a", ipv4));
}

TEST(zsnprintf, terminates_the_buffer_when_there_is_nothing_to_print)
{
    char buffer[] = "before";
    EXPECT_EQ(0, zsnprintf(buffer, sizeof(buffer), ""));
    EXPECT_STREQ("", buffer);
}

TEST(zvformat, grows_with_the_text)
{
    for (const int width : {511, 512, 513, 5000})
        EXPECT_EQ(std::string(static_cast<size_t>(width) - 9, ' ') + "192.0.2.1!",
                  format("%*a!", width, ipv4));
}
