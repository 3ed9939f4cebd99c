// The access-list matcher in the kernel against the plain one, on random lists and frames. Needs CAP_NET_ADMIN, CAP_BPF
// and CAP_PERFMON; without them every test skips itself.
//
// The environment variable SFLOW_ACL_PAIRS sets how many pairs of a list and a frame are compared.
#include "acl_compiler.h"
#include "acl_matcher.h"
#include "acl_probe.skel.h"
#include "acl_traffic.h"
#include "bpf_acl_tables.h"
#include "privileges.h"
#include "unique_fd.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace sampling
{
namespace
{

constexpr std::size_t least_frame = 64;
constexpr std::uint32_t slots = 3; // slot 0 is "no list"
constexpr std::uint32_t first_slot = 1;
constexpr std::uint32_t second_slot = 2;

std::uint64_t wanted_pairs()
{
    const char *const text = std::getenv("SFLOW_ACL_PAIRS");
    return text == nullptr ? 100'000 : std::strtoull(text, nullptr, 10);
}

/// The probe program with two lists that can be exchanged.
class Probe
{
public:
    Probe() : skeleton_(acl_probe_bpf__open())
    {
        const UniqueFd pattern = make_acl_table_map();
        if (!skeleton_ || bpf_map__set_inner_map_fd(skeleton_->maps.acl_tables, pattern.get()) != 0 ||
            bpf_map__set_max_entries(skeleton_->maps.acl_tables, slots) != 0 ||
            acl_probe_bpf__load(skeleton_.get()) != 0)
            throw std::runtime_error(std::string("probe program: ") + std::strerror(errno));
        for (const std::uint32_t slot : {first_slot, second_slot}) {
            UniqueFd &table = tables_[slot];
            table = make_acl_table_map();
            const int fd = table.get();
            if (!table ||
                bpf_map_update_elem(bpf_map__fd(skeleton_->maps.acl_tables), &slot, &fd, BPF_ANY) != 0)
                throw std::runtime_error(std::string("probe table: ") + std::strerror(errno));
        }
    }

    /// Changes the table in place: nobody else reads it here.
    void install(std::uint32_t slot, const acl::List &list) const
    {
        const std::uint32_t zero = 0;
        const auto table = compile(list);
        if (bpf_map_update_elem(tables_[slot].get(), &zero, table.get(), BPF_ANY) != 0)
            throw std::runtime_error(std::string("table: ") + std::strerror(errno));
    }

    [[nodiscard]] bool permits(const Traffic &traffic, std::uint32_t one, std::uint32_t other = 0) const
    {
        // The kernel refuses to run on a cut IP header: the probe cuts the frame itself.
        std::vector<std::uint8_t> frame = traffic.frame;
        frame.resize(std::max(frame.size(), least_frame));
        __sk_buff context = {};
        context.cb[0] = one;
        context.cb[1] = other;
        context.cb[2] = traffic.tag_beside.value_or(0);
        context.cb[3] = static_cast<std::uint32_t>(traffic.frame.size());
        bpf_test_run_opts options = {};
        options.sz = sizeof(options);
        options.data_in = frame.data();
        options.data_size_in = static_cast<std::uint32_t>(frame.size());
        options.ctx_in = &context;
        options.ctx_size_in = sizeof(context);
        options.repeat = 1;
        if (bpf_prog_test_run_opts(bpf_program__fd(skeleton_->progs.acl_probe), &options) != 0 ||
            options.retval > 1)
            throw std::runtime_error(std::string("test run: ") + std::strerror(errno));
        return options.retval == 1;
    }

private:
    struct Deleter {
        void operator()(acl_probe_bpf *skeleton) const { acl_probe_bpf__destroy(skeleton); }
    };
    std::unique_ptr<acl_probe_bpf, Deleter> skeleton_;
    std::array<UniqueFd, slots> tables_;
};

class AclKernelTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const std::string missing = missing_capabilities(
            effective_capabilities(), {Capability::net_admin, Capability::bpf, Capability::perfmon});
        if (!missing.empty())
            GTEST_SKIP() << "needs " << missing;
    }
};
using Acl_match = AclKernelTest;

