sflow_unit_test(lsm_test
    SOURCES
        lsm_event_test.cpp
        lsm_model_test.cpp
        lsm_netlink_test.cpp
        lsm_query_test.cpp
        lsm_store_test.cpp
        lsm_test_events.cpp
    LIBS
        platform_lsm PkgConfig::LSM_LIBNL)

# On its own: begins before the process's client has connected.
sflow_unit_test(lsm_agent_test
    SOURCES lsm_agent_test.cpp
    LIBS platform_lsm PkgConfig::LSM_LIBNL
    LINK_OPTIONS -Wl,--wrap=nl_recvmsgs_default -Wl,--wrap=nanosleep)
