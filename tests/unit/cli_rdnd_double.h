// The redundancy service as the CLI service sees it.
#pragma once

#include "platform/rdnd.h"

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace rdnd_double
{

struct State {
    rdnd_role role = RDND_ROLE_NONE;
    bool registers = true;
    int enqueue_result = RDND_ENQUEUE_OK;
    rdnd_handler_t handler = nullptr;
    void *arg = nullptr;
    std::string name; ///< of the registration
    std::vector<std::string> messages;
    std::vector<rdnd_notify> completions;
};

/// Guards `state` where a test lets the service run on a thread of its own.
extern std::mutex lock;
extern State state;

void reset();
/// Calls the registered handler; its answer.
int deliver(RDND_EVENT event, std::string_view data = {});

} // namespace rdnd_double
