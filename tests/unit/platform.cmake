# Platform services of the Linux edition.
sflow_unit_test(platform_thread_master_test SOURCES platform_thread_master_test.cpp LIBS platform_thread_master)
sflow_unit_test(platform_format_test SOURCES platform_format_test.cpp LIBS platform_format)
sflow_unit_test(platform_config_test SOURCES platform_config_test.cpp LIBS platform_config)
sflow_unit_test(platform_syslog_test SOURCES platform_syslog_test.cpp LIBS platform_syslog_client)
sflow_unit_test(platform_ham_test SOURCES platform_ham_test.cpp LIBS platform_health_monitor)
sflow_unit_test(platform_cpu_placement_test SOURCES platform_cpu_placement_test.cpp LIBS platform_cpu_placement)
sflow_unit_test(platform_rdnd_test SOURCES platform_rdnd_test.cpp rdnd_commands_double.cpp LIBS platform_redundancy)
sflow_unit_test(platform_acl_list_test SOURCES platform_acl_list_test.cpp LIBS platform_acl_list)
sflow_unit_test(platform_acl_test SOURCES platform_acl_test.cpp cli_platform_double.cpp cli_rdnd_double.cpp
                LIBS platform_acl_service)
sflow_unit_test(acl_lines_test SOURCES acl_lines_test.cpp LIBS platform_acl_lines)
sflow_unit_test(acl_commands_test SOURCES acl_commands_test.cpp cli_platform_double.cpp cli_rdnd_double.cpp
                LIBS platform_acl_service)
sflow_unit_test(platform_tech_test SOURCES platform_tech_test.cpp LIBS platform_tech_support)
target_compile_definitions(platform_config_test PRIVATE SFLOW_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
