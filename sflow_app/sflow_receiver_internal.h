// What the files of module sflow_receiver share among themselves.
#pragma once

#include "sflow_receiver.h"

#include <netinet/in.h>
#include <sys/socket.h>

union sflow_sockaddr_t {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

/// The socket address of `address` and `port` (host byte order), zero but for family, address and port.
sflow_sockaddr_t sflow_ipv4_sockaddr(const sfladdress_value_t *address, u_int16_t port);
sflow_sockaddr_t sflow_ipv6_sockaddr(const sfladdress_value_t *address, u_int16_t port);

/// Orders the two threads that change a receiver while `config_lock` is held for reading: the dispatcher,
/// which appends counters samples, and the CLI thread, whose running-configuration pass deletes a collector
/// of a vanished VRF. Whoever holds `config_lock` for writing excludes both. Nothing else is locked under it.
extern sflow_mutex_t sflow_receiver_lock;

void sflow_receiver_enter() SFLOW_ACQUIRE(sflow_receiver_lock);
void sflow_receiver_leave() SFLOW_RELEASE(sflow_receiver_lock);
