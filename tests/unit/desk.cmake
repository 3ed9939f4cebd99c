# The operator's desk: the daemon's modules and the Linux edition's services on one thread, netlink and log left out.
add_library(desk STATIC desk.cpp desk_network.cpp desk_sequences.cpp lsm_test_events.cpp)
target_link_libraries(desk PUBLIC sflow_app platform_cli platform_acl_service platform_tech_support platform_redundancy
                                  platform_cpu_placement platform_health_monitor platform_format platform_lsm
                      PRIVATE sflow_build_flags)
target_include_directories(desk PUBLIC ${PROJECT_SOURCE_DIR}/platform)
target_link_options(desk INTERFACE
    -Wl,--wrap=pthread_create
    -Wl,--wrap=_Z22kx_thread_insert_timerP16kx_thread_masterP11kx_thread_tPFiS2_EPvlPKc)
sflow_unit_test(desk_property_test SOURCES desk_property_test.cpp LIBS desk)
sflow_unit_test(desk_startup_test SOURCES desk_startup_test.cpp LIBS desk)
sflow_unit_test(desk_tech_test SOURCES desk_tech_test.cpp LIBS desk)
sflow_unit_test(desk_transcript_test SOURCES desk_transcript_test.cpp LIBS desk
                LINK_OPTIONS -Wl,--wrap=gethostname -Wl,--wrap=uname)
target_compile_definitions(desk_transcript_test PRIVATE SFLOW_TRANSCRIPTS="${PROJECT_SOURCE_DIR}/tests/transcripts")
