# Export modules: datagrams, collectors and their sockets, the flow sampler, the counter poller with its cache.
sflow_library(export_world SOURCES export_doubles.cpp LIBS fake_platform)

# System calls and allocations of whatever links this go through export_syscalls.cpp.
sflow_library(export_syscalls SOURCES export_syscalls.cpp)
foreach(call IN ITEMS socket setsockopt bind connect getsockname sendmsg close write pwrite ftruncate rename calloc _Znwm)
    target_link_options(export_syscalls INTERFACE -Wl,--wrap=${call})
endforeach()

foreach(topic IN ITEMS datagram receiver socket collector sampler poller cache file rdnd)
    sflow_unit_test(export_${topic}_test
        SOURCES export_${topic}_test.cpp
        LIBS sflow_receiver sflow_sampler sflow_poller export_world export_syscalls)
endforeach()
target_sources(export_file_test PRIVATE export_file_harm_test.cpp)
