// The redundancy service's commands: `show redundancy` and `redundancy force-switchover`.
#pragma once

namespace platform
{

/// Hooks them into the command line, when the service has its edition; again changes nothing. Any thread.
void add_redundancy_commands();

} // namespace platform
