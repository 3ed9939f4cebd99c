# CLI service: the parser alone, then the service with the platform's other services replaced by doubles.
add_library(cli_sample STATIC cli_sample.cpp)
target_link_libraries(cli_sample PUBLIC cli_parse PRIVATE sflow_build_flags)
add_library(cli_parse_doubles STATIC cli_services_double.cpp)
target_link_libraries(cli_parse_doubles PUBLIC cli_sample platform_format PRIVATE sflow_build_flags)
sflow_unit_test(cli_matcher_test SOURCES cli_matcher_test.cpp LIBS cli_sample cli_parse_doubles)
sflow_unit_test(cli_interpreter_test SOURCES cli_interpreter_test.cpp LIBS cli_sample cli_parse_doubles)
sflow_unit_test(cli_config_test SOURCES cli_config_test.cpp LIBS cli_sample cli_parse_doubles)
sflow_unit_test(cli_reference_test SOURCES cli_reference_test.cpp LIBS cli_reference cli_sample cli_parse_doubles)
sflow_unit_test(cli_literals_test SOURCES cli_literals_test.cpp LIBS cli_parse)
sflow_unit_test(cli_protocol_test SOURCES cli_protocol_test.cpp LIBS cli_protocol)
add_library(cli_platform_double STATIC cli_platform_double.cpp)
target_link_libraries(cli_platform_double PUBLIC sflow_include PRIVATE sflow_build_flags)
# The redundancy service, where it is not the real one.
add_library(cli_rdnd_double STATIC cli_rdnd_double.cpp)
target_link_libraries(cli_rdnd_double PUBLIC sflow_include PRIVATE sflow_build_flags)
sflow_unit_test(cli_config_file_test SOURCES cli_config_file_test.cpp LIBS platform_cli cli_platform_double cli_rdnd_double
                LINK_OPTIONS -Wl,--wrap=write -Wl,--wrap=fsync -Wl,--wrap=rename)
sflow_unit_test(cli_console_test SOURCES cli_console_test.cpp
                LIBS cli_sample platform_cli cli_platform_double cli_rdnd_double)
sflow_unit_test(cli_mirror_test SOURCES cli_mirror_test.cpp
                LIBS cli_sample platform_cli cli_platform_double cli_rdnd_double)
sflow_unit_test(cli_session_test SOURCES cli_session_test.cpp
                LIBS cli_sample platform_cli cli_platform_double cli_rdnd_double)
sflow_unit_test(cli_server_test SOURCES cli_server_test.cpp
                LIBS cli_sample platform_cli cli_platform_double cli_rdnd_double sflow_shell)
sflow_unit_test(cli_service_test SOURCES cli_service_test.cpp
                LIBS cli_sample platform_cli cli_platform_double cli_rdnd_double sflow_shell)
sflow_unit_test(cli_json_test SOURCES cli_json_test.cpp LIBS sflow_shell)
sflow_unit_test(cli_history_test SOURCES cli_history_test.cpp LIBS sflow_shell)
sflow_unit_test(cli_shell_test SOURCES cli_shell_test.cpp LIBS sflow_shell)
