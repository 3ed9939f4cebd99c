#include "acl_compiler.h"

#include <algorithm>
#include <array>
#include <bit>
#include <span>
#include <vector>

namespace sampling
{

namespace
{

static_assert(acl::MAX_ENTRIES == SFLOW_ACL_ENTRIES);

using Entries = std::span<const acl::Entry>;

constexpr std::uint32_t port_not_asked_row = 0;
constexpr std::uint32_t port_absent_row = 1;
constexpr std::uint32_t first_port_row = 2;

/// Puts every entry for which `accepts(entry)` holds into the set.
template <typename Accepts>
void fill(sflow_acl_set &set, Entries entries, const Accepts &accepts)
{
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (accepts(entries[i]))
            set.word[i / 64] |= std::uint64_t{1} << i % 64;
    }
}

bool accepts_port(const std::optional<acl::Ports> &wanted, std::uint32_t port)
{
    return !wanted || (port >= wanted->first && port <= wanted->last) != wanted->inverted;
}

void fill_ports(std::span<std::uint16_t> port_row, std::span<sflow_acl_set> rows, Entries entries,
                std::optional<acl::Ports> acl::Entry::*ports)
{
    fill(rows[port_not_asked_row], entries, [](const acl::Entry &) { return true; });
    fill(rows[port_absent_row], entries, [ports](const acl::Entry &entry) { return !(entry.*ports); });
    port_row[SFLOW_ACL_PORT_NOT_ASKED] = port_not_asked_row;
    port_row[SFLOW_ACL_PORT_ABSENT] = port_absent_row;

    std::vector<std::uint32_t> begins = {0};
    for (const acl::Entry &entry : entries) {
        if (const auto &range = entry.*ports) {
            begins.push_back(range->first);
            begins.push_back(std::uint32_t{range->last} + 1);
        }
    }
    std::sort(begins.begin(), begins.end());
    begins.erase(std::unique(begins.begin(), begins.end()), begins.end());
    if (begins.back() != SFLOW_ACL_PORT_NOT_ASKED)
        begins.push_back(SFLOW_ACL_PORT_NOT_ASKED); // the end of the last range
    for (std::size_t i = 0; i + 1 < begins.size(); ++i) {
        const std::size_t row = first_port_row + i;
        fill(rows[row], entries,
             [ports, port = begins[i]](const acl::Entry &entry) { return accepts_port(entry.*ports, port); });
        std::fill(port_row.begin() + begins[i], port_row.begin() + begins[i + 1],
                  static_cast<std::uint16_t>(row));
    }
}

/// One byte of a packet, and what an entry demands of it.
struct ByteTest {
    struct Demand {
        std::uint8_t value = 0;
        std::uint8_t mask = 0; ///< 0: any byte will do
    };
    std::size_t offset;
    std::vector<Demand> demands; ///< one an entry
};

class ByteTests
{
public:
    explicit ByteTests(Entries entries) : entries_(entries) {}

    void add_address(std::size_t offset, std::size_t size, acl::Address acl::Entry::*address)
    {
        for (std::size_t i = 0; i < size; ++i)
            add(offset + i, [address, i](const acl::Entry &entry) {
                return ByteTest::Demand{(entry.*address).value[i], (entry.*address).mask[i]};
            });
    }
    void add_dscp()
    {
        add(SFLOW_ACL_KEY_DSCP, [](const acl::Entry &entry) {
            return entry.dscp ? ByteTest::Demand{*entry.dscp, 0xFF} : ByteTest::Demand{};
        });
    }
    void add_ether_type()
    {
        for (const int shift : {8, 0})
            add(SFLOW_ACL_KEY_ETHER_TYPE + (shift == 0 ? 1 : 0), [shift](const acl::Entry &entry) {
                return entry.ether_type
                           ? ByteTest::Demand{static_cast<std::uint8_t>(*entry.ether_type >> shift & 0xFF),
                                              0xFF}
                           : ByteTest::Demand{};
            });
    }

    /// Those that some entry needs.
    [[nodiscard]] std::vector<ByteTest> take() { return std::move(tests_); }

private:
    template <typename DemandOf>
    void add(std::size_t offset, const DemandOf &demand_of)
    {
        ByteTest test{.offset = offset, .demands = {}};
        for (const acl::Entry &entry : entries_)
            test.demands.push_back(demand_of(entry));
        if (std::any_of(test.demands.begin(), test.demands.end(),
                        [](const ByteTest::Demand &demand) { return demand.mask != 0; }))
            tests_.push_back(std::move(test));
    }

