// Debug listing: the show functions print to standard output, which is replaced by a memory file while they run.
//
// Standard output belongs to the whole process, so the replacement is at descriptor 1: what other threads print
// meanwhile is collected as well instead of being lost or torn. A daemon prints nothing else there.

#include "platform/tech.h"

#include "file/descriptor.h"
#include "lock/immortal.h"
#include "lock/mutex.h"
#include "tech_support/tech_registry.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace
{

using platform::Descriptor;
using platform::Mutex;
using platform::MutexLock;

/// Sends descriptor 1 into a memory file until it is destroyed.
class StdoutCapture
{
public:
    StdoutCapture()
        : memory_(memfd_create("debug-listing", MFD_CLOEXEC)),
          before_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        std::fflush(stdout);
        active_ = memory_.get() >= 0 && dup2(memory_.get(), STDOUT_FILENO) >= 0;
    }
    ~StdoutCapture() { restore(); }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    /// Ends the capture and hands over what was printed.
    void finish(const tech_sink_t &sink)
    {
        restore();
        std::array<char, 4096> block;
        off_t offset = 0;
        for (;;) {
            const ssize_t got = pread(memory_.get(), block.data(), block.size(), offset);
            if (got <= 0)
                return;
            sink({block.data(), static_cast<std::size_t>(got)});
            offset += got;
        }
    }

private:
    void restore()
    {
        if (!std::exchange(active_, false))
            return;
        std::fflush(stdout);
        if (before_.get() >= 0)
            dup2(before_.get(), STDOUT_FILENO);
        else
            close(STDOUT_FILENO); // the process was started without one
    }

    const Descriptor memory_;
    const Descriptor before_;
    bool active_ = false;
};

Mutex &capture_mutex()
{
    static const platform::Immortal<Mutex> mutex;
    return *mutex;
}

} // namespace

int sys_add_debug(const char *name, debug_element_type *table, debug_show_func_t show, int, int, int)
{
    if (name == nullptr || table == nullptr || show == nullptr)
        return -1;
    platform::tech_registry().set_listing({.name = name, .show = show});
    return 0;
}

void sys_show_debug(const tech_sink_t &sink)
{
    const MutexLock lock(capture_mutex());
    StdoutCapture capture;
    for (const platform::DebugListing &listing : platform::tech_registry().listings()) {
        listing.show();
        std::fflush(stdout);
    }
    capture.finish(sink);
}
