# Datagrams: every sample, setting and failure of a socket.
sflow_fuzz_target(receiver_fuzz
    SOURCES receiver_fuzz.cpp
    LIBS sflow_receiver sflow_sampler sflow_poller export_world export_syscalls)
