#include "records.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace sampling
{
namespace
{

using testing::ElementsAre;

std::vector<std::byte> record_bytes(std::uint32_t type, std::uint32_t len, std::size_t size)
{
    std::vector<std::byte> bytes(size, std::byte{0xEE});
    const sflow_msg_head_t head = {.type = type, .len = len};
    std::memcpy(bytes.data(), &head, std::min(size, sizeof(head)));
    return bytes;
}

std::vector<std::uint8_t> untagged_frame(std::size_t size)
{
    std::vector<std::uint8_t> frame(size);
    std::iota(frame.begin(), frame.end(), std::uint8_t{1});
    if (size >= 14) {
        frame[12] = 0x08;
        frame[13] = 0x00;
    }
    return frame;
}

Sample sample_of(std::span<const std::uint8_t> header, Hook hook = Hook::ingress)
{
    Sample sample;
    sample.sampler = {.ifindex = 7, .hook = hook};
    sample.input = 7;
    sample.frame_len = 1000;
    sample.header_len = 256;
    sample.pool = 5;
    sample.drops = 3;
    sample.header = header;
    return sample;
}

TEST(Records_next_record, walks_back_to_back_records_in_order)
{
    std::vector<std::byte> packet = record_bytes(4100, 8, 8);
    const std::vector<std::byte> second = record_bytes(262, 12, 12);
    packet.insert(packet.end(), second.begin(), second.end());
    Bytes rest(packet);
    const auto first_record = next_record(rest);
    ASSERT_TRUE(first_record);
    EXPECT_EQ(first_record->type, 4100U);
    EXPECT_EQ(first_record->bytes.size(), 8U);
    const auto second_record = next_record(rest);
    ASSERT_TRUE(second_record);
    EXPECT_EQ(second_record->type, 262U);
    EXPECT_EQ(second_record->bytes.size(), 12U);
    EXPECT_TRUE(rest.empty());
    EXPECT_FALSE(next_record(rest));
}

TEST(Records_next_record, refuses_what_is_not_a_whole_record)
{
    struct Row {
        const char *name;
        std::uint32_t len;
        std::size_t size;
    };
    const Row rows[] = {
        {"length 0", 0, 16},           {"length below a header", 7, 16}, {"length past the end", 17, 16},
        {"length of 2^32-1", ~0U, 16}, {"half a header", 16, 7},         {"one byte", 16, 1},
    };
    for (const Row &row : rows) {
        const std::vector<std::byte> packet = record_bytes(258, row.len, row.size);
        Bytes rest(packet);
        EXPECT_FALSE(next_record(rest)) << row.name;
        EXPECT_EQ(rest.size(), row.size) << row.name;
    }
}

TEST(Records_decode, refuses_every_other_length)
{
    const std::vector<std::byte> bytes(200);
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_EQ(decode<sflow_spl_t>(Bytes(bytes).first(size)).has_value(), size == 132) << size;
}

TEST(Records_encode_sample, ingress_sample_names_its_interface_and_leaves_egress_unknown)
{
    const std::vector<std::uint8_t> frame = untagged_frame(60);
    sflow_flow_spl_t record = {};
    encode_sample(sample_of(frame), record);
    EXPECT_EQ(record.head.type, 515U);
    EXPECT_EQ(record.head.len, 312U);
    EXPECT_EQ(record.buf_len, 60);
    EXPECT_TRUE(std::equal(frame.begin(), frame.end(), record.buf));
    EXPECT_EQ(record.info.source_id, 7U);
    EXPECT_EQ(record.info.ingress_ifx, 7U);
    EXPECT_EQ(record.info.egress_ifx, 0U);
    EXPECT_EQ(record.info.sample_pool, 5U);
    EXPECT_EQ(record.info.drops_num, 3U);
    EXPECT_EQ(record.info.src_vlan, 0U);
    EXPECT_EQ(record.info.dest_vlan, 0U);
}

TEST(Records_encode_sample, frame_length_counts_the_fcs_that_is_stripped)
{
    sflow_flow_spl_t record = {};
    encode_sample(sample_of(untagged_frame(60)), record);
    EXPECT_EQ(record.info.frame_len, 1004U);
    EXPECT_EQ(record.info.strip_len, 4U);
}

TEST(Records_encode_sample, egress_sample_keeps_its_input_interface)
{
    const std::vector<std::uint8_t> frame = untagged_frame(60);
    Sample sample = sample_of(frame, Hook::egress);
    sample.input = 0xFFFFFFFF;
    sflow_flow_spl_t record = {};
    encode_sample(sample, record);
    EXPECT_EQ(record.info.source_id, 7U);
    EXPECT_EQ(record.info.ingress_ifx, 0xFFFFFFFFU);
    EXPECT_EQ(record.info.egress_ifx, 7U);
}

TEST(Records_encode_sample, accelerated_tag_is_put_back_behind_the_addresses)
{
    const std::vector<std::uint8_t> frame = untagged_frame(60);
    Sample sample = sample_of(frame);
    sample.tag = VlanTag{.protocol = 0x8100, .tci = 5 << 13 | 1 << 12 | 100};
    sflow_flow_spl_t record = {};
    encode_sample(sample, record);
    ASSERT_EQ(record.buf_len, 64);
    EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + 12, record.buf));
    EXPECT_THAT(std::vector<int>(record.buf + 12, record.buf + 16), ElementsAre(0x81, 0x00, 0xB0, 0x64));
    EXPECT_TRUE(std::equal(frame.begin() + 12, frame.end(), record.buf + 16));
    EXPECT_EQ(record.info.frame_len, 1008U);
    EXPECT_EQ(record.info.strip_len, 4U);
    EXPECT_EQ(record.info.src_vlan, 100U);
    EXPECT_EQ(record.info.src_priority, 5U);
    EXPECT_EQ(record.info.dest_vlan, 0U);
    EXPECT_EQ(record.info.dest_prority, 0U);
}

