# Published access lists.
sflow_fuzz_target(acl_list_fuzz SOURCES acl_list_fuzz.cpp LIBS platform_acl_list z)
