// The platform's descriptor, by the name that the CLI service and the shell use.
#pragma once

#include "file/descriptor.h"

namespace cli
{

using platform::Descriptor;

} // namespace cli
