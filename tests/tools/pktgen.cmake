add_executable(pktgen pktgen.cpp)
target_link_libraries(pktgen PRIVATE sflow_build_flags Threads::Threads)