    Entries entries_;
    std::vector<ByteTest> tests_;
};

std::vector<ByteTest> byte_tests(const acl::List &list)
{
    const std::size_t size = acl::address_size(list.family);
    ByteTests tests(list.entries);
    switch (list.family) {
    case acl::Family::ipv4:
        tests.add_address(SFLOW_ACL_KEY_IPV4_SOURCE, size, &acl::Entry::source);
        tests.add_address(SFLOW_ACL_KEY_IPV4_DESTINATION, size, &acl::Entry::destination);
        tests.add_dscp();
        break;
    case acl::Family::ipv6:
        tests.add_address(SFLOW_ACL_KEY_IPV6_SOURCE, size, &acl::Entry::source);
        tests.add_address(SFLOW_ACL_KEY_IPV6_DESTINATION, size, &acl::Entry::destination);
        tests.add_dscp();
        break;
    case acl::Family::mac:
        tests.add_address(SFLOW_ACL_KEY_SOURCE_MAC, size, &acl::Entry::source);
        tests.add_address(SFLOW_ACL_KEY_DESTINATION_MAC, size, &acl::Entry::destination);
        tests.add_ether_type();
        break;
    }
    return tests.take();
}

/// The rows of a test, and how choosy it is: how many pairs of entries there are of which the one accepts the byte that
/// the other asks for. A test that tells many entries apart decides early, and those behind it are not needed.
struct Rows {
    std::array<sflow_acl_set, 256> sets{};
    std::size_t offset;
    std::uint64_t pairs = 0;

    explicit Rows(const ByteTest &test) : offset(test.offset)
    {
        for (std::size_t i = 0; i < test.demands.size(); ++i) {
            const ByteTest::Demand demand = test.demands[i];
            for (unsigned byte = 0; byte < sets.size(); ++byte) {
                if ((byte & demand.mask) == demand.value)
                    sets[byte].word[i / 64] |= std::uint64_t{1} << i % 64;
            }
        }
        for (const ByteTest::Demand demand : test.demands) {
            for (const std::uint64_t word : sets[demand.value].word)
                pairs += static_cast<std::uint64_t>(std::popcount(word));
        }
    }
};

void fill_bytes(sflow_acl_table &table, const std::vector<ByteTest> &tests)
{
    std::vector<std::unique_ptr<Rows>> all;
    all.reserve(tests.size());
    for (const ByteTest &test : tests)
        all.push_back(std::make_unique<Rows>(test));
    std::stable_sort(all.begin(), all.end(),
                     [](const auto &one, const auto &other) { return one->pairs < other->pairs; });
    for (const auto &rows : all) {
        table.offset[table.tests] = static_cast<std::uint8_t>(rows->offset);
        std::copy(rows->sets.begin(), rows->sets.end(), std::begin(table.bytes[table.tests]));
        ++table.tests;
    }
}

} // namespace

std::unique_ptr<sflow_acl_table> compile(const acl::List &list)
{
    const Entries entries(list.entries);
    auto table = std::make_unique<sflow_acl_table>();
    table->family = static_cast<std::uint32_t>(list.family);
    table->words = static_cast<std::uint32_t>((entries.size() + 63) / 64);
    fill(table->permit, entries, [](const acl::Entry &entry) { return entry.action == acl::Action::permit; });
    for (std::uint32_t protocol = 0; protocol < SFLOW_ACL_PROTOCOL_ROWS; ++protocol)
        fill(table->protocol[protocol], entries,
             [protocol](const acl::Entry &entry) { return !entry.protocol || *entry.protocol == protocol; });
    for (std::uint32_t row = 0; row < SFLOW_ACL_ESTABLISHED_ROWS; ++row)
        fill(table->established[row], entries, [row](const acl::Entry &entry) {
            return !entry.established || row != SFLOW_ACL_NOT_ESTABLISHED;
        });
    fill_ports(table->port_row[0], table->ports[0], entries, &acl::Entry::source_ports);
    fill_ports(table->port_row[1], table->ports[1], entries, &acl::Entry::destination_ports);
    fill_bytes(*table, byte_tests(list));
    return table;
}

} // namespace sampling
