#include "protocol.h"

#include <gtest/gtest.h>

using cli::Frame;
using cli::FrameReader;
using cli::RequestReader;

namespace
{

std::vector<std::string> lines_in(RequestReader &reader)
{
    std::vector<std::string> lines;
    while (const auto line = reader.next())
        lines.push_back(line->oversized ? "<oversized>" : line->text);
    return lines;
}

} // namespace

TEST(Protocol_parse_request, verb_ends_at_the_first_blank)
{
    EXPECT_EQ(cli::parse_request("run  show x").verb, "run");
    EXPECT_EQ(cli::parse_request("run  show x").argument, " show x");
    EXPECT_EQ(cli::parse_request("run").argument, "");
    EXPECT_EQ(cli::parse_request("").verb, "");
}

TEST(RequestReader_next, lines_come_whole_whatever_the_pieces)
{
    const std::string_view text = "hello 1 batch\r\nrun a\n\nrun b\nrest";
    for (std::size_t piece = 1; piece <= text.size(); ++piece) {
        RequestReader reader;
        std::vector<std::string> lines;
        for (std::size_t at = 0; at < text.size(); at += piece) {
            reader.feed(text.substr(at, piece));
            for (std::string &line : lines_in(reader))
                lines.push_back(std::move(line));
        }
        EXPECT_EQ(lines, (std::vector<std::string>{"hello 1 batch", "run a", "", "run b"})) << piece;
    }
}

TEST(RequestReader_next, oversized_line_is_reported_once_and_not_kept)
{
    RequestReader reader;
    std::vector<std::string> lines;
    for (int i = 0; i < 1000; ++i) {
        reader.feed(std::string(1000, 'x'));
        for (std::string &line : lines_in(reader))
            lines.push_back(std::move(line));
        EXPECT_LE(reader.buffered(), cli::REQUEST_LIMIT + 1);
    }
    reader.feed("tail\nrun a\n");
    for (std::string &line : lines_in(reader))
        lines.push_back(std::move(line));
    EXPECT_EQ(lines, (std::vector<std::string>{"<oversized>", "run a"}));
}

TEST(RequestReader_next, limit_itself_is_accepted)
{
    for (const std::size_t length : {cli::REQUEST_LIMIT, cli::REQUEST_LIMIT + 1}) {
        RequestReader reader;
        reader.feed(std::string(length, 'x') + "\n");
        const auto line = reader.next();
        ASSERT_TRUE(line);
        EXPECT_EQ(line->oversized, length > cli::REQUEST_LIMIT);
    }
}

TEST(RequestReader_take, finds_a_line_behind_others)
{
    struct Row {
        std::string bytes;
        bool taken;
        std::vector<std::string> left;
    };
    const Row rows[] = {
        {"", false, {}},
        {"cancel", false, {}}, // its newline may never come
        {"cancel\n", true, {}},
        {"cancel\r\n", true, {}},
        {"run a\ncancel\nrun b\n", true, {"run a", "run b"}},
        {"run a\ncancel\ncancel\n", true, {"run a", "cancel"}},
        {"run cancel\n cancel\ncancel now\n", false, {"run cancel", " cancel", "cancel now"}},
    };
    for (const Row &row : rows) {
        RequestReader reader;
        reader.feed(row.bytes);
        EXPECT_EQ(reader.take("cancel"), row.taken) << row.bytes;
        EXPECT_EQ(lines_in(reader), row.left) << row.bytes;
    }
}

TEST(RequestReader_take, end_of_an_oversized_line_is_no_line)
{
    RequestReader reader;
    reader.feed(std::string(cli::REQUEST_LIMIT * 2, 'x'));
    EXPECT_FALSE(reader.next());
    reader.feed("cancel\nrun a\n");
    EXPECT_FALSE(reader.take("cancel"));
    EXPECT_EQ(lines_in(reader), (std::vector<std::string>{"<oversized>", "run a"}));
}

TEST(FrameReader_next, reads_back_what_was_encoded_at_every_cut)
{
    const std::string bytes = cli::encode_frame("out", "a\nb\n") + cli::encode_frame("out", "") +
                              cli::encode_frame("done", "host#", {"ok", "-1"});
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        FrameReader reader;
        std::vector<Frame> frames;
        for (const std::string &part : {bytes.substr(0, cut), bytes.substr(cut)}) {
            reader.feed(part);
            while (auto frame = reader.next())
                frames.push_back(std::move(*frame));
        }
        ASSERT_EQ(frames.size(), 3U) << cut;
        EXPECT_EQ(frames[0].text, "a\nb\n");
        EXPECT_EQ(frames[1].text, "");
        EXPECT_EQ(frames[2].tag, "done");
        EXPECT_EQ(frames[2].fields, (std::vector<std::string>{"ok", "-1"}));
        EXPECT_FALSE(reader.broken());
    }
}

TEST(FrameReader_next, many_frames_are_given_out_one_by_one)
{
    std::string bytes;
    for (int i = 0; i < 1000; ++i)
        bytes += cli::encode_frame("out", std::to_string(i));
    FrameReader reader;
    reader.feed(bytes);
    EXPECT_EQ(reader.buffered(), bytes.size());
    for (int i = 0; i < 1000; ++i) {
        const auto frame = reader.next();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->text, std::to_string(i));
    }
    EXPECT_EQ(reader.buffered(), 0U);
    EXPECT_FALSE(reader.next());
}

TEST(FrameReader_next, garbage_breaks_the_reader)
{
    const std::string rows[] = {"\n",          "out\n",
                                "out x\n",     "out -1\n",
                                "out 1x\n",    "out 99999999999999999999\n",
                                " 3\nabc",     "out  3\n",
                                "out 65537\n", std::string(1000, 'x')};
    for (const std::string &bytes : rows) {
        FrameReader reader;
        reader.feed(bytes);
        EXPECT_FALSE(reader.next()) << bytes;
        EXPECT_TRUE(reader.broken()) << bytes;
        reader.feed(cli::encode_frame("out", "x"));
        EXPECT_FALSE(reader.next()) << bytes;
    }
}

TEST(FrameReader_next, truncated_frame_is_waited_for)
{
    const std::string bytes = cli::encode_frame("out", "text");
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        FrameReader reader;
        reader.feed(std::string_view(bytes).substr(0, length));
        EXPECT_FALSE(reader.next()) << length;
        EXPECT_FALSE(reader.broken()) << length;
    }
}
