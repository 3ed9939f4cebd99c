// What the tests of the sampling service put in the place of the kernel and of the daemon.
#pragma once

#include "acl_directory.h"
#include "backend.h"
#include "counter_keeper.h"
#include "event_loop.h"
#include "kernel_counters.h"
#include "log.h"
#include "records.h"
#include "sflow_counter_cache.h"
#include "unique_fd.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace sampling
{

/// Keeps log lines.
struct LogLines {
    std::vector<std::string> lines;
    Log log{true, [this](LogLevel, std::string_view line) { lines.emplace_back(line); }};

    [[nodiscard]] std::size_t containing(std::string_view text) const
    {
        return static_cast<std::size_t>(
            std::count_if(lines.begin(), lines.end(),
                          [text](const std::string &line) { return line.find(text) != std::string::npos; }));
    }
};

/// Records what it is asked, refuses on demand.
class FakeBackend final : public Backend
{
public:
    [[nodiscard]] std::string_view name() const override { return "fake"; }
    [[nodiscard]] std::uint32_t capacity() const override { return 0x2A; }
    [[nodiscard]] Answer start(SamplerKey key, SamplerSettings settings) override
    {
        const auto refusal = refusals.find(key);
        std::string call = "start " + text(key) + " " + std::to_string(settings.rate) + "/" +
                           std::to_string(settings.header_len);
        for (const std::int32_t id : settings.acls)
            call += id == 0 ? "" : " acl " + std::to_string(id);
        calls.push_back(call);
        return refusal == refusals.end() ? Answer::ok : refusal->second;
    }
    [[nodiscard]] bool install_acl(const acl::List &list) override
    {
        calls.push_back("install " + std::to_string(list.id) + " version " + std::to_string(list.version));
        return !refuse_acls;
    }
    void withhold_acl(std::int32_t id) override { calls.push_back("withhold " + std::to_string(id)); }
    void drop_acl(std::int32_t id) override { calls.push_back("drop " + std::to_string(id)); }
    void pause(SamplerKey key) override { calls.push_back("pause " + text(key)); }
    void remove(SamplerKey key) override { calls.push_back("remove " + text(key)); }
    void forget_interface(IFINDEX ifindex) override { calls.push_back("forget " + std::to_string(ifindex)); }
    void resume() override { ++resumed; }
    [[nodiscard]] SamplerTotals totals(SamplerKey) const override
    {
        return {.pool = 1000, .taken = 100, .dropped = 7};
    }

    /// The calls since the last time, one a line.
    std::vector<std::string> take_calls() { return std::exchange(calls, {}); }

    std::vector<std::string> calls;
    std::map<SamplerKey, Answer> refusals;
    bool refuse_acls = false;
    int resumed = 0;

private:
    static std::string text(SamplerKey key)
    {
        return std::to_string(key.ifindex) + " " + std::string(hook_name(key.hook));
    }
};

/// Has every list, but for those that it is told to refuse.
class FakeAcls final : public AclSource
{
public:
    [[nodiscard]] Answer use(std::int32_t id, std::string_view name) override
    {
        calls.push_back("use " + std::to_string(id) + " " + std::string(name));
        const auto refusal = refusals.find(id);
        return refusal == refusals.end() ? Answer::ok : refusal->second;
    }
    void keep_only(const std::set<std::int32_t> &ids) override { kept = ids; }

    std::vector<std::string> calls;
    std::map<std::int32_t, Answer> refusals;
    std::set<std::int32_t> kept;
};

/// Counters of invented interfaces.
class FakeCounters final : public CounterSource
{
public:
    [[nodiscard]] std::optional<rtnl_link_stats64> read_link(IFINDEX ifindex) override
    {
        ++single_reads;
        const auto found = links.find(ifindex);
        return found == links.end() ? std::nullopt : std::optional(found->second);
    }
    [[nodiscard]] LinkStats read_all_links() override
    {
        ++bulk_reads;
        return links;
    }
    [[nodiscard]] MacCounters read_mac(IFINDEX) override { return mac; }

    LinkStats links;
    MacCounters mac;
    int single_reads = 0;
    int bulk_reads = 0;
};

/// A folder that goes with its object; in memory where the machine has such a place.
class Folder
{
public:
    Folder()
    {
        const bool in_memory = std::filesystem::is_directory("/dev/shm");
        std::string name = (in_memory ? "/dev/shm/" : testing::TempDir()) + "sampling.XXXXXX";
        EXPECT_NE(::mkdtemp(name.data()), nullptr) << name;
        path_ = name;
    }
    ~Folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    [[nodiscard]] std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }
    [[nodiscard]] CounterOptions counter_options() const
    {
        CounterOptions options;
        options.state_path = file("state");
        options.cache_path = file(SFLOW_COUNTER_CACHE_NAME);
        return options;
    }

private:
    std::string path_;
};

