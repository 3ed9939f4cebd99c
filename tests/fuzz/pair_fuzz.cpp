// Feeds a unit of a pair with what any process in its group may send. The input is a sequence of messages: a byte that
// says who sends and whether the message is given a right head, its kind, its length in two bytes, its bytes.
//
// What decodes must be the encoding of what it decodes to. Whatever strangers send, a unit that has not claimed the role
// is no master, and what goes to the clients has a length that was sent.
#include "must.h"

#include "redundancy/pair.h"

#include <variant>

using namespace platform;

namespace
{

class Host final : public PairHost
{
public:
    bool post(const std::string &name, RDND_EVENT event, std::vector<std::byte> data) override
    {
        MUST(name == "SFLOW_RDND");
        MUST(event != RDND_E_BACKUP_MSG || (!data.empty() && data.size() <= CHECKPOINT_MAX));
        return true;
    }
    void log(int, const char *, const std::string &text) override { MUST(text.size() < 1000); }
};

constexpr MemberId self{.node = 1, .pid = 10};
constexpr MemberId others[] = {{.node = 2, .pid = 20}, {.node = 2, .pid = 21}, {.node = 3, .pid = 30}, {}};

Bytes with_head(std::byte kind, std::span<const std::byte> payload)
{
    Bytes message{std::byte{'s'}, std::byte{'f'}, std::byte{'R'}, std::byte{'1'},
                  kind,           std::byte{0},   std::byte{0},   std::byte{0}};
    for (int shift = 24; shift >= 0; shift -= 8)
        message.push_back(static_cast<std::byte>(payload.size() >> shift & 0xff));
    message.insert(message.end(), payload.begin(), payload.end());
    return message;
}

void check_codec(std::span<const std::byte> message)
{
    const auto decoded = decode_frame(message);
    if (const auto *frame = std::get_if<Frame>(&decoded))
        MUST(encode_frame(*frame) == Bytes(message.begin(), message.end()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *input, std::size_t size)
{
    std::span<const std::byte> rest = std::as_bytes(std::span(input, size));
    check_codec(rest);

    Host host;
    PairTime now{};
    Pair pair({.host = "one", .instance = 1}, host, [&] { return now; });
    pair.add_client("SFLOW_RDND", 1);
    pair.connected(self);
    // Two of the four that send are members, and nobody has quorum: no claim of this unit's own.
    pair.view({.members = {self, others[0], others[1]}, .left = {}, .joined = {self, others[0], others[1]}});
    constexpr std::size_t head = 4;
    while (rest.size() >= head) {
        const auto how = std::to_integer<unsigned>(rest[0]);
        const std::byte kind = rest[1];
        const std::size_t length =
            std::to_integer<std::size_t>(rest[2]) << 8 | std::to_integer<std::size_t>(rest[3]);
        rest = rest.subspan(head);
        const auto bytes = rest.first(std::min(length, rest.size()));
        rest = rest.subspan(bytes.size());
        const Bytes message = (how & 4) != 0 ? with_head(kind, bytes) : Bytes(bytes.begin(), bytes.end());
        check_codec(message);
        pair.deliver(others[how & 3], message);
        now += std::chrono::milliseconds(how >> 3);
        pair.tick();
        while (const auto frame = pair.next_frame())
            pair.sent(frame);
        MUST(pair.role() != RDND_ROLE_MASTER);
        MUST(!pair.report(pair.role()).empty());
    }
    return 0;
}
