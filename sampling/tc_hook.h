// Attaching the samplers' programs to the tc hooks, and cleaning up after ourselves.
//
// A program sits on the clsact qdisc of its interface at one fixed priority and handle, in direct-action mode. The
// first priority is ours: a sampler must see a packet before a filter that drops or redirects it. Foreign filters
// are never touched. The qdisc is taken away only when this process made it and it holds nothing any more.
#pragma once

#include "backend.h"
#include "links.h"
#include "log.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_set>

namespace sampling
{

/// Priority and handle of every filter of this service.
constexpr std::uint32_t tc_priority = 1;
constexpr std::uint32_t tc_handle = 0x5f10;

/// The kernel's view of the qdiscs and filters of a hook, over one rtnetlink socket.
class TcControl
{
public:
    /// Throws std::runtime_error when there is no rtnetlink socket.
    explicit TcControl(Log &log);

    /// Puts program `prog_fd` on the hook (ingress or egress), in the place of a stale filter of ours.
    /// @return 0, or a negative errno with the reason in last_reason(); -EBUSY when a foreign filter has our place
    [[nodiscard]] int attach(SamplerKey key, int prog_fd);
    /// Takes our filter off the hook, and the qdisc when attach() made it and it is empty now. A hook or an interface
    /// that is no longer there counts as success.
    void detach(SamplerKey key);
    /// Whether our filter is on the hook; true also when the kernel does not tell.
    [[nodiscard]] bool has_hook(SamplerKey key);
    /// The interface, or its clsact, has gone: forgets what was made on it.
    void forget(IFINDEX ifindex);

    /// Removes the filters that an earlier instance left on any interface; returns how many.
    [[nodiscard]] int sweep();

    /// Tells whether this kernel has the clsact qdisc and BPF classifiers, by attaching `prog_fd` to the loopback
    /// interface and taking it off again; 0 or a negative errno.
    [[nodiscard]] int probe(int prog_fd, IFINDEX loopback);

    [[nodiscard]] const std::string &last_reason() const { return reason_; }

private:
    enum class Occupant { none, ours, foreign };

    [[nodiscard]] Occupant occupant(SamplerKey key);
    [[nodiscard]] int ensure_qdisc(IFINDEX ifindex);
    void remove_empty_qdisc(IFINDEX ifindex);
    [[nodiscard]] std::string qdisc_kind(IFINDEX ifindex);
    [[nodiscard]] bool has_filters(IFINDEX ifindex);

    Log &log_;
    NlSock socket_;
    std::unordered_set<IFINDEX> made_qdisc_; ///< interfaces whose clsact this process made
    std::string reason_;
};

/// What libbpf last said about a failure, for one-line reports; installs itself as libbpf's log. The kernel's own
/// words on a refused netlink request, which libbpf prints past its log, are taken in by `KernelWords`.
class LibbpfLog
{
public:
    /// Warnings and information of libbpf go to `log` at debug level.
    explicit LibbpfLog(Log &log);
    ~LibbpfLog();
    LibbpfLog(const LibbpfLog &) = delete;
    LibbpfLog &operator=(const LibbpfLog &) = delete;

    /// The last warning, without "libbpf: " and line end; empty when there was none since clear().
    [[nodiscard]] static const std::string &last_warning();
    static void clear();
};

/// While it lives, what C code prints to standard error is kept; then it is a line like libbpf's other ones: a warning
/// at debug level. libbpf prints the kernel's text for a refused netlink request there, whatever log it was given.
///
/// Puts another stream in the place of `stderr`, so no other thread may print meanwhile: the service has only one.
class KernelWords
{
public:
    KernelWords();
    ~KernelWords();
    KernelWords(const KernelWords &) = delete;
    KernelWords &operator=(const KernelWords &) = delete;

private:
    char *text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE *stream_ = nullptr; ///< null: out of memory, nothing is kept
    std::FILE *saved_ = nullptr;
};

} // namespace sampling
