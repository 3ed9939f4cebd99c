// Random access lists, and frames that have something to do with them: addresses, ports and protocols of both come from
// one small world, so that conditions hold and fail about equally often. One seed, one sequence.
#pragma once

#include "acl_list/acl_list.h"

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string_view>
#include <vector>

namespace sampling
{

/// A frame, and the VLAN tag that the kernel would hold beside it.
struct Traffic {
    std::vector<std::uint8_t> frame;
    std::optional<std::uint32_t> tag_beside; ///< EtherType << 16 | TCI
};

/// What the frames so far had in them.
struct TrafficCounts {
    std::uint64_t ipv4 = 0, ipv6 = 0, arp = 0, other = 0, length_field = 0;
    std::uint64_t tags_inside = 0, tags_beside = 0, three_tags = 0;
    std::uint64_t options = 0, extensions = 0, too_many_extensions = 0;
    std::uint64_t first_fragments = 0, later_fragments = 0, cut = 0, malformed = 0;
};

class AclTraffic
{
public:
    explicit AclTraffic(std::uint64_t seed) : random_(seed) { renew(); }

    /// Another world: addresses and ports of the frames and lists from here on.
    void renew();

    /// A sound list of 0 to `most_entries` entries.
    [[nodiscard]] acl::List list(acl::Family family, std::size_t most_entries);
    [[nodiscard]] acl::Family family();

    [[nodiscard]] Traffic frame();
    [[nodiscard]] const TrafficCounts &counts() const { return counts_; }

    [[nodiscard]] std::uint64_t draw(std::uint64_t least, std::uint64_t most)
    {
        return std::uniform_int_distribution<std::uint64_t>(least, most)(random_);
    }
    [[nodiscard]] bool chance(unsigned percent) { return draw(1, 100) <= percent; }

private:
    using Address = std::array<std::uint8_t, 16>;
    using Frame = std::vector<std::uint8_t>;

    template <typename Values>
    [[nodiscard]] auto one_of(const Values &values)
    {
        return *(std::begin(values) + static_cast<std::ptrdiff_t>(draw(0, std::size(values) - 1)));
    }
    [[nodiscard]] acl::Address condition(std::size_t size);
    [[nodiscard]] std::optional<acl::Ports> port_condition();
    [[nodiscard]] acl::Entry entry(acl::Family family);
    [[nodiscard]] Address address();
    [[nodiscard]] std::uint16_t port();
    [[nodiscard]] std::uint8_t protocol();
    /// Of a later fragment: not 0.
    [[nodiscard]] std::uint64_t fragment_offset();

    void put_tags(Frame &frame, Traffic &traffic);
    void put_ipv4(Frame &frame);
    void put_ipv6(Frame &frame);
    [[nodiscard]] std::uint8_t put_extension(Frame &frame, std::uint8_t next);
    void put_transport(Frame &frame, std::uint8_t protocol);
    void put_random(Frame &frame, std::size_t bytes);
    void put_address(Frame &frame, std::size_t bytes);

    std::mt19937_64 random_;
    std::array<Address, 6> addresses_{};
    std::array<std::uint16_t, 8> ports_{};
    std::array<std::uint8_t, 3> dscps_{};
    TrafficCounts counts_;
};

} // namespace sampling
