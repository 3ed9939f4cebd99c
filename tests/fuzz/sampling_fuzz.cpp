// The input is one packet of the daemon: it goes through the socket, the walk over its records and every command of the
// sampling service, with a backend, counters and access lists that are made up. Whatever it holds, the service must
// answer a sound setting afterwards.
#include "acl_frames.h"
#include "sampling_fakes.h"
#include "service.h"

#include <cstdlib>

namespace
{

using namespace sampling;

struct Rig {
    EventLoop loop;
    Log log{true, [](LogLevel, std::string_view) {}};
    LinkTable links{loop, log};
    FakeCounters counters;
    SocketPair pair;
    Folder folder;
    Service service{loop,
                    log,
                    links,
                    counters,
                    folder.counter_options(),
                    "/nonexistent/socket",
                    folder.file("acl"),
                    [](SampleSink &) { return std::make_unique<FakeBackend>(); }};

    Rig()
    {
        for (IFINDEX ifindex = 0; ifindex < 256; ++ifindex)
            counters.links[ifindex] = {};
        for (const std::int32_t id : {3, 4, 5}) {
            acl::List list = list_of(acl::Family::ipv4, {{.action = acl::Action::permit}}, id);
            list.name = id == 3 ? "web" : list.name;
            if (!acl::publish_list(folder.file("acl"), list).empty())
                std::abort();
        }
        service.adopt(std::move(pair.service));
    }

    void deliver(Bytes packet)
    {
        if (::send(pair.daemon.get(), packet.data(), packet.size(), 0) < 0)
            std::abort();
        for (int round = 0; round < 8; ++round)
            loop.run_once(Clock::duration::zero());
    }

    /// True when the answer to this setting is among what the service sent.
    bool answered(const sflow_spl_t &request)
    {
        bool found = false;
        for (std::vector<std::byte> packet = pair.receive(); !packet.empty(); packet = pair.receive()) {
            Bytes rest(packet);
            while (const auto record = next_record(rest)) {
                if (record->type != SFLOW_CMD_SET_SAMPLING_RATE_RET)
                    continue;
                const auto answer = decode<sflow_spl_ret_t>(record->bytes);
                found = found || (answer && answer->ifx == request.ifx && answer->ret == 0);
            }
            if (!rest.empty())
                std::abort();
        }
        return found;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Rig rig;
    if (size > 0 && size <= SFLOW_MSG_MAX_LEN)
        rig.deliver(std::as_bytes(std::span(data, size)));
    const sflow_spl_t request = setting(4711, 16, SFLOW_EGRESS);
    rig.deliver(bytes_of(request));
    if (!rig.answered(request))
        std::abort();
    // drops the settings that the input made
    rig.deliver(bytes_of(head_of<sflow_msg_head_t>(SFLOW_CMD_CONFIG_START)));
    return 0;
}
