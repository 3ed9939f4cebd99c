// The shell for an operator at a terminal: line editing, history, Tab and `?`.
#pragma once

#include "client.h"

namespace shell
{

/// Reads and runs lines until the operator leaves or the session is lost.
/// @return exit status
int interact(Client &client);

} // namespace shell
