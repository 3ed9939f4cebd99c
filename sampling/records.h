// The records of the domain socket as bytes: checking what arrives, building what leaves.
//
// Pure functions; the layouts are those of sflow_domain_msg.h.
#pragma once

#include "backend.h"
#include "sflow_domain_msg.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

namespace sampling
{

using Bytes = std::span<const std::byte>;

/// One record cut out of a packet, its header included.
struct RecordView {
    std::uint32_t type = 0;
    Bytes bytes;
};

/// Takes the next record off the front of `packet`.
/// @return nothing at the end, and also when what remains is not a whole record: shorter than a header, `len`
///         below the header's size or past the end. What cannot be walked stays in `packet`.
[[nodiscard]] std::optional<RecordView> next_record(Bytes &packet);

/// Copies a record out of its bytes; nothing when the length is not exactly the record's.
template <typename Record>
requires std::is_trivially_copyable_v<Record>
[[nodiscard]] std::optional<Record> decode(Bytes bytes)
{
    if (bytes.size() != sizeof(Record))
        return std::nullopt;
    Record record;
    std::memcpy(&record, bytes.data(), sizeof(record));
    return record;
}

/// The header of a record of this type.
template <typename Record>
[[nodiscard]] constexpr sflow_msg_head_t head_of(std::uint32_t type)
{
    return {.type = type, .len = sizeof(Record)};
}

/// The bytes of a record, valid as long as the record.
template <typename Record>
requires std::is_trivially_copyable_v<Record>
[[nodiscard]] Bytes bytes_of(const Record &record)
{
    return std::as_bytes(std::span(&record, 1));
}

/// Name of a record type for logs; "unknown" for others.
[[nodiscard]] std::string_view record_name(std::uint32_t type);

/// Bytes of the frame check sequence that Linux does not show: counted in `frame_len`, named in `strip_len`.
constexpr std::uint32_t fcs_bytes = 4;

/// Fills the record of one sampled packet. The tags beside the frame are put back behind the MAC addresses; the header is
/// then cut to the sampler's length. Bytes of `buf` behind `buf_len` keep what they had.
void encode_sample(const Sample &sample, sflow_flow_spl_t &record);

/// True when the request limits sampling to an access list.
[[nodiscard]] bool names_acl(const sflow_spl_t &request);

/// The answer to a sampling setting: the request's fields and the result.
[[nodiscard]] sflow_spl_ret_t answer_to(const sflow_spl_t &request, Answer answer);
[[nodiscard]] sflow_ifx_is_conf_ret_t answer_to(const sflow_ifx_is_conf_t &request, Answer answer);

} // namespace sampling