/// Writes the daemon's cache file.
inline void write_cache(const std::string &path, const std::map<IFINDEX, FieldWords> &bases)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    for (const auto &[ifindex, words] : bases) {
        sflow_counter_node_t image = {};
        image.ifx = ifindex;
        put_words(image, words);
        file.write(reinterpret_cast<const char *>(&image), sizeof(image));
    }
}

/// Adds an update to a base as the daemon does: the largest value of a field makes the sum unknown.
inline void accumulate(FieldWords &base, const FieldWords &update)
{
    for (std::size_t i = 0; i < counter_field_count; ++i) {
        const std::uint64_t mask = counter_fields[i].mask();
        base[i] = update[i] == mask ? mask : (base[i] + update[i]) & mask;
    }
}

/// A connected pair of the sockets that the daemon and the service use.
struct SocketPair {
    UniqueFd service;
    UniqueFd daemon;

    SocketPair()
    {
        std::array<int, 2> fds = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()) == 0) {
            service.reset(fds[0]);
            daemon.reset(fds[1]);
        }
    }

    /// Sends one packet as the daemon.
    void send(Bytes packet) const
    {
        ASSERT_EQ(::send(daemon.get(), packet.data(), packet.size(), 0), static_cast<ssize_t>(packet.size()));
    }

    /// The next packet that the daemon would receive; empty when there is none.
    [[nodiscard]] std::vector<std::byte> receive() const
    {
        std::vector<std::byte> packet(4096);
        const ssize_t size = ::recv(daemon.get(), packet.data(), packet.size(), 0);
        packet.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
        return packet;
    }
};

/// All records that wait at the daemon's end.
struct ReceivedRecord {
    std::uint32_t type = 0;
    std::vector<std::byte> bytes;

    template <typename Record>
    [[nodiscard]] Record as() const
    {
        const auto record = decode<Record>(bytes);
        EXPECT_TRUE(record.has_value()) << "record of type " << type << " has " << bytes.size() << " bytes";
        return record.value_or(Record{});
    }
};

inline std::vector<ReceivedRecord> receive_all(const SocketPair &pair)
{
    std::vector<ReceivedRecord> records;
    for (std::vector<std::byte> packet = pair.receive(); !packet.empty(); packet = pair.receive()) {
        EXPECT_LE(packet.size(), static_cast<std::size_t>(SFLOW_MSG_MAX_LEN));
        Bytes rest(packet);
        while (const auto record = next_record(rest))
            records.push_back({.type = record->type, .bytes = {record->bytes.begin(), record->bytes.end()}});
        EXPECT_TRUE(rest.empty());
    }
    return records;
}

/// Serves what is ready until nothing is left to do at once.
inline void settle(EventLoop &loop)
{
    for (int round = 0; round < 64; ++round)
        loop.run_once(Clock::duration::zero());
}

inline sflow_spl_t setting(IFINDEX ifx, std::int32_t rate, std::int32_t direct, std::int32_t snoop = 0,
                           std::int32_t acl_id = 0, std::string_view acl_name = "")
{
    sflow_spl_t request = {};
    request.head = head_of<sflow_spl_t>(SFLOW_CMD_SET_SAMPLING_RATE);
    request.ifx = ifx;
    request.rate = rate;
    request.direct = direct;
    request.ifx_type = SFLOW_IFX_TYPE_PORT;
    request.acl_id = acl_id;
    acl_name.copy(request.acl_name, sizeof(request.acl_name));
    request.snoop = snoop;
    return request;
}

} // namespace sampling