std::string text_of(const Traffic &traffic)
{
    std::string text = traffic.tag_beside ? "tag beside, " : "";
    for (const std::uint8_t byte : traffic.frame) {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

/// Index of the entry that decides; 0 when none does.
std::size_t first_match(const acl::List &list, const Traffic &traffic)
{
    const auto fields = packet_fields(traffic.frame, traffic.tag_beside.has_value());
    if (!fields)
        return 0;
    const auto entry =
        std::find_if(list.entries.begin(), list.entries.end(),
                     [&](const acl::Entry &candidate) { return matches(candidate, list.family, *fields); });
    return entry == list.entries.end() ? 0 : static_cast<std::size_t>(entry - list.entries.begin());
}

bool plain(const acl::List &list, const Traffic &traffic)
{
    const auto fields = packet_fields(traffic.frame, traffic.tag_beside.has_value());
    return fields && permits(list, *fields);
}

TEST_F(Acl_match, kernel_and_plain_matcher_agree_on_random_lists_and_frames)
{
    constexpr std::uint64_t frames_a_list = 1000;
    const Probe probe;
    AclTraffic traffic(20240601);
    std::uint64_t permitted = 0;
    std::uint64_t pairs = 0;
    std::uint64_t long_lists = 0;
    std::uint64_t full_lists = 0;
    std::uint64_t beyond_the_first_word = 0;
    for (; pairs < wanted_pairs();) {
        traffic.renew();
        const acl::List list = traffic.list(traffic.family(), acl::MAX_ENTRIES);
        ASSERT_FALSE(acl::find_fault(list));
        long_lists += list.entries.size() > 64 ? 1 : 0;
        full_lists += list.entries.size() == acl::MAX_ENTRIES ? 1 : 0;
        probe.install(first_slot, list);
        for (std::uint64_t i = 0; i < frames_a_list; ++i, ++pairs) {
            const Traffic frame = traffic.frame();
            const bool expected = plain(list, frame);
            ASSERT_EQ(probe.permits(frame, first_slot), expected)
                << "pair " << pairs << ", list of " << list.entries.size() << " entries, " << text_of(frame);
            permitted += expected ? 1 : 0;
            beyond_the_first_word += first_match(list, frame) >= 64 ? 1 : 0;
        }
    }
    std::printf(
        "%llu pairs agree, %llu of them permitted, %llu lists with more than 64 entries, %llu of them full\n",
        static_cast<unsigned long long>(pairs), static_cast<unsigned long long>(permitted),
        static_cast<unsigned long long>(long_lists), static_cast<unsigned long long>(full_lists));
    const TrafficCounts &counts = traffic.counts();
    struct Row {
        const char *name;
        std::uint64_t count;
    };
    for (const Row &row : {Row{"permitted", permitted},
                           {"denied", pairs - permitted},
                           {"decided beyond the first word", beyond_the_first_word},
                           {"long lists", long_lists * 100},
                           {"IPv4", counts.ipv4},
                           {"IPv6", counts.ipv6},
                           {"ARP", counts.arp},
                           {"other EtherTypes", counts.other},
                           {"802.3", counts.length_field},
                           {"tags inside", counts.tags_inside},
                           {"tags beside", counts.tags_beside},
                           {"three tags", counts.three_tags},
                           {"IP options", counts.options},
                           {"extension headers", counts.extensions},
                           {"too many extension headers", counts.too_many_extensions},
                           {"first fragments", counts.first_fragments},
                           {"later fragments", counts.later_fragments},
                           {"cut frames", counts.cut},
                           {"malformed headers", counts.malformed}})
        EXPECT_GT(row.count, pairs / 1000) << row.name;
    if (pairs >= 100'000)
        EXPECT_GT(full_lists, 0U);
}

TEST_F(Acl_match, two_lists_permit_what_either_permits)
{
    const Probe probe;
    AclTraffic traffic(7);
    std::uint64_t only_one = 0;
    for (int round = 0; round < 20; ++round) {
        traffic.renew();
        const std::size_t most = round % 2 == 0 ? 20 : acl::MAX_ENTRIES;
        const acl::List one = traffic.list(traffic.family(), most);
        const acl::List other = traffic.list(traffic.family(), most);
        probe.install(first_slot, one);
        probe.install(second_slot, other);
        for (int i = 0; i < 500; ++i) {
            const Traffic frame = traffic.frame();
            const bool first = plain(one, frame);
            const bool second = plain(other, frame);
            ASSERT_EQ(probe.permits(frame, first_slot, second_slot), first || second) << text_of(frame);
            ASSERT_EQ(probe.permits(frame, second_slot, first_slot), first || second) << text_of(frame);
            only_one += first != second ? 1 : 0;
        }
    }
    EXPECT_GT(only_one, 1000U);
}

} // namespace
} // namespace sampling
