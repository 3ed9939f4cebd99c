#include "records.h"

#include <algorithm>
#include <linux/if_ether.h>

namespace sampling
{

namespace
{

constexpr std::size_t mac_addresses_bytes = 12;
constexpr std::size_t tag_bytes = 4;

struct NameRow {
    std::uint32_t type;
    std::string_view name;
};

constexpr NameRow name_table[] = {
    {SFLOW_CMD_GET_COUNTER, "get counter"},
    {SFLOW_CMD_SET_SAMPLING_RATE, "set sampling rate"},
    {SFLOW_CMD_IFX_IS_CONF, "attach collector"},
    {SFLOW_CMD_SAMPLE_HEADER_LEN, "sample header length"},
    {SFLOW_CMD_GET_COUNTER_RET, "counters"},
    {SFLOW_CMD_SET_SAMPLING_RATE_RET, "answer to set sampling rate"},
    {SFLOW_CMD_FLOW_SAMPLING, "flow sample"},
    {SFLOW_CMD_UPDATE_COUNTER, "counter update"},
    {SFLOW_CMD_IFX_IS_CONF_RET, "answer to attach collector"},
    {SFLOW_CMD_HD_CAPACITY, "capacity"},
    {SFLOW_CMD_CONFIG_START, "configuration start"},
    {SFLOW_CMD_CONFIG_END, "configuration end"},
    {SFLOW_CMD_CONFIG_REQUEST, "configuration request"},
    {SFLOW_CMD_CONNECT, "connect notice"},
    {SFLOW_CMD_DEBUG, "debug"},
};

struct VlanFields {
    std::uint32_t id = 0;
    std::uint32_t priority = 0;
};

/// VLAN and priority of the outermost tag of the frame, zero when it has none.
VlanFields vlan_of(std::span<const std::uint8_t> frame)
{
    if (frame.size() < mac_addresses_bytes + tag_bytes)
        return {};
    const auto word = [&frame](std::size_t at) {
        return static_cast<unsigned>(frame[at] << 8 | frame[at + 1]);
    };
    const unsigned type = word(mac_addresses_bytes);
    if (type != ETH_P_8021Q && type != ETH_P_8021AD)
        return {};
    const unsigned tci = word(mac_addresses_bytes + 2);
    return {.id = tci & 0xFFF, .priority = tci >> 13};
}

std::array<std::uint8_t, tag_bytes> bytes_of(VlanTag tag)
{
    return {static_cast<std::uint8_t>(tag.protocol >> 8), static_cast<std::uint8_t>(tag.protocol & 0xFF),
            static_cast<std::uint8_t>(tag.tci >> 8), static_cast<std::uint8_t>(tag.tci & 0xFF)};
}

/// Bytes of the tags that are not in the frame.
std::uint32_t bytes_of_tags(const Sample &sample)
{
    return static_cast<std::uint32_t>(tag_bytes * (sample.device_tags.size() + (sample.tag ? 1 : 0)));
}

/// Copies `header` into `out` with the tags back in their place; returns the bytes written.
std::size_t copy_header(const Sample &sample, std::span<std::uint8_t> out)
{
    const std::span<const std::uint8_t> header = sample.header;
    std::size_t size = 0;
    const auto append = [&](std::span<const std::uint8_t> part) {
        const std::size_t count = std::min(part.size(), out.size() - size);
        std::copy_n(part.begin(), count, out.begin() + static_cast<std::ptrdiff_t>(size));
        size += count;
    };
    const std::size_t addresses = std::min<std::size_t>(header.size(), mac_addresses_bytes);
    append(header.first(addresses));
    if (addresses == mac_addresses_bytes) {
        for (const VlanTag tag : sample.device_tags)
            append(bytes_of(tag));
        if (sample.tag)
            append(bytes_of(*sample.tag));
    }
    append(header.subspan(addresses));
    return size;
}

/// A 32-bit counter of the wire: cumulative, modulo 2^32.
std::uint32_t low_word(std::uint64_t value)
{
    return static_cast<std::uint32_t>(value & 0xFFFFFFFF);
}

} // namespace

std::optional<RecordView> next_record(Bytes &packet)
{
    sflow_msg_head_t head;
    if (packet.size() < sizeof(head))
        return std::nullopt;
    std::memcpy(&head, packet.data(), sizeof(head));
    if (head.len < sizeof(head) || head.len > packet.size())
        return std::nullopt;
    const RecordView record = {.type = head.type, .bytes = packet.first(head.len)};
    packet = packet.subspan(head.len);
    return record;
}

std::string_view record_name(std::uint32_t type)
{
    for (const NameRow &row : name_table) {
        if (row.type == type)
            return row.name;
    }
    return "unknown";
}

void encode_sample(const Sample &sample, sflow_flow_spl_t &record)
{
    const std::size_t limit = std::clamp<std::size_t>(sample.header_len, 1, sizeof(record.buf));
    const std::size_t size = copy_header(sample, std::span(record.buf).first(limit));
    record.head = head_of<sflow_flow_spl_t>(SFLOW_CMD_FLOW_SAMPLING);
    record.buf_len = static_cast<std::int32_t>(size);

    sflow_flow_info_t info = {};
    info.source_id = sample.sampler.ifindex;
    info.sample_pool = low_word(sample.pool);
    info.drops_num = low_word(sample.drops);
    info.frame_len = sample.frame_len + fcs_bytes + bytes_of_tags(sample);
    info.strip_len = fcs_bytes;
    info.ingress_ifx = sample.input;
    const VlanFields vlan = vlan_of(std::span(record.buf).first(size));
    if (sample.sampler.hook == Hook::egress) {
        info.egress_ifx = sample.sampler.ifindex;
        info.dest_vlan = vlan.id;
        info.dest_prority = vlan.priority;
    } else {
        info.src_vlan = vlan.id;
        info.src_priority = vlan.priority;
    }
    record.info = info;
}

bool names_acl(const sflow_spl_t &request)
{
    return request.acl_id != 0 || request.acl_name[0] != '\0';
}

sflow_spl_ret_t answer_to(const sflow_spl_t &request, Answer answer)
{
    sflow_spl_ret_t record = {};
    record.head = head_of<sflow_spl_ret_t>(SFLOW_CMD_SET_SAMPLING_RATE_RET);
    record.ifx = request.ifx;
    record.rate = request.rate;
    record.direct = request.direct;
    record.ifx_type = request.ifx_type;
    record.acl_id = request.acl_id;
    std::memcpy(record.acl_name, request.acl_name, sizeof(record.acl_name));
    record.snoop = request.snoop;
    record.ret = static_cast<std::int32_t>(answer);
    return record;
}

sflow_ifx_is_conf_ret_t answer_to(const sflow_ifx_is_conf_t &request, Answer answer)
{
    sflow_ifx_is_conf_ret_t record = {};
    record.head = head_of<sflow_ifx_is_conf_ret_t>(SFLOW_CMD_IFX_IS_CONF_RET);
    record.ifx = request.ifx;
    record.flag = request.flag;
    record.cid = request.cid;
    record.ret = static_cast<std::int32_t>(answer);
    return record;
}

} // namespace sampling
