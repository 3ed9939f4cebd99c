#include "daemon_cache.h"

#include "sflow_counter_cache.h"
#include "unique_fd.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace sampling
{

void DaemonCache::read()
{
    bases_.clear();
    const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
        return;
    std::vector<sflow_counter_node_t> images(256);
    for (;;) {
        const ssize_t size = ::read(file.get(), images.data(), images.size() * sizeof(images[0]));
        if (size <= 0)
            return;
        for (std::size_t i = 0; i < static_cast<std::size_t>(size) / sizeof(images[0]); ++i)
            bases_.try_emplace(images[i].ifx, words_of(images[i])); // of equal ones the daemon uses the first
    }
}

FieldWords DaemonCache::base(IFINDEX ifindex) const
{
    const auto found = bases_.find(ifindex);
    return found == bases_.end() ? FieldWords{} : found->second;
}

} // namespace sampling
