#pragma once

#include "grammar.h"
#include "running_config.h"

#include <string>

namespace services
{

struct State {
    std::string printed;
    bool failed = false;
    cli::RunningConfig config;
    const cli::Grammar *grammar = nullptr;
};

extern State state;

} // namespace services
