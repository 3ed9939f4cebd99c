#include "redundancy/pair_frame.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>

namespace platform
{

namespace
{

constexpr std::array<char, 4> magic{'s', 'f', 'R', '1'};
constexpr std::size_t header_bytes = 12;
/// No pair changes hands as often; what names more wants the terms to run out.
constexpr std::uint64_t term_max = std::uint64_t{1} << 62;

class Writer
{
public:
    template <typename Integer>
    void integer(Integer value)
    {
        for (std::size_t shift = sizeof(Integer); shift-- > 0;)
            bytes_.push_back(static_cast<std::byte>(value >> (8 * shift) & 0xff));
    }
    void u8(std::size_t value) { integer(static_cast<std::uint8_t>(value)); }
    void flag(bool value) { u8(value ? 1 : 0); }
    void text(std::string_view value)
    {
        u8(value.size());
        raw(std::as_bytes(std::span(value)));
    }
    void raw(std::span<const std::byte> value) { bytes_.insert(bytes_.end(), value.begin(), value.end()); }
    void member(MemberId id)
    {
        integer(id.node);
        integer(id.pid);
    }
    [[nodiscard]] Bytes &bytes() { return bytes_; }

private:
    Bytes bytes_;
};

/// Once something is missing or out of range, `good` is false and everything reads as zero.
class Reader
{
public:
    explicit Reader(std::span<const std::byte> bytes) : rest_(bytes) {}

