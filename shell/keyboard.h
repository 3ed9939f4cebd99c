// What an operator does at the keyboard while no line is being edited: keys for the pager, and the interrupt key.
#pragma once

#include "client.h"
#include "descriptor.h"

#include <csignal>

namespace shell
{

/// One key from the terminal on `input`, without its echo; the interrupt key is one too ('\x03'). What the daemon sends
/// is taken meanwhile.
/// @return '\0' at the end of input
[[nodiscard]] char read_key(int input, Client &client);

/// Turns SIGINT into bytes of a descriptor for as long as it lives; SIGINT then interrupts nothing else. One a process,
/// on its only thread.
class Interrupts
{
public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts &) = delete;
    Interrupts &operator=(const Interrupts &) = delete;

    /// Readable while an interrupt is pending; -1 when the system has no such descriptor to give.
    [[nodiscard]] int descriptor() const { return signals_.get(); }
    /// Takes what is pending.
    void drain() const;

private:
    sigset_t before_{};
    cli::Descriptor signals_;
};

} // namespace shell
