// Hook for snooping: a packet socket on one interface whose filter is the sampling program.
//
// The filter sees every packet that the interface receives, before tc ingress and whatever its filters do with it,
// and the qdiscs of the interface stay as they are. It answers 0 for each packet: samples leave through the ring
// buffer like all others, so that pool and drops are counted in one place, and nothing is ever queued on the socket.
#pragma once

#include "sflow_types.h"
#include "unique_fd.h"

namespace sampling
{

/// Opens a packet socket for what interface `ifindex` receives, with the BPF socket filter `prog_fd`; the sampler
/// lives as long as the descriptor.
/// @return the socket, or an empty descriptor with the reason in errno
[[nodiscard]] UniqueFd open_snoop_socket(IFINDEX ifindex, int prog_fd);

} // namespace sampling
