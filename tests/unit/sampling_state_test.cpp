#include "counter_state.h"

#include "identity.h"
#include "sampling_fakes.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace sampling
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using Slots = std::map<CounterSlot, RememberedCounters>;

constexpr std::size_t record_bytes = 560;

RememberedCounters remembered(const std::string &name, std::uint64_t packets)
{
    CounterLook look;
    look.origin = {.instance = 0x1122334455667788, .ifindex = 7};
    look.counters.link.rx_packets = packets;
    look.counters.mac.fcs_errors = 3;
    FieldWords base = {};
    for (std::size_t i = 0; i < base.size(); ++i)
        base[i] = 1000 + i;
    return {.memory = CounterMemory(name, look, base), .daemon = 99, .confirmed = true};
}

std::vector<std::string> names(const Slots &slots)
{
    std::vector<std::string> found;
    for (const auto &[slot, one] : slots)
        found.push_back(std::to_string(slot) + " " + one.memory.name() + " " +
                        std::to_string(one.memory.state().last.link.rx_packets));
    return found;
}

struct Kept {
    Folder folder;
    LogLines log;
    std::string path = folder.file("state");
    CounterStateFile file{log.log, path};
    Slots slots;

    void put(CounterSlot slot, const std::string &name, std::uint64_t packets)
    {
        slots.insert_or_assign(slot, remembered(name, packets));
        file.save({slot}, slots);
    }
    std::vector<std::string> loaded()
    {
        CounterStateFile again(log.log, path);
        return names(again.load());
    }
};

TEST(CounterStateFile_load, gives_back_every_part_of_a_memory)
{
    Kept kept;
    RememberedCounters one = remembered("eth0", 500);
    one.departed = true;
    kept.slots.insert_or_assign(4, one);
    kept.file.save({4}, kept.slots);
    CounterStateFile again(kept.log.log, kept.path);
    const Slots slots = again.load();
    ASSERT_EQ(slots.size(), 1U);
    const RememberedCounters &found = slots.at(4);
    const CounterMemory::State &state = found.memory.state();
    EXPECT_EQ(found.memory.name(), "eth0");
    EXPECT_EQ(found.daemon, 99U);
    EXPECT_TRUE(found.confirmed);
    EXPECT_TRUE(found.departed);
    EXPECT_EQ(state.origin, one.memory.origin());
    EXPECT_EQ(state.last.link.rx_packets, 500U);
    EXPECT_EQ(state.last.mac.fcs_errors, 3U);
    EXPECT_EQ(state.last.mac.deferred, std::nullopt);
    EXPECT_EQ(state.unicast, one.memory.state().unicast);
    EXPECT_EQ(state.base, one.memory.state().base);
}

TEST(CounterStateFile_load, without_a_file_knows_nothing_and_says_nothing)
{
    Kept kept;
    EXPECT_THAT(kept.loaded(), IsEmpty());
    EXPECT_THAT(kept.log.lines, IsEmpty());
}

TEST(CounterStateFile_load, the_last_record_of_a_slot_counts)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    kept.put(2, "eth1", 2);
    kept.put(1, "eth0", 3);
    EXPECT_THAT(kept.loaded(), ElementsAre("1 eth0 3", "2 eth1 2"));
    EXPECT_EQ(std::filesystem::file_size(kept.path), 3 * record_bytes);
}

TEST(CounterStateFile_load, of_a_file_cut_anywhere_gives_what_is_whole)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    kept.put(1, "eth0", 2);
    for (std::size_t length = 2 * record_bytes; length-- > 0;) {
        std::filesystem::resize_file(kept.path, length);
        EXPECT_THAT(kept.loaded(), length >= record_bytes
                                       ? testing::Matcher<std::vector<std::string>>(ElementsAre("1 eth0 1"))
                                       : IsEmpty())
            << length;
    }
}

TEST(CounterStateFile_load, leaves_out_damaged_records_and_says_how_many)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    kept.put(2, "eth1", 2);
    kept.put(3, "eth2", 3);
    std::fstream file(kept.path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(record_bytes + 100);
    file.put('\x55');
    file.close();
    EXPECT_THAT(kept.loaded(), ElementsAre("1 eth0 1", "3 eth2 3"));
    EXPECT_EQ(kept.log.containing("1 of 3 records are damaged"), 1U);
}

