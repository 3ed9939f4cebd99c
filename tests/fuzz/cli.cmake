# Command lines and the line protocol.
sflow_fuzz_target(cli_fuzz SOURCES cli_fuzz.cpp
                  LIBS cli_sample platform_acl_service $<LINK_GROUP:RESCAN,platform_cli,cli_platform_double,cli_rdnd_double>)
target_include_directories(cli_fuzz PRIVATE ${PROJECT_SOURCE_DIR}/tests/unit)
