// Arguments of command lines that are more than a word.
#include "literals.h"

#include <gtest/gtest.h>

#include <limits>

TEST(Literals_parse_number, decimal_digits_and_nothing_else)
{
    EXPECT_EQ(cli::parse_number("0", false), 0);
    EXPECT_EQ(cli::parse_number("007", false), 7);
    EXPECT_EQ(cli::parse_number("9223372036854775807", false), std::numeric_limits<int64_t>::max());
    for (const char *const word : {"", "-1", "+1", "1 ", " 1", "1.0", "0x10", "a", "9223372036854775808"})
        EXPECT_EQ(cli::parse_number(word, false), std::nullopt) << word;
}

TEST(Literals_parse_number, hexadecimal_where_it_is_offered)
{
    EXPECT_EQ(cli::parse_number("0x88CC", true), 0x88cc);
    EXPECT_EQ(cli::parse_number("0X0a", true), 10);
    EXPECT_EQ(cli::parse_number("10", true), 10);
    for (const char *const word : {"0x", "0x-1", "0xg", "x10", "0x1 ", "a", "-0x1", "0x10000000000000000"})
        EXPECT_EQ(cli::parse_number(word, true), std::nullopt) << word;
}

TEST(Literals_parse_prefix, address_and_length)
{
    const auto prefix = cli::parse_prefix("10.1.2.3/8", false);
    ASSERT_TRUE(prefix);
    EXPECT_EQ(prefix->length, 8);
    EXPECT_EQ(prefix->address[3], 3) << "host bits stay";
    EXPECT_TRUE(cli::parse_prefix("0.0.0.0/0", false));
    EXPECT_TRUE(cli::parse_prefix("1.2.3.4/32", false));
    EXPECT_TRUE(cli::parse_prefix("::/0", true));
    EXPECT_TRUE(cli::parse_prefix("2001:db8::1/128", true));
    for (const char *const word : {"", "/", "/8", "10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1",
                                   "10.0.0.0/8/8", "10.0.0/8", "::/0", "10.0.0.0/0x8", "10.0.0.0 /8"})
        EXPECT_FALSE(cli::parse_prefix(word, false)) << word;
    for (const char *const word : {"2001:db8::/129", "10.0.0.0/8", "::", ":/0"})
        EXPECT_FALSE(cli::parse_prefix(word, true)) << word;
}

TEST(Literals_parse_mac, three_notations)
{
    const std::array<u_int8_t, 6> expected{0x00, 0x11, 0x22, 0xaa, 0xbb, 0xff};
    for (const char *const word : {"00:11:22:aa:bb:ff", "00-11-22-AA-BB-FF", "0011.22aa.bbff"})
        EXPECT_EQ(cli::parse_mac(word), expected) << word;
    for (const char *const word :
         {"", "00:11:22:aa:bb", "00:11:22:aa:bb:f", "00:11:22:aa:bb:ff:", "00:11:22:aa:bb-ff", "001122aabbff",
          "0011:22aa:bbff", "00.11.22.aa.bb.ff", "0011.22aa-bbff", "00:11:22:aa:bb:fg", "+0:11:22:aa:bb:ff",
          "-0:11:22:aa:bb:ff", "0:011:22:aa:bb:ff", "................."})
        EXPECT_EQ(cli::parse_mac(word), std::nullopt) << word;
}
