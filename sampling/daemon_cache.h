// Reads the daemon's counter cache file: the bases that it adds to reports. A base that stands there has arrived for
// good, so the file serves as the acknowledgement that an update has none of.
#pragma once

#include "counters.h"

#include <string>
#include <unordered_map>

namespace sampling
{

class DaemonCache
{
public:
    explicit DaemonCache(std::string path) : path_(std::move(path)) {}

    /// Reads the whole file; one that cannot be read is as an empty one. The daemon may be writing meanwhile: an entry
    /// can be a mixture of its old and its new base, field by field.
    void read();
    /// Base of the interface as of the last read(); zero when the file has none.
    [[nodiscard]] FieldWords base(IFINDEX ifindex) const;

private:
    std::string path_;
    std::unordered_map<IFINDEX, FieldWords> bases_;
};

} // namespace sampling
