// sflow-samplingd: the sampling service of the sFlow agent.
//
// One process, one thread, one event loop. Everything is owned by run(); what it throws is one line on standard error
// and status 1. SIGTERM, SIGINT and SIGHUP end it with status 0 after every hook has been removed.
#include "bpf_backend.h"
#include "event_loop.h"
#include "hook_claim.h"
#include "kernel_counters.h"
#include "links.h"
#include "log.h"
#include "options.h"
#include "replay_backend.h"
#include "service.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <system_error>

namespace
{

using namespace sampling;

// Of another service that samples in this namespace: that long it may take to end when it has just been killed.
constexpr std::chrono::seconds claim_patience{3};

/// Turns SIGTERM and SIGINT into the end of the event loop, and SIGHUP, with which a terminal takes its programs along,
/// unless whoever started the service has it ignored (nohup).
class StopSignals
{
public:
    StopSignals(EventLoop &loop, Log &log) : loop_(loop)
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        // a signal that is ignored would still arrive once it is blocked
        if (struct sigaction hangup = {};
            sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN)
            sigaddset(&signals, SIGHUP);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        fd_.reset(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
        if (!fd_)
            throw std::system_error(errno, std::generic_category(), "signals: signalfd");
        loop_.add(fd_.get(), EPOLLIN, [this, &log](std::uint32_t) {
            log.info("signal: asked to end, removing all hooks");
            loop_.stop();
        });
    }
    ~StopSignals() { loop_.remove(fd_.get()); }
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

private:
    EventLoop &loop_;
    UniqueFd fd_;
};

std::unique_ptr<Backend> make_backend(const Options &options, EventLoop &loop, Log &log, LinkTable &links,
                                      SampleSink &sink)
{
    if (options.backend == BackendKind::replay)
        return std::make_unique<ReplayBackend>(loop, log, links, sink, options.replay);
    return std::make_unique<BpfBackend>(loop, log, links, sink, options.bpf);
}

/// Only the backend that attaches hooks takes those of an earlier run away.
std::optional<HookClaim> claim_hooks(const Options &options, Log &log)
{
    if (options.backend != BackendKind::ebpf)
        return std::nullopt;
    std::optional<HookClaim> claim(std::in_place, HookClaim::service_name, claim_patience);
    if (!claim->held())
        log.warning("tc hooks: claim: the name is taken by another user, a second sflow-samplingd would "
                    "not be noticed");
    return claim;
}

void run(const Options &options, Log &log)
{
    EventLoop loop;
    const StopSignals signals(loop, log);
    const std::optional<HookClaim> claim = claim_hooks(options, log);
    LinkTable links(loop, log);
    KernelCounters counters(log);
    Service service(loop, log, links, counters, options.counters, options.socket_path, options.acl_directory,
                    [&](SampleSink &sink) { return make_backend(options, loop, log, links, sink); });
    log.info("sflow-samplingd " SFLOW_VERSION ": backend ",
             options.backend == BackendKind::replay ? "replay" : "ebpf", ", daemon ", options.socket_path,
             options.socket_path_assumed ? " (TMPDIR is not set)" : "");
    service.start();
    loop.run();
}

int serve(const Options &options)
{
    Log log(options.verbose);
    try {
        run(options, log);
        return EXIT_SUCCESS;
    } catch (const std::exception &error) {
        log.error(error.what());
        return EXIT_FAILURE;
    }
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const auto parsed =
            parse_options({argv + 1, argv + argc}, {.tmpdir = std::getenv("TMPDIR"),
                                                    .state_directory = std::getenv("STATE_DIRECTORY")});
        if (const auto *early = std::get_if<EarlyExit>(&parsed)) {
            std::fputs(early->text.c_str(), early->status == 0 ? stdout : stderr);
            return early->status;
        }
        // a log that nobody reads any more must not end the service with its hooks in place
        std::signal(SIGPIPE, SIG_IGN);
        return serve(std::get<Options>(parsed));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "sflow-samplingd: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
