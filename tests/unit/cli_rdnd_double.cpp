#include "cli_rdnd_double.h"

#include <cstring>

namespace rdnd_double
{

std::mutex lock;
State state;

void reset()
{
    const std::lock_guard guard(lock);
    state = {};
}

int deliver(RDND_EVENT event, std::string_view data)
{
    std::string name;
    std::string copy(data);
    rdnd_handler_t handler = nullptr;
    void *arg = nullptr;
    {
        const std::lock_guard guard(lock);
        name = state.name;
        handler = state.handler;
        arg = state.arg;
    }
    return handler == nullptr ? -1
                              : handler(name.data(), event, static_cast<int>(copy.size()), copy.data(), arg);
}

} // namespace rdnd_double

using rdnd_double::state;

rdnd_role rdnd_get_role()
{
    const std::lock_guard guard(rdnd_double::lock);
    return state.role;
}

int rdnd_callback_register(const char *name, unsigned long /*version*/, rdnd_handler_t handler, int /*flags*/,
                           void *arg)
{
    const std::lock_guard guard(rdnd_double::lock);
    if (!state.registers)
        return -1;
    state.name = name;
    state.handler = handler;
    state.arg = arg;
    return 0;
}

unsigned long rdnd_get_version(int data_len, const void *data_buf)
{
    unsigned long version = 0;
    if (data_len == static_cast<int>(sizeof(version)))
        std::memcpy(&version, data_buf, sizeof(version));
    return version;
}

int rdnd_chkpnt_enqueue(const char * /*name*/, int len, const void *data, int /*flags*/)
{
    const std::lock_guard guard(rdnd_double::lock);
    if (state.enqueue_result == RDND_ENQUEUE_OK)
        state.messages.emplace_back(static_cast<const char *>(data), static_cast<std::size_t>(len));
    return state.enqueue_result;
}

int rdnd_notify_completion(const char * /*name*/, rdnd_notify what)
{
    const std::lock_guard guard(rdnd_double::lock);
    state.completions.push_back(what);
    return 0;
}
