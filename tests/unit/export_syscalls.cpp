#include "export_syscalls.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using export_test::Kernel;
using export_test::Sent;

constexpr int FIRST_PLAYED_FD = 1000;

struct State {
    Kernel kernel = Kernel::played;
    bool recording = true;
    void (*watcher)(const std::uint8_t *, std::size_t) = nullptr;
    int next_fd = FIRST_PLAYED_FD;
    std::string local_address = "192.0.2.254";
    std::map<std::string, std::map<int, int>> failures; ///< by call and number: error
    std::map<std::string, int> numbers;
    std::vector<std::string> calls;
    std::vector<Sent> sent;
    std::vector<std::string> file_calls;
    int calls_to_live = 0; ///< 0: for ever
    std::size_t last_bytes = 0;
};

State &state()
{
    static State the_state;
    return the_state;
}

/// Set while failures are scripted: memory functions are called all the time, also by what happens in here.
bool scripted = false;
bool inside = false;

/// The error that this call must fail with, -1 for none.
int scripted_error(const char *name)
{
    if (!scripted || inside)
        return -1;
    inside = true;
    int error = -1;
    State &now = state();
    const auto of_name = now.failures.find(name);
    if (of_name != now.failures.end()) {
        const auto found = of_name->second.find(++now.numbers[name]);
        if (found != of_name->second.end())
            error = found->second;
    }
    inside = false;
    return error;
}

void record(std::string call)
{
    if (state().recording)
        state().calls.push_back(std::move(call));
}

std::string address_text(const sockaddr *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof(v4));
        inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
        return std::string(text) + ":" + std::to_string(ntohs(v4.sin_port));
    }
    sockaddr_in6 v6;
    std::memcpy(&v6, address, sizeof(v6));
    inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof(text));
    std::string result = "[" + std::string(text) + "]:" + std::to_string(ntohs(v6.sin6_port));
    if (v6.sin6_flowinfo != 0 || v6.sin6_scope_id != 0)
        result += " with flow or scope";
    return result;
}

/// Length of the structure against what was passed: a wrong one shows in the recorded call.
std::string address_text(const sockaddr *address, socklen_t len)
{
    const socklen_t right = address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    return address_text(address) + (len == right ? "" : " of " + std::to_string(len) + " bytes");
}

/// True when the process ends with this call, which changes a file.
bool is_last_call(const std::string &call)
{
    if (state().recording)
        state().file_calls.push_back(call);
    return state().calls_to_live > 0 && --state().calls_to_live == 0;
}

int failed(int error)
{
    errno = error;
    return -1;
}

bool is_real()
{
    return state().kernel == Kernel::real;
}

std::string option_text(int level, int name, const void *value, socklen_t len)
{
    int number = -1;
    if (len == sizeof(number))
        std::memcpy(&number, value, sizeof(number));
    if (level == SOL_SOCKET && name == SO_REUSEADDR)
        return "reuse=" + std::to_string(number);
    return "vrf " + std::to_string(level) + "/" + std::to_string(name) + "=" + std::to_string(number);
}

void note_datagram(const msghdr *message)
{
    const iovec &part = message->msg_iov[0];
    const auto *bytes = static_cast<const std::uint8_t *>(part.iov_base);
    if (!state().recording) {
        if (state().watcher != nullptr)
            state().watcher(bytes, part.iov_len);
        return;
    }
    record("sendmsg " + std::to_string(part.iov_len));
    state().sent.push_back(
        {address_text(static_cast<const sockaddr *>(message->msg_name), message->msg_namelen),
         std::vector<std::uint8_t>(bytes, bytes + part.iov_len)});
}

} // namespace

namespace export_test
{

void reset_syscalls(Kernel kernel)
{
    state() = {};
    state().kernel = kernel;
    scripted = false;
}

void fail_call(const std::string &name, int nth, int error)
{
    scripted = false;
    state().failures[name][state().numbers[name] + nth] = error;
    scripted = true;
}

void play_local_address(const std::string &address)
{
    state().local_address = address;
}

const std::vector<std::string> &socket_calls()
{
    return state().calls;
}

const std::vector<Sent> &sent()
{
    return state().sent;
}

const std::vector<std::string> &file_calls()
{
    return state().file_calls;
}

void end_process_at(int nth, std::size_t taken)
{
    state().calls_to_live = nth;
    state().last_bytes = taken;
}

void record_nothing()
{
    state().recording = false;
}

void watch_sent(void (*watcher)(const std::uint8_t *, std::size_t))
{
    state().watcher = watcher;
}

} // namespace export_test

extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int fd, int level, int name, const void *value, socklen_t len);
int __real_bind(int fd, const sockaddr *address, socklen_t len);
int __real_connect(int fd, const sockaddr *address, socklen_t len);
int __real_getsockname(int fd, sockaddr *address, socklen_t *len);
ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
int __real_close(int fd);
ssize_t __real_write(int fd, const void *bytes, std::size_t len);
ssize_t __real_pwrite(int fd, const void *bytes, std::size_t len, off_t offset);
int __real_ftruncate(int fd, off_t len);
int __real_rename(const char *from, const char *to);
void *__real_calloc(std::size_t number, std::size_t size);
void *__real__Znwm(std::size_t size);

int __wrap_socket(int domain, int type, int protocol)
{
    record(std::string("socket ") + (domain == AF_INET ? "inet" : "inet6") +
           (type == SOCK_DGRAM && protocol == 0 ? "" : " of a wrong type"));
    if (const int error = scripted_error("socket"); error >= 0)
        return failed(error);
    return is_real() ? __real_socket(domain, type, protocol) : state().next_fd++;
}

int __wrap_setsockopt(int fd, int level, int name, const void *value, socklen_t len)
{
    record(option_text(level, name, value, len));
    if (const int error = scripted_error("setsockopt"); error >= 0)
        return failed(error);
    return is_real() ? __real_setsockopt(fd, level, name, value, len) : 0;
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t len)
{
    record("bind " + address_text(address, len));
    if (const int error = scripted_error("bind"); error >= 0)
        return failed(error);
    return is_real() ? __real_bind(fd, address, len) : 0;
}

int __wrap_connect(int fd, const sockaddr *address, socklen_t len)
{
    record("connect " + address_text(address, len));
    if (const int error = scripted_error("connect"); error >= 0)
        return failed(error);
    return is_real() ? __real_connect(fd, address, len) : 0;
}

int __wrap_getsockname(int fd, sockaddr *address, socklen_t *len)
{
    record("getsockname");
    if (const int error = scripted_error("getsockname"); error >= 0)
        return failed(error);
    if (is_real())
        return __real_getsockname(fd, address, len);
    const std::string &text = state().local_address;
    if (text.find(':') == std::string::npos) {
        sockaddr_in v4 = {};
        v4.sin_family = AF_INET;
        inet_pton(AF_INET, text.c_str(), &v4.sin_addr);
        std::memcpy(address, &v4, sizeof(v4));
    } else {
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr);
        std::memcpy(address, &v6, sizeof(v6));
    }
    return 0;
}

ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags)
{
    note_datagram(message);
    const auto len = static_cast<ssize_t>(message->msg_iov[0].iov_len);
    if (const int error = scripted_error("sendmsg"); error >= 0)
        return error == 0 ? len - 1 : failed(error);
    return is_real() ? __real_sendmsg(fd, message, flags) : len;
}

int __wrap_close(int fd)
{
    if (fd < FIRST_PLAYED_FD && !is_real())
        return __real_close(fd);
    record("close");
    return is_real() ? __real_close(fd) : 0;
}

ssize_t __wrap_write(int fd, const void *bytes, std::size_t len)
{
    if (is_last_call("write " + std::to_string(len))) {
        __real_write(fd, bytes, std::min(len, state().last_bytes));
        _exit(export_test::ENDED_AT_CALL);
    }
    if (const int error = scripted_error("write"); error >= 0)
        return error == 0 ? __real_write(fd, bytes, len - 1) : failed(error);
    return __real_write(fd, bytes, len);
}

ssize_t __wrap_pwrite(int fd, const void *bytes, std::size_t len, off_t offset)
{
    if (is_last_call("pwrite " + std::to_string(len) + " at " + std::to_string(offset))) {
        __real_pwrite(fd, bytes, std::min(len, state().last_bytes), offset);
        _exit(export_test::ENDED_AT_CALL);
    }
    if (const int error = scripted_error("pwrite"); error >= 0)
        return error == 0 ? __real_pwrite(fd, bytes, len - 1, offset) : failed(error);
    return __real_pwrite(fd, bytes, len, offset);
}

int __wrap_ftruncate(int fd, off_t len)
{
    if (is_last_call("ftruncate " + std::to_string(len)))
        _exit(export_test::ENDED_AT_CALL);
    if (const int error = scripted_error("ftruncate"); error >= 0)
        return failed(error);
    return __real_ftruncate(fd, len);
}

int __wrap_rename(const char *from, const char *to)
{
    if (is_last_call("rename"))
        _exit(export_test::ENDED_AT_CALL);
    if (const int error = scripted_error("rename"); error >= 0)
        return failed(error);
    return __real_rename(from, to);
}

void *__wrap_calloc(std::size_t number, std::size_t size)
{
    return scripted_error("calloc") >= 0 ? nullptr : __real_calloc(number, size);
}

void *__wrap__Znwm(std::size_t size)
{
    if (scripted_error("new") >= 0)
        throw std::bad_alloc();
    return __real__Znwm(size);
}
}
