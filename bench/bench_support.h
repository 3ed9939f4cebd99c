// What the benchmarks of the daemon share: turns that are timed, and the sending half of their limit programs.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench
{

[[noreturn]] inline void fail(const char *what)
{
    std::perror(what);
    std::exit(1);
}

/// An open descriptor.
class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    [[nodiscard]] int get() const { return fd_; }
    void reset(int fd = -1)
    {
        const int old = std::exchange(fd_, fd);
        if (old != -1)
            close(old);
    }

private:
    int fd_;
};

/// A bound UDP socket on loopback with a small buffer that nobody reads: datagrams beyond it are dropped by the kernel.
class Sink
{
public:
    Sink() : fd_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto *any = reinterpret_cast<sockaddr *>(&address_);
        socklen_t len = sizeof(address_);
        const int small = 4096;
        if (fd_.get() < 0 || bind(fd_.get(), any, len) != 0 || getsockname(fd_.get(), any, &len) != 0 ||
            setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)) != 0)
            fail("sink");
    }
    [[nodiscard]] const sockaddr_in &address() const { return address_; }
    [[nodiscard]] unsigned port() const { return ntohs(address_.sin_port); }

private:
    Descriptor fd_;
    sockaddr_in address_ = {};
};

/// Sends one datagram with the system calls that a fresh, connected socket costs. `fd` is the socket of the datagram
/// before and becomes that of this one.
inline void send_on_fresh_socket(Descriptor &fd, const Sink &sink, std::span<char> datagram)
{
    fd.reset();
    fd.reset(socket(AF_INET, SOCK_DGRAM, 0));
    const int on = 1;
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    sockaddr_in collector = sink.address();
    auto *any_local = reinterpret_cast<sockaddr *>(&local);
    socklen_t len = sizeof(local);
    iovec part = {.iov_base = datagram.data(), .iov_len = datagram.size()};
    msghdr message = {};
    message.msg_name = &collector;
    message.msg_namelen = sizeof(collector);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd.get(), any_local, sizeof(local)) != 0 ||
        connect(fd.get(), reinterpret_cast<const sockaddr *>(&collector), sizeof(collector)) != 0 ||
        getsockname(fd.get(), any_local, &len) != 0 ||
        sendmsg(fd.get(), &message, 0) != static_cast<ssize_t>(datagram.size()))
        fail("limit program");
}

/// Processor time of the calling thread, in the kernel and out of it: what others do on the machine is not in it.
inline double thread_nanoseconds()
{
    timespec now = {};
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now) != 0)
        fail("clock_gettime");
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

template <typename Work>
double nanoseconds_of(Work work)
{
    const double start = thread_nanoseconds();
    work();
    return thread_nanoseconds() - start;
}

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace bench
