#include "snoop.h"

#include <arpa/inet.h>
#include <cerrno>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

namespace sampling
{

UniqueFd open_snoop_socket(IFINDEX ifindex, int prog_fd)
{
    // Protocol 0 receives nothing until bind(), by which time the filter is in place.
    UniqueFd socket(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
        return {};
    const int ignore_outgoing = 1;
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(ifindex);
    const bool done = ::setsockopt(socket.get(), SOL_SOCKET, SO_ATTACH_BPF, &prog_fd, sizeof(prog_fd)) == 0 &&
                      ::setsockopt(socket.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &ignore_outgoing,
                                   sizeof(ignore_outgoing)) == 0 &&
                      ::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    if (!done) {
        const int error = errno;
        socket.reset();
        errno = error;
        return {};
    }
    return socket;
}

} // namespace sampling