TEST(CounterStateFile_load, says_why_it_cannot_read)
{
    Kept kept;
    std::filesystem::create_directory(kept.path);
    EXPECT_THAT(kept.loaded(), IsEmpty());
    EXPECT_EQ(kept.log.containing("state file " + kept.path), 1U);
}

TEST(CounterStateFile_save, goes_on_behind_a_file_that_was_cut)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    kept.put(2, "eth1", 2);
    std::filesystem::resize_file(kept.path, record_bytes + 100);
    CounterStateFile again(kept.log.log, kept.path);
    Slots slots = again.load();
    slots.insert_or_assign(5, remembered("eth5", 5));
    again.save({5}, slots);
    EXPECT_THAT(kept.loaded(), ElementsAre("1 eth0 1", "5 eth5 5"));
}

TEST(CounterStateFile_save, writes_the_file_anew_before_it_grows_out_of_bounds)
{
    Kept kept;
    constexpr std::size_t most = 256 * 1024 + 2 * record_bytes;
    for (std::uint64_t i = 1; i <= 2000; ++i) {
        kept.put(1, "eth0", i);
        ASSERT_LE(std::filesystem::file_size(kept.path), most);
    }
    EXPECT_THAT(kept.loaded(), ElementsAre("1 eth0 2000"));
}

TEST(CounterStateFile_save, drops_slots_that_were_given_up)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    kept.put(2, "eth1", 2);
    kept.slots.erase(1);
    kept.file.outdated();
    kept.put(2, "eth1", 3);
    EXPECT_THAT(kept.loaded(), ElementsAre("2 eth1 3"));
}

TEST(CounterStateFile_save, makes_a_file_that_somebody_removed)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    kept.put(2, "eth1", 2);
    std::filesystem::remove(kept.path);
    kept.put(1, "eth0", 3);
    EXPECT_THAT(kept.loaded(), ElementsAre("1 eth0 3", "2 eth1 2"));
}

TEST(CounterStateFile_save, that_fails_is_said_once_and_heals)
{
    Kept kept;
    const std::string folder = kept.folder.file("later");
    CounterStateFile file(kept.log.log, folder + "/state");
    kept.slots.insert_or_assign(1, remembered("eth0", 1));
    file.save({1}, kept.slots);
    file.save({1}, kept.slots);
    EXPECT_EQ(kept.log.containing("cannot be written"), 1U);
    std::filesystem::create_directory(folder);
    file.save({1}, kept.slots);
    CounterStateFile again(kept.log.log, folder + "/state");
    EXPECT_THAT(names(again.load()), ElementsAre("1 eth0 1"));
}

TEST(CounterStateFile_save, on_a_full_disk_leaves_no_outdated_state)
{
    Kept kept;
    kept.put(1, "eth0", 1);
    // a limit on the size of files in the place of a full disk; SIGXFSZ is what exceeding it would raise
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {.rlim_cur = record_bytes / 2, .rlim_max = record_bytes / 2};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        kept.put(1, "eth0", 2);
        std::_Exit(kept.log.containing("cannot be written") == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(kept.loaded(), IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(kept.path + ".new"));
}

TEST(Identity, of_a_process_is_its_own)
{
    EXPECT_NE(boot_identity(), 0U);
    EXPECT_EQ(boot_identity(), boot_identity());
    const std::uint64_t own = process_identity(::getpid());
    EXPECT_NE(own, 0U);
    EXPECT_EQ(own, process_identity(::getpid()));
    EXPECT_NE(own, process_identity(1));
    EXPECT_EQ(process_identity(0x7FFFFFFF), 0U);
}

TEST(Identity, of_a_socket_is_that_of_its_file)
{
    const Folder folder;
    const std::string path = folder.file("socket");
    EXPECT_EQ(socket_identity(path), 0U);
    std::ofstream(path) << 1;
    const std::uint64_t first = socket_identity(path);
    EXPECT_NE(first, 0U);
    EXPECT_EQ(socket_identity(path), first);
    std::ofstream(folder.file("next")) << 2;
    std::filesystem::rename(folder.file("next"), path);
    EXPECT_NE(socket_identity(path), first);
}

} // namespace
} // namespace sampling
