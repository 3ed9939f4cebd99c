// The file in which the counter memories outlive the service: a log of fixed-size records, the last one of each slot
// counts.
//
// A change costs one record appended, however many interfaces there are; when most of the file is superseded it is
// written anew beside the old one and renamed over it. Each record carries a checksum, so that whatever a killed
// process leaves is a whole state. The file is synchronised with the disk only when it is written anew: a power cut may
// cost the latest looks.
#pragma once

#include "counter_memory.h"
#include "log.h"
#include "unique_fd.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace sampling
{

/// Names a process of the daemon, nobody when 0.
using DaemonId = std::uint64_t;

/// One remembered interface.
struct RememberedCounters {
    CounterMemory memory;
    DaemonId daemon = 0;    ///< the one that was sent, or known to have, the memory's base
    bool confirmed = false; ///< it has shown the base in its cache file
    bool departed = false;  ///< the device has gone; the memory waits for another one of its name
};

/// Names a record's place; the highest are the newest.
using CounterSlot = std::uint32_t;

class CounterStateFile
{
public:
    CounterStateFile(Log &log, std::string path) : log_(log), path_(std::move(path)) {}

    /// What the file holds; nothing when there is none. An unreadable file, and records that are not whole, are logged
    /// and left out.
    [[nodiscard]] std::map<CounterSlot, RememberedCounters> load();

    /// Adds these slots' present contents. A failure is logged once and heals with the next save that succeeds.
    /// @param all  every slot, for writing the file anew
    void save(const std::vector<CounterSlot> &changed, const std::map<CounterSlot, RememberedCounters> &all);

    /// A slot has been given up: the next save writes the file anew.
    void outdated() { whole_ = false; }

    [[nodiscard]] const std::string &path() const { return path_; }

private:
    [[nodiscard]] bool append(const std::vector<CounterSlot> &changed,
                              const std::map<CounterSlot, RememberedCounters> &all);
    [[nodiscard]] bool rewrite(const std::map<CounterSlot, RememberedCounters> &all);
    void complain(std::string_view what, int error);

    Log &log_;
    std::string path_;
    UniqueFd file_;
    std::size_t size_ = 0;
    bool whole_ = false; ///< the file holds the latest state and ends with a whole record
    bool complained_ = false;
};

} // namespace sampling
