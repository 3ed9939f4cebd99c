# The command line of the daemon: sflow_cli, sflow_dbg, sflow_tech_sup.

# The trees alone, with handlers and guards of the test's own.
sflow_unit_test(dcli_tree_test
    SOURCES
        dcli_tree_doubles.cpp
        dcli_tree_test.cpp
        dcli_tree_words_test.cpp
        ${PROJECT_SOURCE_DIR}/sflow_app/sflow_cli_tree_exec.cpp
        ${PROJECT_SOURCE_DIR}/sflow_app/sflow_cli_tree_global.cpp
        ${PROJECT_SOURCE_DIR}/sflow_app/sflow_cli_tree_interface.cpp
    LIBS
        sflow_include fake_platform)
target_include_directories(dcli_tree_test PRIVATE ${PROJECT_SOURCE_DIR}/sflow_app)

# The modules, with doubles in the place of the daemon's others.
sflow_unit_test(dcli_test
    SOURCES
        dcli_collector_test.cpp
        dcli_dbg_test.cpp
        dcli_doubles.cpp
        dcli_global_test.cpp
        dcli_interface_test.cpp
        dcli_show_test.cpp
        dcli_tech_test.cpp
        dcli_thread_test.cpp
        dcli_validity_test.cpp
    LIBS
        sflow_cli sflow_dbg sflow_tech_sup fake_platform
    LINK_OPTIONS
        -Wl,--wrap=sleep)

# The modules on the daemon's real others; threads that the daemon makes do not start.
sflow_unit_test(dcli_daemon_test
    SOURCES
        dcli_daemon_test.cpp
    LIBS
        sflow_app fake_platform
    LINK_OPTIONS
        -Wl,--wrap=pthread_create)

# Logging on the way of a sampled packet; counts what puts text together.
sflow_unit_test(flow_log_test
    SOURCES
        flow_log_test.cpp
    LIBS
        sflow_app fake_platform
    LINK_OPTIONS
        -Wl,--wrap=pthread_create -Wl,--wrap=snprintf -Wl,--wrap=vsnprintf -Wl,--wrap=strerror)
