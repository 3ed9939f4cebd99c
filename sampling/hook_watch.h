// Tells when somebody else takes filters or qdiscs off an interface.
//
// Hooks belong to whoever has the rights: a network manager that sets an interface up anew, or an operator's
// `tc qdisc del`, takes ours along, and no packet would ever show it. The kernel tells of every filter and qdisc
// that goes, of our own doing as well. Works on one non-blocking rtnetlink socket on the event loop; changes nothing.
#pragma once

#include "event_loop.h"
#include "links.h"
#include "log.h"

#include <functional>
#include <map>

struct nl_msg;

namespace sampling
{

class HookWatch
{
public:
    /// Called for an interface from which something was taken, once for all that was taken in `settling` time.
    /// `qdisc_gone`: a clsact qdisc was among it. Interface 0 stands for all interfaces: notices were lost.
    using Handler = std::function<void(IFINDEX ifindex, bool qdisc_gone)>;

    /// Who takes a qdisc away often puts another one there in the next step, and would find its place taken by one that
    /// was put back too soon.
    static constexpr Clock::duration settling = std::chrono::seconds(1);

    /// Without notices of the kernel nothing is told, which is logged.
    HookWatch(EventLoop &loop, Log &log, Handler handler);
    ~HookWatch();
    HookWatch(const HookWatch &) = delete;
    HookWatch &operator=(const HookWatch &) = delete;

    /// Takes one message about qdiscs or filters.
    void take(nl_msg *message);

private:
    void read_notices();
    void note(IFINDEX ifindex, bool qdisc_gone);
    void tell();

    EventLoop &loop_;
    Log &log_;
    Handler handler_;
    NlSock socket_;
    std::map<IFINDEX, bool> noted_; ///< what has been taken since the last call of the handler
    EventLoop::TimerId timer_ = 0;
};

} // namespace sampling