    template <typename Integer>
    Integer integer()
    {
        Integer value = 0;
        for (const std::byte each : take(sizeof(Integer)))
            value = static_cast<Integer>(value << 8 | std::to_integer<Integer>(each));
        return value;
    }
    std::uint8_t u8(std::size_t largest)
    {
        const auto value = integer<std::uint8_t>();
        require(value <= largest);
        return value;
    }
    bool flag() { return u8(1) != 0; }
    std::string text(std::size_t longest)
    {
        const std::size_t length = u8(longest);
        const auto bytes = take(good_ ? length : 0);
        std::string value(bytes.size(), '\0');
        std::transform(bytes.begin(), bytes.end(), value.begin(),
                       [](std::byte b) { return static_cast<char>(std::to_integer<unsigned char>(b)); });
        // It ends up in log lines and on terminals.
        require(std::all_of(value.begin(), value.end(), [](char c) { return c > ' ' && c < '\x7f'; }));
        return value;
    }
    std::uint64_t term()
    {
        const auto value = integer<std::uint64_t>();
        require(value <= term_max);
        return value;
    }
    std::string name()
    {
        std::string value = text(CLIENT_NAME_MAX);
        require(!value.empty());
        return value;
    }
    MemberId member()
    {
        const auto node = integer<std::uint32_t>();
        return {.node = node, .pid = integer<std::uint32_t>()};
    }
    std::span<const std::byte> take(std::size_t count)
    {
        require(count <= rest_.size());
        if (!good_)
            return {};
        const auto taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    std::span<const std::byte> rest() { return take(rest_.size()); }
    void require(bool condition) { good_ = good_ && condition; }
    [[nodiscard]] bool complete() const { return good_ && rest_.empty(); }

private:
    std::span<const std::byte> rest_;
    bool good_ = true;
};

// ---- One pair of functions a kind; its number is the alternative's place in Frame.

void write(Writer &w, const StateFrame &f)
{
    w.integer(f.instance);
    w.integer(f.term);
    w.flag(f.quorate);
    w.flag(f.holds);
    w.u8(static_cast<std::size_t>(f.role));
    w.u8(static_cast<std::size_t>(f.state));
    w.integer(f.age_ms);
    w.integer(f.master_age_ms);
    w.text(f.host);
    w.u8(f.clients.size());
    for (const ClientInfo &client : f.clients) {
        w.text(client.name);
        w.integer(client.version);
    }
}

void read(Reader &r, StateFrame &f)
{
    f.instance = r.integer<std::uint64_t>();
    f.term = r.term();
    f.quorate = r.flag();
    f.holds = r.flag();
    f.role = static_cast<rdnd_role>(r.u8(RDND_ROLE_CANDIDATE));
    f.state = static_cast<rdnd_stat>(r.u8(RDND_STAT_SWITCHOVER));
    f.age_ms = r.integer<std::uint64_t>();
    f.master_age_ms = r.integer<std::uint64_t>();
    f.host = r.text(UNIT_NAME_MAX);
    f.clients.resize(r.u8(CLIENTS_MAX));
    for (ClientInfo &client : f.clients) {
        client.name = r.name();
        client.version = r.integer<std::uint64_t>();
    }
}

void write(Writer &w, const ClaimFrame &f)
{
    w.integer(f.view);
    w.integer(f.term);
    w.member(f.deposed);
}

void read(Reader &r, ClaimFrame &f)
{
    f.view = r.integer<std::uint64_t>();
    f.term = r.term();
    f.deposed = r.member();
}

void write(Writer &w, const WillFrame &f)
{
    w.member(f.to);
}

void read(Reader &r, WillFrame &f)
{
    f.to = r.member();
}

void write(Writer &w, const YieldFrame &f)
{
    w.member(f.to);
}

void read(Reader &r, YieldFrame &f)
{
    f.to = r.member();
}

void write(Writer &w, const SyncRequestFrame &f)
{
    w.integer(f.batch);
    w.text(f.name);
}

void read(Reader &r, SyncRequestFrame &f)
{
    f.batch = r.integer<std::uint32_t>();
    f.name = r.name();
}

void write(Writer &w, const BatchFrame &f)
{
    w.u8(static_cast<std::size_t>(f.mark));
    w.integer(f.batch);
    w.text(f.name);
}

void read(Reader &r, BatchFrame &f)
{
    f.mark =
        static_cast<BatchFrame::Mark>(r.u8(static_cast<std::size_t>(BatchFrame::Mark::contribution_end)));
    f.batch = r.integer<std::uint32_t>();
    f.name = r.name();
}

void write(Writer &w, const DataFrame &f)
{
    w.u8(static_cast<std::size_t>(f.kind));
    w.text(f.name);
    w.raw(f.data);
}

void read(Reader &r, DataFrame &f)
{
    f.kind = static_cast<DataFrame::Kind>(r.u8(static_cast<std::size_t>(DataFrame::Kind::contribution)));
    f.name = r.name();
    const auto data = r.rest();
    r.require(!data.empty() && data.size() <= CHECKPOINT_MAX);
    f.data.assign(data.begin(), data.end());
}

template <typename Kind>
std::optional<Frame> read_as(Reader &reader)
{
    Kind frame;
    read(reader, frame);
    return reader.complete() ? std::optional<Frame>(std::move(frame)) : std::nullopt;
}

template <std::size_t... Index>
std::optional<Frame> read_kind(std::size_t kind, Reader &reader, std::index_sequence<Index...>)
{
    std::optional<Frame> frame;
    ((kind == Index ? void(frame = read_as<std::variant_alternative_t<Index, Frame>>(reader)) : void()), ...);
    return frame;
}

} // namespace

Bytes encode_frame(const Frame &frame)
{
    Writer payload;
    std::visit([&](const auto &each) { write(payload, each); }, frame);
    Writer whole;
    whole.raw(std::as_bytes(std::span(magic)));
    whole.u8(frame.index());
    whole.raw(std::array<std::byte, 3>{});
    whole.integer(static_cast<std::uint32_t>(payload.bytes().size()));
    whole.raw(payload.bytes());
    return std::move(whole.bytes());
}

std::variant<Refusal, Frame> decode_frame(std::span<const std::byte> bytes)
{
    if (bytes.size() < header_bytes)
        return Refusal{std::to_string(bytes.size()) + " bytes are too short for a message"};
    if (std::memcmp(bytes.data(), magic.data(), magic.size()) != 0)
        return Refusal{"not a message of this protocol"};
    Reader header(bytes.subspan(magic.size(), header_bytes - magic.size()));
    const auto kind = header.integer<std::uint8_t>();
    const auto zeros = header.take(3);
    const auto length = header.integer<std::uint32_t>();
    if (kind >= std::variant_size_v<Frame> ||
        std::any_of(zeros.begin(), zeros.end(), [](std::byte b) { return b != std::byte{0}; }))
        return Refusal{"unknown kind of message " + std::to_string(kind)};
    if (length != bytes.size() - header_bytes)
        return Refusal{"a message of " + std::to_string(bytes.size() - header_bytes) + " bytes that names " +
                       std::to_string(length)};
    Reader payload(bytes.subspan(header_bytes));
    std::optional<Frame> frame =
        read_kind(kind, payload, std::make_index_sequence<std::variant_size_v<Frame>>());
    if (!frame)
        return Refusal{"a malformed message of kind " + std::to_string(kind)};
    return std::move(*frame);
}

} // namespace platform
