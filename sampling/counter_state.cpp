#include "counter_state.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace sampling
{

namespace
{

constexpr std::uint32_t record_magic = 0x53434d31; // changes with the layout
constexpr std::uint32_t confirmed_flag = 1;
constexpr std::uint32_t departed_flag = 2;
// A file below this is not worth writing anew; above it, when it is four times what it need be.
constexpr std::size_t least_rewrite_bytes = std::size_t{256} * 1024;
constexpr std::size_t slack = 4;
// Larger than any that this service writes: somebody else's.
constexpr std::size_t most_bytes = std::size_t{512} * 1024 * 1024;

struct StateRecord {
    std::uint32_t magic;
    CounterSlot slot;
    std::array<char, IF_NAMESIZE> name;
    std::uint64_t instance;
    IFINDEX ifindex;
    std::uint32_t flags;
    DaemonId daemon;
    std::uint64_t known_mac; ///< bit n: mac_counters[n] is known
    std::array<std::uint64_t, link_counters.size()> link;
    std::array<std::uint64_t, mac_counters.size()> mac;
    std::array<std::uint64_t, 2> unicast;
    FieldWords base;
    std::uint64_t checksum; ///< over everything in front of it
};
static_assert(sizeof(StateRecord) == 560 && std::has_unique_object_representations_v<StateRecord>);

/// FNV-1a.
std::uint64_t checksum_of(const StateRecord &record)
{
    std::array<unsigned char, offsetof(StateRecord, checksum)> bytes;
    std::memcpy(bytes.data(), &record, bytes.size());
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const unsigned char byte : bytes)
        hash = (hash ^ byte) * 0x100000001b3;
    return hash;
}

StateRecord encode(CounterSlot slot, const RememberedCounters &remembered)
{
    const CounterMemory::State &state = remembered.memory.state();
    StateRecord record = {};
    record.magic = record_magic;
    record.slot = slot;
    remembered.memory.name().copy(record.name.data(), record.name.size() - 1);
    record.instance = state.origin.instance;
    record.ifindex = state.origin.ifindex;
    record.flags = (remembered.confirmed ? confirmed_flag : 0) | (remembered.departed ? departed_flag : 0);
    record.daemon = remembered.daemon;
    for (std::size_t i = 0; i < link_counters.size(); ++i)
        record.link[i] = state.last.link.*link_counters[i];
    for (std::size_t i = 0; i < mac_counters.size(); ++i) {
        if (const MacCounters::Value &value = state.last.mac.*mac_counters[i]) {
            record.known_mac |= std::uint64_t{1} << i;
            record.mac[i] = *value;
        }
    }
    record.unicast = state.unicast;
    record.base = state.base;
    record.checksum = checksum_of(record);
    return record;
}

RememberedCounters decode(const StateRecord &record)
{
    CounterMemory::State state;
    state.origin = {.instance = record.instance, .ifindex = record.ifindex};
    for (std::size_t i = 0; i < link_counters.size(); ++i)
        state.last.link.*link_counters[i] = record.link[i];
    for (std::size_t i = 0; i < mac_counters.size(); ++i) {
        if ((record.known_mac >> i & 1) != 0)
            state.last.mac.*mac_counters[i] = record.mac[i];
    }
    state.unicast = record.unicast;
    state.base = record.base;
    return {.memory =
                CounterMemory({record.name.data(), strnlen(record.name.data(), record.name.size())}, state),
            .daemon = record.daemon,
            .confirmed = (record.flags & confirmed_flag) != 0,
            .departed = (record.flags & departed_flag) != 0};
}

bool is_whole(const StateRecord &record)
{
    return record.magic == record_magic && record.checksum == checksum_of(record);
}

/// False with errno set; a file that took only a part counts as full.
bool write_all(int fd, const std::vector<StateRecord> &records)
{
    const std::size_t bytes = records.size() * sizeof(StateRecord);
    const ssize_t written = ::write(fd, records.data(), bytes);
    if (written >= 0 && static_cast<std::size_t>(written) < bytes)
        errno = ENOSPC;
    return written >= 0 && static_cast<std::size_t>(written) == bytes;
}

} // namespace

void CounterStateFile::complain(std::string_view what, int error)
{
    if (!std::exchange(complained_, true))
        log_.warning("counters: state file ", path_, ": ", what, ": ", error_text(error),
                     ", counters may fall back when this service is restarted");
}

std::map<CounterSlot, RememberedCounters> CounterStateFile::load()
{
    std::map<CounterSlot, RememberedCounters> slots;
    const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        if (errno != ENOENT)
            complain("cannot be read", errno);
        return slots;
    }
    if (!S_ISREG(status.st_mode) || static_cast<std::size_t>(status.st_size) > most_bytes) {
        complain("is not the service's", EINVAL);
        return slots;
    }
    std::vector<StateRecord> records(static_cast<std::size_t>(status.st_size) / sizeof(StateRecord));
    std::size_t got = 0;
    while (got < records.size() * sizeof(StateRecord)) {
        const ssize_t size = ::read(file.get(), reinterpret_cast<char *>(records.data()) + got,
                                    records.size() * sizeof(StateRecord) - got);
        if (size < 0) {
            complain("cannot be read", errno);
            return slots;
        }
        if (size == 0)
            break;
        got += static_cast<std::size_t>(size);
    }
    records.resize(got / sizeof(StateRecord));
    std::size_t damaged = 0;
    for (const StateRecord &record : records) {
        if (is_whole(record))
            slots.insert_or_assign(record.slot, decode(record));
        else
            ++damaged;
    }
    if (damaged != 0)
        log_.warning("counters: state file ", path_, ": ", damaged, " of ", records.size(),
                     " records are damaged and left out");
    return slots;
}

bool CounterStateFile::append(const std::vector<CounterSlot> &changed,
                              const std::map<CounterSlot, RememberedCounters> &all)
{
    struct stat status = {};
    const std::size_t needed = all.size() * sizeof(StateRecord);
    if (!whole_ || size_ > std::max(least_rewrite_bytes, slack * needed) ||
        ::fstat(file_.get(), &status) != 0 || status.st_nlink == 0 ||
        static_cast<std::size_t>(status.st_size) != size_)
        return false;
    std::vector<StateRecord> records;
    records.reserve(changed.size());
    for (const CounterSlot slot : changed)
        records.push_back(encode(slot, all.at(slot)));
    whole_ = write_all(file_.get(), records);
    size_ += records.size() * sizeof(StateRecord);
    return whole_;
}

bool CounterStateFile::rewrite(const std::map<CounterSlot, RememberedCounters> &all)
{
    whole_ = false;
    const std::string fresh = path_ + ".new";
    UniqueFd file(
        ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) {
        complain("cannot be written", errno);
        return false;
    }
    std::vector<StateRecord> records;
    records.reserve(all.size());
    for (const auto &[slot, remembered] : all)
        records.push_back(encode(slot, remembered));
    if (!write_all(file.get(), records) || ::fdatasync(file.get()) != 0 ||
        ::rename(fresh.c_str(), path_.c_str()) != 0) {
        complain("cannot be written", errno);
        ::unlink(fresh.c_str());
        ::unlink(path_.c_str()); // an outdated state would be worse than none
        return false;
    }
    file_ = std::move(file);
    size_ = records.size() * sizeof(StateRecord);
    whole_ = true;
    return true;
}

void CounterStateFile::save(const std::vector<CounterSlot> &changed,
                            const std::map<CounterSlot, RememberedCounters> &all)
{
    if (!changed.empty() && (append(changed, all) || rewrite(all)))
        complained_ = false;
}

} // namespace sampling
