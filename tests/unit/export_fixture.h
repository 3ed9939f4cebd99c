// Fixture and helpers that the tests of the export modules share.
#pragma once

#include "export_doubles.h"
#include "export_syscalls.h"

#include "fake_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace export_test
{

/// A collector is not configured yet, an agent address neither; the clock of the datagrams stands at 0.
class Export : public ::testing::Test
{
protected:
    Export()
    {
        fake::reset();
        reset_syscalls();
        reset_world();
    }
    ~Export() override
    {
        for (const fake::SyslogLine &line : fake::syslog_lines()) {
            EXPECT_EQ(line.level, 7) << line.text;
            EXPECT_EQ(line.module, "UNKNOW_MODULE") << line.text;
            EXPECT_EQ(line.mnemonic, "DEBUG") << line.text;
            EXPECT_EQ(line.dest, 2) << line.text;
        }
        EXPECT_EQ(fake::intfcbs_held(), 0);
        clear_world();
    }
};

/// A field of a datagram: what it is, and its bytes in hexadecimal, blanks between them allowed.
struct Field {
    const char *name;
    const char *hex;
};

inline std::vector<std::uint8_t> from_hex(const std::string &hex)
{
    std::string digits;
    for (const char c : hex) {
        if (c != ' ')
            digits += c;
    }
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at + 1 < digits.size(); at += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(at, 2), nullptr, 16)));
    return bytes;
}

/// The datagram is exactly these fields, one after another.
inline void expect_datagram(const std::vector<std::uint8_t> &datagram, std::span<const Field> fields)
{
    std::size_t at = 0;
    for (const Field &field : fields) {
        const std::vector<std::uint8_t> want = from_hex(field.hex);
        ASSERT_LE(at + want.size(), datagram.size()) << field.name << " at " << at << " is cut off";
        const auto first = datagram.begin() + static_cast<std::ptrdiff_t>(at);
        const std::vector<std::uint8_t> got(first, first + static_cast<std::ptrdiff_t>(want.size()));
        EXPECT_EQ(got, want) << field.name << " at " << at;
        at += want.size();
    }
    EXPECT_EQ(datagram.size(), at) << "bytes beyond the last field";
}

/// The 32-bit field at `at`.
inline std::uint32_t field(const std::vector<std::uint8_t> &datagram, std::size_t at)
{
    if (at + 4 > datagram.size())
        return 0xdeadbeef;
    return static_cast<std::uint32_t>(datagram[at]) << 24 |
           static_cast<std::uint32_t>(datagram[at + 1]) << 16 |
           static_cast<std::uint32_t>(datagram[at + 2]) << 8 | datagram[at + 3];
}

/// Sends what the collectors hold, as the timer does.
inline void flush()
{
    sflow_config_wrlock();
    sflow_receiver_send_all_receiver_sample();
    sflow_config_wrunlock();
}

/// The only datagram sent so far.
inline std::vector<std::uint8_t> only_datagram()
{
    EXPECT_EQ(sent().size(), 1U);
    return sent().empty() ? std::vector<std::uint8_t>{} : sent().back().bytes;
}

/// Leading bytes of a frame: 1, 2, 3 …
inline std::string frame(std::size_t len)
{
    std::string bytes(len, '\0');
    for (std::size_t at = 0; at < len; at++)
        bytes[at] = static_cast<char>(at + 1);
    return bytes;
}

} // namespace export_test
