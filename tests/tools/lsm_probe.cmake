add_executable(lsm_probe lsm_probe.cpp ${PROJECT_SOURCE_DIR}/tests/unit/lsm_test_events.cpp)
target_include_directories(lsm_probe PRIVATE ${PROJECT_SOURCE_DIR}/tests/unit)
target_link_libraries(lsm_probe PRIVATE sflow_build_flags platform_lsm PkgConfig::LSM_LIBNL)
target_link_options(lsm_probe PRIVATE -Wl,--wrap=nl_recvmsgs_default)
