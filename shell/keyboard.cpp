#include "keyboard.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

namespace shell
{
namespace
{

/// The terminal hands on single keys, the interrupt key included, and shows none.
class SingleKeys
{
public:
    explicit SingleKeys(int terminal) : terminal_(terminal), set_(tcgetattr(terminal, &before_) == 0)
    {
        termios keys = before_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
        keys.c_cc[VMIN] = 1;
        keys.c_cc[VTIME] = 0;
        set_ = set_ && tcsetattr(terminal_, TCSANOW, &keys) == 0;
    }
    SingleKeys(const SingleKeys &) = delete;
    SingleKeys &operator=(const SingleKeys &) = delete;
    ~SingleKeys()
    {
        if (set_)
            tcsetattr(terminal_, TCSANOW, &before_);
    }

private:
    int terminal_;
    termios before_{};
    bool set_;
};

} // namespace

char read_key(int input, Client &client)
{
    const SingleKeys keys(input);
    for (;;) {
        std::array<pollfd, 2> awaited{{{input, POLLIN, 0}, {client.read_ahead_descriptor(), POLLIN, 0}}};
        if (poll(awaited.data(), awaited.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            return '\0';
        }
        if (awaited[1].revents != 0)
            client.read_ahead();
        if (awaited[0].revents == 0)
            continue;
        char key = '\0';
        const ssize_t got = read(input, &key, 1);
        if (got == 1)
            return key;
        if (got == 0 || errno != EINTR)
            return '\0';
    }
}

Interrupts::Interrupts()
{
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, &before_);
    signals_ = cli::Descriptor(signalfd(-1, &interrupt, SFD_CLOEXEC | SFD_NONBLOCK));
}

Interrupts::~Interrupts()
{
    drain();
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void Interrupts::drain() const
{
    signalfd_siginfo signal{};
    while (signals_ && read(signals_.get(), &signal, sizeof signal) > 0) {
    }
}

} // namespace shell