TEST(Records_encode_sample, tags_of_a_vlan_device_stand_in_front_of_the_frames_own)
{
    const std::vector<std::uint8_t> frame = untagged_frame(60);
    const VlanTag devices[] = {{.protocol = 0x88A8, .tci = 200}, {.protocol = 0x8100, .tci = 100}};
    Sample sample = sample_of(frame, Hook::egress);
    sample.device_tags = devices;
    sample.tag = VlanTag{.protocol = 0x8100, .tci = 7};
    sflow_flow_spl_t record = {};
    encode_sample(sample, record);
    ASSERT_EQ(record.buf_len, 72);
    EXPECT_TRUE(std::equal(frame.begin(), frame.begin() + 12, record.buf));
    EXPECT_THAT(std::vector<int>(record.buf + 12, record.buf + 24),
                ElementsAre(0x88, 0xA8, 0, 200, 0x81, 0x00, 0, 100, 0x81, 0x00, 0, 7));
    EXPECT_TRUE(std::equal(frame.begin() + 12, frame.end(), record.buf + 24));
    EXPECT_EQ(record.info.frame_len, 1016U);
    EXPECT_EQ(record.info.dest_vlan, 200U);
}

TEST(Records_encode_sample, header_with_tag_is_cut_to_the_samplers_length)
{
    const std::vector<std::uint8_t> frame = untagged_frame(256);
    for (std::uint32_t limit = 1; limit <= 256; ++limit) {
        Sample sample = sample_of(frame);
        sample.tag = VlanTag{.protocol = 0x8100, .tci = 1};
        sample.header_len = limit;
        sflow_flow_spl_t record = {};
        encode_sample(sample, record);
        ASSERT_EQ(record.buf_len, static_cast<int>(limit));
        ASSERT_EQ(record.info.src_vlan, limit >= 16 ? 1U : 0U) << limit;
    }
}

TEST(Records_encode_sample, every_header_length_is_safe)
{
    const std::vector<std::uint8_t> frame = untagged_frame(256);
    for (std::size_t size = 0; size <= frame.size(); ++size) {
        Sample sample = sample_of(std::span(frame).first(size));
        sflow_flow_spl_t record = {};
        encode_sample(sample, record);
        ASSERT_EQ(record.buf_len, static_cast<int>(size));
        sample.tag = VlanTag{.protocol = 0x88A8, .tci = 2};
        encode_sample(sample, record);
        ASSERT_EQ(record.buf_len, static_cast<int>(size < 12 ? size : std::min<std::size_t>(size + 4, 256)));
    }
}

TEST(Records_encode_sample, tag_in_the_frame_gives_vlan_without_changing_lengths)
{
    std::vector<std::uint8_t> frame = untagged_frame(64);
    frame[12] = 0x88; // 802.1ad
    frame[13] = 0xA8;
    frame[14] = 0x60; // priority 3
    frame[15] = 0x2A;
    Sample sample = sample_of(frame, Hook::egress);
    sflow_flow_spl_t record = {};
    encode_sample(sample, record);
    EXPECT_EQ(record.buf_len, 64);
    EXPECT_EQ(record.info.frame_len, 1004U);
    EXPECT_EQ(record.info.dest_vlan, 42U);
    EXPECT_EQ(record.info.dest_prority, 3U);
    EXPECT_EQ(record.info.src_vlan, 0U);
}

TEST(Records_encode_sample, pool_and_drops_wrap_at_32_bits)
{
    const std::vector<std::uint8_t> frame = untagged_frame(60);
    Sample sample = sample_of(frame);
    sample.pool = 0x1'0000'0002;
    sample.drops = 0x2'0000'0001;
    sflow_flow_spl_t record = {};
    encode_sample(sample, record);
    EXPECT_EQ(record.info.sample_pool, 2U);
    EXPECT_EQ(record.info.drops_num, 1U);
}

TEST(Records_answer_to, setting_comes_back_with_every_field)
{
    sflow_spl_t request = {};
    request.head = head_of<sflow_spl_t>(258);
    request.ifx = 11;
    request.rate = 4096;
    request.direct = 1;
    request.ifx_type = 2;
    request.acl_id = -5;
    std::memset(request.acl_name, 'n', sizeof(request.acl_name)); // not terminated: still carried whole
    request.snoop = 1;
    const sflow_spl_ret_t answer = answer_to(request, Answer::acl_unsupported);
    EXPECT_EQ(answer.head.type, 514U);
    EXPECT_EQ(answer.head.len, 136U);
    EXPECT_EQ(answer.ifx, 11U);
    EXPECT_EQ(answer.rate, 4096);
    EXPECT_EQ(answer.direct, 1);
    EXPECT_EQ(answer.ifx_type, 2);
    EXPECT_EQ(answer.acl_id, -5);
    EXPECT_EQ(std::memcmp(answer.acl_name, request.acl_name, sizeof(request.acl_name)), 0);
    EXPECT_EQ(answer.snoop, 1);
    EXPECT_EQ(answer.ret, -21);
}

TEST(Records_answer_to, attachment_comes_back_with_every_field)
{
    const sflow_ifx_is_conf_t request = {.head = {}, .ifx = 9, .flag = 2, .cid = 1};
    const sflow_ifx_is_conf_ret_t answer = answer_to(request, Answer::ok);
    EXPECT_EQ(answer.head.type, 517U);
    EXPECT_EQ(answer.head.len, 24U);
    EXPECT_EQ(answer.ifx, 9U);
    EXPECT_EQ(answer.flag, 2);
    EXPECT_EQ(answer.cid, 1);
    EXPECT_EQ(answer.ret, 0);
}

TEST(Records_names_acl, id_or_name_alone_is_enough)
{
    sflow_spl_t request = {};
    EXPECT_FALSE(names_acl(request));
    request.acl_id = 3;
    EXPECT_TRUE(names_acl(request));
    request.acl_id = 0;
    request.acl_name[0] = 'a';
    EXPECT_TRUE(names_acl(request));
}

TEST(Answer, codes_are_distinct_and_leave_the_daemons_own_alone)
{
    const std::vector<Answer> refusals = {Answer::no_interface,     Answer::acl_unsupported,
                                          Answer::hook_refused,     Answer::bad_request,
                                          Answer::type_unsupported, Answer::too_many_samplers};
    std::vector<int> codes;
    std::vector<std::string> texts;
    for (const Answer answer : refusals) {
        codes.push_back(static_cast<int>(answer));
        texts.emplace_back(answer_text(answer));
    }
    EXPECT_THAT(codes, ElementsAre(-20, -21, -22, -23, -24, -25));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::unique(texts.begin(), texts.end()), texts.end());
}

} // namespace
} // namespace sampling
